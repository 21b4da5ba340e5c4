#include "cli/digest_ops.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <array>
#include <memory>

#include "cli/cli_errors.h"
#include "engine/saved_digest_check.h"
#include "quorix/interrupt.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"

namespace zotdigest::cli {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

// The module's entry points are named after its library, libzotdigest
// (QXInitialize_libzotdigest, ...), so that is the name it is loaded by;
// the runtime finds libzotdigest.so for it.
constexpr const char* kModuleName = "libzotdigest";
// Routines of the module's function table.
constexpr std::size_t kArrayMerge = 0;
constexpr std::size_t kColumnMerge = 2;

HostArrayPtr scalarOf(const HostArray& objects, std::size_t i) {
  return HostArray::createScalarObject(objects.object(i));
}

// One method with one double-matrix argument and one answer.
std::vector<double> elementwise(const char* method, const HostArray& digest,
                                const std::vector<double>& args) {
  HostArrayPtr arg = HostArray::createNumericMatrix(args.size(), 1, ClassID::Double);
  std::copy(args.begin(), args.end(), arg->data<double>());
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 2> in = {&digest, arg.get()};
  ObjectSystem::callMethod(method, 1, out.data(), 2, in.data());
  const HostArrayPtr answer(out[0]);
  return std::vector<double>(answer->data<double>(), answer->data<double>() + answer->numel());
}

HostArrayPtr objectArray(const std::vector<const HostArray*>& digests, std::size_t rows) {
  HostArrayPtr array =
      HostArray::createObjectArray(engine::kDigestClass, quorix::Dims{rows, digests.size() / rows});
  for (std::size_t i = 0; i < digests.size(); ++i) {
    array->setObject(i, digests[i]->object(0));
  }
  return array;
}

}  // namespace

quorix::Module& digestModule() { return quorix::Module::load(kModuleName); }

// --- one digest ------------------------------------------------------------

// Reads gathered into one append: 4 chunks of 2^20 values are 16 blocks,
// enough to keep the workers busy between the merges an append ends with.
constexpr std::size_t kChunksPerAppend = 4;

DigestBuilder::DigestBuilder(const BuildSettings& settings)
    : settings_(settings), buffer_(settings.chunkElements * kChunksPerAppend) {
  digestModule();
  build_ = std::make_unique<engine::ReproducibleBuild>(
      engine::BuildOptions{settings_.delta, settings_.seed, settings_.threads});
}

DigestBuilder::~DigestBuilder() = default;

void DigestBuilder::add(NumberReader& reader) {
  const std::size_t width = quorix::elementSize(reader.elementClass());
  auto* bytes = reinterpret_cast<std::byte*>(buffer_.data());
  for (;;) {
    // Progress and Ctrl-C are looked at after every read, the values go to
    // the build a few reads at a time.
    std::size_t filled = 0;
    std::size_t n = 0;
    do {
      n = reader.next(bytes + filled * width, settings_.chunkElements);
      filled += n;
      quorix::checkInterrupt();
      if (settings_.progress && n > 0) {
        settings_.progress->advance(n);
      }
    } while (n > 0 && filled + settings_.chunkElements <= buffer_.size());
    if (filled > 0) {
      build_->append(bytes, filled, reader.elementClass());
    }
    if (n == 0) {
      return;
    }
  }
}

HostArrayPtr DigestBuilder::finish() { return build_->finish(); }

engine::BuildRecord DigestBuilder::record() const {
  return engine::BuildRecord{settings_.seed, engine::kBlockSize};
}

// --- one digest per column -------------------------------------------------

ColumnDigestBuilder::ColumnDigestBuilder(const BuildSettings& settings) : settings_(settings) {
  digestModule();
  if (settings_.threads > 0) {
    arena_ = std::make_unique<tbb::task_arena>(static_cast<int>(settings_.threads));
  }
}

ColumnDigestBuilder::~ColumnDigestBuilder() = default;

template <class Work>
void ColumnDigestBuilder::run(Work&& work) {
  if (arena_) {
    arena_->execute(std::forward<Work>(work));
  } else {
    work();
  }
}

void ColumnDigestBuilder::add(ColumnBlockReader& reader) {
  if (!columns_) {
    columns_ = reader.columns();
    for (std::size_t c = 0; c < reader.columns(); ++c) {
      // threads 0: the builds share this builder's arena.
      builds_.push_back(std::make_unique<engine::ReproducibleBuild>(
          engine::BuildOptions{settings_.delta, settings_.seed, 0}));
    }
  } else if (*columns_ != reader.columns()) {
    throw InputError("all inputs of a per-column build need the same number of columns (" +
                     std::to_string(*columns_) + "), but one has " +
                     std::to_string(reader.columns()));
  }
  buffer_.resize(reader.capacity());
  const std::size_t width = quorix::elementSize(reader.elementClass());
  const auto* base = reinterpret_cast<const std::byte*>(buffer_.data());
  ColumnBlock block;
  while (reader.next(block, buffer_.data())) {
    // A block holds rows [firstRow, firstRow + rows) of its columns, and
    // every column's blocks come in row order.
    run([&] {
      tbb::parallel_for(std::size_t{0}, block.columns, [&](std::size_t c) {
        builds_[block.firstColumn + c]->append(base + c * block.rows * width, block.rows,
                                               reader.elementClass());
      });
    });
    quorix::checkInterrupt();
    if (settings_.progress) {
      settings_.progress->advance(std::uint64_t{block.rows} * std::uint64_t{block.columns});
    }
  }
}

std::vector<HostArrayPtr> ColumnDigestBuilder::finish() {
  if (!columns_ || *columns_ == 0) {
    throw InputError("the input has no columns");
  }
  std::vector<HostArrayPtr> digests(builds_.size());
  run([&] {
    tbb::parallel_for(std::size_t{0}, builds_.size(),
                      [&](std::size_t c) { digests[c] = builds_[c]->finish(); });
  });
  return digests;
}

engine::BuildRecord ColumnDigestBuilder::record() const {
  return engine::BuildRecord{settings_.seed, engine::kBlockSize};
}

// --- queries -----------------------------------------------------------------

DigestStats digestStats(const HostArray& digest) {
  DigestStats s;
  s.delta = *ObjectSystem::getProperty(digest, "Delta")->data<double>();
  s.dataPoints = *ObjectSystem::getProperty(digest, "NumDataPoints")->data<std::uint64_t>();
  s.centroids = *ObjectSystem::getProperty(digest, "NumCentroids")->data<std::uint64_t>();
  return s;
}

std::vector<double> quantiles(const HostArray& digest, const std::vector<double>& p) {
  return elementwise("icdf", digest, p);
}

std::vector<double> cdf(const HostArray& digest, const std::vector<double>& x) {
  return elementwise("cdf", digest, x);
}

std::vector<double> trimmedMeans(const HostArray& digest, const std::vector<double>& trims) {
  return elementwise("trimmedMean", digest, trims);
}

CentroidList centroids(const HostArray& digest) {
  std::array<HostArray*, 2> out{};
  const std::array<const HostArray*, 1> in = {&digest};
  const int n = ObjectSystem::callMethod("centroids", 2, out.data(), 1, in.data());
  const HostArrayPtr means(out[0]);
  const HostArrayPtr counts(n > 1 ? out[1] : nullptr);
  CentroidList list;
  list.means.assign(means->data<double>(), means->data<double>() + means->numel());
  list.counts.assign(counts->data<std::uint64_t>(),
                     counts->data<std::uint64_t>() + counts->numel());
  return list;
}

// --- merging -------------------------------------------------------------------

HostArrayPtr mergeDigests(const std::vector<const HostArray*>& digests) {
  const HostArrayPtr array = objectArray(digests, 1);
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 1> in = {array.get()};
  digestModule().call(kArrayMerge, 1, out.data(), 1, in.data());
  return HostArrayPtr(out[0]);
}

std::vector<HostArrayPtr> mergeColumns(const std::vector<std::vector<const HostArray*>>& inputs) {
  const std::size_t files = inputs.size();
  const std::size_t columns = inputs.front().size();
  // Column-major files x columns: element (f, c) at f + files * c.
  std::vector<const HostArray*> grid(files * columns);
  for (std::size_t c = 0; c < columns; ++c) {
    const double delta = digestStats(*inputs[0][c]).delta;
    for (std::size_t f = 0; f < files; ++f) {
      if (digestStats(*inputs[f][c]).delta != delta) {
        quorix::raiseHostError(quorix::MessageID("stats:tdigest", "MergeDeltaMismatch"));
      }
      grid[f + files * c] = inputs[f][c];
    }
  }
  const HostArrayPtr array = objectArray(grid, files);
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 1> in = {array.get()};
  digestModule().call(kColumnMerge, 1, out.data(), 1, in.data());
  const HostArrayPtr merged(out[0]);
  std::vector<HostArrayPtr> result;
  result.reserve(columns);
  for (std::size_t c = 0; c < columns; ++c) {
    result.push_back(scalarOf(*merged, c));
  }
  return result;
}

// --- saving ----------------------------------------------------------------------

StoredDigest storeDigest(const Digest& digest) {
  return StoredDigest{digest.label, ObjectSystem::save(*digest.object), digest.build};
}

Digest restoreDigest(const StoredDigest& stored) {
  digestModule();
  return Digest{stored.label, ObjectSystem::restore(stored.saved), stored.build};
}

}  // namespace zotdigest::cli
