// A progress line on standard error for builds that take a while.
//
// The line is for a person watching a terminal: it shows how many values
// have been read, the rate and the time elapsed, and is redrawn in place
// (carriage return, padded with blanks over the previous text). It stays
// silent for the first half second, so quick runs print nothing, and is
// redrawn at most a few times per second, so a fast input costs nothing.
// When the work ends it is finished with a newline; when the work fails it
// is wiped, so the error message starts on a clean line.
//
// Whether to show it at all is the caller's choice (wanted() gives the
// usual answer: standard error is a terminal and --quiet was not given);
// a disabled line does nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zotdigest::cli {

class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;

  // True when standard error is a terminal and `quiet` is false.
  static bool wanted(bool quiet) noexcept;

  // The clock starts now.
  explicit ProgressLine(bool enabled);
  // Wipes a line still on the screen (the work did not finish).
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Counts `values` more values read; redraws when the last drawing is old
  // enough. Called between chunks, from one thread.
  void advance(std::uint64_t values);
  // Draws the final count, rate and time and ends the line, if the line
  // was ever shown; nothing otherwise. Later calls do nothing.
  void finish();

 private:
  void draw(const std::string& text);

  bool enabled_;
  bool shown_ = false;
  bool finished_ = false;
  std::uint64_t values_ = 0;
  Clock::time_point start_;
  Clock::time_point lastDraw_;
  std::size_t drawnWidth_ = 0;  // characters of the text on screen
};

}  // namespace zotdigest::cli
