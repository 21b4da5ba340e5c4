// cdf and icdf: ordered walks over the centroid tree, kept in cursors so
// that a sweep over ascending arguments resumes each walk instead of
// starting it again (see queries.h for why that stops at the same centroid).
// A scalar call on a tree that promises what a descent needs (see
// CentroidTree::meansOrdered and runningCountsExact) descends to the
// centroid the walk would stop at instead; any other tree gets the walk.
//
// Counts enter floating point through toDouble only, after any unsigned
// addition. Neither walk reads a neighbour that does not exist: a decoded
// tree may hold NaN or unsorted means, which can let a walk past the checks
// that would stop it on a well-formed tree. The resumption argument needs
// no ordering of the means, so it holds on such trees too.
#include "core/queries.h"

#include <cstdint>
#include <limits>

#include "host/errors.h"
#include "quorix/host_array.h"

namespace zotdigest {

namespace {
constexpr double kStartAgain = std::numeric_limits<double>::quiet_NaN();
}  // namespace

// --- cdf -----------------------------------------------------------------

CdfCursor::CdfCursor(const TDigest& digest)
    : first_(digest.tree.first()),
      second_(nullptr),
      last_(nullptr),
      total_(toDouble(digest.totalWeight)),
      reached_(kStartAgain) {
  if (digest.tree.size() == 0 || first_ == nullptr) {
    raiseError<stats::tdigest::CdfNoData>(CdfNoData());
  }
  second_ = CentroidTree::next(first_);
  last_ = digest.tree.last();
}

// The first centroid's lower half-width is taken equal to its upper one.
void CdfCursor::restart() noexcept {
  cur_ = first_;
  succ_ = second_;
  cum_ = 0;
  half_ = (succ_->mean - cur_->mean) * 0.5;
  prevHalf_ = half_;
}

// Passes cur_ whole. The last centroid reuses its lower half-width above
// its mean.
void CdfCursor::step() noexcept {
  cum_ += cur_->count;
  cur_ = succ_;
  succ_ = succ_ != nullptr ? CentroidTree::next(succ_) : nullptr;
  prevHalf_ = half_;
  if (succ_ != nullptr) half_ = (succ_->mean - cur_->mean) * 0.5;
}

double CdfCursor::operator()(double x) {
  if (first_->mean > x) return 0.0;
  if (x >= last_->mean) return 1.0;
  // Only a lone centroid with a NaN mean gets here.
  if (second_ == nullptr) return quorix::hostNaN();

  if (!(x >= reached_)) restart();
  reached_ = x;
  while (cur_ != nullptr && !(cur_->mean + half_ > x)) step();
  if (cur_ == nullptr) return 1.0;

  const double hi = cur_->mean + half_;
  const double lo = cur_->mean - prevHalf_;
  return (toDouble(cur_->count) * (x - lo) / (hi - lo) + toDouble(cum_)) / total_;
}

// On a tree whose means are ordered, finite and no further apart than the
// largest double, every midpoint m + (m' - m) x 0.5 that the walk compares
// with lies between the two means it is made from (rounding cannot carry it
// past either). So the walk stops at the first centroid above x or at the
// one before it, whichever the midpoint test picks; one descent finds both,
// and the answer is formed from the same operands as the walk's.
double cdf(const TDigest& digest, double x) {
  const CentroidTree& tree = digest.tree;
  if (!tree.meansOrdered() || tree.size() < 2) return CdfCursor(digest)(x);
  const CentroidNode* first = tree.first();
  const CentroidNode* last = tree.last();
  if (first->mean > x) return 0.0;
  if (x >= last->mean) return 1.0;
  if (!(last->mean - first->mean < std::numeric_limits<double>::infinity())) {
    return CdfCursor(digest)(x);
  }

  const CentroidTree::Split s = tree.splitAboveMean(x);
  if (s.after == nullptr) return 1.0;  // x NaN: the walk passes every centroid
  // Between first and last: both sides of the split exist.
  const CentroidNode* below = s.before;
  const CentroidNode* above = s.after;
  const double gap = (above->mean - below->mean) * 0.5;
  const CentroidNode* cur = nullptr;
  std::uint64_t cum = 0;
  double half = 0.0;
  double prevHalf = 0.0;
  if (below->mean + gap > x) {
    cur = below;
    cum = s.afterHead - below->count;
    half = gap;
    const CentroidNode* pred = CentroidTree::previousOfBefore(s);
    prevHalf = pred != nullptr ? (below->mean - pred->mean) * 0.5 : half;
  } else {
    cur = above;
    cum = s.afterHead;
    prevHalf = gap;
    const CentroidNode* succ = CentroidTree::nextOfAfter(s);
    half = succ != nullptr ? (succ->mean - above->mean) * 0.5 : prevHalf;
  }
  const double hi = cur->mean + half;
  const double lo = cur->mean - prevHalf;
  return (toDouble(cur->count) * (x - lo) / (hi - lo) + toDouble(cum)) /
         toDouble(digest.totalWeight);
}

// --- icdf ----------------------------------------------------------------

IcdfCursor::IcdfCursor(const TDigest& digest) noexcept
    : tree_(digest.tree),
      first_(digest.tree.first()),
      empty_(digest.tree.size() == 0 || first_ == nullptr),
      single_(!empty_ && (digest.tree.size() == 1 || CentroidTree::next(first_) == nullptr)),
      total_(toDouble(digest.totalWeight)),
      reached_(kStartAgain) {}

void IcdfCursor::checkQuantile(double q) {
  if (0.0 > q || q > 1.0) raiseError<stats::tdigest::IcdfInvalidQuantile>(IcdfInvalidQuantile());
}

double IcdfCursor::operator()(double q) {
  checkQuantile(q);
  if (empty_) return quorix::hostNaN();
  if (single_) return first_->mean;

  const double target = q * total_;
  if (!(target >= reached_)) {
    cur_ = first_;
    cum_ = 0;
  }
  reached_ = target;
  while (cur_ != nullptr && !(toDouble(cum_ + cur_->count) > target)) {
    cum_ += cur_->count;
    cur_ = CentroidTree::next(cur_);
  }
  // Found only when needed: most scalar calls never walk off the end.
  if (cur_ == nullptr) return tree_.last()->mean;

  if (neighboursOf_ != cur_) {
    neighboursOf_ = cur_;
    // The first centroid of a tree of its own has no predecessor; climbing
    // to the root to find that out is most of a scalar icdf(0).
    pred_ = cur_ == first_ && tree_.aggregatesExact() ? nullptr : CentroidTree::previous(cur_);
    succ_ = CentroidTree::next(cur_);
  }
  // Position within the centroid, from its middle, in units of its count.
  const double t = (target - toDouble(cum_)) / toDouble(cur_->count) - 0.5;
  if (succ_ != nullptr && (pred_ == nullptr || t > 0)) {
    return cur_->mean + (succ_->mean - cur_->mean) * t;
  }
  if (pred_ != nullptr) return cur_->mean + (cur_->mean - pred_->mean) * t;
  return cur_->mean;  // no neighbour at all: only on a malformed tree
}

// Running counts that cannot wrap never decrease, so neither do their
// conversions to double: the walk's test stays true once it turns true,
// and one descent finds the centroid and the running count it stops with.
double icdf(const TDigest& digest, double q) {
  const CentroidTree& tree = digest.tree;
  if (!tree.runningCountsExact() || tree.size() < 2) return IcdfCursor(digest)(q);
  IcdfCursor::checkQuantile(q);

  const double target = q * toDouble(digest.totalWeight);
  const CentroidTree::Split s = tree.splitAboveRunning(target);
  if (s.after == nullptr) return tree.last()->mean;
  const CentroidNode* cur = s.after;
  const CentroidNode* pred = s.before;
  const CentroidNode* succ = CentroidTree::nextOfAfter(s);
  const double t = (target - toDouble(s.afterHead)) / toDouble(cur->count) - 0.5;
  if (succ != nullptr && (pred == nullptr || t > 0)) {
    return cur->mean + (succ->mean - cur->mean) * t;
  }
  return cur->mean + (cur->mean - pred->mean) * t;
}

}  // namespace zotdigest
