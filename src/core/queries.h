// Distribution queries of a digest: the cumulative distribution at a value
// and its inverse. Both read the digest only.
#pragma once

#include <cstdint>

#include "core/tdigest.h"

namespace zotdigest {

// Estimated fraction of the data at or below x, in [0, 1]. Each centroid's
// count is spread uniformly between the midpoints to its neighbours (the
// first and last centroids symmetric about their means). 0.0 below the first
// mean, 1.0 at or above the last. Raises "stats:tdigest:CdfNoData" on a
// digest with no centroid. A NaN x is not rejected (it walks past every
// centroid); the element-wise method never passes one.
double cdf(const TDigest& digest, double x);

// Estimated value at cumulative probability q. Raises
// "stats:tdigest:IcdfInvalidQuantile" when q < 0 or q > 1 (checked first, so
// also on an empty digest; -0.0 and NaN pass). The host NaN for an empty
// digest, the mean for a single centroid, the last mean when q reaches the
// end; otherwise interpolated along the gap to a neighbour, extrapolating
// beyond the first and last means without clamping.
double icdf(const TDigest& digest, double q);

// --- resumable walks ---------------------------------------------------------
// Both walks stop at the first centroid whose own threshold (a midpoint for
// cdf, a running count for icdf) exceeds the argument, and every threshold
// depends only on the centroid's place in the walk, never on the argument. So
// when an argument is at least the one the walk last stopped for, the walk
// can go on from where it stopped and still stop at the same centroid with
// the same running state as a walk from the first centroid. A cursor keeps
// that state between calls: over arguments in ascending order it passes
// each centroid once in all; an argument below the last one (or NaN) starts
// the walk again. A cursor borrows the digest, which must not change while
// the cursor is in use. The scalar cdf and icdf descend to the centroid the
// walk stops at, with the same running count, where the tree promises that
// this is the same centroid (ordered means for cdf, running counts that
// cannot wrap for icdf), and are a fresh cursor's single call otherwise;
// either way the answer comes from the same operands by the same formula.

class CdfCursor {
 public:
  // Raises "stats:tdigest:CdfNoData" on a digest with no centroid.
  explicit CdfCursor(const TDigest& digest);
  // cdf(digest, x), bit for bit, for arguments in any order.
  double operator()(double x);

 private:
  void restart() noexcept;
  void step() noexcept;

  const CentroidNode* first_;
  const CentroidNode* second_;  // null for a lone centroid
  const CentroidNode* last_;
  double total_;
  // The walk: cur_ null once it has passed the last centroid.
  const CentroidNode* cur_ = nullptr;
  const CentroidNode* succ_ = nullptr;
  std::uint64_t cum_ = 0;
  double half_ = 0.0;
  double prevHalf_ = 0.0;
  double reached_;  // argument the walk last stopped for; NaN: start again
};

class IcdfCursor {
 public:
  // Never raises; an empty digest answers NaN for every valid quantile.
  explicit IcdfCursor(const TDigest& digest) noexcept;
  // Raises "stats:tdigest:IcdfInvalidQuantile" when q < 0 or q > 1; -0.0 and
  // NaN pass. icdf checks this before anything else.
  static void checkQuantile(double q);
  // icdf(digest, q), bit for bit, for arguments in any order.
  double operator()(double q);

 private:
  const CentroidTree& tree_;
  const CentroidNode* first_;
  bool empty_;
  bool single_;
  double total_;
  // The walk: cur_ null once it has passed the last centroid.
  const CentroidNode* cur_ = nullptr;
  std::uint64_t cum_ = 0;
  double reached_;  // target the walk last stopped for; NaN: start again
  // Neighbours of the centroid the walk last stopped at, found once per stop.
  const CentroidNode* neighboursOf_ = nullptr;
  const CentroidNode* pred_ = nullptr;
  const CentroidNode* succ_ = nullptr;
};

}  // namespace zotdigest
