// Accuracy against exact quantiles on millions of values of several shapes,
// built value by value and merged from parts.
//
// Errors are measured in rank and as a share of rankErrorBound (about one
// centroid's share of the data at q). A correct digest stays within a few
// percent of that share on average, and within half of it at each listed
// quantile; a slip in either interpolation (an answer moved by half a
// centroid, or cdf flat within each centroid) costs a quarter of it or more
// on average, so the average check is the one such a slip cannot pass.
// Rank error is measured against the whole rank range of the returned value,
// so with ties (the heavy-duplicate data) any point inside a block is exact.
#include "accuracy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <string>
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

using quorix::HostArrayPtr;

#ifdef ZOTDIGEST_TEST_SANITIZED
constexpr std::size_t kValues = 200000;  // sanitizers make add ~20x slower
#else
constexpr std::size_t kValues = 2000000;
#endif
constexpr std::size_t kParts = 8;
constexpr double kDelta = 100.0;
// Shares of rankErrorBound a correct digest must stay within: at each
// listed quantile, and on average over a grid of kGrid quantiles (for tied
// data, whose block edges weigh on icdf's average, a looser one).
constexpr double kTightness = 0.5;
constexpr std::size_t kGrid = 200;
constexpr double kMeanShare = 0.08;
constexpr double kTiedMeanShare = 0.3;

enum class Shape { Uniform, Normal, LogNormal, HeavyDuplicates, SortedUniform };
enum class Build { ValueByValue, MergedParts };

std::string shapeName(Shape s) {
  switch (s) {
    case Shape::Uniform:
      return "Uniform";
    case Shape::Normal:
      return "Normal";
    case Shape::LogNormal:
      return "LogNormal";
    case Shape::HeavyDuplicates:
      return "HeavyDuplicates";
    case Shape::SortedUniform:
      return "SortedUniform";
  }
  return "";
}

// Heavy duplicates: 90% of the values are one of 1, 2, ..., 10; the rest
// are spread uniformly over [0, 11).
constexpr int kDistinct = 10;

std::vector<double> sample(Shape shape, std::size_t n, std::uint64_t seed) {
  auto stream = testing::seededStream(seed);
  std::vector<double> v(n);
  for (double& x : v) {
    const double u1 = stream->uniform();
    switch (shape) {
      case Shape::Uniform:
      case Shape::SortedUniform:
        x = u1;
        break;
      case Shape::Normal:
      case Shape::LogNormal: {
        const double u2 = stream->uniform();
        const double z = std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2);
        x = shape == Shape::Normal ? z : std::exp(z);
        break;
      }
      case Shape::HeavyDuplicates: {
        const double u2 = stream->uniform();
        x = u1 < 0.9 ? std::floor(u2 * kDistinct) + 1.0 : u2 * (kDistinct + 1);
        break;
      }
    }
  }
  if (shape == Shape::SortedUniform) std::sort(v.begin(), v.end());
  return v;
}

TDigest digestOf(const std::vector<double>& values, Build build) {
  auto stream = testing::seededStream(77);
  TDigest digest;
  digest.delta = kDelta;
  digest.stream = stream.get();
  if (build == Build::ValueByValue) {
    for (const double x : values) digest.add(x);
  } else {
    // Contiguous parts, so the sorted input gives parts with disjoint ranges.
    const std::size_t per = values.size() / kParts;
    for (std::size_t p = 0; p < kParts; ++p) {
      TDigest part;
      part.delta = kDelta;
      part.stream = stream.get();
      const std::size_t end = p + 1 == kParts ? values.size() : (p + 1) * per;
      for (std::size_t i = p * per; i < end; ++i) part.add(values[i]);
      digest.merge(part);
    }
  }
  digest.compress();
  digest.stream = nullptr;
  return digest;
}

// Fractions of the data strictly below v and at or below v.
struct RankRange {
  double below;
  double atOrBelow;
};

RankRange rankRange(const std::vector<double>& sorted, double v) {
  const double n = static_cast<double>(sorted.size());
  const auto lower = std::lower_bound(sorted.begin(), sorted.end(), v) - sorted.begin();
  const auto upper = std::upper_bound(sorted.begin(), sorted.end(), v) - sorted.begin();
  return {static_cast<double>(lower) / n, static_cast<double>(upper) / n};
}

// Distance from p to the rank range of v: 0 anywhere inside a block of ties.
double rankError(const std::vector<double>& sorted, double v, double p) {
  const RankRange r = rankRange(sorted, v);
  return p < r.below ? r.below - p : p > r.atOrBelow ? p - r.atOrBelow : 0.0;
}

// The budget for icdf(q). Near the edge of a block of ties the run of
// centroids holding the block starts (or ends) with centroids several times
// the nominal size, grown while compress re-added them against partial
// totals, and icdf inside such a centroid interpolates towards the distinct
// neighbour: a value next to the block, whose rank lies outside it. Within
// that reach of an edge the budget is four centroids' share.
double icdfBudget(const std::vector<double>& sorted, double q, bool ties) {
  const double nominal = testing::rankErrorBound(q, kDelta, static_cast<double>(sorted.size()));
  if (ties) {
    for (int k = 1; k <= kDistinct; ++k) {
      const RankRange block = rankRange(sorted, k);
      if (std::fabs(q - block.below) < 4.0 * nominal ||
          std::fabs(q - block.atOrBelow) < 4.0 * nominal) {
        return 4.0 * nominal;
      }
    }
  }
  return kTightness * nominal;
}

double bound(double q) {
  return kTightness * testing::rankErrorBound(q, kDelta, static_cast<double>(kValues));
}

const std::vector<double> kQuantiles = {1e-4, 1e-3, 0.01, 0.1,   0.25,  0.5,
                                        0.75, 0.9,  0.99, 0.999, 0.9999};

struct Case {
  Shape shape;
  Build build;
};

class AccuracyAtScale : public ::testing::TestWithParam<Case> {};

HostArrayPtr rowOf(const std::vector<double>& values) {
  HostArrayPtr a =
      quorix::HostArray::createNumericMatrix(1, values.size(), quorix::ClassID::Double);
  std::copy(values.begin(), values.end(), a->data<double>());
  return a;
}

// One test per case, so each digest of millions of values is built once.
TEST_P(AccuracyAtScale, icdf_and_cdf_stay_within_a_fraction_of_a_centroid) {
  const Shape shape = GetParam().shape;
  const bool ties = shape == Shape::HeavyDuplicates;
  std::vector<double> sorted = sample(shape, kValues, 5);
  const TDigest digest = digestOf(sorted, GetParam().build);
  std::sort(sorted.begin(), sorted.end());
  ASSERT_EQ(digest.totalWeight, kValues);
  const auto exactQuantile = [&](double q) {
    const auto k = static_cast<std::size_t>(q * static_cast<double>(kValues));
    return sorted[std::min(kValues - 1, k)];
  };

  // Every listed quantile on its own.
  for (const double q : kQuantiles) {
    const double v = icdf(digest, q);
    EXPECT_LE(rankError(sorted, v, q), icdfBudget(sorted, q, ties))
        << "q = " << q << ", icdf = " << v;
    const double x = exactQuantile(q);
    const double p = cdf(digest, x);
    EXPECT_LE(rankError(sorted, x, p), bound(q)) << "q = " << q << ", x = " << x << ", cdf = " << p;
  }

  // On average over a dense grid, through the element-wise sweep: a correct
  // digest's error is a few percent of a centroid's share, an answer moved by
  // half a centroid (or cdf flat within each centroid) a quarter or more.
  std::vector<double> grid(kGrid);
  std::vector<double> gridExact(kGrid);
  for (std::size_t j = 0; j < kGrid; ++j) {
    grid[j] = (static_cast<double>(j) + 0.5) / static_cast<double>(kGrid);
    gridExact[j] = exactQuantile(grid[j]);
  }
  const HostArrayPtr icdfs = applyElementwise(*rowOf(grid), digest, &icdf);
  const HostArrayPtr cdfs = applyElementwise(*rowOf(gridExact), digest, &cdf);
  double icdfShare = 0.0;
  double cdfShare = 0.0;
  for (std::size_t j = 0; j < kGrid; ++j) {
    const double nominal = testing::rankErrorBound(grid[j], kDelta, static_cast<double>(kValues));
    icdfShare += rankError(sorted, icdfs->data<double>()[j], grid[j]) / nominal;
    cdfShare += rankError(sorted, gridExact[j], cdfs->data<double>()[j]) / nominal;
  }
  // Ties: the edges of the blocks (see icdfBudget) dominate icdf's average.
  EXPECT_LE(icdfShare / static_cast<double>(kGrid), ties ? kTiedMeanShare : kMeanShare);
  EXPECT_LE(cdfShare / static_cast<double>(kGrid), kMeanShare);

  if (!ties) return;
  // Each duplicated value is a block of about 9% of the data, held by a run
  // of centroids with exactly that mean. The walk passes the whole run at
  // the value but for its last centroid, whose share lies above its mean;
  // just below the value it stops in the run's first centroid, nearly whole.
  // So cdf never loses data before the block nor claims data after it, and
  // its jump at the value covers the block but for the run's two edge
  // centroids (together well under two thirds of it).
  for (int k = 1; k <= kDistinct; ++k) {
    const double v = k;
    const RankRange block = rankRange(sorted, v);
    const double justBelow = cdf(digest, std::nextafter(v, 0.0));
    const double at = cdf(digest, v);
    EXPECT_GE(justBelow, block.below - bound(block.below)) << "v = " << v;
    EXPECT_LE(at, block.atOrBelow + bound(block.atOrBelow)) << "v = " << v;
    EXPECT_GE(at - justBelow, (block.atOrBelow - block.below) / 3.0) << "v = " << v;
  }
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return shapeName(info.param.shape) +
         (info.param.build == Build::ValueByValue ? "_ValueByValue" : "_MergedParts");
}

INSTANTIATE_TEST_SUITE_P(Shapes, AccuracyAtScale,
                         ::testing::Values(Case{Shape::Uniform, Build::ValueByValue},
                                           Case{Shape::Uniform, Build::MergedParts},
                                           Case{Shape::Normal, Build::ValueByValue},
                                           Case{Shape::Normal, Build::MergedParts},
                                           Case{Shape::LogNormal, Build::ValueByValue},
                                           Case{Shape::LogNormal, Build::MergedParts},
                                           Case{Shape::HeavyDuplicates, Build::ValueByValue},
                                           Case{Shape::HeavyDuplicates, Build::MergedParts},
                                           Case{Shape::SortedUniform, Build::ValueByValue},
                                           Case{Shape::SortedUniform, Build::MergedParts}),
                         caseName);

}  // namespace
}  // namespace zotdigest
