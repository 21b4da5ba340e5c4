// Data check, element conversion, and the serial and parallel paths of
// addArray.
#include "build/element_types.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "build_test_support.h"
#include "core/accuracy.h"
#include "core/queries.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;
using quorix::ClassID;
using quorix::HostArray;
using RequireRealTag = component_QUORIX::catalog_class::key_RequireReal;

constexpr const char* kRequireReal = "QUORIX:class:RequireReal";

// --- data check ---------------------------------------------------------------

TEST(CheckData, refuses_every_non_numeric_class_also_when_empty) {
  const std::vector<quorix::HostArrayPtr> refused = [] {
    std::vector<quorix::HostArrayPtr> v;
    v.push_back(HostArray::createLogical({2, 2}));
    v.push_back(HostArray::createLogical({0, 0}));
    v.push_back(HostArray::createChar("abc"));
    v.push_back(HostArray::createChar(""));
    v.push_back(HostArray::createCell({1, 2}));
    v.push_back(HostArray::createStruct({1, 1}, {"a"}));
    return v;
  }();
  for (const auto& a : refused) {
    SCOPED_TRACE(std::string(quorix::className(a->classID())));
    expectKeyedError<RequireRealTag>([&] { checkData(*a); }, kRequireReal);
  }
}

TEST(CheckData, refuses_complex_data_even_with_zero_imaginary_parts) {
  auto a = HostArray::createNumeric({1, 3}, ClassID::Double, /*complex=*/true);
  a->data<double>()[0] = 1.0;
  expectKeyedError<RequireRealTag>([&] { checkData(*a); }, kRequireReal);
  const auto emptyComplex = HostArray::createNumeric({0, 0}, ClassID::Int16, true);
  expectKeyedError<RequireRealTag>([&] { checkData(*emptyComplex); }, kRequireReal);
}

template <class T>
class ElementTypeTest : public ::testing::Test {};
TYPED_TEST_SUITE(ElementTypeTest, ElementTypes);

TYPED_TEST(ElementTypeTest, check_data_accepts_real_arrays_also_when_empty) {
  EXPECT_NO_THROW(checkData(*makeRow<TypeParam>({1, 2})));
  EXPECT_NO_THROW(checkData(*HostArray::createNumeric({0, 3}, classOf<TypeParam>())));
}

// --- conversion -----------------------------------------------------------------

TYPED_TEST(ElementTypeTest, dispatch_adds_each_element_as_its_value) {
  using T = TypeParam;
  // The integer extremes; floating values far enough apart to stay three
  // centroids with finite distances between them.
  const T lo = std::is_floating_point_v<T> ? T(-1e6) : std::numeric_limits<T>::lowest();
  const T hi = std::is_floating_point_v<T> ? T(1e6) : std::numeric_limits<T>::max();
  for (const bool serial : {true, false}) {
    TDigest d;
    addArrayDispatch(*makeRow<T>({hi, lo, T(7)}), d, serial);
    const auto c = centroidsOf(d);
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0].mean, static_cast<double>(lo));
    EXPECT_EQ(c[1].mean, 7.0);
    EXPECT_EQ(c[2].mean, static_cast<double>(hi));
    EXPECT_EQ(d.totalWeight, 3u);
  }
}

TEST(ElementConversion, sixty_four_bit_integers_beyond_2_53_round_to_nearest_double) {
  // 2^53 + 1 lies halfway between two doubles and rounds to the even one.
  const std::int64_t big = (std::int64_t{1} << 53) + 1;
  const std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
  for (const bool serial : {true, false}) {
    TDigest s;
    addArray<std::int64_t>(*makeRow<std::int64_t>({big, -big}), s, serial);
    auto c = centroidsOf(s);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].mean, -9007199254740992.0);
    EXPECT_EQ(c[1].mean, 9007199254740992.0);

    // The unsigned maximum is 2^64 as a double, never -1.
    TDigest u;
    addArray<std::uint64_t>(*makeRow<std::uint64_t>({huge, (std::uint64_t{1} << 63) + 1}), u,
                            serial);
    c = centroidsOf(u);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].mean, 9223372036854775808.0);
    EXPECT_EQ(c[1].mean, 18446744073709551616.0);
  }
}

TEST(AddArrayDispatch, adds_nothing_for_a_class_without_data) {
  TDigest d;
  addArrayDispatch(*HostArray::createLogical({1, 4}), d, false);
  addArrayDispatch(*HostArray::createChar("ab"), d, true);
  EXPECT_EQ(d.totalWeight, 0u);
  EXPECT_EQ(d.tree.size(), 0u);
}

// --- serial path -----------------------------------------------------------------

TYPED_TEST(ElementTypeTest, serial_path_equals_adding_value_by_value_then_compress) {
  using T = TypeParam;
  // Two full blocks and a remainder; a small delta makes add compress on
  // the way as well.
  const auto values = sampleValues<T>(25003);
  const auto data = makeRow(values);
  auto streamA = quorix::RandomStream::create("mrg32k3a", 1000000, 11);
  auto streamB = quorix::RandomStream::create("mrg32k3a", 1000000, 11);

  TDigest bulk;
  setDelta(bulk, 20.0);
  bulk.stream = streamA.get();
  addArray<T>(*data, bulk, true);

  TDigest oneByOne;
  setDelta(oneByOne, 20.0);
  oneByOne.stream = streamB.get();
  for (const T v : values) oneByOne.add(static_cast<double>(v));
  oneByOne.compress();

  expectSameCentroids(bulk, oneByOne);
  EXPECT_EQ(bulk.totalWeight, values.size());
  EXPECT_EQ(bulk.stream, streamA.get());
  // Both streams moved in step: the next draws agree.
  EXPECT_EQ(streamA->uniform(), streamB->uniform());
}

TEST(SerialAdd, draws_nothing_from_the_default_stream) {
  auto own = quorix::RandomStream::create("mrg32k3a", 1000000, 3);
  quorix::RandomStream& def = quorix::RandomStream::defaultStream();
  def.reset(17);
  TDigest d;
  d.stream = own.get();
  addArray<double>(*makeRow(sampleValues<double>(3000)), d, true);
  const double next = def.uniform();
  def.reset(17);
  EXPECT_EQ(next, def.uniform());
}

// --- parallel path -----------------------------------------------------------------

// Distance of q from the range of ranks (as fractions) that value x takes
// in the sorted data: 0 when x sits at quantile q.
double rankError(const std::vector<double>& sorted, double x, double q) {
  const double n = static_cast<double>(sorted.size());
  const auto lo = std::lower_bound(sorted.begin(), sorted.end(), x) - sorted.begin();
  const auto hi = std::upper_bound(sorted.begin(), sorted.end(), x) - sorted.begin();
  const double rLo = static_cast<double>(lo) / n;
  const double rHi = static_cast<double>(hi) / n;
  if (q < rLo) return rLo - q;
  if (q > rHi) return q - rHi;
  return 0.0;
}

TYPED_TEST(ElementTypeTest, parallel_path_keeps_every_value_and_answers_within_bounds) {
  using T = TypeParam;
  const auto values = sampleValues<T>(100000, 7);
  auto own = quorix::RandomStream::create("mrg32k3a", 1000000, 5);
  TDigest d;
  setDelta(d, 50.0);
  d.stream = own.get();
  addArray<T>(*makeRow(values), d, false);

  EXPECT_EQ(d.totalWeight, values.size());
  std::uint64_t sum = 0;
  for (const auto& c : centroidsOf(d)) sum += c.count;
  EXPECT_EQ(sum, values.size());
  EXPECT_EQ(d.delta, 50.0);
  EXPECT_EQ(d.stream, own.get());

  std::vector<double> sorted(values.begin(), values.end());
  std::sort(sorted.begin(), sorted.end());
  for (const double q : {0.001, 0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.99, 0.999}) {
    EXPECT_LT(rankError(sorted, icdf(d, q), q),
              rankErrorBound(q, 50.0, static_cast<double>(values.size())))
        << "q = " << q;
  }
}

TYPED_TEST(ElementTypeTest, parallel_path_with_one_element_adds_weight_one) {
  using T = TypeParam;
  TDigest d;
  addArray<T>(*makeRow<T>({T(9)}), d, false);
  EXPECT_EQ(d.totalWeight, 1u);
  const auto c = centroidsOf(d);
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(c[0].mean, 9.0);
  EXPECT_EQ(c[0].count, 1u);
}

TEST(ParallelAdd, seeds_its_generator_with_one_draw_from_the_default_stream) {
  auto own = quorix::RandomStream::create("mrg32k3a", 1000000, 3);
  quorix::RandomStream& def = quorix::RandomStream::defaultStream();
  def.reset(23);
  TDigest d;
  d.stream = own.get();
  addArray<double>(*makeRow(sampleValues<double>(5000)), d, false);
  const double next = def.uniform();
  def.reset(23);
  def.uniform();
  EXPECT_EQ(next, def.uniform());
}

TEST(ParallelAdd, refuses_an_invalid_delta_on_the_target_and_leaves_it_unchanged) {
  TDigest d;
  d.delta = 0.0;  // only reachable by assigning the member directly
  expectKeyedError<stats::tdigest::DeltaInvalidValue>(
      [&] { addArray<double>(*makeRow<double>({1, 2}), d, false); },
      "stats:tdigest:DeltaInvalidValue");
  EXPECT_EQ(d.totalWeight, 0u);
}

// --- empty input and capacity warnings ------------------------------------------------

TEST(AddArray, empty_array_changes_nothing) {
  for (const bool serial : {true, false}) {
    TDigest d;
    addArray<double>(*makeRow(sampleValues<double>(500)), d, true);
    const auto before = centroidsOf(d);
    WarningRecorder warnings;
    addArray<double>(*HostArray::createNumeric({0, 0}, ClassID::Double), d, serial);
    addArray<std::int8_t>(*HostArray::createNumeric({3, 0}, ClassID::Int8), d, serial);
    const auto after = centroidsOf(d);
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(after[i].mean, before[i].mean);
      EXPECT_EQ(after[i].count, before[i].count);
    }
    EXPECT_EQ(d.totalWeight, 500u);
    EXPECT_TRUE(warnings.ids().empty());
  }
}

TEST(AddArray, empty_array_on_an_overfull_digest_warns_post_max_data_once) {
  for (const bool serial : {true, false}) {
    TDigest d;
    setNumDataPoints(d, 8000000000000001u);
    WarningRecorder warnings;
    addArray<double>(*HostArray::createNumeric({0, 0}, ClassID::Double), d, serial);
    EXPECT_EQ(warnings.ids(), std::vector<std::string>{"stats:tdigest:PostMaxData"});
    EXPECT_EQ(d.totalWeight, 8000000000000001u);
  }
}

TEST(AddArray, checks_capacity_before_with_the_element_count_and_after_with_zero) {
  // The digests hold real weight, since compress and merge recount it.
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "parallel");
    TDigest exact;
    exact.add(0.0, 8000000000000000u - 1);
    {
      WarningRecorder warnings;
      addArray<double>(*makeRow<double>({1}), exact, serial);
      EXPECT_TRUE(warnings.ids().empty());
      EXPECT_EQ(exact.totalWeight, 8000000000000000u);
    }
    TDigest over;
    over.add(0.0, 8000000000000000u);
    WarningRecorder warnings;
    addArray<double>(*makeRow<double>({1}), over, serial);
    ASSERT_FALSE(warnings.ids().empty());
    EXPECT_EQ(warnings.ids().front(), "stats:tdigest:PreMaxData");
    EXPECT_EQ(warnings.ids().back(), "stats:tdigest:PostMaxData");
    EXPECT_EQ(over.totalWeight, 8000000000000001u);
  }
}

}  // namespace
}  // namespace zotdigest
