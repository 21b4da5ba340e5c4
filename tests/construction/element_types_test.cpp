// addArray over the ten element types: the serial path against adding value
// by value, both paths holding exactly the values when nothing may join, the
// substream counter, NaN and infinities, 64-bit integers beyond 2^53, and
// the capacity warnings.
#include "construction/element_types.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "build_test_support.h"
#include "construction/substream.h"
#include "summary/properties.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;

template <class T>
class AddArray : public ::testing::Test {};
TYPED_TEST_SUITE(AddArray, ElementTypes);

TYPED_TEST(AddArray, serial_path_adds_value_by_value_then_compresses_from_the_stream) {
  // Two full blocks and a remainder; delta 20 makes add compress on the way.
  const auto values = sampleValues<TypeParam>(25003);
  SeededDigest bulk(11, 20.0), oneByOne(11, 20.0);
  addArray<TypeParam>(*makeRow(values), bulk.digest, true);
  for (const TypeParam v : values) oneByOne.digest.add(static_cast<double>(v));
  oneByOne.digest.compress();
  expectIdentical(bulk.digest, oneByOne.digest);
  EXPECT_EQ(bulk.stream->uniform(), oneByOne.stream->uniform());  // both moved in step
}

TYPED_TEST(AddArray, parallel_path_reads_every_value_and_compresses_like_the_serial_one) {
  const auto values = sampleValues<TypeParam>(100000, 7);
  std::vector<double> sorted(values.begin(), values.begin() + 10000);
  std::sort(sorted.begin(), sorted.end());
  auto own = seededStream(5);
  std::size_t sizes[2] = {};  // serial, parallel
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "parallel");
    // 10^4 values with delta 10^4: bounds stay below 1 and 20 x delta above
    // the count, so no value joins another and the centroids are the values.
    TDigest exact;
    setDelta(exact, 1e4);
    exact.stream = own.get();
    addArray<TypeParam>(*makeRow(std::vector<TypeParam>(values.begin(), values.begin() + 10000)),
                        exact, serial);
    std::vector<double> means;
    for (const Centroid& c : listOf(exact)) {
      means.push_back(c.mean);
      ASSERT_EQ(c.count, 1u);
    }
    EXPECT_EQ(means, sorted);
    TDigest d;
    setDelta(d, 50.0);
    d.stream = own.get();
    addArray<TypeParam>(*makeRow(values), d, serial);
    EXPECT_EQ(d.totalWeight, values.size());
    EXPECT_EQ(d.stream, own.get());
    EXPECT_LE(d.tree.size(), 20u * 50u);  // compressed
    sizes[serial ? 0 : 1] = d.tree.size();
  }
  // Merging partial digests leaves about as many centroids as one digest.
  EXPECT_GE(static_cast<double>(sizes[1]), 0.8 * static_cast<double>(sizes[0]));
  EXPECT_LE(static_cast<double>(sizes[1]), 1.25 * static_cast<double>(sizes[0]));
}

// NaN elements are skipped and not counted; infinities are values like any
// other, on both paths, in an array large enough for many pieces.
TEST(AddArray, nan_elements_are_skipped_and_infinities_kept_on_both_paths) {
  std::vector<double> values = sampleValues<double>(200000, 9);
  for (std::size_t i = 0; i < values.size(); i += 7) values[i] = std::nan("");
  values[1] = -HUGE_VAL;
  values[150001] = HUGE_VAL;
  const auto finiteOrInfinite = static_cast<std::uint64_t>(
      std::count_if(values.begin(), values.end(), [](double x) { return !std::isnan(x); }));
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "parallel");
    SeededDigest s(2, 50.0);
    addArray<double>(*makeRow(values), s.digest, serial);
    EXPECT_EQ(s.digest.totalWeight, finiteOrInfinite);
    std::uint64_t counted = 0;
    bool negative = false, positive = false;
    for (const Centroid& c : listOf(s.digest)) {
      counted += c.count;
      EXPECT_FALSE(std::isnan(c.mean));
      negative = negative || c.mean == -HUGE_VAL;
      positive = positive || c.mean == HUGE_VAL;
    }
    EXPECT_EQ(counted, finiteOrInfinite);
    EXPECT_TRUE(negative && positive);
  }
}

TEST(SubstreamIndex, runs_from_1_to_one_million_then_starts_again_at_1_never_0) {
  std::atomic<std::uint64_t> counter{0};
  EXPECT_EQ(takeSubstreamIndex(counter), 1u);
  counter = kSubstreamCount - 1;
  EXPECT_EQ(takeSubstreamIndex(counter), kSubstreamCount);
  EXPECT_EQ(takeSubstreamIndex(counter), 1u);
  // The process-wide counter carries over from call to call.
  const std::uint64_t previous = nextSubstreamIndex();
  EXPECT_EQ(nextSubstreamIndex(), previous == kSubstreamCount ? 1u : previous + 1);
}

TEST(ElementConversion, sixty_four_bit_integers_beyond_2_53_round_to_the_nearest_double) {
  // 2^53 + 1 lies halfway between two doubles and rounds to the even one;
  // the unsigned maximum is 2^64, never -1.
  const std::int64_t big = (std::int64_t{1} << 53) + 1;
  const std::uint64_t top = ~std::uint64_t{0}, half = (std::uint64_t{1} << 63) + 1;
  const auto means = [](const TDigest& d) {
    std::vector<double> m;
    for (const Centroid& c : listOf(d)) m.push_back(c.mean);
    return m;
  };
  for (const bool serial : {true, false}) {
    TDigest s, u;
    addArray<std::int64_t>(*makeRow<std::int64_t>({big, -big}), s, serial);
    addArray<std::uint64_t>(*makeRow<std::uint64_t>({top, half}), u, serial);
    EXPECT_EQ(means(s), (std::vector<double>{-9007199254740992.0, 9007199254740992.0}));
    EXPECT_EQ(means(u), (std::vector<double>{9223372036854775808.0, 18446744073709551616.0}));
  }
}

TEST(AddArrayCapacity, checks_before_and_after_adding_on_both_paths) {
  constexpr std::uint64_t kLimit = 8000000000000000;
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "parallel");
    // The digest holds real weight, since compress and merge recount it.
    TDigest over, empty;
    over.add(0.0, kLimit);
    setNumDataPoints(empty, kLimit + 1);
    WarningRecorder past;
    addArray<double>(*makeRow<double>({1}), over, serial);
    EXPECT_EQ(past.ids(),
              (std::vector<std::string>{"stats:tdigest:PreMaxData", "stats:tdigest:PostMaxData"}));
    WarningRecorder nothingAdded;
    addArray<double>(*quorix::HostArray::createNumeric({0, 0}, quorix::ClassID::Double), empty,
                     serial);
    EXPECT_EQ(nothingAdded.ids(), std::vector<std::string>{"stats:tdigest:PostMaxData"});
    EXPECT_EQ(empty.totalWeight, kLimit + 1);
  }
}

}  // namespace
}  // namespace zotdigest
