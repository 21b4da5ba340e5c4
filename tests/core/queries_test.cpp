// cdf, icdf and trimmedMean on small digests whose answers are worked out
// by hand, the errors of the queries and the capacity warnings.
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

using quorix::ClassID;
using quorix::HostArray;
using testing::bits;
using testing::digestOf;
namespace keys = stats::tdigest;

constexpr std::uint64_t kHostNaNBits = 0x7FF8000000000000;

TEST(Cdf, steps_at_a_lone_mean_and_spreads_counts_between_midpoints) {
  const TDigest lone = digestOf({{2.0, 5}});
  EXPECT_EQ(cdf(lone, std::nextafter(2.0, 0.0)), 0.0);
  EXPECT_EQ(cdf(lone, 2.0), 1.0);
  // A lone NaN mean passes both end tests; there is no neighbour to use.
  EXPECT_EQ(bits(cdf(digestOf({{std::nan(""), 5}}), 0.0)), kHostNaNBits);
  // Means 1, 3, 5 with counts 4, 4, 2 (total 10, or 20 when doubled: the
  // total, not the tree's sum, is the denominator).
  TDigest d = digestOf({{1.0, 4}, {3.0, 4}, {5.0, 2}});
  for (const std::uint64_t total : {10u, 20u}) {
    d.totalWeight = total;
    const double n = static_cast<double>(total);
    EXPECT_EQ(cdf(d, 0.5), 0.0);            // below the first mean
    EXPECT_EQ(cdf(d, 1.0), 4.0 * 0.5 / n);  // half of the first centroid
    EXPECT_EQ(cdf(d, 3.0), (4.0 * (3.0 - 2.0) / (4.0 - 2.0) + 4.0) / n);
    EXPECT_EQ(cdf(d, 4.5), (2.0 * (4.5 - 4.0) / (6.0 - 4.0) + 8.0) / n);  // last: mirrored half
    EXPECT_EQ(cdf(d, 5.0), 1.0);
  }
  // Monotone across a run of equal means.
  const TDigest run = digestOf({{1.0, 2}, {2.0, 3}, {2.0, 3}, {2.0, 1}, {4.0, 2}});
  for (double x = 0.0, previous = 0.0; x <= 4.5; x += 1.0 / 64.0) {
    EXPECT_GE(cdf(run, x), previous) << "x = " << x;
    previous = cdf(run, x);
  }
}

TEST(Icdf, interpolates_and_extrapolates_without_clamping) {
  for (const double q : {0.5, -0.0}) EXPECT_EQ(bits(icdf(TDigest(), q)), kHostNaNBits);
  for (const double q : {0.0, 0.3, 1.0}) EXPECT_EQ(icdf(digestOf({{-7.25, 3}}), q), -7.25);
  const TDigest d = digestOf({{1.0, 4}, {3.0, 4}, {5.0, 2}});
  EXPECT_EQ(icdf(d, -0.0), 0.0);
  EXPECT_EQ(icdf(d, 0.0), 1.0 - 0.5 * (3.0 - 1.0));   // below the first mean
  EXPECT_EQ(icdf(d, 0.4), 3.0 + (3.0 - 1.0) * -0.5);  // t <= 0: towards the predecessor
  EXPECT_EQ(icdf(d, 0.6), 3.0);                       // t = 0
  EXPECT_EQ(icdf(d, 0.7), 3.0 + (5.0 - 3.0) * ((0.7 * 10.0 - 4.0) / 4.0 - 0.5));  // successor
  EXPECT_EQ(icdf(d, 0.95), 5.0 + (5.0 - 3.0) * 0.25);  // above the last mean
  EXPECT_EQ(icdf(d, 1.0), 5.0);
}

TEST(TrimmedMean, cuts_whole_and_partial_centroids_at_each_end) {
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{1.0, 1}, {4.0, 2}, {10.0, 7}}), 0.0), 7.9);
  const TDigest lone = digestOf({{1.0, 3}});
  for (const double p : {0.4999, -0.0}) EXPECT_EQ(trimmedMean(lone, p), 1.0);
  EXPECT_TRUE(std::isnan(trimmedMean(lone, std::nan(""))));
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{3.3, 10}}), 0.1), 3.3);
  // Total 10, p = 0.2: the cuts fall exactly on centroid ends, so neither
  // outer mean may leak into the result.
  EXPECT_EQ(trimmedMean(digestOf({{1.0, 2}, {2.0, 6}, {3.0, 2}}), 0.2), 2.0);
  EXPECT_EQ(trimmedMean(digestOf({{-50.0, 2}, {2.0, 6}, {30.0, 2}}), 0.2), 2.0);
  // Cuts inside centroids take the parts between them.
  EXPECT_DOUBLE_EQ(trimmedMean(digestOf({{0.0, 4}, {10.0, 4}}), 0.25), 5.0);
}

TEST(QueryErrors, raise_their_identifiers) {
  const TDigest empty;
  const TDigest d = digestOf({{1.0, 4}, {3.0, 4}});
  TDigest nanDelta;
  nanDelta.delta = std::nan("");
  auto row = HostArray::createNumericMatrix(1, 20, ClassID::Double);  // long enough to sweep
  row->data<double>()[19] = 2.0;
  HostArray* one[1] = {nullptr};
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"CdfNoData", [&] { (void)cdf(empty, 0.0); }},
      // The quantile and trim ranges are checked before emptiness.
      {"IcdfInvalidQuantile", [&] { (void)icdf(empty, 1.5); }},
      {"IcdfInvalidQuantile", [&] { (void)icdf(d, -5e-324); }},
      {"IcdfInvalidQuantile", [&] { (void)applyElementwise(*row, empty, &icdf); }},
      {"TrimmedMeanInvalidTrim", [&] { (void)trimmedMean(empty, 0.5); }},
      {"TrimmedMeanInvalidTrim", [&] { (void)applyElementwise(*row, d, &trimmedMean); }},
      {"TrimmedMeanNoData", [&] { (void)trimmedMean(empty, 0.1); }},
      // Any difference in delta, NaN included (NaN differs from itself).
      {"MergeDeltaMismatch", [&] { TDigest(nanDelta).merge(nanDelta); }},
      {"MergeDeltaMismatch", [&] { centroids(empty, 1, one); }},
      {"General", [] { checkFiniteScalar(-std::numeric_limits<double>::infinity()); }},
  };
  for (const auto& [key, call] : cases) {
    try {
      call();
      ADD_FAILURE() << "no error raised, expected " << key;
    } catch (const quorix::MsgIDException& e) {
      EXPECT_EQ(e.identifier(), std::string("stats:tdigest:") + key);
    }
  }
  EXPECT_EQ(one[0], nullptr);
  // Each key raises its own exception type, so a host can rethrow it exactly.
  EXPECT_THROW((void)cdf(empty, 0.0), KeyedException<keys::CdfNoData>);
}

TEST(CheckCapacity, warns_once_past_the_limits_pre_or_post) {
  constexpr std::uint64_t kLimit = 8000000000000000;
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  const std::string pre = "stats:tdigest:PreMaxData";
  const std::string post = "stats:tdigest:PostMaxData";
  struct Case {
    std::uint64_t total, centroids, incoming;
    std::vector<std::string> expected;
  };
  // Past the limits by a wrapping sum, by the centroid count at 8e15 and at
  // the 0.8 x (2^61 - 1) limit as the check computes it in double. (The
  // weight limit itself is checked where adds and merges warn.)
  const std::vector<Case> cases = {{kMax, 1, 2, {pre}},       {2, 1, kMax, {pre}},
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
