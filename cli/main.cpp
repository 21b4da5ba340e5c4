// zotdigest: the command line. Wires the subcommands and their options to
// the functions in commands.h and turns failures into exit statuses:
// 0 success, 1 a failed computation or output (module errors print their
// identifier and text), 2 a usage error or bad input, 130 Ctrl-C.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "cli/cli_errors.h"
#include "cli/commands.h"
#include "cli/interrupt_handler.h"
#include "quorix/messages.h"

namespace {

using namespace zotdigest::cli;

constexpr const char* kExamples = R"(Examples:
  seq 1 100000 | zotdigest build -o seq.zd          # numbers from a pipe
  zotdigest build data.npy --delta 200 --seed 7 -o data.zd
  zotdigest build matrix.npy --columns -o cols.zd   # one digest per column
  zotdigest build t.csv --column latency --by endpoint -o t.zd   # one per key
  zotdigest quantile t.zd 0.5 0.99 --label /api/users
  zotdigest summary data.zd
  zotdigest quantile data.zd 0.5 0.99 0.999
  zotdigest cdf data.zd -- -1.5 0 1.5 --json
  zotdigest quantile numbers.txt 0.5                # raw input, summarised on the fly
  zotdigest merge -o all.zd day1.zd day2.zd
  zotdigest info all.zd && zotdigest verify all.zd
  zotdigest plot all.zd                             # a histogram in the terminal

Exit status: 0 success, 1 failed computation or output, 2 usage error or
bad input (including damaged digest files), 130 interrupted by Ctrl-C.)";

constexpr const char* kInputHelp =
    "Numbers as text (blank- or line-separated, '#' comments), .npy (detected by its magic), "
    "raw binary with --dtype, or a CSV or TSV table (--column); a digest file made by 'build' "
    "or 'merge'; '-' is standard input";

// Options that say how numbers become a digest.
void addBuildOptions(CLI::App& sub, InputOptions& in) {
  sub.add_option("--delta", in.delta, "Compression parameter Delta (> 0)")->capture_default_str();
  sub.add_option("--seed", in.seed,
                 "Seed of the reproducible build: the same numbers, Delta and seed give the "
                 "same digest on any machine and thread count (every digest of a file: each "
                 "column's, each key's)")
      ->capture_default_str();
  sub.add_option("--threads", in.threads, "Worker threads at most (default: every core)")
      ->check(CLI::Range(1, 4096));
  sub.add_flag("--columns", in.columns,
               "One digest per column of a 1-D or 2-D .npy array, or of a table (every "
               "column, or those given with --column)");
  sub.add_option("--format", in.format,
                 "Input format: auto, text, npy, raw, csv or tsv (auto: .csv and .tsv files, "
                 "also gzip-compressed as .csv.gz and .tsv.gz, are tables)")
      ->capture_default_str();
  sub.add_option("--column", in.valueColumns,
                 "Table column of the values, by header name or 1-based number (repeat it "
                 "for one digest per column)");
  sub.add_option("--by", in.by,
                 "Table column of keys: one digest per key, labelled by it, in the byte order "
                 "of the keys");
  sub.add_option("--weight", in.weight,
                 "Table column of weights: non-negative integers, each value counts that "
                 "many times");
  sub.add_option("--delimiter", in.delimiter,
                 "Field delimiter of a table (default ',' and, for .tsv files, tab; 'tab' "
                 "or '\\t' for a tab)");
  sub.add_flag("--no-header", in.noHeader,
               "The table has no header line: columns are given by number");
  sub.add_option("--dtype", in.dtype,
                 "Element type of raw input: float64 float32 int8 uint8 int16 uint16 int32 "
                 "uint32 int64 uint64");
  sub.add_flag("-q,--quiet", in.quiet,
               "No progress line on standard error (it shows only when standard error is a "
               "terminal and the reading takes over half a second)");
}

void addOutputOptions(CLI::App& sub, OutputOptions& out) {
  sub.add_flag("--json", out.json, "Answer in JSON");
  sub.add_option("--precision", out.precision,
                 "Significant digits of text output (0: shortest exact form)")
      ->check(CLI::Range(0, 17))
      ->capture_default_str();
  sub.add_option("--digest", out.digest, "Only the digest with this 0-based index of the file");
  sub.add_option("--label", out.label, "Only the digest with this label (a key of a --by build)");
}

int fail(int status, const std::string& message) {
  std::cout.flush();
  std::cerr << "zotdigest: " << message << '\n';
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  installInterruptHandler();

  CLI::App app{
      "zotdigest: summarise large collections of numbers as t-digests and ask them "
      "for quantiles, cumulative probabilities and trimmed means.",
      "zotdigest"};
  app.footer(kExamples);
  app.require_subcommand(1);
  app.set_version_flag("--version", ZOTDIGEST_VERSION_TEXT);

  InputOptions in;
  OutputOptions out;
  std::string input;
  std::string output;
  std::vector<std::string> files;
  std::vector<double> values;
  bool byColumn = false;

  CLI::App* build = app.add_subcommand("build", "Summarise numbers into a digest file");
  build->add_option("inputs", in.paths, kInputHelp);
  build->add_option("-o,--output", output, "Digest file to write (replaced atomically)")
      ->required();
  build->add_option("--label", in.label, "Label stored with the digest");
  addBuildOptions(*build, in);
  build->footer(
      "Examples:\n  seq 1 1000 | zotdigest build -o seq.zd\n"
      "  zotdigest build a.txt b.txt --delta 50 -o ab.zd\n"
      "  zotdigest build big.f32 --dtype float32 --seed 1 -o big.zd\n"
      "  zotdigest build table.npy --columns -o columns.zd\n"
      "  zotdigest build t.csv.gz --column latency --by endpoint -o t.zd\n"
      "  zotdigest build t.tsv --column 2 --no-header --weight 3 -o w.zd");

  struct PointCommand {
    const char* name;
    const char* alias;
    const char* help;
    const char* values;
    const char* example;
    void (*run)(const InputOptions&, const OutputOptions&, const std::vector<double>&);
  };
  const PointCommand pointCommands[] = {
      {"quantile", "icdf", "Values at cumulative probabilities p (the inverse cdf)",
       "Probabilities p in [0, 1]", "zotdigest quantile data.zd 0.5 0.9 0.99", runQuantiles},
      {"cdf", "", "Cumulative probabilities at values x", "Values x",
       "zotdigest cdf data.zd -- -1 0 2.5", runCdf},
      {"trimmed-mean", "tmean", "Mean after cutting a fraction off each end",
       "Trim fractions in [0, 0.5)", "zotdigest trimmed-mean data.zd 0 0.01 0.1", runTrimmedMeans},
  };
  std::vector<std::pair<CLI::App*, const PointCommand*>> pointSubs;
  for (const PointCommand& c : pointCommands) {
    CLI::App* sub = app.add_subcommand(c.name, c.help);
    if (*c.alias != '\0') {
      sub->alias(c.alias);
    }
    sub->add_option("input", input, kInputHelp)->required();
    sub->add_option("values", values, c.values)->required();
    addBuildOptions(*sub, in);
    addOutputOptions(*sub, out);
    sub->footer(std::string("Example:\n  ") + c.example);
    pointSubs.emplace_back(sub, &c);
  }

  CLI::App* centroidsCmd = app.add_subcommand("centroids", "List the centroids (mean, count)");
  CLI::App* summary = app.add_subcommand(
      "summary",
      "Delta, data points, centroid count, min/max (first/last centroid mean), mean, "
      "p50 p90 p99 p99.9");
  for (CLI::App* sub : {centroidsCmd, summary}) {
    sub->add_option("inputs", in.paths, kInputHelp);
    addBuildOptions(*sub, in);
    addOutputOptions(*sub, out);
  }
  summary->footer("Examples:\n  zotdigest summary data.zd\n  seq 1 100 | zotdigest summary --json");

  CLI::App* merge = app.add_subcommand("merge", "Merge digest files into one digest file");
  merge->add_option("files", files, "Digest files")->required();
  merge->add_option("-o,--output", output, "Digest file to write (replaced atomically)")
      ->required();
  merge->add_flag("--by-column", byColumn,
                  "Merge digest i of every file into digest i (files of equal digest count)");
  merge->add_option("--label", in.label, "Label of the merged digest");
  merge->footer(
      "All digests of all files become one digest; they need equal Delta.\nExamples:\n"
      "  zotdigest merge -o all.zd day1.zd day2.zd day3.zd\n"
      "  zotdigest merge --by-column -o cols.zd cols-a.zd cols-b.zd");

  std::string kind = "cdf";
  bool terminal = false;
  CLI::App* plot = app.add_subcommand(
      "plot", "Draw the digests: a histogram of Unicode bars here, or a PNG with -o");
  plot->add_option("inputs", in.paths, kInputHelp);
  plot->add_option("-o,--output", output,
                   "PNG file to write (replaced atomically; drawn by the Python package with "
                   "matplotlib)");
  plot->add_flag("--terminal", terminal, "A histogram on standard output (the default)")
      ->excludes("--output");
  plot->add_option("--kind", kind, "PNG picture: cdf, density or quantile")->capture_default_str();
  addBuildOptions(*plot, in);
  plot->add_option("--digest", out.digest, "Only the digest with this 0-based index of the file");
  plot->footer(
      "Examples:\n  zotdigest plot data.zd\n  zotdigest plot data.zd -o data.png --kind density");

  CLI::App* info = app.add_subcommand("info", "Show a digest file's header and contents");
  CLI::App* verify = app.add_subcommand(
      "verify", "Check digest files completely, including a restore through the module");
  for (CLI::App* sub : {info, verify}) {
    sub->add_option("files", files, "Digest files")->required();
    addOutputOptions(*sub, out);
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }

  try {
    if (build->parsed()) {
      runBuild(in, output);
    }
    for (const auto& [sub, command] : pointSubs) {
      if (sub->parsed()) {
        in.paths = {input};
        command->run(in, out, values);
      }
    }
    if (centroidsCmd->parsed()) {
      runCentroids(in, out);
    } else if (summary->parsed()) {
      runSummary(in, out);
    } else if (merge->parsed()) {
      runMerge(files, output, byColumn, in.label);
    } else if (plot->parsed()) {
      runPlot(in, out, output, kind);
    } else if (info->parsed()) {
      runInfo(files, out);
    } else if (verify->parsed()) {
      return runVerify(files, out) ? kExitOk : kExitUsage;
    }
  } catch (const quorix::MsgIDException& e) {
    if (e.identifier() == "QUORIX:interrupt:Interrupted") {
      return fail(kExitInterrupted, "interrupted");
    }
    return fail(kExitFailure, e.identifier() + ": " + quorix::formatMessage(e.messageID()));
  } catch (const InputError& e) {
    return fail(kExitUsage, e.what());
  } catch (const OutputError& e) {
    return fail(kExitFailure, e.what());
  } catch (const std::bad_alloc&) {
    return fail(kExitFailure, "out of memory");
  } catch (const std::exception& e) {
    return fail(kExitFailure, e.what());
  }
  return kExitOk;
}
