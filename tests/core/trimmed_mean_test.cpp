#include "core/trimmed_mean.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/elementwise.h"
#include "core_checks.h"
#include "host/errors.h"
#include "quorix/host_array.h"

namespace zotdigest {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using testing::bits;
using testing::expectRaises;

TDigest digestOf(const std::vector<Centroid>& centroids) {
  TDigest digest;
  for (const Centroid& c : centroids) {
    digest.tree.insert(c.mean, c.count);
    digest.totalWeight += c.count;
  }
  return digest;
}

HostArrayPtr row(const std::vector<double>& values) {
  HostArrayPtr a = HostArray::createNumericMatrix(1, values.size(), ClassID::Double);
  for (std::size_t i = 0; i < values.size(); ++i) a->data<double>()[i] = values[i];
  return a;
}

TEST(TrimmedMean, trim_range_is_checked_before_emptiness) {
  const TDigest empty;
  const TDigest d = digestOf({{1.0, 3}});
  for (const double bad : {0.5, -0.1, 0.6}) {
    expectRaises<stats::tdigest::TrimmedMeanInvalidTrim>([&] { (void)trimmedMean(empty, bad); },
                                                         "stats:tdigest:TrimmedMeanInvalidTrim");
    expectRaises<stats::tdigest::TrimmedMeanInvalidTrim>([&] { (void)trimmedMean(d, bad); },
                                                         "stats:tdigest:TrimmedMeanInvalidTrim");
  }
  expectRaises<stats::tdigest::TrimmedMeanNoData>([&] { (void)trimmedMean(empty, 0.1); },
                                                  "stats:tdigest:TrimmedMeanNoData");
  EXPECT_EQ(trimmedMean(d, 0.4999), 1.0);
  EXPECT_EQ(trimmedMean(d, -0.0), 1.0);
  EXPECT_TRUE(std::isnan(trimmedMean(d, std::nan(""))));
}

TEST(TrimmedMean, zero_trim_is_the_weighted_mean_of_the_means) {
  const TDigest d = digestOf({{1.0, 1}, {4.0, 2}, {10.0, 7}});
  EXPECT_DOUBLE_EQ(trimmedMean(d, 0.0), (1.0 + 8.0 + 70.0) / 10.0);
}

TEST(TrimmedMean, one_centroid_cut_at_both_ends_keeps_its_mean) {
  const TDigest d = digestOf({{3.3, 10}});
  EXPECT_DOUBLE_EQ(trimmedMean(d, 0.1), 3.3);
}

TEST(TrimmedMean, centroids_ending_exactly_at_a_cut) {
  // Total 10, p = 0.2: lo = 2 and hi = 8 fall exactly on centroid ends. The
  // first contributes nothing, the last is added and taken off whole, so
  // neither outer mean may leak into the result.
  EXPECT_EQ(trimmedMean(digestOf({{1.0, 2}, {2.0, 6}, {3.0, 2}}), 0.2), 2.0);
  EXPECT_EQ(trimmedMean(digestOf({{-50.0, 2}, {2.0, 6}, {30.0, 2}}), 0.2), 2.0);
  // Cuts inside centroids take the parts between them.
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{0.0, 4}, {10.0, 4}}), 0.25),
                   (0.0 * 2.0 + 10.0 * 2.0) / 4.0);
}

TEST(TrimmedMean, symmetric_data_trims_to_its_centre) {
  auto stream = testing::seededStream(43);
  TDigest d;
  d.stream = stream.get();
  for (int i = 1; i <= 20000; ++i) d.add(i % 1000);
  for (const double p : {0.0, 0.1, 0.25, 0.45}) EXPECT_NEAR(trimmedMean(d, p), 499.5, 2.0);
}

TEST(TrimmedMean, through_the_element_wise_apply) {
  const TDigest empty;
  const HostArrayPtr nans = row({std::nan("")});
  EXPECT_EQ(bits(applyElementwise(*nans, empty, &trimmedMean)->data<double>()[0]),
            0xFFF8000000000000u);
  const TDigest d = digestOf({{1.0, 3}, {2.0, 3}});
  const HostArrayPtr ps = row({0.0, 0.1, 0.6});
  expectRaises<stats::tdigest::TrimmedMeanInvalidTrim>(
      [&] { (void)applyElementwise(*ps, d, &trimmedMean); },
      "stats:tdigest:TrimmedMeanInvalidTrim");
}

TEST(Centroids, lists_means_and_counts_as_columns) {
  const TDigest d = digestOf({{5.0, 1}, {-1.0, 7}, {2.0, (std::uint64_t{1} << 63) + 1}});
  HostArray* out[2] = {nullptr, nullptr};
  centroids(d, 2, out);
  const std::unique_ptr<HostArray> means(out[0]);
  const std::unique_ptr<HostArray> counts(out[1]);
  ASSERT_EQ(means->classID(), ClassID::Double);
  ASSERT_EQ(counts->classID(), ClassID::UInt64);
  ASSERT_EQ(means->dims(), (quorix::Dims{3, 1}));
  ASSERT_EQ(counts->dims(), (quorix::Dims{3, 1}));
  const std::vector<double> m(means->data<double>(), means->data<double>() + 3);
  const std::vector<std::uint64_t> c(counts->data<std::uint64_t>(),
                                     counts->data<std::uint64_t>() + 3);
  EXPECT_EQ(m, (std::vector<double>{-1.0, 2.0, 5.0}));
  EXPECT_EQ(c, (std::vector<std::uint64_t>{7, (std::uint64_t{1} << 63) + 1, 1}));
}

TEST(Centroids, empty_digest_gives_empty_columns_and_one_output_raises) {
  const TDigest empty;
  HostArray* out[2] = {nullptr, nullptr};
  centroids(empty, 2, out);
  const std::unique_ptr<HostArray> means(out[0]);
  const std::unique_ptr<HostArray> counts(out[1]);
  EXPECT_EQ(means->dims(), (quorix::Dims{0, 1}));
  EXPECT_EQ(counts->dims(), (quorix::Dims{0, 1}));
  EXPECT_EQ(counts->classID(), ClassID::UInt64);

  HostArray* one[1] = {nullptr};
  expectRaises<stats::tdigest::MergeDeltaMismatch>([&] { centroids(empty, 1, one); },
                                                   "stats:tdigest:MergeDeltaMismatch");
  EXPECT_EQ(one[0], nullptr);
}

}  // namespace
}  // namespace zotdigest
