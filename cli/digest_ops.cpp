#include "cli/digest_ops.h"

#include <algorithm>
#include <array>
#include <memory>

#include "cli/cli_errors.h"
#include "engine/saved_digest_check.h"
#include "quorix/interrupt.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

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
constexpr std::size_t kColumnBuild = 1;
constexpr std::size_t kColumnMerge = 2;
// Streams the runtime must address for a seeded generator.
constexpr std::uint64_t kStreamCount = 1000000;

// A digest keeps a plain pointer to the stream it was last fed with; the
// streams made here therefore live as long as the process.
const HostArray& keepStream(HostArrayPtr stream) {
  static std::vector<HostArrayPtr> streams;
  streams.push_back(std::move(stream));
  return *streams.back();
}

const HostArray& seededStream(std::uint32_t seed, std::uint64_t substream) {
  std::shared_ptr<quorix::RandomStream> stream =
      quorix::RandomStream::create("mrg32k3a", kStreamCount, seed);
  if (substream > 1) {
    stream->selectSubstream(substream);
  }
  return keepStream(quorix::RandomStream::toHostValue(std::move(stream)));
}

HostArrayPtr emptyDouble() { return HostArray::createNumericMatrix(0, 0, ClassID::Double); }

// A new digest with the given Delta, fed later with `stream` (or with the
// module's default when null).
HostArrayPtr newDigest(double delta, const HostArray* stream) {
  digestModule();
  const HostArrayPtr data = emptyDouble();
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const std::array<const HostArray*, 3> in = {data.get(), d.get(), stream};
  return ObjectSystem::construct(engine::kDigestClass, stream ? 3 : 2, in.data());
}

// Calls "add" with one chunk: parallel without a stream, serial with one.
void addChunk(const HostArray& digest, const HostArray& chunk, const HostArray* stream) {
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 3> in = {&digest, &chunk, stream};
  ObjectSystem::callMethod("add", 0, out.data(), stream ? 3 : 2, in.data());
  quorix::checkInterrupt();
}

// A numeric view of `count` elements of `buffer`, as a column.
HostArrayPtr viewOf(void* buffer, std::size_t rows, std::size_t columns, ClassID id) {
  return HostArray::createView(quorix::Dims{rows, columns}, id, buffer, nullptr, nullptr);
}

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
}

ColumnDigestBuilder::~ColumnDigestBuilder() = default;

const HostArray& ColumnDigestBuilder::columnDigest(std::size_t column) {
  if (!digests_[column]) {
    const HostArray* stream = nullptr;
    if (settings_.seedGiven) {
      streams_[column] = &seededStream(settings_.seed, column + 1);
      stream = streams_[column];
    }
    digests_[column] = newDigest(settings_.delta, stream);
  }
  return *digests_[column];
}

void ColumnDigestBuilder::add(ColumnBlockReader& reader) {
  if (!columns_) {
    columns_ = reader.columns();
    digests_.resize(reader.columns());
    streams_.resize(reader.columns());
  } else if (*columns_ != reader.columns()) {
    throw InputError("all inputs of a per-column build need the same number of columns (" +
                     std::to_string(*columns_) + "), but one has " +
                     std::to_string(reader.columns()));
  }
  buffer_.resize(reader.capacity());
  ColumnBlock block;
  while (reader.next(block, buffer_.data())) {
    if (settings_.seedGiven) {
      addBlockSerially(block, reader);
    } else {
      addBlockInParallel(block, reader);
    }
    quorix::checkInterrupt();
    if (settings_.progress) {
      settings_.progress->advance(std::uint64_t{block.rows} * std::uint64_t{block.columns});
    }
  }
}

void ColumnDigestBuilder::addBlockSerially(const ColumnBlock& block,
                                           const ColumnBlockReader& reader) {
  // Pieces of rowsPerPiece rows, aligned to multiples of it: the same cuts
  // whatever the memory order of the file, hence the same digests.
  const std::size_t piece = reader.rowsPerPiece();
  const std::size_t width = quorix::elementSize(reader.elementClass());
  auto* base = reinterpret_cast<std::byte*>(buffer_.data());
  for (std::size_t c = 0; c < block.columns; ++c) {
    const std::size_t column = block.firstColumn + c;
    const HostArray& digest = columnDigest(column);
    std::byte* values = base + c * block.rows * width;
    for (std::size_t r = 0; r < block.rows; r += piece) {
      const std::size_t n = std::min(piece, block.rows - r);
      const HostArrayPtr chunk = viewOf(values + r * width, n, 1, reader.elementClass());
      addChunk(digest, *chunk, streams_[column]);
    }
  }
}

void ColumnDigestBuilder::addBlockInParallel(const ColumnBlock& block,
                                             const ColumnBlockReader& reader) {
  const HostArrayPtr data =
      viewOf(buffer_.data(), block.rows, block.columns, reader.elementClass());
  const HostArrayPtr delta = HostArray::createDoubleScalar(settings_.delta);
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 2> in = {data.get(), delta.get()};
  digestModule().call(kColumnBuild, 1, out.data(), 2, in.data());
  const HostArrayPtr built(out[0]);
  for (std::size_t c = 0; c < block.columns; ++c) {
    HostArrayPtr& target = digests_[block.firstColumn + c];
    HostArrayPtr part = scalarOf(*built, c);
    if (!target) {
      target = std::move(part);
      continue;
    }
    std::array<HostArray*, 1> none{};
    const std::array<const HostArray*, 2> args = {target.get(), part.get()};
    quorix::ObjectSystem::callMethod("merge", 0, none.data(), 2, args.data());
  }
}

std::vector<HostArrayPtr> ColumnDigestBuilder::finish() {
  if (!columns_ || *columns_ == 0) {
    throw InputError("the input has no columns");
  }
  for (std::size_t c = 0; c < digests_.size(); ++c) {
    columnDigest(c);  // columns without rows get an empty digest
  }
  return std::move(digests_);
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
