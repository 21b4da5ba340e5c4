#include "cli/table_build.h"

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <numeric>
#include <optional>
#include <unordered_map>

#include "cli/cli_errors.h"
#include "cli/output.h"
#include "engine/block_tree.h"
#include "engine/reproducible_build.h"
#include "quorix/interrupt.h"

namespace zotdigest::cli {
namespace {

// Rows parsed between two hand-overs to the builds: 4 blocks of one key, so
// a single digest keeps both cores busy, and 20 MiB of parsed rows.
constexpr std::size_t kChunkRows = std::size_t{1} << 20;

std::string_view trimmed(std::string_view cell) {
  while (!cell.empty() && (cell.front() == ' ' || cell.front() == '\t')) {
    cell.remove_prefix(1);
  }
  while (!cell.empty() && (cell.back() == ' ' || cell.back() == '\t')) {
    cell.remove_suffix(1);
  }
  return cell;
}

// The spellings of "no value" that are skipped rather than refused.
bool isMissing(std::string_view cell) {
  return cell.empty() || cell == "NA" || cell == "NaN" || cell == "null";
}

struct KeyHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const noexcept {
    return std::hash<std::string_view>{}(s);
  }
};

// Build options for one digest of a table; threads 0: the builds run
// inside the table build's own arena.
engine::BuildOptions buildOptions(const BuildSettings& settings, bool weighted) {
  engine::BuildOptions options{settings.delta, settings.seed, 0};
  options.weighted = weighted;
  return options;
}

// How a digest of a table was built: kind 2 in the file for --weight.
engine::BuildRecord buildRecord(const BuildSettings& settings, bool weighted) {
  engine::BuildRecord record{settings.seed, engine::kBlockSize};
  record.weighted = weighted;
  return record;
}

class TableBuilder {
 public:
  TableBuilder(const TableOptions& options, const BuildSettings& settings)
      : options_(options), settings_(settings), weighted_(!options.weight.empty()) {
    if (settings.threads > 0) {
      arena_ = std::make_unique<tbb::task_arena>(static_cast<int>(settings.threads));
    }
  }

  void read(std::unique_ptr<ByteSource> source) {
    CsvDialect dialect = options_.dialect;
    if (dialect.delimiter == '\0') {
      const std::string& n = source->name();
      dialect.delimiter = n.ends_with(".tsv") || n.ends_with(".tsv.gz") ? '\t' : ',';
    }
    CsvReader reader(std::move(source), dialect);
    ++files_;
    name_ = reader.name();
    const std::vector<std::size_t> valueColumns = resolveValueColumns(reader);
    std::vector<std::size_t> selected;
    const auto slot = [&](std::size_t column) {
      const auto at = std::find(selected.begin(), selected.end(), column);
      if (at != selected.end()) {
        return static_cast<std::size_t>(at - selected.begin());
      }
      selected.push_back(column);
      return selected.size() - 1;
    };
    std::vector<std::size_t> valueSlots;
    for (const std::size_t c : valueColumns) {
      valueSlots.push_back(slot(c));
    }
    std::optional<std::size_t> keyColumn;
    std::optional<std::size_t> weightColumn;
    std::size_t keySlot = 0;
    std::size_t weightSlot = 0;
    if (!options_.by.empty()) {
      if (valueColumns.size() > 1) {
        throw InputError("--by makes one digest per key of one value column; give one --column");
      }
      keyColumn = reader.column(options_.by);
      keySlot = slot(*keyColumn);
    }
    if (weighted_) {
      weightColumn = reader.column(options_.weight);
      weightSlot = slot(*weightColumn);
    }
    if (options_.by.empty()) {
      settleColumnDigests(reader, valueColumns);
    }
    reader.select(selected);

    std::vector<std::string_view> cells(selected.size());
    while (reader.next(cells)) {
      ++rows_;
      std::uint32_t destination = 0;
      if (keyColumn) {
        const std::string_view key = cells[keySlot];
        if (isMissing(trimmed(key))) {
          ++keyless_;
          continue;
        }
        destination = destinationOf(key);
      }
      for (std::size_t v = 0; v < valueColumns.size(); ++v) {
        const std::optional<double> x = value(reader, valueColumns[v], cells[valueSlots[v]]);
        if (!x) {
          ++skipped_;
          continue;
        }
        values_.push_back(*x);
        destinations_.push_back(keyColumn ? destination : static_cast<std::uint32_t>(v));
        if (weightColumn) {
          weights_.push_back(weight(reader, *weightColumn, cells[weightSlot]));
        }
      }
      if (values_.size() >= kChunkRows) {
        flush();
      }
    }
  }

  std::vector<Digest> finish() {
    flush();
    if (builds_.empty()) {
      throw InputError((files_ == 1 ? name_ : std::to_string(files_) + " files") +
                       ": no row has a key, so there is no digest to make");
    }
    std::vector<std::size_t> order(builds_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    if (!options_.by.empty()) {
      std::sort(order.begin(), order.end(),
                [&](std::size_t a, std::size_t b) { return labels_[a] < labels_[b]; });
    }
    const std::uint64_t added = valuesAdded();
    std::vector<quorix::HostArrayPtr> objects(builds_.size());
    run([&] {
      tbb::parallel_for(std::size_t{0}, builds_.size(),
                        [&](std::size_t i) { objects[i] = builds_[i]->finish(); });
    });
    std::vector<Digest> digests;
    digests.reserve(order.size());
    for (const std::size_t i : order) {
      digests.push_back(
          Digest{labels_[i], std::move(objects[i]), buildRecord(settings_, weighted_)});
    }
    if (!options_.quiet) {
      std::cerr << closingLine(added) << '\n';
    }
    return digests;
  }

 private:
  template <class Work>
  void run(Work&& work) {
    if (arena_) {
      arena_->execute(std::forward<Work>(work));
    } else {
      work();
    }
  }

  std::vector<std::size_t> resolveValueColumns(const CsvReader& reader) const {
    std::vector<std::size_t> columns;
    for (const std::string& given : options_.columns) {
      columns.push_back(reader.column(given));
    }
    if (!columns.empty()) {
      return columns;
    }
    const std::vector<std::string>& header = reader.header();
    if (options_.everyColumn) {
      if (header.empty()) {
        throw InputError(reader.name() +
                         ": without a header, --columns needs the columns by number (--column)");
      }
      columns.resize(header.size());
      std::iota(columns.begin(), columns.end(), std::size_t{0});
      return columns;
    }
    if (header.size() == 1) {
      return {0};
    }
    std::string message = reader.name() + ": name the column of values with --column";
    if (!header.empty()) {
      message += "; the header has:";
      for (std::size_t i = 0; i < header.size(); ++i) {
        message += (i == 0 ? " '" : ", '") + header[i] + "'";
      }
    }
    throw InputError(message);
  }

  // Without --by: one build per value column, labelled by its column when
  // there are several. Every file feeds the same columns.
  void settleColumnDigests(const CsvReader& reader, const std::vector<std::size_t>& columns) {
    if (!builds_.empty()) {
      if (builds_.size() != columns.size()) {
        throw InputError(reader.name() + " has " + std::to_string(columns.size()) +
                         " value columns, the files before it " + std::to_string(builds_.size()));
      }
      return;
    }
    for (const std::size_t c : columns) {
      std::string label = options_.label;
      if (columns.size() > 1) {
        const std::string column =
            c < reader.header().size() ? reader.header()[c] : "col" + std::to_string(c + 1);
        label = label.empty() ? column : label + "." + column;
      }
      addBuild(std::move(label));
    }
  }

  std::uint32_t addBuild(std::string label) {
    builds_.push_back(
        std::make_unique<engine::ReproducibleBuild>(buildOptions(settings_, weighted_)));
    labels_.push_back(std::move(label));
    return static_cast<std::uint32_t>(builds_.size() - 1);
  }

  std::uint32_t destinationOf(std::string_view key) {
    // Rows of one key often come together.
    if (lastKey_ && labels_[*lastKey_] == key) {
      return *lastKey_;
    }
    auto at = keys_.find(key);
    if (at == keys_.end()) {
      at = keys_.emplace(std::string(key), addBuild(std::string(key))).first;
    }
    lastKey_ = at->second;
    return at->second;
  }

  [[noreturn]] static void refuse(const CsvReader& reader, std::size_t column,
                                  std::string_view cell, const char* why) {
    std::string shown(cell.substr(0, 40));
    for (char& c : shown) {
      if (static_cast<unsigned char>(c) < 0x20) {
        c = '?';
      }
    }
    throw InputError(reader.name() + ", line " + std::to_string(reader.line()) + ", " +
                     reader.columnName(column) + ": '" + shown + (cell.size() > 40 ? "...'" : "'") +
                     " " + why);
  }

  static std::optional<double> value(const CsvReader& reader, std::size_t column,
                                     std::string_view cell) {
    std::string_view text = trimmed(cell);
    if (isMissing(text)) {
      return std::nullopt;
    }
    if (text.size() > 1 && text.front() == '+' && text[1] != '-' && text[1] != '+') {
      text.remove_prefix(1);
    }
    double x = 0.0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), x);
    if (ec == std::errc::result_out_of_range) {
      refuse(reader, column, cell, "is out of the range of a double");
    }
    if (ec != std::errc() || ptr != text.data() + text.size()) {
      refuse(reader, column, cell, "is not a number");
    }
    if (std::isnan(x)) {
      return std::nullopt;
    }
    return x;
  }

  static std::uint64_t weight(const CsvReader& reader, std::size_t column, std::string_view cell) {
    const std::string_view text = trimmed(cell);
    std::uint64_t w = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), w);
    if (text.empty() || ec != std::errc() || ptr != text.data() + text.size()) {
      refuse(reader, column, cell, "is not a weight (a non-negative integer below 2^64)");
    }
    return w;
  }

  // Hands the parsed rows to the builds: each destination's values in file
  // order, the destinations side by side.
  void flush() {
    const std::size_t n = values_.size();
    if (n == 0) {
      return;
    }
    if (builds_.size() == 1) {
      run([&] { append(*builds_[0], values_.data(), weights_.data(), n); });
    } else {
      counts_.assign(builds_.size() + 1, 0);
      for (const std::uint32_t d : destinations_) {
        ++counts_[d + 1];
      }
      active_.clear();
      for (std::size_t d = 0; d < builds_.size(); ++d) {
        if (counts_[d + 1] > 0) {
          active_.push_back(d);
        }
        counts_[d + 1] += counts_[d];  // counts_[d]: where destination d starts
      }
      sortedValues_.resize(n);
      sortedWeights_.resize(weights_.size());
      std::vector<std::size_t> next(counts_.begin(), counts_.end() - 1);
      for (std::size_t i = 0; i < n; ++i) {
        const std::size_t at = next[destinations_[i]]++;
        sortedValues_[at] = values_[i];
        if (weighted_) {
          sortedWeights_[at] = weights_[i];
        }
      }
      run([&] {
        tbb::parallel_for(std::size_t{0}, active_.size(), [&](std::size_t i) {
          const std::size_t d = active_[i];
          const std::size_t first = counts_[d];
          append(*builds_[d], sortedValues_.data() + first,
                 weighted_ ? sortedWeights_.data() + first : nullptr, counts_[d + 1] - first);
        });
      });
    }
    if (settings_.progress != nullptr) {
      settings_.progress->advance(n);
    }
    values_.clear();
    destinations_.clear();
    weights_.clear();
    quorix::checkInterrupt();
  }

  void append(engine::ReproducibleBuild& build, const double* values, const std::uint64_t* weights,
              std::size_t count) const {
    if (weighted_) {
      build.appendWeighted(values, quorix::ClassID::Double, weights, count);
    } else {
      build.append(values, count, quorix::ClassID::Double);
    }
  }

  // "zotdigest: t.csv: 7 rows, 5 values in 3 digests; skipped 1 empty, NA,
  // NaN or null cell and 1 row without a key"
  std::string closingLine(std::uint64_t added) const {
    const auto counted = [](std::uint64_t n, const char* one, const char* many) {
      return formatCount(n) + " " + (n == 1 ? one : many);
    };
    std::string line =
        "zotdigest: " + (files_ == 1 ? name_ : std::to_string(files_) + " files") + ": " +
        counted(rows_, "row", "rows") + ", " + counted(added, "value", "values") + " in " +
        counted(builds_.size(), "digest", "digests") + "; skipped " +
        counted(skipped_, "empty, NA, NaN or null cell", "empty, NA, NaN or null cells");
    if (!options_.by.empty()) {
      line += " and " + counted(keyless_, "row without a key", "rows without a key");
    }
    return line;
  }

  std::uint64_t valuesAdded() const {
    std::uint64_t total = 0;
    for (const auto& b : builds_) {
      total += b->size();
    }
    return total;
  }

  const TableOptions& options_;
  BuildSettings settings_;
  bool weighted_;
  std::unique_ptr<tbb::task_arena> arena_;
  std::vector<std::unique_ptr<engine::ReproducibleBuild>> builds_;
  std::vector<std::string> labels_;
  std::unordered_map<std::string, std::uint32_t, KeyHash, std::equal_to<>> keys_;
  std::optional<std::uint32_t> lastKey_;
  // One chunk of parsed rows, and the same sorted by destination.
  std::vector<double> values_;
  std::vector<std::uint32_t> destinations_;
  std::vector<std::uint64_t> weights_;
  std::vector<double> sortedValues_;
  std::vector<std::uint64_t> sortedWeights_;
  std::vector<std::size_t> counts_;
  std::vector<std::size_t> active_;
  std::uint64_t rows_ = 0;
  std::uint64_t skipped_ = 0;
  std::uint64_t keyless_ = 0;
  std::size_t files_ = 0;
  std::string name_;
};

}  // namespace

std::vector<Digest> buildTableDigests(std::vector<std::unique_ptr<ByteSource>> sources,
                                      const TableOptions& options, const BuildSettings& settings) {
  TableBuilder builder(options, settings);
  for (auto& source : sources) {
    builder.read(std::move(source));
  }
  return builder.finish();
}

}  // namespace zotdigest::cli
