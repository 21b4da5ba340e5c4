#include "cli/commands.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "cli/byte_source.h"
#include "cli/cli_errors.h"
#include "cli/digest_ops.h"
#include "cli/number_readers.h"
#include "cli/output.h"
#include "cli/picture.h"
#include "cli/progress.h"
#include "cli/table_build.h"
#include "engine/atomic_file.h"
#include "engine/digest_file.h"
#include "quorix/messages.h"

namespace zotdigest::cli {
namespace {

using engine::decodeDigestFile;
using engine::DigestFileError;
using engine::encodeDigestFile;
using engine::FileHeader;
using engine::hasDigestMagic;
using engine::kHeaderSize;
using engine::kMaxFileSize;
using engine::writeFileAtomically;
using quorix::HostArray;

// The quantiles every summary shows.
constexpr std::array<std::pair<const char*, double>, 4> kSummaryQuantiles = {{
    {"p50", 0.5},
    {"p90", 0.9},
    {"p99", 0.99},
    {"p99.9", 0.999},
}};

std::vector<std::string> pathsOrStdin(const std::vector<std::string>& paths) {
  return paths.empty() ? std::vector<std::string>{"-"} : paths;
}

// --- reading digest files ------------------------------------------------------

DigestFile readDigestFile(ByteSource& source) {
  const std::vector<std::byte> bytes = source.readAll(kMaxFileSize);
  try {
    return decodeDigestFile(bytes);
  } catch (const DigestFileError& e) {
    throw DigestFileError(e.code(), source.name() + ": " + e.what());
  }
}

DigestFile readDigestFile(const std::string& path) {
  ByteSource source(path);
  return readDigestFile(source);
}

void writeDigestFile(const std::string& path, const std::vector<Digest>& digests) {
  if (path == "-") {
    // A file is replaced atomically; a pipe cannot be.
    throw InputError("digest files are written to a named file, not to standard output");
  }
  std::vector<StoredDigest> stored;
  stored.reserve(digests.size());
  for (const Digest& d : digests) {
    stored.push_back(storeDigest(d));
  }
  writeFileAtomically(path, encodeDigestFile(stored));
}

// Restores every digest of a file. Digests of a file among several are
// shown under the file's name: "name", "name#i" or "name:label".
void restoreInto(std::vector<Digest>& digests, const DigestFile& file, const std::string& name,
                 bool prefixName) {
  for (std::size_t i = 0; i < file.digests.size(); ++i) {
    Digest d = restoreDigest(file.digests[i]);
    if (prefixName) {
      d.label = !d.label.empty()           ? name + ":" + d.label
                : file.digests.size() == 1 ? name
                                           : name + "#" + std::to_string(i);
    }
    digests.push_back(std::move(d));
  }
}

// Digest files are known by their magic number, and by their name: a file
// named *.zd without the magic (an empty one too) is a damaged digest file,
// never a list of numbers.
bool isDigestFile(ByteSource& source) {
  return hasDigestMagic(source.peek(kHeaderSize)) || source.name().ends_with(".zd");
}

// --- building ------------------------------------------------------------------

BuildSettings settingsOf(const InputOptions& in) {
  BuildSettings s;
  s.delta = in.delta;
  s.seed = in.seed;
  s.threads = in.threads;
  return s;
}

bool isTableName(const std::string& name) {
  return name.ends_with(".csv") || name.ends_with(".tsv") || name.ends_with(".csv.gz") ||
         name.ends_with(".tsv.gz");
}

// Tables are read by --format csv or tsv, by the table options, or by the
// inputs' names.
bool readsTables(const InputOptions& in, InputFormat format,
                 const std::vector<std::unique_ptr<ByteSource>>& sources) {
  if (format == InputFormat::Csv || format == InputFormat::Tsv) {
    return true;
  }
  if (format != InputFormat::Auto) {
    if (!in.valueColumns.empty() || !in.by.empty() || !in.weight.empty()) {
      throw InputError("--column, --by and --weight read CSV or TSV input, not --format " +
                       in.format);
    }
    return false;
  }
  if (!in.valueColumns.empty() || !in.by.empty() || !in.weight.empty() || !in.delimiter.empty() ||
      in.noHeader) {
    return true;
  }
  return std::any_of(sources.begin(), sources.end(),
                     [](const auto& source) { return isTableName(source->name()); });
}

char delimiterOf(const InputOptions& in, InputFormat format) {
  if (in.delimiter.empty()) {
    return format == InputFormat::Tsv ? '\t' : format == InputFormat::Csv ? ',' : '\0';
  }
  if (in.delimiter == "\\t" || in.delimiter == "tab") {
    return '\t';
  }
  if (in.delimiter.size() != 1) {
    throw InputError("--delimiter takes one character ('" + in.delimiter +
                     "' given; a tab is 'tab' or '\\t')");
  }
  return in.delimiter[0];
}

std::vector<Digest> buildTables(const InputOptions& in, InputFormat format,
                                std::vector<std::unique_ptr<ByteSource>> sources,
                                const BuildSettings& settings) {
  if (!in.by.empty() && in.columns) {
    throw InputError("--by makes one digest per key, --columns one per column: give one of them");
  }
  if (!in.by.empty() && !in.label.empty()) {
    throw InputError("with --by each digest is labelled by its key; --label does not apply");
  }
  TableOptions table;
  table.dialect = CsvDialect{delimiterOf(in, format), !in.noHeader};
  table.columns = in.valueColumns;
  table.everyColumn = in.columns;
  table.by = in.by;
  table.weight = in.weight;
  table.label = in.label;
  table.quiet = in.quiet;
  return buildTableDigests(std::move(sources), table, settings);
}

std::vector<Digest> buildDigests(const InputOptions& in,
                                 std::vector<std::unique_ptr<ByteSource>> sources) {
  const InputFormat format = parseInputFormat(in.format);
  // On the way out by an error the line is wiped, before main reports it.
  ProgressLine progress(ProgressLine::wanted(in.quiet));
  BuildSettings settings = settingsOf(in);
  settings.progress = &progress;
  if (readsTables(in, format, sources)) {
    std::vector<Digest> digests = buildTables(in, format, std::move(sources), settings);
    progress.finish();
    return digests;
  }
  if (in.columns) {
    if (format == InputFormat::Text || format == InputFormat::Raw) {
      throw InputError("--columns reads .npy files and tables; text and raw input have no columns");
    }
    ColumnDigestBuilder builder(settings);
    for (auto& source : sources) {
      ColumnBlockReader reader(std::move(source), settings.chunkElements);
      builder.add(reader);
    }
    std::vector<quorix::HostArrayPtr> objects = builder.finish();
    progress.finish();
    std::vector<Digest> digests;
    const std::string prefix = in.label.empty() ? "col" : in.label + ".col";
    for (std::size_t c = 0; c < objects.size(); ++c) {
      digests.push_back(
          Digest{prefix + std::to_string(c), std::move(objects[c]), builder.record()});
    }
    return digests;
  }
  DigestBuilder builder(settings);
  for (auto& source : sources) {
    const std::unique_ptr<NumberReader> reader = openNumbers(std::move(source), format, in.dtype);
    builder.add(*reader);
  }
  progress.finish();
  std::vector<Digest> digests;
  digests.push_back(Digest{in.label, builder.finish(), builder.record()});
  return digests;
}

std::vector<std::unique_ptr<ByteSource>> openAll(const std::vector<std::string>& paths) {
  std::vector<std::unique_ptr<ByteSource>> sources;
  int stdinUses = 0;
  for (const std::string& path : paths) {
    stdinUses += path == "-" ? 1 : 0;
    sources.push_back(std::make_unique<ByteSource>(path));
  }
  if (stdinUses > 1) {
    throw InputError("standard input ('-') can be read only once");
  }
  return sources;
}

// The digests an input names: digest files are restored, numbers are
// summarised (with the build options) on the fly.
std::vector<Digest> loadDigests(const InputOptions& in) {
  const std::vector<std::string> paths = pathsOrStdin(in.paths);
  std::vector<std::unique_ptr<ByteSource>> sources = openAll(paths);
  const bool detect = parseInputFormat(in.format) == InputFormat::Auto;
  std::size_t digestFiles = 0;
  for (auto& source : sources) {
    digestFiles += detect && isDigestFile(*source) ? 1 : 0;
  }
  if (digestFiles == 0) {
    return buildDigests(in, std::move(sources));
  }
  if (digestFiles != sources.size()) {
    throw InputError("the inputs mix digest files and numbers; give one kind");
  }
  std::vector<Digest> digests;
  for (auto& source : sources) {
    restoreInto(digests, readDigestFile(*source), source->name(), sources.size() > 1);
  }
  return digests;
}

std::vector<Digest> selectDigests(std::vector<Digest> digests, const OutputOptions& out) {
  if (out.label) {
    if (out.digest) {
      throw InputError("--digest and --label both pick a digest: give one of them");
    }
    for (Digest& d : digests) {
      if (d.label == *out.label) {
        std::vector<Digest> one;
        one.push_back(std::move(d));
        return one;
      }
    }
    std::string message = "no digest is labelled '" + *out.label + "'";
    constexpr std::size_t kListed = 20;
    if (digests.size() > kListed) {
      message += "; the input holds " + std::to_string(digests.size()) + " digests";
    } else if (digests.empty()) {
      message += "; the input holds no digests";
    } else {
      message += "; the labels are:";
      for (std::size_t i = 0; i < digests.size(); ++i) {
        message += (i == 0 ? " '" : ", '") + digests[i].label + "'";
      }
    }
    throw InputError(message);
  }
  if (!out.digest) {
    return digests;
  }
  if (*out.digest >= digests.size()) {
    throw InputError("--digest " + std::to_string(*out.digest) +
                     " is out of range: the input holds " + std::to_string(digests.size()) +
                     " digest(s), numbered from 0");
  }
  std::vector<Digest> one;
  one.push_back(std::move(digests[*out.digest]));
  return one;
}

// A label as text tables show it: one line, control characters escaped
// (keys from a table may hold line ends; JSON gives them exactly).
std::string shownLabel(const std::string& label) {
  std::string shown;
  for (const char c : label) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      static constexpr char kHex[] = "0123456789abcdef";
      shown += {'\\', 'x', kHex[u >> 4], kHex[u & 15]};
    } else {
      shown += c;
    }
  }
  return shown;
}

std::string columnTitle(const std::vector<Digest>& digests, std::size_t i, const char* single) {
  if (!digests[i].label.empty()) {
    return shownLabel(digests[i].label);
  }
  return digests.size() == 1 ? single : "#" + std::to_string(i);
}

// --- printing point queries ----------------------------------------------------

// One answer per (argument, digest): a table with a column per digest, or
// JSON {"digests": [{"label", listName: [{argName, valueName}]}]}.
void printPointQuery(const OutputOptions& out, const std::vector<Digest>& digests,
                     const char* argName, const char* valueName, const char* listName,
                     const std::vector<double>& args,
                     const std::vector<std::vector<double>>& values) {
  if (out.json) {
    JsonWriter json(std::cout);
    json.beginObject().key("digests").beginArray();
    for (std::size_t d = 0; d < digests.size(); ++d) {
      json.beginObject().field("label", digests[d].label).key(listName).beginArray();
      for (std::size_t i = 0; i < args.size(); ++i) {
        json.beginObject().field(argName, args[i]).field(valueName, values[d][i]).endObject();
      }
      json.endArray().endObject();
    }
    json.endArray().endObject();
    return;
  }
  if (digests.size() == 1) {
    TextTable table({argName, columnTitle(digests, 0, valueName)});
    for (std::size_t i = 0; i < args.size(); ++i) {
      table.addRow({formatNumber(args[i], 0), formatNumber(values[0][i], out.precision)});
    }
    table.print(std::cout);
    return;
  }
  // Many digests (one per key or column): a row per digest, a column per
  // argument.
  std::vector<std::string> header = {"label"};
  for (const double a : args) {
    header.push_back(std::string(argName) + "=" + formatNumber(a, 0));
  }
  TextTable table(std::move(header));
  for (std::size_t d = 0; d < digests.size(); ++d) {
    std::vector<std::string> row = {columnTitle(digests, d, valueName)};
    for (std::size_t i = 0; i < args.size(); ++i) {
      row.push_back(formatNumber(values[d][i], out.precision));
    }
    table.addRow(std::move(row));
  }
  table.print(std::cout);
}

using PointQuery = std::vector<double> (*)(const HostArray&, const std::vector<double>&);

void runPointQuery(const InputOptions& in, const OutputOptions& out,
                   const std::vector<double>& args, PointQuery query, const char* argName,
                   const char* valueName, const char* listName) {
  const std::vector<Digest> digests = selectDigests(loadDigests(in), out);
  std::vector<std::vector<double>> values;
  for (const Digest& d : digests) {
    values.push_back(query(*d.object, args));
  }
  printPointQuery(out, digests, argName, valueName, listName, args, values);
}

// --- summary ---------------------------------------------------------------------

struct Summary {
  DigestStats stats;
  double min = 0.0;   // first centroid's mean
  double max = 0.0;   // last centroid's mean
  double mean = 0.0;  // trimmedMean(0): the count-weighted mean of the means
  std::vector<double> quantiles;
};

Summary summarise(const HostArray& digest) {
  Summary s;
  s.stats = digestStats(digest);
  const CentroidList list = centroids(digest);
  const double nan = quorix::hostNaN();
  s.min = list.means.empty() ? nan : list.means.front();
  s.max = list.means.empty() ? nan : list.means.back();
  s.mean = list.means.empty() ? nan : trimmedMeans(digest, {0.0}).front();
  std::vector<double> p;
  for (const auto& q : kSummaryQuantiles) {
    p.push_back(q.second);
  }
  s.quantiles = quantiles(digest, p);
  return s;
}

// --- info -------------------------------------------------------------------------

std::string hex32(std::uint32_t v) {
  std::array<char, 16> buf{};
  std::snprintf(buf.data(), buf.size(), "0x%08x", v);
  return buf.data();
}

const HostArray* savedProperty(const StoredDigest& d, const char* name) {
  for (const quorix::SavedProperty& p : d.saved.properties) {
    if (p.name == name) {
      return p.value.get();
    }
  }
  return nullptr;
}

// The stored numbers, read without the module (the decoder has checked
// that every one is present and of its class).
DigestStats storedStats(const StoredDigest& d) {
  DigestStats s;
  s.delta = *savedProperty(d, "Delta")->data<double>();
  s.dataPoints = *savedProperty(d, "NumDataPoints")->data<std::uint64_t>();
  s.centroids = *savedProperty(d, "NumCentroids")->data<std::uint64_t>();
  return s;
}

std::size_t summaryColumns(const StoredDigest& d) {
  return savedProperty(d, "AVLTreeSummary")->columns();
}

void printInfoText(const std::string& path, const DigestFile& file, int precision) {
  const FileHeader& h = file.header;
  TextTable head;
  head.alignLeft();
  head.addRow({"file", path});
  head.addRow({"format version", std::to_string(h.version)});
  head.addRow({"digests", std::to_string(h.digestCount)});
  head.addRow({"payload", std::to_string(h.payloadSize) + " bytes, zlib-compressed to " +
                              std::to_string(h.compressedSize)});
  head.addRow({"payload CRC-32", hex32(h.payloadCrc) + " (ok)"});
  head.addRow({"header CRC-32", hex32(h.headerCrc) + " (ok)"});
  head.print(std::cout);
  std::cout << '\n';
  TextTable table({"#", "label", "class", "delta", "data points", "centroids", "summary", "built"});
  for (std::size_t i = 0; i < file.digests.size(); ++i) {
    const StoredDigest& d = file.digests[i];
    const DigestStats s = storedStats(d);
    // How it was built, when the file says so: the reproducible build's
    // seed and block size; "-" for merges and files of format version 1.
    const std::string built = d.build ? std::string(d.build->weighted ? "weighted, " : "") +
                                            "seed " + std::to_string(d.build->seed) +
                                            ", blocks of " + std::to_string(d.build->blockSize)
                                      : "-";
    table.addRow({std::to_string(i), d.label.empty() ? "-" : d.label, d.saved.className,
                  formatNumber(s.delta, precision), formatCount(s.dataPoints),
                  formatCount(s.centroids), "4x" + std::to_string(summaryColumns(d)), built});
  }
  table.print(std::cout);
}

void printInfoJson(JsonWriter& json, const std::string& path, const DigestFile& file) {
  const FileHeader& h = file.header;
  json.beginObject()
      .field("path", path)
      .field("format_version", std::uint64_t{h.version})
      .field("digest_count", std::uint64_t{h.digestCount})
      .field("payload_bytes", h.payloadSize)
      .field("compressed_bytes", h.compressedSize)
      .field("compression", "zlib")
      .field("payload_crc32", hex32(h.payloadCrc))
      .field("header_crc32", hex32(h.headerCrc))
      .key("digests")
      .beginArray();
  for (const StoredDigest& d : file.digests) {
    const DigestStats s = storedStats(d);
    json.beginObject()
        .field("label", d.label)
        .field("class", d.saved.className)
        .field("delta", s.delta)
        .field("data_points", s.dataPoints)
        .field("centroids", s.centroids)
        .field("summary_columns", std::uint64_t{summaryColumns(d)});
    if (d.build) {
      json.key("build")
          .beginObject()
          .field("kind", d.build->weighted ? "weighted block tree" : "block tree")
          .field("seed", std::uint64_t{d.build->seed})
          .field("block_size", d.build->blockSize)
          .endObject();
    }
    json.endObject();
  }
  json.endArray().endObject();
}

// A restored digest must save back to exactly what was stored.
bool sameSave(const quorix::SavedObject& a, const quorix::SavedObject& b) {
  if (a.className != b.className || a.properties.size() != b.properties.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.properties.size(); ++i) {
    const HostArray& x = *a.properties[i].value;
    const HostArray& y = *b.properties[i].value;
    if (a.properties[i].name != b.properties[i].name || x.classID() != y.classID() ||
        x.dims() != y.dims() ||
        std::memcmp(x.realData(), y.realData(), x.numel() * quorix::elementSize(x.classID())) !=
            0) {
      return false;
    }
  }
  return true;
}

}  // namespace

void runBuild(const InputOptions& in, const std::string& outPath) {
  std::vector<std::unique_ptr<ByteSource>> sources = openAll(pathsOrStdin(in.paths));
  if (parseInputFormat(in.format) == InputFormat::Auto) {
    for (auto& source : sources) {
      if (isDigestFile(*source)) {
        readDigestFile(*source);  // a damaged one is reported as damaged
        throw InputError(source->name() +
                         " is already a digest file (use 'merge' to combine digests)");
      }
    }
  }
  writeDigestFile(outPath, buildDigests(in, std::move(sources)));
}

void runPlot(const InputOptions& in, const OutputOptions& out, const std::string& pngPath,
             const std::string& kind) {
  if (kind != "cdf" && kind != "density" && kind != "quantile") {
    throw InputError("unknown picture kind '" + kind + "' (cdf, density or quantile)");
  }
  const std::vector<Digest> digests = selectDigests(loadDigests(in), out);
  if (pngPath.empty()) {
    const HistogramStyle style = terminalStyle();
    for (std::size_t i = 0; i < digests.size(); ++i) {
      const DigestStats s = digestStats(*digests[i].object);
      const std::string title = columnTitle(digests, i, "digest") + ": " +
                                formatCount(s.dataPoints) + " data points, delta " +
                                formatNumber(s.delta, 0);
      printHistogram(std::cout, title, *digests[i].object, style);
    }
    return;
  }
  // Python reads the digests from a digest file of their own, removed after.
  const std::string temporary = (std::filesystem::temp_directory_path() /
                                 ("zotdigest-plot-" + std::to_string(::getpid()) + ".zd"))
                                    .string();
  struct Removed {
    const std::string& path;
    ~Removed() { std::remove(path.c_str()); }
  } removed{temporary};
  writeDigestFile(temporary, digests);
  const std::string title = in.paths.size() == 1 && in.paths[0] != "-"
                                ? std::filesystem::path(in.paths[0]).filename().string()
                                : "digests";
  drawPng(temporary, pngPath, kind, title);
}

void runQuantiles(const InputOptions& in, const OutputOptions& out, const std::vector<double>& p) {
  runPointQuery(in, out, p, quantiles, "p", "value", "quantiles");
}

void runCdf(const InputOptions& in, const OutputOptions& out, const std::vector<double>& x) {
  runPointQuery(in, out, x, cdf, "x", "cdf", "cdf");
}

void runTrimmedMeans(const InputOptions& in, const OutputOptions& out,
                     const std::vector<double>& trims) {
  runPointQuery(in, out, trims, trimmedMeans, "trim", "mean", "trimmed_means");
}

void runCentroids(const InputOptions& in, const OutputOptions& out) {
  const std::vector<Digest> digests = selectDigests(loadDigests(in), out);
  if (out.json) {
    JsonWriter json(std::cout);
    json.beginObject().key("digests").beginArray();
    for (const Digest& d : digests) {
      const CentroidList list = centroids(*d.object);
      json.beginObject().field("label", d.label).key("centroids").beginArray();
      for (std::size_t i = 0; i < list.means.size(); ++i) {
        json.beginObject().field("mean", list.means[i]).field("count", list.counts[i]).endObject();
      }
      json.endArray().endObject();
    }
    json.endArray().endObject();
    return;
  }
  for (std::size_t k = 0; k < digests.size(); ++k) {
    if (digests.size() > 1) {
      std::cout << (k > 0 ? "\n" : "") << "# " << columnTitle(digests, k, "") << '\n';
    }
    const CentroidList list = centroids(*digests[k].object);
    TextTable table({"mean", "count"});
    for (std::size_t i = 0; i < list.means.size(); ++i) {
      table.addRow({formatNumber(list.means[i], out.precision), formatCount(list.counts[i])});
    }
    table.print(std::cout);
  }
}

void runSummary(const InputOptions& in, const OutputOptions& out) {
  const std::vector<Digest> digests = selectDigests(loadDigests(in), out);
  std::vector<Summary> all;
  for (const Digest& d : digests) {
    all.push_back(summarise(*d.object));
  }
  if (out.json) {
    JsonWriter json(std::cout);
    json.beginObject().key("digests").beginArray();
    for (std::size_t k = 0; k < digests.size(); ++k) {
      const Summary& s = all[k];
      json.beginObject()
          .field("label", digests[k].label)
          .field("delta", s.stats.delta)
          .field("data_points", s.stats.dataPoints)
          .field("centroids", s.stats.centroids)
          .field("min", s.min)
          .field("max", s.max)
          .field("mean", s.mean)
          .key("quantiles")
          .beginObject();
      for (std::size_t i = 0; i < kSummaryQuantiles.size(); ++i) {
        json.field(kSummaryQuantiles[i].first, s.quantiles[i]);
      }
      json.endObject().endObject();
    }
    json.endArray().endObject();
    return;
  }
  const int prec = out.precision;
  struct Field {
    const char* name;
    std::string (*cell)(const Summary&, int);
  };
  const Field fields[] = {
      {"delta", [](const Summary& s, int p) { return formatNumber(s.stats.delta, p); }},
      {"data points", [](const Summary& s, int) { return formatCount(s.stats.dataPoints); }},
      {"centroids", [](const Summary& s, int) { return formatCount(s.stats.centroids); }},
      {"min (first centroid)", [](const Summary& s, int p) { return formatNumber(s.min, p); }},
      {"max (last centroid)", [](const Summary& s, int p) { return formatNumber(s.max, p); }},
      {"mean", [](const Summary& s, int p) { return formatNumber(s.mean, p); }},
  };
  const auto quantileCell = [&](const Summary& s, std::size_t i) {
    return formatNumber(s.quantiles[i], prec);
  };
  if (digests.size() == 1) {
    TextTable table;
    for (const Field& f : fields) {
      table.addRow({f.name, f.cell(all[0], prec)});
    }
    for (std::size_t i = 0; i < kSummaryQuantiles.size(); ++i) {
      table.addRow({kSummaryQuantiles[i].first, quantileCell(all[0], i)});
    }
    table.print(std::cout);
    return;
  }
  // Many digests: a row per digest.
  std::vector<std::string> header = {"label", "delta", "data points", "centroids",
                                     "min",   "max",   "mean"};
  for (const auto& q : kSummaryQuantiles) {
    header.push_back(q.first);
  }
  TextTable table(std::move(header));
  for (std::size_t k = 0; k < digests.size(); ++k) {
    std::vector<std::string> row = {columnTitle(digests, k, "")};
    for (const Field& f : fields) {
      row.push_back(f.cell(all[k], prec));
    }
    for (std::size_t i = 0; i < kSummaryQuantiles.size(); ++i) {
      row.push_back(quantileCell(all[k], i));
    }
    table.addRow(std::move(row));
  }
  table.print(std::cout);
}

void runMerge(const std::vector<std::string>& paths, const std::string& outPath, bool byColumn,
              const std::string& label) {
  std::vector<std::vector<Digest>> files;
  for (const std::string& path : paths) {
    const DigestFile file = readDigestFile(path);
    files.emplace_back();
    restoreInto(files.back(), file, path, false);
  }
  std::vector<Digest> result;
  if (byColumn) {
    std::vector<std::vector<const HostArray*>> grid;
    for (std::size_t f = 0; f < files.size(); ++f) {
      if (files[f].size() != files[0].size()) {
        throw InputError("--by-column needs files with the same number of digests: " + paths[0] +
                         " has " + std::to_string(files[0].size()) + ", " + paths[f] + " has " +
                         std::to_string(files[f].size()));
      }
      grid.emplace_back();
      for (const Digest& d : files[f]) {
        grid.back().push_back(d.object.get());
      }
    }
    std::vector<quorix::HostArrayPtr> merged = mergeColumns(grid);
    for (std::size_t c = 0; c < merged.size(); ++c) {
      result.push_back(Digest{files[0][c].label, std::move(merged[c])});
    }
  } else {
    std::vector<const HostArray*> all;
    for (const auto& file : files) {
      for (const Digest& d : file) {
        all.push_back(d.object.get());
      }
    }
    result.push_back(Digest{label, mergeDigests(all)});
  }
  writeDigestFile(outPath, result);
}

void runInfo(const std::vector<std::string>& paths, const OutputOptions& out) {
  if (out.json) {
    std::vector<std::pair<std::string, DigestFile>> files;
    for (const std::string& path : paths) {
      files.emplace_back(path, readDigestFile(path));
    }
    JsonWriter json(std::cout);
    json.beginObject().key("files").beginArray();
    for (const auto& [path, file] : files) {
      printInfoJson(json, path, file);
    }
    json.endArray().endObject();
    return;
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const DigestFile file = readDigestFile(paths[i]);
    if (i > 0) {
      std::cout << '\n';
    }
    printInfoText(paths[i], file, out.precision);
  }
}

bool runVerify(const std::vector<std::string>& paths, const OutputOptions& out) {
  bool allGood = true;
  std::vector<std::pair<std::string, std::string>> results;  // path, problem
  for (const std::string& path : paths) {
    std::string problem;
    std::uint64_t points = 0;
    std::size_t count = 0;
    unsigned version = 0;
    try {
      const DigestFile file = readDigestFile(path);
      version = file.header.version;
      for (const StoredDigest& stored : file.digests) {
        const Digest restored = restoreDigest(stored);
        if (!sameSave(storeDigest(restored).saved, stored.saved)) {
          throw InputError(path + ": digest " + std::to_string(count) +
                           " does not save back to what the file holds");
        }
        points += storedStats(stored).dataPoints;
        ++count;
      }
    } catch (const InputError& e) {
      problem = e.what();
    } catch (const quorix::MsgIDException& e) {
      // The decoder admits only states the module can restore; should one
      // still be refused, the file is reported like any other bad file.
      problem = path + ": the module refuses digest " + std::to_string(count) + ": " +
                e.identifier() + ": " + quorix::formatMessage(e.messageID());
    }
    if (!problem.empty()) {
      allGood = false;
      std::cerr << "zotdigest: " << problem << '\n';
    } else if (!out.json) {
      std::cout << path << ": OK (format " << version << ", " << count << " digest"
                << (count == 1 ? "" : "s") << ", " << points << " data points)\n";
    }
    results.emplace_back(path, problem);
  }
  if (out.json) {
    JsonWriter json(std::cout);
    json.beginObject().key("files").beginArray();
    for (const auto& [path, problem] : results) {
      json.beginObject().field("path", path).field("ok", problem.empty());
      if (!problem.empty()) {
        json.field("error", problem);
      }
      json.endObject();
    }
    json.endArray().endObject();
  }
  return allGood;
}

}  // namespace zotdigest::cli
