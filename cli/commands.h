// The tool's subcommands, one function each, given options already parsed.
// main wires the command line to these; they print to standard output and
// throw (InputError, OutputError, quorix::MsgIDException) on failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zotdigest::cli {

// Where numbers or digests come from.
struct InputOptions {
  std::vector<std::string> paths;  // "-" is standard input; none means "-"
  std::string format = "auto";     // auto, text, npy, raw
  std::string dtype;               // raw input's element type
  double delta = 100.0;
  std::uint32_t seed = 0;  // seed of the reproducible build
  unsigned threads = 0;    // 0: every core
  bool columns = false;    // one digest per column of .npy or table input
  std::string label;
  bool quiet = false;  // no progress line while numbers are read
  // Tables (CSV, TSV): the value columns, the key column (one digest per
  // key), the weight column, the delimiter ("" by the file's name) and
  // whether the first line is a header.
  std::vector<std::string> valueColumns;
  std::string by;
  std::string weight;
  std::string delimiter;
  bool noHeader = false;
};

struct OutputOptions {
  bool json = false;
  int precision = 10;                 // significant digits in text; 0 = shortest exact
  std::optional<std::size_t> digest;  // show only this digest (0-based)
  std::optional<std::string> label;   // show only the digest of this label
};

// build: numbers to a digest file at `outPath`.
void runBuild(const InputOptions& in, const std::string& outPath);
// Queries of a digest file, or of numbers summarised on the fly.
void runQuantiles(const InputOptions& in, const OutputOptions& out, const std::vector<double>& p);
void runCdf(const InputOptions& in, const OutputOptions& out, const std::vector<double>& x);
void runTrimmedMeans(const InputOptions& in, const OutputOptions& out,
                     const std::vector<double>& trims);
void runCentroids(const InputOptions& in, const OutputOptions& out);
void runSummary(const InputOptions& in, const OutputOptions& out);
// merge: digest files into one file, all into one digest or column by
// column.
void runMerge(const std::vector<std::string>& paths, const std::string& outPath, bool byColumn,
              const std::string& label);
// plot: pictures of the digests of an input (numbers are summarised on
// the fly): a histogram of Unicode bars on standard output when pngPath is
// empty, else a PNG of the kind "cdf", "density" or "quantile".
void runPlot(const InputOptions& in, const OutputOptions& out, const std::string& pngPath,
             const std::string& kind);
// info: header and contents of digest files.
void runInfo(const std::vector<std::string>& paths, const OutputOptions& out);
// verify: full check of digest files, including a restore and save
// through the module. Returns false (after reporting each problem on
// standard error) when any file fails.
bool runVerify(const std::vector<std::string>& paths, const OutputOptions& out);

}  // namespace zotdigest::cli
