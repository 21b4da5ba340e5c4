// Everything the tool does to digests, done through the runtime: the module
// is loaded by name, objects of class "TDigest" are made, asked and saved
// only through the object system and the module's function table. Nothing
// here knows how a digest works inside.
//
// Errors of the module and the runtime leave as quorix::MsgIDException,
// untouched; the tool's own refusals are InputError.
#pragma once

#include <tbb/task_arena.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/number_readers.h"
#include "cli/progress.h"
#include "engine/digest_file.h"
#include "engine/reproducible_build.h"
#include "quorix/host_array.h"
#include "quorix/module.h"

namespace zotdigest::cli {

// Digests as the engine's file format stores them.
using engine::DigestFile;
using engine::StoredDigest;

// libzotdigest, loaded (once per process) through the runtime's module
// path. Raises "QUORIX:module:NotFound" naming the directories searched.
quorix::Module& digestModule();

// A scalar "TDigest" object, the label it is shown and stored under, and
// how it was built when that is known.
struct Digest {
  std::string label;
  quorix::HostArrayPtr object;
  std::optional<engine::BuildRecord> build = std::nullopt;
};

struct BuildSettings {
  double delta = 100.0;
  // The seed of the reproducible build (engine/reproducible_build.h).
  std::uint32_t seed = 0;
  unsigned threads = 0;  // worker threads at most; 0: every core
  // Elements per call of "add": memory stays bounded by this, whatever the
  // input's size.
  std::size_t chunkElements = std::size_t{1} << 20;
  // Told about every chunk added, when set.
  ProgressLine* progress = nullptr;
};

// One digest from any number of inputs, read chunk by chunk into the
// reproducible build: the digest of the numbers of all inputs one after the
// other, whatever the reads.
class DigestBuilder {
 public:
  // The module refuses a Delta that is not > 0.
  explicit DigestBuilder(const BuildSettings& settings);
  ~DigestBuilder();
  // Adds every number of the reader. Checks for Ctrl-C and reports
  // progress between chunks.
  void add(NumberReader& reader);
  quorix::HostArrayPtr finish();
  // What a digest file records of this build.
  engine::BuildRecord record() const;

 private:
  BuildSettings settings_;
  std::unique_ptr<engine::ReproducibleBuild> build_;
  std::vector<std::uint64_t> buffer_;
};

// One digest per column of 1-D or 2-D .npy inputs, which must all have the
// same number of columns: the reproducible build of each column's values in
// row order, so a column's digest depends on its own values, Delta and the
// seed only (not on the file's memory order, the threads or the other
// columns). The columns' builds run side by side.
class ColumnDigestBuilder {
 public:
  explicit ColumnDigestBuilder(const BuildSettings& settings);
  ~ColumnDigestBuilder();
  // InputError when the reader's column count differs from earlier inputs.
  void add(ColumnBlockReader& reader);
  // One digest per column, in column order (empty digests for columns of
  // no rows); InputError when no input had a column.
  std::vector<quorix::HostArrayPtr> finish();
  // What a digest file records of each column's build.
  engine::BuildRecord record() const;

 private:
  template <class Work>
  void run(Work&& work);

  BuildSettings settings_;
  std::optional<std::size_t> columns_;
  std::unique_ptr<tbb::task_arena> arena_;  // only when threads are limited
  std::vector<std::unique_ptr<engine::ReproducibleBuild>> builds_;
  std::vector<std::uint64_t> buffer_;
};

struct DigestStats {
  double delta = 0.0;
  std::uint64_t dataPoints = 0;  // NumDataPoints
  std::uint64_t centroids = 0;   // NumCentroids
};

struct CentroidList {
  std::vector<double> means;
  std::vector<std::uint64_t> counts;
};

// The public properties Delta, NumDataPoints and NumCentroids.
DigestStats digestStats(const quorix::HostArray& digest);
// The methods "icdf", "cdf" and "trimmedMean", one answer per argument
// (NaN in, NaN out). The module raises IcdfInvalidQuantile for p outside
// [0, 1], CdfNoData on an empty digest, TrimmedMeanInvalidTrim for a trim
// outside [0, 0.5) and TrimmedMeanNoData on an empty digest.
std::vector<double> quantiles(const quorix::HostArray& digest, const std::vector<double>& p);
std::vector<double> cdf(const quorix::HostArray& digest, const std::vector<double>& x);
std::vector<double> trimmedMeans(const quorix::HostArray& digest, const std::vector<double>& trims);
// The method "centroids": means ascending, with their counts.
CentroidList centroids(const quorix::HostArray& digest);

// Merges digests into one: routine 0 of the module's function table. The
// module raises MergeDeltaMismatch when their Delta values differ.
quorix::HostArrayPtr mergeDigests(const std::vector<const quorix::HostArray*>& digests);
// Merges column by column: inputs[f][c] is column c of input f, and every
// input has the same number of columns; answer c merges column c of all
// inputs (routine 2 of the function table). Differing Delta values in one
// column raise "stats:tdigest:MergeDeltaMismatch" here, because the column
// merge itself would silently keep the last one.
std::vector<quorix::HostArrayPtr> mergeColumns(
    const std::vector<std::vector<const quorix::HostArray*>>& inputs);

// The runtime's save of a digest, and the restore of a stored one.
StoredDigest storeDigest(const Digest& digest);
Digest restoreDigest(const StoredDigest& stored);

}  // namespace zotdigest::cli
