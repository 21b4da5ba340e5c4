#include "cli/picture.h"

#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "cli/cli_errors.h"
#include "cli/digest_ops.h"
#include "cli/output.h"

extern char** environ;

namespace zotdigest::cli {
namespace {

// U+2588 FULL BLOCK, then the left one-eighth to seven-eighths blocks.
constexpr std::string_view kFull = "\u2588";
constexpr std::string_view kEighths[] = {"",       "\u258f", "\u258e", "\u258d",
                                         "\u258c", "\u258b", "\u258a", "\u2589"};

std::string bar(double cells) {
  const auto eighths = static_cast<long>(std::lround(cells * 8));
  std::string text;
  for (long i = 0; i < eighths / 8; ++i) {
    text += kFull;
  }
  text += kEighths[eighths % 8];
  return text;
}

std::string padLeft(const std::string& s, std::size_t width) {
  return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

// The directories where the Python package may be, beside this program:
// a build tree's python/ and an installation's lib/python3/dist-packages.
std::string pythonPathBesideProgram() {
  std::error_code ec;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) {
    return "";
  }
  std::string path;
  for (const char* dir : {"../python", "../lib/python3/dist-packages"}) {
    const std::filesystem::path candidate = exe.parent_path() / dir;
    if (std::filesystem::exists(candidate / "zotdigest" / "__init__.py", ec)) {
      // Appended piecewise: g++ 12 at -O3 warns falsely (-Wrestrict) on "..." + string.
      path.append(path.empty() ? "" : ":").append(candidate.lexically_normal().string());
    }
  }
  return path;
}

}  // namespace

HistogramStyle terminalStyle() {
  HistogramStyle style;
  winsize size{};
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  if (terminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    style.columns = size.ws_col;
  } else if (const char* columns = std::getenv("COLUMNS")) {
    style.columns = static_cast<std::size_t>(std::max(0L, std::strtol(columns, nullptr, 10)));
  }
  style.columns = std::clamp<std::size_t>(style.columns == 0 ? 80 : style.columns, 40, 1000);
  style.colour = terminal && std::getenv("NO_COLOR") == nullptr;
  return style;
}

void printHistogram(std::ostream& out, const std::string& title, const quorix::HostArray& digest,
                    const HistogramStyle& style) {
  out << title << '\n';
  if (digestStats(digest).dataPoints == 0) {
    out << "  (no data)\n";
    return;
  }
  const std::vector<double> ends = quantiles(digest, {0.0, 1.0});
  const std::size_t rows = ends[0] < ends[1] ? style.rows : 1;
  std::vector<double> edges(rows + 1);
  for (std::size_t i = 0; i <= rows; ++i) {
    edges[i] = ends[0] + (ends[1] - ends[0]) * (static_cast<double>(i) / static_cast<double>(rows));
  }
  // The share of each bin: the cdf's rise across it, the range's ends
  // holding everything.
  std::vector<double> rise = cdf(digest, edges);
  rise.front() = 0.0;
  rise.back() = 1.0;
  std::vector<double> share(rows);
  std::vector<std::string> labels(rows);
  std::size_t labelWidth = 0;
  for (std::size_t i = 0; i < rows; ++i) {
    share[i] = std::max(0.0, rise[i + 1] - rise[i]);
    labels[i] = formatNumber(edges[i], 4);
    labelWidth = std::max(labelWidth, labels[i].size());
  }
  const double largest = *std::max_element(share.begin(), share.end());
  // label, " 100.0% │", the bar
  const std::size_t room = style.columns > labelWidth + 10 ? style.columns - labelWidth - 10 : 1;
  for (std::size_t i = 0; i < rows; ++i) {
    std::array<char, 16> percent{};
    std::snprintf(percent.data(), percent.size(), " %5.1f%% ", 100.0 * share[i]);
    const std::string cells = bar(largest > 0 ? share[i] / largest * static_cast<double>(room) : 0);
    out << padLeft(labels[i], labelWidth) << percent.data() << "\u2502"
        << (style.colour ? "\x1b[36m" + cells + "\x1b[0m" : cells) << '\n';
  }
  out << padLeft(formatNumber(edges.back(), 4), labelWidth) << std::string(8, ' ') << "\u2575\n";
}

void drawPng(const std::string& digestFile, const std::string& pngPath, const std::string& kind,
             const std::string& title) {
  static const char* const kPython = "/usr/bin/python3";
  const std::string code =
      "import sys\n"
      "try:\n"
      "    import zotdigest._plot as p\n"
      "except ImportError as e:\n"
      "    sys.exit(f'zotdigest: PNG pictures need the zotdigest Python package and '\n"
      "             f'matplotlib (python3-matplotlib): {e}')\n"
      "sys.exit(p._main(sys.argv[1:]))\n";
  std::vector<std::string> args = {kPython, "-c", code, digestFile, pngPath, kind, title};
  std::vector<char*> argv;
  for (std::string& a : args) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);

  std::vector<std::string> env;
  const std::string besides = pythonPathBesideProgram();
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "PYTHONPATH=", 11) != 0) {
      env.emplace_back(*e);
    }
  }
  const char* inherited = std::getenv("PYTHONPATH");
  std::string path = besides;
  if (inherited != nullptr && *inherited != '\0') {
    path.append(path.empty() ? "" : ":").append(inherited);
  }
  if (!path.empty()) {
    env.push_back("PYTHONPATH=" + path);
  }
  std::vector<char*> envp;
  for (std::string& e : env) {
    envp.push_back(e.data());
  }
  envp.push_back(nullptr);

  pid_t child = 0;
  const int rc = ::posix_spawn(&child, kPython, nullptr, nullptr, argv.data(), envp.data());
  if (rc != 0) {
    throw OutputError(std::string("cannot run ") + kPython +
                      " to draw the PNG: " + std::strerror(rc));
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      throw OutputError(std::string("waiting for ") + kPython + ": " + std::strerror(errno));
    }
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw OutputError("the PNG picture could not be drawn (see the message above)");
  }
}

}  // namespace zotdigest::cli
