#include "engine/block_tree.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <memory>
#include <vector>

#include "engine/saved_digest_check.h"
#include "quorix/interrupt.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

// Streams the runtime must address for a seeded generator.
constexpr std::uint64_t kStreamCount = 1000000;

// A fresh stream object per leaf and per merge: creating one costs a few
// microseconds of jumps, against milliseconds of work on a block, and no
// stream is ever shared between threads.
HostArrayPtr streamAt(std::uint32_t seed, std::uint64_t substream) {
  std::shared_ptr<quorix::RandomStream> stream =
      quorix::RandomStream::create("mrg32k3a", kStreamCount, seed);
  stream->selectSubstream(substream);
  return quorix::RandomStream::toHostValue(std::move(stream));
}

// One centroid of a weighted block.
struct Pair {
  double mean;
  std::uint64_t count;
};

// The summary matrix of a tree holding `pairs` (sorted by mean) in order:
// the middle pair at the root, each half below it built the same way. A
// range of m pairs then has height bit_width(m) - 1 and its halves differ
// by at most one pair, so the tree is a balanced one, in heap order.
class SummaryWriter {
 public:
  explicit SummaryWriter(const std::vector<Pair>& pairs) : pairs_(pairs), below_(pairs.size() + 1) {
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      below_[i + 1] = below_[i] + pairs[i].count;
    }
  }

  HostArrayPtr matrix() {
    const std::size_t n = pairs_.size();
    const std::size_t slots = n == 0 ? 0 : (std::size_t{1} << std::bit_width(n)) - 1;
    HostArrayPtr summary = HostArray::createNumericMatrix(4, slots, ClassID::Int64);
    columns_ = summary->data<std::int64_t>();
    write(0, n, 0);
    return summary;
  }

 private:
  void write(std::size_t lo, std::size_t hi, std::size_t slot) {
    if (lo == hi) {
      return;
    }
    const std::size_t mid = lo + (hi - lo) / 2;
    std::int64_t* column = columns_ + 4 * slot;
    column[0] = std::bit_cast<std::int64_t>(pairs_[mid].mean);
    column[1] = static_cast<std::int64_t>(pairs_[mid].count);
    column[2] = static_cast<std::int64_t>(std::bit_width(hi - lo)) - 1;
    column[3] = static_cast<std::int64_t>(below_[hi] - below_[lo]);
    write(lo, mid, 2 * slot + 1);
    write(mid + 1, hi, 2 * slot + 2);
  }

  const std::vector<Pair>& pairs_;
  std::vector<std::uint64_t> below_;  // weight of the pairs before each index
  std::int64_t* columns_ = nullptr;
};

}  // namespace

HostArrayPtr digestWeightedBlock(const void* values, ClassID id, const std::uint64_t* weights,
                                 std::size_t count, double delta, std::uint32_t seed,
                                 std::uint64_t block) {
  quorix::checkInterrupt();
  const HostArrayPtr data = HostArray::createView(quorix::Dims{count, 1}, id,
                                                  const_cast<void*>(values), nullptr, nullptr);
  std::vector<Pair> pairs;
  pairs.reserve(std::min(count, kBlockSize));
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (weights[i] == 0) {
      continue;
    }
    total += weights[i];
    const double x = data->elementAsDouble(i);
    if (!std::isnan(x)) {
      pairs.push_back({x, weights[i]});
    }
  }
  // Stable: equal values (-0.0 and 0.0 among them) keep their input order.
  std::stable_sort(pairs.begin(), pairs.end(),
                   [](const Pair& a, const Pair& b) { return a.mean < b.mean; });
  const HostArrayPtr held = emptyDigest(delta);
  ObjectSystem::setProperty(*held, "AVLTreeSummary", *SummaryWriter(pairs).matrix(),
                            quorix::kRestrictedAccess);
  ObjectSystem::setProperty(*held, "NumDataPoints", *HostArray::createUInt64Scalar(total),
                            quorix::kRestrictedAccess);
  HostArrayPtr leaf = emptyDigest(delta);
  const HostArrayPtr stream = streamAt(seed, nodeSubstream(0, block));
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 3> in = {leaf.get(), held.get(), stream.get()};
  ObjectSystem::callMethod("merge", 0, out.data(), 3, in.data());
  return leaf;
}

HostArrayPtr digestBlock(const void* values, std::size_t count, ClassID id, double delta,
                         std::uint32_t seed, std::uint64_t block) {
  quorix::checkInterrupt();
  // The module reads the block in place, in its own element class.
  const HostArrayPtr data = HostArray::createView(quorix::Dims{count, 1}, id,
                                                  const_cast<void*>(values), nullptr, nullptr);
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const HostArrayPtr stream = streamAt(seed, nodeSubstream(0, block));
  const std::array<const HostArray*, 3> in = {data.get(), d.get(), stream.get()};
  return ObjectSystem::construct(kDigestClass, 3, in.data());
}

void mergeNodes(const HostArray& left, const HostArray& right, unsigned level, std::uint64_t j,
                std::uint32_t seed) {
  quorix::checkInterrupt();
  const HostArrayPtr stream = streamAt(seed, nodeSubstream(level, j));
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 3> in = {&left, &right, stream.get()};
  ObjectSystem::callMethod("merge", 0, out.data(), 3, in.data());
}

HostArrayPtr emptyDigest(double delta) {
  quorix::Module::load("libzotdigest");
  const HostArrayPtr data = HostArray::createNumericMatrix(0, 0, ClassID::Double);
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const std::array<const HostArray*, 2> in = {data.get(), d.get()};
  return ObjectSystem::construct(kDigestClass, 2, in.data());
}

void releaseBuildStream(const HostArray& digest) {
  // "add" without a stream takes the default stream; nothing is added.
  const HostArrayPtr none = HostArray::createNumericMatrix(0, 0, ClassID::Double);
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 2> in = {&digest, none.get()};
  ObjectSystem::callMethod("add", 0, out.data(), 2, in.data());
}

}  // namespace zotdigest::engine
