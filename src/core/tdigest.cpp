// TDigest: insertion, compression and merge.
//
// Design note. A digest fed the same values from a stream in the same state
// must end with the same centroids, bit for bit. What fixes that:
//  - add draws exactly one uniform value per eligible centroid of the
//    nearest run, in order, and none for an ineligible one;
//  - the run is searched forward from floor(x), so of several equal means
//    below x only the last can take part;
//  - compress draws one full permutation and re-adds in that order;
//  - merge re-adds heaviest first, ties in listing order (stable sort);
//  - counts enter floating point only through toDouble, after any unsigned
//    64-bit arithmetic (4 x totalWeight and count + w wrap before they are
//    converted), and every formula is evaluated left to right as written.
//
// add and compress call each other. A compression that re-adds centroids
// none of which can absorb another (zero weights, or weights so large that
// 4 x totalWeight wraps) would recurse without end, so nesting is capped:
// past kMaxCompressDepth nested compressions, compression is abandoned for
// the rest of the outermost add, compress or merge: the remaining values
// are simply inserted, each add whose compression was refused counting its
// own weight. Ordinary data never gets near the cap (a level repeats only
// when a whole re-add merged nothing, which random order makes ever less
// likely).
#include "core/tdigest.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "host/errors.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace zotdigest {
namespace {

constexpr int kMaxCompressDepth = 64;

// Nesting state on this thread. A digest is used by one thread at a time
// and add, compress and merge never call into another digest, so per-thread
// state is per-digest state while one of them runs. Once abandoned,
// compression stays off until the outermost add, compress or merge returns,
// so a merge of centroids that cannot fold pays for one futile chain only.
thread_local int operationDepth = 0;
thread_local int compressDepth = 0;
thread_local bool compressAbandoned = false;

class OperationScope {
 public:
  OperationScope() noexcept { ++operationDepth; }
  ~OperationScope() {
    if (--operationDepth == 0) compressAbandoned = false;
  }
  OperationScope(const OperationScope&) = delete;
  OperationScope& operator=(const OperationScope&) = delete;
};

class CompressNesting {
 public:
  CompressNesting() noexcept { ++compressDepth; }
  ~CompressNesting() { --compressDepth; }
  CompressNesting(const CompressNesting&) = delete;
  CompressNesting& operator=(const CompressNesting&) = delete;
};

quorix::RandomStream& streamOf(TDigest& digest) {
  if (digest.stream == nullptr) digest.stream = &quorix::RandomStream::defaultStream();
  return *digest.stream;
}

enum class Compression {
  Rebuilt,    // the tree was rebuilt and the total recounted
  Unchanged,  // fewer than two centroids, or 20 x delta < 1
  Refused,    // nested too deep: the caller must count its own weight
};

Compression compressDigest(TDigest& digest) {
  // Below 20 x delta = 1 every re-add would compress again.
  if (digest.tree.size() < 2 || digest.delta * 20.0 < 1.0) return Compression::Unchanged;
  if (compressAbandoned) return Compression::Refused;
  if (compressDepth >= kMaxCompressDepth) {
    compressAbandoned = true;
    return Compression::Refused;
  }
  CompressNesting nesting;

  std::vector<Centroid> listed;
  digest.tree.listCentroids(listed);
  // The listing, not size(), sizes the permutation: a decoded tree may carry
  // a size that does not match its nodes.
  const std::size_t n = listed.size();
  quorix::RandomStream& random = streamOf(digest);
  std::vector<Centroid> shuffled;
  shuffled.reserve(n);
  if (n > 0) {
    std::vector<double> positions(n);
    random.randomPermutation(positions.data(), n, toDouble(n));
    for (const double p : positions) {
      shuffled.push_back(listed[static_cast<std::size_t>(p) - 1]);  // 1-based
    }
  }

  digest.totalWeight = 0;
  digest.tree = CentroidTree();
  for (const Centroid& c : shuffled) digest.add(c.mean, c.count);
  return Compression::Rebuilt;
}

}  // namespace

void TDigest::add(double x, std::uint64_t w) {
  if (quorix::isNaN(x)) return;
  const OperationScope scope;

  CentroidNode* start = tree.floor(x);
  if (start == nullptr) start = tree.first();
  if (start == nullptr) {
    tree.insert(x, w);
  } else {
    // The run of centroids nearest to x, walking forward from start.
    CentroidNode* runLast = nullptr;
    double best = std::numeric_limits<double>::infinity();
    for (CentroidNode* node = start; node != nullptr; node = CentroidTree::next(node)) {
      const double d = std::fabs(node->mean - x);
      if (d < best) {
        best = d;
        start = node;
      } else if (d > best) {
        break;
      }
      runLast = node;
    }

    std::uint64_t before = CentroidTree::headSum(start);
    CentroidNode* candidate = nullptr;
    double seen = 0.0;
    quorix::RandomStream& random = streamOf(*this);
    for (CentroidNode* node = start; node != nullptr; node = CentroidTree::next(node)) {
      const double q = (toDouble(node->count) * 0.5 + toDouble(before)) / toDouble(totalWeight);
      const double bound = toDouble(UINT64_C(4) * totalWeight) * q * (1.0 - q) / delta;
      if (bound >= toDouble(node->count + w)) {
        // Reservoir choice: the k-th eligible centroid replaces the current
        // choice with probability 1/k.
        const double u = random.uniform();
        seen += 1.0;
        if (1.0 / seen >= u) candidate = node;
      }
      before += node->count;
      if (node == runLast) break;
    }

    if (candidate != nullptr) {
      tree.updateCentroid(x, w, candidate, start, runLast);
    } else {
      tree.insert(x, w);
    }
  }

  // A compression recounts the total from the tree, which already holds w;
  // one that did nothing leaves w uncounted, as designed for tiny deltas.
  if (toDouble(tree.size()) > delta * 20.0 && compressDigest(*this) != Compression::Refused) {
    return;
  }
  totalWeight += w;
}

void TDigest::compress() {
  const OperationScope scope;
  compressDigest(*this);
}

void TDigest::merge(const TDigest& other) {
  if (!(delta == other.delta)) raiseError<stats::tdigest::MergeDeltaMismatch>(MergeDeltaMismatch());
  const OperationScope scope;

  // Both listings are taken before the tree is emptied, so other may be
  // this digest.
  std::vector<Centroid> all;
  tree.listCentroids(all);
  other.tree.listCentroids(all);
  std::stable_sort(all.begin(), all.end(),
                   [](const Centroid& a, const Centroid& b) { return a.count > b.count; });

  totalWeight = 0;
  tree = CentroidTree();
  for (const Centroid& c : all) add(c.mean, c.count);
}

}  // namespace zotdigest
