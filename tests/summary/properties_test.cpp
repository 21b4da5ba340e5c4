// Restoring a digest from its three properties (any positive Delta,
// infinity included). Decoded junk that no digest could have produced is
// the summary fuzz target's: its corpus is replayed by summary_corpus_replay.
#include "summary/properties.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "summary/summary_matrix.h"
#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::bitsOf;
using testing::elements;

constexpr double kInf = std::numeric_limits<double>::infinity();

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
  const auto stream = testing::seededStream(9);
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
  const auto s1 = testing::seededStream(21);
  const auto s2 = testing::seededStream(21);
  original.stream = s1.get();
  restored.stream = s2.get();
  for (int i = 0; i < 2000; ++i) {
    const double x = std::floor(std::sin(i * 0.7) * 60.0) / 2.0;
    original.add(x);
    restored.add(x);
  }
  EXPECT_EQ(elements(*getSummary(restored)), elements(*getSummary(original)));
  EXPECT_EQ(getNumDataPoints(restored), getNumDataPoints(original));
}

INSTANTIATE_TEST_SUITE_P(Digests, PropertyRestore,
                         ::testing::Values(std::pair{100.0, 1}, std::pair{100.0, 2},
                                           std::pair{100.0, 5000}, std::pair{5.0, 3000},
                                           std::pair{0.5, 200}, std::pair{1000.0, 700},
                                           std::pair{kInf, 300}, std::pair{5e-324, 50}));

}  // namespace
}  // namespace zotdigest
