#include "summary/properties.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "summary/summary_matrix.h"
#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::elements;
using testing::expectRaises;
using testing::makeMatrix;
using testing::node;
using testing::ubitsOf;

constexpr double kInf = std::numeric_limits<double>::infinity();

std::string printedF(double v) {
  char buf[512];
  std::snprintf(buf, sizeof buf, "%f", v);
  return buf;
}

// A digest of `values` skewed values drawn from (and adding with) `stream`.
TDigest sampleDigest(quorix::RandomStream& stream, double delta, int values) {
  TDigest d;
  d.stream = &stream;
  d.delta = delta;
  for (int i = 0; i < values; ++i) {
    const double u = stream.uniform();
    d.add(u * u * 50.0 - 10.0);
  }
  return d;
}

// --- Delta --------------------------------------------------------------------

TEST(DeltaProperty, refused_values_raise_with_their_printf_text_and_keep_delta) {
  const double refused[] = {0.0,
                            -0.0,
                            -2.0,
                            -2.5,
                            -1e-300,
                            -kInf,
                            std::numeric_limits<double>::quiet_NaN(),
                            -std::numeric_limits<double>::quiet_NaN()};
  TDigest d;
  setDelta(d, 7.5);
  for (const double v : refused) {
    SCOPED_TRACE(printedF(v));
    const auto args = expectRaises([&] { setDelta(d, v); }, "stats:tdigest:DeltaInvalidValue");
    ASSERT_EQ(args.size(), 1u);
    EXPECT_EQ(args[0], printedF(v));
    EXPECT_EQ(getDelta(d), 7.5);
  }
}

TEST(DeltaProperty, refused_text_examples) {
  TDigest d;
  EXPECT_EQ(expectRaises([&] { setDelta(d, 0.0); }, "stats:tdigest:DeltaInvalidValue"),
            std::vector<std::string>{"0.000000"});
  EXPECT_EQ(expectRaises([&] { setDelta(d, -2.0); }, "stats:tdigest:DeltaInvalidValue"),
            std::vector<std::string>{"-2.000000"});
  EXPECT_EQ(getDelta(d), 100.0);
}

TEST(DeltaProperty, any_positive_value_is_stored_as_given_infinity_included) {
  TDigest d;
  EXPECT_EQ(getDelta(d), 100.0);
  for (const double v : {1e-300, 5e-324, 0.5, 1e300, kInf}) {
    setDelta(d, v);
    EXPECT_EQ(ubitsOf(getDelta(d)), ubitsOf(v));
  }
}

TEST(DeltaProperty, changing_delta_does_not_recompress) {
  const auto stream = testing::makeStream(3);
  TDigest d = sampleDigest(*stream, 100.0, 3000);
  const auto before = elements(*getSummary(d));
  setDelta(d, 0.1);
  EXPECT_EQ(elements(*getSummary(d)), before);
}

// --- NumDataPoints and NumCentroids ------------------------------------------------

TEST(CountProperties, num_data_points_is_stored_unchecked) {
  const auto stream = testing::makeStream(4);
  TDigest d = sampleDigest(*stream, 100.0, 500);
  EXPECT_EQ(getNumDataPoints(d), 500u);
  for (const std::uint64_t v : {UINT64_C(0), UINT64_C(1), UINT64_C(0xFFFFFFFFFFFFFFFF)}) {
    setNumDataPoints(d, v);
    EXPECT_EQ(getNumDataPoints(d), v);
    EXPECT_EQ(d.totalWeight, v);
  }
}

TEST(CountProperties, doubling_num_data_points_halves_cdf_below_the_last_mean) {
  const auto stream = testing::makeStream(5);
  TDigest d = sampleDigest(*stream, 50.0, 4000);
  std::vector<Centroid> listed;
  d.tree.listCentroids(listed);
  const double lastMean = listed.back().mean;
  std::vector<double> xs;
  for (double x = -11.0; x < lastMean; x += 0.37) xs.push_back(x);
  for (const Centroid& c : listed) xs.push_back(c.mean);
  std::vector<double> single;
  for (const double x : xs) single.push_back(cdf(d, x));

  setNumDataPoints(d, 2 * getNumDataPoints(d));
  for (std::size_t i = 0; i < xs.size(); ++i) {
    const double expected = xs[i] >= lastMean ? 1.0 : single[i] / 2.0;
    EXPECT_EQ(cdf(d, xs[i]), expected) << xs[i];
  }
}

TEST(CountProperties, num_centroids_is_the_tree_size) {
  TDigest d;
  EXPECT_EQ(getNumCentroids(d), 0u);
  const auto stream = testing::makeStream(6);
  d = sampleDigest(*stream, 10.0, 1000);
  std::vector<Centroid> listed;
  d.tree.listCentroids(listed);
  EXPECT_EQ(getNumCentroids(d), listed.size());
  // A decoded zero-count root still counts as one slot.
  setSummary(d, *makeMatrix({testing::Column{0, 0, 0, 0}}));
  EXPECT_EQ(getNumCentroids(d), 1u);
}

// --- AVLTreeSummary -----------------------------------------------------------------

TEST(SummaryProperty, getter_encodes_and_setter_decodes_without_touching_the_scalars) {
  const auto stream = testing::makeStream(7);
  TDigest d = sampleDigest(*stream, 20.0, 800);
  const auto m = getSummary(d);
  EXPECT_EQ(elements(*m), elements(*encodeSummary(d.tree)));

  TDigest other;
  setDelta(other, 3.0);
  setNumDataPoints(other, 12);
  setSummary(other, *m);
  EXPECT_TRUE(testing::sameTree(d.tree, other.tree));
  EXPECT_EQ(getDelta(other), 3.0);
  EXPECT_EQ(getNumDataPoints(other), 12u);
}

TEST(SummaryProperty, a_refused_matrix_leaves_the_digest_as_it_was) {
  const auto stream = testing::makeStream(8);
  TDigest d = sampleDigest(*stream, 20.0, 800);
  const auto before = elements(*getSummary(d));
  expectRaises([&] { setSummary(d, *makeMatrix({node(1.0, 1, 0, 1)}, 3)); },
               "stats:tdigest:DataMalformed");
  EXPECT_EQ(elements(*getSummary(d)), before);
  EXPECT_EQ(getNumDataPoints(d), 800u);
}

// --- restoring a digest from its properties ----------------------------------------

struct RestoreCase {
  double delta;
  int values;
};

class PropertyRestore : public ::testing::TestWithParam<RestoreCase> {};

TEST_P(PropertyRestore, three_properties_give_identical_answers_and_future) {
  const RestoreCase c = GetParam();
  const auto stream = testing::makeStream(9);
  TDigest original = sampleDigest(*stream, c.delta, c.values);

  TDigest restored;
  setSummary(restored, *getSummary(original));
  setDelta(restored, getDelta(original));
  setNumDataPoints(restored, getNumDataPoints(original));
  EXPECT_EQ(getNumCentroids(restored), getNumCentroids(original));

  std::vector<Centroid> a;
  std::vector<Centroid> b;
  original.tree.listCentroids(a);
  restored.tree.listCentroids(b);
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(ubitsOf(a[i].mean), ubitsOf(b[i].mean));
    EXPECT_EQ(a[i].count, b[i].count);
  }

  for (double x = -12.0; x <= 42.0; x += 0.25) {
    EXPECT_EQ(ubitsOf(cdf(restored, x)), ubitsOf(cdf(original, x))) << x;
  }
  for (int i = 0; i <= 200; ++i) {
    const double q = i / 200.0;
    EXPECT_EQ(ubitsOf(icdf(restored, q)), ubitsOf(icdf(original, q))) << q;
  }
  for (int i = 0; i < 50; ++i) {
    const double p = i / 100.0;
    EXPECT_EQ(ubitsOf(trimmedMean(restored, p)), ubitsOf(trimmedMean(original, p))) << p;
  }

  // Insertion reads heights and subtree counts: fed the same values from
  // streams in the same state, both digests must stay identical.
  const auto s1 = testing::makeStream(21);
  const auto s2 = testing::makeStream(21);
  original.stream = s1.get();
  restored.stream = s2.get();
  for (int i = 0; i < 2000; ++i) {
    const double x = std::sin(i * 0.7) * 30.0;
    original.add(x);
    restored.add(x);
  }
  EXPECT_EQ(elements(*getSummary(restored)), elements(*getSummary(original)));
  EXPECT_EQ(getNumDataPoints(restored), getNumDataPoints(original));
}

INSTANTIATE_TEST_SUITE_P(Digests, PropertyRestore,
                         ::testing::Values(RestoreCase{100.0, 1}, RestoreCase{100.0, 2},
                                           RestoreCase{100.0, 5000}, RestoreCase{5.0, 3000},
                                           RestoreCase{0.5, 200}, RestoreCase{1000.0, 700}));

}  // namespace
}  // namespace zotdigest
