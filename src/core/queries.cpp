// cdf and icdf: ordered walks over the centroid tree, kept in cursors so
// that a sweep over ascending arguments resumes each walk instead of
// starting it again (see queries.h for why that stops at the same centroid).
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

double cdf(const TDigest& digest, double x) { return CdfCursor(digest)(x); }

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

double icdf(const TDigest& digest, double q) { return IcdfCursor(digest)(q); }

}  // namespace zotdigest
