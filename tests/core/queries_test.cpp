// The edges of cdf, icdf and trimmedMean on small digests (the accuracy suite
// covers their interpolation at scale), the errors of the queries and the
// capacity warnings.
#include "core/queries.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "core/elementwise.h"
#include "core/trimmed_mean.h"
#include "core_checks.h"
#include "host/errors.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"

namespace zotdigest {
namespace {

using testing::bitsOf;
using testing::digestOf;

constexpr std::uint64_t kHostNaNBits = 0x7FF8000000000000;

TEST(Cdf, steps_at_a_lone_mean_divides_by_the_total_and_stays_monotone_over_ties) {
  const TDigest lone = digestOf({{2.0, 5}});
  EXPECT_EQ(cdf(lone, std::nextafter(2.0, 0.0)), 0.0);
  EXPECT_EQ(cdf(lone, 2.0), 1.0);
  // Intervals [0, 2], [2, 5] and [5, 9]: the first and the last centroid
  // take the half-gap of their one neighbour on both sides.
  TDigest d = digestOf({{1.0, 4}, {3.0, 4}, {7.0, 2}});
  d.totalWeight = 20;             // not the tree's sum
  EXPECT_EQ(cdf(d, 1.0), 0.1);    // 4 x 1/2 of 20
  EXPECT_EQ(cdf(d, 3.5), 0.3);    // (4 + 4 x 1.5/3) / 20
  EXPECT_EQ(cdf(d, 6.0), 0.425);  // (8 + 2 x 1/4) / 20
  const TDigest run = digestOf({{1.0, 2}, {2.0, 3}, {2.0, 3}, {2.0, 1}, {4.0, 2}});
  for (double x = 0.0, previous = 0.0; x <= 4.5; x += 1.0 / 64.0) {
    EXPECT_GE(cdf(run, x), previous) << "x = " << x;
    previous = cdf(run, x);
  }
}

TEST(Icdf, extrapolates_past_the_end_means_without_clamping) {
  for (const double q : {0.5, -0.0}) EXPECT_EQ(bitsOf(icdf(TDigest(), q)), kHostNaNBits);
  for (const double q : {0.0, 0.3, 1.0}) EXPECT_EQ(icdf(digestOf({{-7.25, 3}}), q), -7.25);
  // Gaps of 2 and 4: a quantile before a centroid's middle interpolates
  // towards the mean below, one after it towards the mean above; the first
  // and the last centroid extrapolate along their one gap.
  const TDigest d = digestOf({{1.0, 4}, {3.0, 4}, {7.0, 2}});
  for (const auto& [q, x] : {std::pair{-0.0, 0.0},
                             {0.0, 0.0},
                             {0.5, 2.5},
                             {0.6, 3.0},
                             {0.75, 4.5},
                             {0.95, 8.0},
                             {1.0, 7.0}}) {
    EXPECT_EQ(icdf(d, q), x) << "q = " << q;
  }
}

TEST(TrimmedMean, cuts_whole_and_partial_centroids_at_each_end) {
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{1.0, 1}, {4.0, 2}, {10.0, 7}}), 0.0), 7.9);
  const TDigest lone = digestOf({{1.0, 3}});
  for (const double p : {0.4999, -0.0}) EXPECT_EQ(trimmedMean(lone, p), 1.0);
  EXPECT_TRUE(std::isnan(trimmedMean(lone, std::nan(""))));
  // Cuts exactly on centroid ends: neither outer mean may leak in.
  EXPECT_EQ(trimmedMean(digestOf({{-50.0, 2}, {2.0, 6}, {30.0, 2}}), 0.2), 2.0);
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{0.0, 4}, {10.0, 4}}), 0.25), 5.0);
}

TEST(QueryErrors, raise_their_identifiers) {
  const TDigest empty;
  const TDigest d = digestOf({{1.0, 4}, {3.0, 4}});
  TDigest nanDelta;
  nanDelta.delta = std::nan("");
  auto row = quorix::HostArray::createNumericMatrix(1, 20, quorix::ClassID::Double);
  row->data<double>()[19] = 2.0;
  quorix::HostArray* one[1] = {nullptr};
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"CdfNoData", [&] { (void)cdf(empty, 0.0); }},
      // The quantile and trim ranges are checked before emptiness.
      {"IcdfInvalidQuantile", [&] { (void)icdf(empty, 1.5); }},
      {"IcdfInvalidQuantile", [&] { (void)icdf(d, -5e-324); }},
      {"TrimmedMeanInvalidTrim", [&] { (void)trimmedMean(empty, 0.5); }},
      {"TrimmedMeanInvalidTrim", [&] { (void)applyElementwise(*row, d, &trimmedMean); }},
      {"TrimmedMeanNoData", [&] { (void)trimmedMean(empty, 0.1); }},
      // Any difference in delta, NaN included (NaN differs from itself).
      {"MergeDeltaMismatch", [&] { TDigest(nanDelta).merge(nanDelta); }},
      {"MergeDeltaMismatch", [&] { centroids(empty, 1, one); }},
      {"General", [] { checkFiniteScalar(-std::numeric_limits<double>::infinity()); }},
  };
  for (const auto& [key, call] : cases) {
    EXPECT_EQ(testing::raisedIdentifier(call), std::string("stats:tdigest:") + key);
  }
  EXPECT_EQ(one[0], nullptr);
  // Each key raises its own exception type, so a host can rethrow it exactly.
  EXPECT_THROW((void)cdf(empty, 0.0), KeyedException<stats::tdigest::CdfNoData>);
}

// The weight at the limit and past it, wrapping sums, and the centroid
// count at 8e15 and at 0.8 x (2^61 - 1) as computed in double. Where adds
// and merges call the check is tested with them.
TEST(CheckCapacity, warns_once_past_the_limits_pre_or_post) {
  constexpr std::uint64_t kLimit = 8000000000000000;
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  const std::string pre = "stats:tdigest:PreMaxData";
  const std::string post = "stats:tdigest:PostMaxData";
  struct Case {
    std::uint64_t total, centroids, incoming;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {{kLimit - 1, 1, 1, {}},    {kLimit, 1, 1, {pre}},
                                   {kMax, 1, 2, {pre}},       {2, 1, kMax, {pre}},
                                   {0, kLimit, 0, {}},        {0, kLimit + 1, 0, {post}},
                                   {0, kLimit + 1, 1, {pre}}, {0, 1844674407370955264u, 0, {post}}};
  for (const Case& c : cases) {
    std::vector<std::string> seen;
    const quorix::WarningSink previous = quorix::setWarningSink(
        [&seen](const std::string& identifier, const std::string&) { seen.push_back(identifier); });
    checkCapacity(c.total, c.centroids, c.incoming);
    quorix::setWarningSink(previous);
    EXPECT_EQ(seen, c.expected) << c.total << " " << c.centroids << " " << c.incoming;
  }
}

}  // namespace
}  // namespace zotdigest
