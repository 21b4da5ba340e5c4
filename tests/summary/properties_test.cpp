// Restoring a digest from its three properties (any positive Delta,
// infinity included), and decoded junk that no digest could have produced
// run through the later operations.
#include "summary/properties.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "summary/summary_matrix.h"
#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::bitsOf;
using testing::elements;
using testing::makeMatrix;
using testing::node;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Answers to every query, bit for bit.
void expectSameAnswers(const TDigest& a, const TDigest& b) {
  for (double x = -12.0; x <= 42.0; x += 0.25) {
    ASSERT_EQ(bitsOf(cdf(a, x)), bitsOf(cdf(b, x))) << x;
  }
  for (int i = 0; i <= 200; ++i) ASSERT_EQ(bitsOf(icdf(a, i / 200.0)), bitsOf(icdf(b, i / 200.0)));
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(bitsOf(trimmedMean(a, i / 100.0)), bitsOf(trimmedMean(b, i / 100.0)));
  }
}

class PropertyRestore : public ::testing::TestWithParam<std::pair<double, int>> {};

TEST_P(PropertyRestore, three_properties_give_identical_answers_and_future) {
  const auto stream = testing::makeStream(9);
  TDigest original;
  original.stream = stream.get();
  original.delta = GetParam().first;
  for (int i = 0; i < GetParam().second; ++i) original.add(std::pow(stream->uniform(), 2.0) * 50.0);
  TDigest restored;
  setSummary(restored, *getSummary(original));
  setDelta(restored, getDelta(original));
  setNumDataPoints(restored, getNumDataPoints(original));
  EXPECT_EQ(getNumCentroids(restored), getNumCentroids(original));
  expectSameAnswers(original, restored);
  // Insertion reads heights and subtree counts (the decoded tree's by full
  // walks, the built one's by shortcuts): fed the same values, with ties, from
  // streams in the same state, both stay identical through compressions.
  const auto s1 = testing::makeStream(21);
  const auto s2 = testing::makeStream(21);
  original.stream = s1.get();
  restored.stream = s2.get();
  for (int i = 0; i < 2000; ++i) {
    const double x = std::floor(std::sin(i * 0.7) * 60.0) / 2.0;
    original.add(x);
    restored.add(x);
  }
  EXPECT_EQ(elements(*getSummary(restored)), elements(*getSummary(original)));
  EXPECT_EQ(getNumDataPoints(restored), getNumDataPoints(original));
  expectSameAnswers(original, restored);
}

INSTANTIATE_TEST_SUITE_P(Digests, PropertyRestore,
                         ::testing::Values(std::pair{100.0, 1}, std::pair{100.0, 2},
                                           std::pair{100.0, 5000}, std::pair{5.0, 3000},
                                           std::pair{0.5, 200}, std::pair{1000.0, 700},
                                           std::pair{kInf, 300}, std::pair{5e-324, 50}));

// Queries may raise their documented errors on a digest they see as empty;
// anything else is a failure.
void runQueries(const TDigest& d) {
  for (const double x : {-kInf, 0.0, 2.5, kInf, kNaN}) {
    const std::string id = testing::raisedIdentifier([&] { (void)cdf(d, x); });
    EXPECT_TRUE(id.empty() || id == "stats:tdigest:CdfNoData") << id;
  }
  for (const double q : {0.0, 0.25, 1.0, kNaN}) {
    (void)icdf(d, q);
    const std::string id = testing::raisedIdentifier([&] { (void)trimmedMean(d, q * 0.499); });
    EXPECT_TRUE(id.empty() || id == "stats:tdigest:TrimmedMeanNoData") << id;
  }
}

// A few of the shapes the summary fuzz target explores at length, kept here
// so that every test run (sanitizer trees included) passes through them.
TEST(HostileSummary, every_operation_finishes_on_the_nastiest_shapes) {
  const std::int64_t maxH = std::numeric_limits<std::int32_t>::max();
  const std::int64_t huge = std::int64_t{1} << 62;
  std::vector<testing::Column> chain(63, testing::Column{});  // right chain, consistent heights
  for (int i = 0, slot = 0; i < 6; ++i, slot = 2 * slot + 2) {
    chain[slot] = node(i, 2, 5 - i, 12 - 2 * i);
  }
  // A zero-count root; junk heights; NaN and infinite means; junk subtree
  // counts; counts that wrap; the chain.
  const std::vector<std::vector<testing::Column>> hostile = {
      {{0, 0, 3, 9}, node(1, 4, 0, 4), node(2, 5, 0, 5)},
      {node(5, 2, maxH, 2), node(2, 2, maxH, 2), node(8, 2, -7, 2), testing::Column{}},
      {node(kNaN, 3, 1, 9), node(kInf, 3, 0, 3), node(-kNaN, 3, 0, 3)},
      {node(2, 1, 1, 0), node(1, 1, 0, -1), node(3, 1, 0, std::int64_t{1} << 40)},
      {node(1, huge, 1, huge), node(0, huge, 0, huge), node(2, -1, 0, -1)},
      chain};
  for (std::size_t h = 0; h < hostile.size(); ++h) {
    for (const std::uint64_t total : {0ull, 7ull, ~0ull}) {
      SCOPED_TRACE(::testing::Message() << "matrix " << h << " total " << total);
      const auto stream = testing::makeStream(5);
      TDigest d;
      d.stream = stream.get();
      setDelta(d, 1.0);
      setSummary(d, *makeMatrix(hostile[h]));
      setNumDataPoints(d, total);
      runQueries(d);
      TDigest again = d;  // a copy, given the re-encoded tree
      setSummary(again, *getSummary(d));
      runQueries(again);
      for (const double x : {0.5, kNaN, kInf, -kInf, 2.0, -0.0, 1e308, 2.0}) d.add(x);
      d.add(1.0, ~0ull);
      d.compress();
      d.merge(again);
      runQueries(d);
    }
  }
}

}  // namespace
}  // namespace zotdigest
