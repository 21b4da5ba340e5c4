// cdf and icdf: ordered walks over the centroid tree.
//
// Counts enter floating point through toDouble only, after any unsigned
// addition. Neither walk reads a neighbour that does not exist: a decoded
// tree may hold NaN or unsorted means, which can let a walk past the checks
// that would stop it on a well-formed tree.
#include "core/queries.h"

#include <cstdint>

#include "host/errors.h"
#include "quorix/host_array.h"

namespace zotdigest {

double cdf(const TDigest& digest, double x) {
  const CentroidTree& tree = digest.tree;
  const CentroidNode* cur = tree.first();
  if (tree.size() == 0 || cur == nullptr) raiseError<stats::tdigest::CdfNoData>(CdfNoData());
  if (cur->mean > x) return 0.0;
  if (x >= tree.last()->mean) return 1.0;

  const CentroidNode* succ = CentroidTree::next(cur);
  // Only a lone centroid with a NaN mean gets here.
  if (succ == nullptr) return quorix::hostNaN();
  std::uint64_t cum = 0;
  double half = (succ->mean - cur->mean) * 0.5;
  double prevHalf = half;  // the first centroid is symmetric about its mean
  for (;;) {
    if (cur->mean + half > x) break;
    cum += cur->count;
    cur = succ;
    succ = succ != nullptr ? CentroidTree::next(succ) : nullptr;
    prevHalf = half;
    // The last centroid reuses its lower half-width above its mean.
    if (succ != nullptr) half = (succ->mean - cur->mean) * 0.5;
    if (cur == nullptr) return 1.0;
  }
  const double hi = cur->mean + half;
  const double lo = cur->mean - prevHalf;
  return (toDouble(cur->count) * (x - lo) / (hi - lo) + toDouble(cum)) /
         toDouble(digest.totalWeight);
}

double icdf(const TDigest& digest, double q) {
  if (0.0 > q || q > 1.0) raiseError<stats::tdigest::IcdfInvalidQuantile>(IcdfInvalidQuantile());
  const CentroidTree& tree = digest.tree;
  const CentroidNode* first = tree.first();
  if (tree.size() == 0 || first == nullptr) return quorix::hostNaN();
  if (tree.size() == 1 || CentroidTree::next(first) == nullptr) return first->mean;

  const double target = q * toDouble(digest.totalWeight);
  std::uint64_t cum = 0;
  const CentroidNode* cur = first;
  while (cur != nullptr) {
    if (toDouble(cum + cur->count) > target) break;
    cum += cur->count;
    cur = CentroidTree::next(cur);
  }
  if (cur == nullptr) return tree.last()->mean;

  const CentroidNode* pred = CentroidTree::previous(cur);
  const CentroidNode* succ = CentroidTree::next(cur);
  // Position within the centroid, from its middle, in units of its count.
  const double t = (target - toDouble(cum)) / toDouble(cur->count) - 0.5;
  if (succ != nullptr && (pred == nullptr || t > 0)) {
    return cur->mean + (succ->mean - cur->mean) * t;
  }
  if (pred != nullptr) return cur->mean + (cur->mean - pred->mean) * t;
  return cur->mean;  // no neighbour at all: only on a malformed tree
}

}  // namespace zotdigest
