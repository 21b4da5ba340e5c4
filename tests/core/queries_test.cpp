#include "core/queries.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>
#include <vector>

#include "accuracy.h"
#include "core/elementwise.h"
#include "core_checks.h"
#include "host/errors.h"
#include "quorix/host_array.h"

namespace zotdigest {
namespace {

using component_QUORIX::catalog_class::key_RequireNumeric;
using component_QUORIX::catalog_class::key_RequireReal;
using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using testing::bits;
using testing::expectRaises;
using testing::seededStream;

constexpr std::uint64_t kHostNaNBits = 0x7FF8000000000000;
constexpr std::uint64_t kElementNaNBits = 0xFFF8000000000000;
const double kNaN = std::nan("");

// Centroids placed directly; the total is their sum.
TDigest digestOf(const std::vector<Centroid>& centroids) {
  TDigest digest;
  for (const Centroid& c : centroids) {
    digest.tree.insert(c.mean, c.count);
    digest.totalWeight += c.count;
  }
  return digest;
}

// Means 1, 3, 5 with counts 4, 4, 2: total 10.
TDigest threeCentroids() { return digestOf({{1.0, 4}, {3.0, 4}, {5.0, 2}}); }

HostArrayPtr doubleArray(quorix::Dims dims, const std::vector<double>& values) {
  HostArrayPtr a = HostArray::createNumeric(std::move(dims), ClassID::Double);
  std::copy(values.begin(), values.end(), a->data<double>());
  return a;
}

TEST(Cdf, empty_digest_raises) {
  const TDigest empty;
  expectRaises<stats::tdigest::CdfNoData>([&] { (void)cdf(empty, 0.0); },
                                          "stats:tdigest:CdfNoData");
}

TEST(Cdf, single_centroid_is_a_step_at_its_mean) {
  const TDigest d = digestOf({{2.0, 5}});
  EXPECT_EQ(cdf(d, std::nextafter(2.0, 0.0)), 0.0);
  EXPECT_EQ(cdf(d, 2.0), 1.0);
  EXPECT_EQ(cdf(d, 1e300), 1.0);
  // A lone NaN mean passes both end tests; there is no neighbour to use.
  const TDigest nanMean = digestOf({{kNaN, 5}});
  EXPECT_EQ(bits(cdf(nanMean, 0.0)), kHostNaNBits);
}

TEST(Cdf, end_means_and_interior_values) {
  const TDigest d = threeCentroids();
  EXPECT_EQ(cdf(d, 1.0), 4.0 * 0.5 / 10.0);  // half of the first centroid
  EXPECT_EQ(cdf(d, 5.0), 1.0);
  EXPECT_EQ(cdf(d, 3.0), (4.0 * (3.0 - 2.0) / (4.0 - 2.0) + 4.0) / 10.0);
  EXPECT_EQ(cdf(d, 4.5), (2.0 * (4.5 - 4.0) / (6.0 - 4.0) + 8.0) / 10.0);  // last reuses lower half
  EXPECT_EQ(cdf(d, 0.5), 0.0);                                             // below the first mean
  TDigest doubled = threeCentroids();
  doubled.totalWeight *= 2;
  for (const double x : {1.0, 2.2, 3.0, 4.9}) EXPECT_EQ(cdf(doubled, x), cdf(d, x) / 2.0);
}

TEST(Cdf, is_monotone_across_equal_means) {
  const TDigest d = digestOf({{1.0, 2}, {2.0, 3}, {2.0, 3}, {2.0, 1}, {4.0, 2}});
  double previous = 0.0;
  for (double x = 0.0; x <= 4.5; x += 1.0 / 64.0) {
    const double p = cdf(d, x);
    EXPECT_GE(p, previous) << "x = " << x;
    EXPECT_LE(p, 1.0);
    previous = p;
  }
}

TEST(Icdf, quantile_range_is_checked_first) {
  const TDigest empty;
  expectRaises<stats::tdigest::IcdfInvalidQuantile>([&] { (void)icdf(empty, 1.5); },
                                                    "stats:tdigest:IcdfInvalidQuantile");
  expectRaises<stats::tdigest::IcdfInvalidQuantile>(
      [&] { (void)icdf(threeCentroids(), -std::numeric_limits<double>::denorm_min()); },
      "stats:tdigest:IcdfInvalidQuantile");
  EXPECT_EQ(bits(icdf(empty, 0.5)), kHostNaNBits);
  EXPECT_EQ(bits(icdf(empty, -0.0)), kHostNaNBits);
  EXPECT_EQ(icdf(threeCentroids(), -0.0), 0.0);
}

TEST(Icdf, single_centroid_answers_its_mean) {
  const TDigest d = digestOf({{-7.25, 3}});
  for (const double q : {0.0, 0.3, 1.0}) EXPECT_EQ(icdf(d, q), -7.25);
}

TEST(Icdf, interpolates_and_extrapolates_without_clamping) {
  const TDigest d = threeCentroids();
  EXPECT_EQ(icdf(d, 0.0), 1.0 - 0.5 * (3.0 - 1.0));   // below the first mean
  EXPECT_EQ(icdf(d, 0.4), 3.0 + (3.0 - 1.0) * -0.5);  // t <= 0: towards the predecessor
  EXPECT_EQ(icdf(d, 0.6), 3.0);                       // t = 0
  const double t = (0.7 * 10.0 - 4.0) / 4.0 - 0.5;
  EXPECT_EQ(icdf(d, 0.7), 3.0 + (5.0 - 3.0) * t);      // t > 0: towards the successor
  EXPECT_EQ(icdf(d, 0.95), 5.0 + (5.0 - 3.0) * 0.25);  // above the last mean
  EXPECT_EQ(icdf(d, 1.0), 5.0);
}

// --- element-wise apply ----------------------------------------------------

int scalarCalls = 0;
double countingCdf(const TDigest& digest, double x) {
  ++scalarCalls;
  return cdf(digest, x);
}

TEST(Elementwise, three_dimensions_fold_into_rows_by_columns) {
  const TDigest d = threeCentroids();
  std::vector<double> values(24);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = 0.25 * static_cast<double>(i);
  const HostArrayPtr in = doubleArray({2, 3, 4}, values);
  const HostArrayPtr out = applyElementwise(*in, d, &cdf);
  ASSERT_EQ(out->dims(), (quorix::Dims{2, 12}));
  EXPECT_EQ(out->classID(), ClassID::Double);
  EXPECT_FALSE(out->isComplex());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(out->data<double>()[i], cdf(d, values[i]));
  }
}

TEST(Elementwise, nan_elements_answer_the_element_nan_without_a_call) {
  const TDigest empty;  // cdf would raise on any real call
  scalarCalls = 0;
  const HostArrayPtr in = doubleArray({1, 2}, {kNaN, -kNaN});
  const HostArrayPtr out = applyElementwise(*in, empty, &countingCdf);
  EXPECT_EQ(scalarCalls, 0);
  EXPECT_EQ(bits(out->data<double>()[0]), kElementNaNBits);
  EXPECT_EQ(bits(out->data<double>()[1]), kElementNaNBits);

  const HostArrayPtr none = HostArray::createNumericMatrix(0, 3, ClassID::Double);
  const HostArrayPtr result = applyElementwise(*none, empty, &countingCdf);
  EXPECT_EQ(result->dims(), (quorix::Dims{0, 3}));
  EXPECT_EQ(scalarCalls, 0);
}

TEST(Elementwise, complex_before_numeric_and_errors_mid_loop) {
  const TDigest d = threeCentroids();
  const HostArrayPtr complexIn = HostArray::createNumericMatrix(1, 1, ClassID::Int16, true);
  expectRaises<key_RequireReal>([&] { (void)applyElementwise(*complexIn, d, &cdf); },
                                "QUORIX:class:RequireReal");
  const HostArrayPtr text = HostArray::createChar("0.5");
  expectRaises<key_RequireNumeric>([&] { (void)applyElementwise(*text, d, &cdf); },
                                   "QUORIX:class:RequireNumeric");
  const HostArrayPtr logical = HostArray::createLogical({1, 1});
  expectRaises<key_RequireNumeric>([&] { (void)applyElementwise(*logical, d, &cdf); },
                                   "QUORIX:class:RequireNumeric");
  const HostArrayPtr qs = doubleArray({1, 3}, {0.5, 2.0, 0.1});
  expectRaises<stats::tdigest::IcdfInvalidQuantile>([&] { (void)applyElementwise(*qs, d, &icdf); },
                                                    "stats:tdigest:IcdfInvalidQuantile");
}

// Every numeric class is read as the double it holds.
template <class T>
class ElementwiseTyped : public ::testing::Test {};

template <class T, ClassID Id>
struct Element {
  using Type = T;
  static constexpr ClassID id = Id;
};
using NumericElements =
    ::testing::Types<Element<double, ClassID::Double>, Element<float, ClassID::Single>,
                     Element<std::int8_t, ClassID::Int8>, Element<std::uint8_t, ClassID::UInt8>,
                     Element<std::int16_t, ClassID::Int16>, Element<std::uint16_t, ClassID::UInt16>,
                     Element<std::int32_t, ClassID::Int32>, Element<std::uint32_t, ClassID::UInt32>,
                     Element<std::int64_t, ClassID::Int64>,
                     Element<std::uint64_t, ClassID::UInt64>>;
TYPED_TEST_SUITE(ElementwiseTyped, NumericElements);

TYPED_TEST(ElementwiseTyped, reads_each_element_as_a_double) {
  using T = typename TypeParam::Type;
  const TDigest d = threeCentroids();
  const HostArrayPtr in = HostArray::createNumericMatrix(2, 3, TypeParam::id);
  for (int i = 0; i < 6; ++i) in->template data<T>()[i] = static_cast<T>(i);
  const HostArrayPtr out = applyElementwise(*in, d, &cdf);
  ASSERT_EQ(out->dims(), (quorix::Dims{2, 3}));
  for (int i = 0; i < 6; ++i) EXPECT_EQ(out->data<double>()[i], cdf(d, i)) << "element " << i;
}

// --- accuracy --------------------------------------------------------------

// Fraction of the sorted data below v, counting ties half.
double rankOf(const std::vector<double>& sorted, double v) {
  const auto lo = std::lower_bound(sorted.begin(), sorted.end(), v) - sorted.begin();
  const auto hi = std::upper_bound(sorted.begin(), sorted.end(), v) - sorted.begin();
  return (static_cast<double>(lo) + static_cast<double>(hi)) * 0.5 /
         static_cast<double>(sorted.size());
}

class Accuracy : public ::testing::TestWithParam<bool> {};

TEST_P(Accuracy, icdf_and_cdf_ranks_stay_within_the_bound) {
  const bool normal = GetParam();
  constexpr int kN = 100000;
  auto source = seededStream(41);
  std::vector<double> data(kN);
  for (double& v : data) {
    const double u1 = source->uniform();
    const double u2 = source->uniform();
    v = normal ? std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2) : u1;
  }
  auto stream = seededStream(42);
  TDigest digest;
  digest.stream = stream.get();
  for (const double v : data) digest.add(v);
  digest.compress();
  std::sort(data.begin(), data.end());

  for (const double q : {0.001, 0.01, 0.05, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99, 0.999}) {
    const double bound = testing::rankErrorBound(q, digest.delta, kN);
    EXPECT_LE(std::fabs(rankOf(data, icdf(digest, q)) - q), bound) << "q = " << q;
    const double exact = data[static_cast<std::size_t>(q * kN)];
    EXPECT_LE(std::fabs(cdf(digest, exact) - q), bound) << "q = " << q;
  }
}

INSTANTIATE_TEST_SUITE_P(UniformAndNormal, Accuracy, ::testing::Values(false, true));

}  // namespace
}  // namespace zotdigest
