#include "cli/progress.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

namespace zotdigest::cli {
namespace {

// Nothing for the first half second: a quick run stays quiet.
constexpr auto kFirstDraw = std::chrono::milliseconds(500);
// Then at most four drawings a second.
constexpr auto kRedraw = std::chrono::milliseconds(250);

double secondsBetween(ProgressLine::Clock::time_point from, ProgressLine::Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The rate needs a duration to divide by; right at the start there is none.
double rateOf(std::uint64_t values, double seconds) {
  return seconds > 0.0 ? static_cast<double>(values) / seconds : 0.0;
}

template <class... Args>
std::string printed(const char* format, Args... args) {
  std::array<char, 64> buf{};
  const int n = std::snprintf(buf.data(), buf.size(), format, args...);
  // snprintf counts what it would have written; only what fits is there.
  return std::string(buf.data(), std::min(n > 0 ? static_cast<std::size_t>(n) : 0, buf.size() - 1));
}

// "12,345,678".
std::string groupedCount(std::uint64_t value) {
  const std::string digits = std::to_string(value);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) {
      out += ',';
    }
    out += digits[i];
  }
  return out;
}

// "850", "12.3 k", "1.05 M": three significant digits and a decimal prefix.
std::string shortRate(double perSecond) {
  static constexpr std::array<const char*, 4> kPrefixes = {"", " k", " M", " G"};
  std::size_t k = 0;
  double v = perSecond;
  while (v >= 999.5 && k + 1 < kPrefixes.size()) {
    v /= 1000.0;
    ++k;
  }
  if (k == 0) {
    return printed("%.0f", v);
  }
  const char* format = v < 9.995 ? "%.2f%s" : v < 99.95 ? "%.1f%s" : "%.0f%s";
  return printed(format, v, kPrefixes[k]);
}

// "0.8 s", "42.1 s", "3:07", "1:02:03".
std::string shortDuration(double seconds) {
  if (seconds < 59.95) {
    return printed("%.1f s", seconds);
  }
  const auto whole = static_cast<std::uint64_t>(seconds + 0.5);
  const std::uint64_t h = whole / 3600;
  const std::uint64_t m = whole / 60 % 60;
  const std::uint64_t s = whole % 60;
  if (h == 0) {
    return printed("%llu:%02llu", static_cast<unsigned long long>(m),
                   static_cast<unsigned long long>(s));
  }
  return printed("%llu:%02llu:%02llu", static_cast<unsigned long long>(h),
                 static_cast<unsigned long long>(m), static_cast<unsigned long long>(s));
}

}  // namespace

bool ProgressLine::wanted(bool quiet) noexcept { return !quiet && ::isatty(STDERR_FILENO) == 1; }

ProgressLine::ProgressLine(bool enabled)
    : enabled_(enabled), start_(Clock::now()), lastDraw_(start_) {}

ProgressLine::~ProgressLine() {
  if (shown_ && !finished_) {
    const std::string blank(drawnWidth_, ' ');
    std::cerr << '\r' << blank << '\r' << std::flush;
  }
}

void ProgressLine::advance(std::uint64_t values) {
  values_ += values;
  if (!enabled_ || finished_) {
    return;
  }
  const Clock::time_point now = Clock::now();
  if (now - start_ < kFirstDraw || (shown_ && now - lastDraw_ < kRedraw)) {
    return;
  }
  lastDraw_ = now;
  const double elapsed = secondsBetween(start_, now);
  draw("zotdigest: " + groupedCount(values_) + " values read, " +
       shortRate(rateOf(values_, elapsed)) + " values/s, " + shortDuration(elapsed) + " elapsed");
}

void ProgressLine::finish() {
  if (!shown_ || finished_) {
    finished_ = true;
    return;
  }
  const double elapsed = secondsBetween(start_, Clock::now());
  draw("zotdigest: " + groupedCount(values_) + " values read in " + shortDuration(elapsed) + " (" +
       shortRate(rateOf(values_, elapsed)) + " values/s)");
  std::cerr << '\n' << std::flush;
  finished_ = true;
}

void ProgressLine::draw(const std::string& text) {
  // Blanks over whatever is left of a longer previous text; the whole line
  // goes out in one write, so it never shows half drawn.
  std::string line = '\r' + text;
  if (text.size() < drawnWidth_) {
    line.append(drawnWidth_ - text.size(), ' ');
  }
  std::cerr.write(line.data(), static_cast<std::streamsize>(line.size()));
  std::cerr.flush();
  drawnWidth_ = std::max(drawnWidth_, text.size());
  shown_ = true;
}

}  // namespace zotdigest::cli
