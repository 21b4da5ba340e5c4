// Accuracy against exact quantiles on millions of values of several shapes,
// built value by value and merged from parts. Errors are in rank, as a share
// of rankErrorBound, against the whole rank range of the value (with ties any
// point inside a block is exact). A correct digest stays within half a share
// at each listed quantile and a few percent on average; a slip in either
// interpolation costs a quarter or more on average, which the average fails.
#include "accuracy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include "core/elementwise.h"
#include "core/queries.h"
#include "core_checks.h"
#include "quorix/host_array.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZOTDIGEST_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOTDIGEST_TEST_SANITIZED 1
#endif
#endif

namespace zotdigest {
namespace {

#ifdef ZOTDIGEST_TEST_SANITIZED
constexpr std::size_t kValues = 200000;  // sanitizers make add ~20x slower
#else
constexpr std::size_t kValues = 2000000;
#endif
constexpr std::size_t kParts = 8;
constexpr double kDelta = 100.0;
constexpr std::size_t kGrid = 200;
constexpr double kTightness = 0.5;      // at each listed quantile
constexpr double kMeanShare = 0.08;     // on average over the grid
constexpr double kTiedMeanShare = 0.3;  // icdf's average on tied data (see icdfBudget)
constexpr int kDistinct = 10;  // heavy duplicates: 90% are one of 1..10, the rest in [0, 11)

enum Shape { kUniform, kNormal, kLogNormal, kHeavyDuplicates, kSortedUniform };
const char* const kShapeNames[] = {"Uniform", "Normal", "LogNormal", "HeavyDuplicates",
                                   "SortedUniform"};

std::vector<double> sample(Shape shape) {
  auto stream = testing::seededStream(5);
  std::vector<double> v(kValues);
  for (double& x : v) {
    const double u1 = stream->uniform();
    const double u2 = shape == kUniform || shape == kSortedUniform ? 0.0 : stream->uniform();
    const double z = std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2);
    x = shape == kNormal            ? z
        : shape == kLogNormal       ? std::exp(z)
        : shape != kHeavyDuplicates ? u1
        : u1 < 0.9                  ? std::floor(u2 * kDistinct) + 1.0
                                    : u2 * (kDistinct + 1);
  }
  if (shape == kSortedUniform) std::sort(v.begin(), v.end());
  return v;
}

// Merged from contiguous parts, so the sorted input gives disjoint ranges.
TDigest digestOf(const std::vector<double>& values, bool merged) {
  testing::SeededDigest s(77, kDelta);
  const std::size_t parts = merged ? kParts : 1;
  for (std::size_t p = 0; p < parts; ++p) {
    TDigest part;
    part.delta = kDelta;
    part.stream = s.stream.get();
    TDigest& into = merged ? part : s.digest;
    const std::size_t end = p + 1 == parts ? values.size() : (p + 1) * (values.size() / parts);
    for (std::size_t i = p * (values.size() / parts); i < end; ++i) into.add(values[i]);
    if (merged) s.digest.merge(part);
  }
  s.digest.compress();
  s.digest.stream = nullptr;
  return s.digest;
}

using testing::rankError;
using testing::rankRange;

double nominal(double q) {
  return testing::rankErrorBound(q, kDelta, static_cast<double>(kValues));
}

// The budget for icdf(q). At the edge of a block of ties the run of
// centroids holding it starts (or ends) with centroids several times the
// nominal size (grown while compress re-added them against partial totals),
// and icdf inside one interpolates towards the distinct neighbour outside the
// block. Within that reach of an edge the budget is four centroids' share.
double icdfBudget(const std::vector<double>& sorted, double q, bool ties) {
  for (int k = 1; ties && k <= kDistinct; ++k) {
    const auto [below, atOrBelow] = rankRange(sorted, k);
    if (std::fabs(q - below) < 4.0 * nominal(q) || std::fabs(q - atOrBelow) < 4.0 * nominal(q)) {
      return 4.0 * nominal(q);
    }
  }
  return kTightness * nominal(q);
}

class AccuracyAtScale : public ::testing::TestWithParam<std::tuple<Shape, bool>> {};

// One test per case, so each digest of millions of values is built once.
TEST_P(AccuracyAtScale, icdf_and_cdf_stay_within_a_fraction_of_a_centroid) {
  const bool ties = std::get<0>(GetParam()) == kHeavyDuplicates;
  std::vector<double> sorted = sample(std::get<0>(GetParam()));
  const TDigest digest = digestOf(sorted, std::get<1>(GetParam()));
  std::sort(sorted.begin(), sorted.end());
  ASSERT_EQ(digest.totalWeight, kValues);
  const auto exact = [&](double q) {
    return sorted[std::min(kValues - 1,
                           static_cast<std::size_t>(q * static_cast<double>(kValues)))];
  };
  for (const double q : {1e-4, 1e-3, 0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.99, 0.999, 0.9999}) {
    const double v = icdf(digest, q);
    EXPECT_LE(rankError(sorted, v, q), icdfBudget(sorted, q, ties)) << "q " << q << " icdf " << v;
    const double p = cdf(digest, exact(q));
    EXPECT_LE(rankError(sorted, exact(q), p), kTightness * nominal(q)) << "q " << q << " cdf " << p;
  }

  // On average over a dense grid, through the element-wise sweep.
  auto grid = quorix::HostArray::createNumericMatrix(1, kGrid, quorix::ClassID::Double);
  auto gridExact = quorix::HostArray::createNumericMatrix(1, kGrid, quorix::ClassID::Double);
  for (std::size_t j = 0; j < kGrid; ++j) {
    grid->data<double>()[j] = (static_cast<double>(j) + 0.5) / static_cast<double>(kGrid);
    gridExact->data<double>()[j] = exact(grid->data<double>()[j]);
  }
  const auto icdfs = applyElementwise(*grid, digest, &icdf);
  const auto cdfs = applyElementwise(*gridExact, digest, &cdf);
  double icdfShare = 0.0;
  double cdfShare = 0.0;
  for (std::size_t j = 0; j < kGrid; ++j) {
    const double q = grid->data<double>()[j];
    icdfShare += rankError(sorted, icdfs->data<double>()[j], q) / nominal(q);
    cdfShare +=
        rankError(sorted, gridExact->data<double>()[j], cdfs->data<double>()[j]) / nominal(q);
  }
  EXPECT_LE(icdfShare / static_cast<double>(kGrid), ties ? kTiedMeanShare : kMeanShare);
  EXPECT_LE(cdfShare / static_cast<double>(kGrid), kMeanShare);
}

INSTANTIATE_TEST_SUITE_P(Shapes, AccuracyAtScale,
                         ::testing::Combine(::testing::Values(kUniform, kNormal, kLogNormal,
                                                              kHeavyDuplicates, kSortedUniform),
                                            ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(kShapeNames[std::get<0>(info.param)]) +
                                  (std::get<1>(info.param) ? "_MergedParts" : "_ValueByValue");
                         });

}  // namespace
}  // namespace zotdigest
