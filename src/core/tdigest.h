// TDigest: one digest. Its members are public because the property
// accessors, the construction code and the host binding each own one facet
// of it; the invariants are kept by add, compress and merge.
#pragma once

#include <cstdint>

#include "core/centroid_tree.h"

namespace quorix {
class RandomStream;
}

namespace zotdigest {

class TDigest {
 public:
  // Folds value x with weight w into the digest. NaN is ignored; infinities
  // are ordinary values. Draws one uniform value per eligible centroid of the
  // nearest run, and compresses once the tree passes 20 x delta centroids.
  void add(double x, std::uint64_t w);
  void add(double x) { add(x, 1); }
  // Rebuilds the tree by re-adding every centroid in random order (one full
  // permutation drawn from `stream`). No change with fewer than two
  // centroids or when 20 x delta < 1.
  void compress();
  // Folds every centroid of `other` into this digest, heaviest first.
  // Raises "stats:tdigest:MergeDeltaMismatch" (both digests unchanged) when
  // the deltas differ or either is NaN. `other` may be this digest.
  void merge(const TDigest& other);

  double delta = 100.0;
  std::uint64_t totalWeight = 0;
  CentroidTree tree;
  // Borrowed; set to the host's default stream when null at a draw.
  quorix::RandomStream* stream = nullptr;
};

// The one place counts become doubles: always as unsigned magnitudes.
inline double toDouble(std::uint64_t v) noexcept { return static_cast<double>(v); }

}  // namespace zotdigest
