// Add, compress and merge: the tree digest against a plain sorted-vector
// version of the algorithm (values, draws and compressions bit for bit),
// recorded fingerprints of whole digests, and the edge cases outside both.
//
// Draws are checked against a twin of the digest's stream: the twin reads
// ahead the values the digest is served, and comparing the next value of
// both afterwards tells how many the digest drew.
#include "core/tdigest.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <tuple>
#include <vector>

#include "core_checks.h"

namespace zotdigest {
namespace {

using testing::bitsOf;
using testing::expectIdentical;
using testing::expectValidTree;
using testing::SeededDigest;
using testing::seededStream;

constexpr double kInf = std::numeric_limits<double>::infinity();

// The first value, and whether a value joins a centroid, are the model's
// concern below; NaN and the infinities are not in its input.
TEST(TDigestAdd, nan_is_a_no_op_and_infinities_are_values_like_any) {
  TDigest digest;
  digest.add(std::nan(""), 5);
  EXPECT_EQ(digest.tree.size(), 0u);
  EXPECT_EQ(digest.totalWeight, 0u);
  EXPECT_EQ(digest.stream, nullptr);  // not even the default stream was fetched
  SeededDigest s(5);
  for (const double x : {2.5, kInf, -kInf, std::nan(""), -kInf}) s.digest.add(x);
  EXPECT_EQ(s.digest.totalWeight, 4u);
  EXPECT_EQ(s.digest.tree.first()->mean, -kInf);
}

// The trigger's strictness and the recount are the hand-worked cases'. Below
// 20 x delta = 1 compression leaves the digest alone, as it does a single
// centroid.
TEST(TDigestCompress, tiny_deltas_and_single_centroids_are_left_alone) {
  TDigest tiny;
  tiny.delta = 0.04;
  tiny.add(1.0, 3);
  tiny.add(2.0, 3);
  tiny.compress();
  EXPECT_EQ(tiny.tree.size(), 2u);
  EXPECT_EQ(tiny.totalWeight, 0u);  // each add's own compression did nothing
  TDigest single;
  single.add(4.0, 2);
  single.compress();
  EXPECT_EQ(single.stream, nullptr);
  EXPECT_EQ(single.totalWeight, 2u);
}

// Small digests worked out by hand on the streams of seed 0, whose first
// draws are 0.127, 0.319, 0.309, and seed 1 (0.760, 0.978). Each would end
// differently under a wrong size bound, comparison, choice among eligible
// centroids or trigger.
struct HandCase {
  const char* what;
  std::uint64_t seed;
  double delta;
  std::vector<Centroid> adds;  // values and weights, in order
  std::vector<Centroid> expected;
  int draws;
};

TEST(TDigestAdd, small_digests_end_with_the_centroids_worked_out_by_hand) {
  // 2 is too heavy to join 0 (bound 10 < 11). 1 is as far from both; both
  // are eligible (bounds 19.1 and 109.1): the first draw takes 0, the
  // second moves the choice to 2 when it is at most 1/2.
  const std::vector<Centroid> between = {{0.0, 1}, {2.0, 10}, {1.0, 1}};
  const HandCase cases[] = {
      // 2.25 is nearest 2; q = (1/2 + 1) / 3 = 1/2, bound 12 x 1/4 / 1.5 = 2:
      // exactly room for 1 + 1, so it joins.
      {"bound equal to the grown count",
       0,
       1.5,
       {{0.0, 1}, {2.0, 1}, {4.0, 1}, {2.25, 1}},
       {{0.0, 1}, {2.125, 2}, {4.0, 1}},
       1},
      {"second of two eligible", 0, 0.1, between, {{0.0, 1}, {21.0 / 11.0, 11}}, 2},
      {"first of two eligible", 1, 0.1, between, {{0.5, 2}, {2.0, 10}}, 2},
      // No value joins (bounds 10 < 101, then 1009.9 < 1100 and 19.9 < 1001),
      // so the third centroid passes 20 x 0.1 and compresses: the
      // permutation (draws 1 and 2) keeps the order, 0 and 10 stay apart
      // again (bound 1000 < 1100) and 20 joins 10 on draw 3.
      {"third centroid compresses",
       0,
       0.1,
       {{20.0, 1}, {0.0, 100}, {10.0, 1000}},
       {{0.0, 100}, {10020.0 / 1001.0, 1001}},
       3},
  };
  for (const HandCase& c : cases) {
    SCOPED_TRACE(c.what);
    SeededDigest s(c.seed, c.delta);
    std::uint64_t total = 0;
    for (const Centroid& a : c.adds) {
      s.digest.add(a.mean, a.count);
      total += a.count;
    }
    TDigest expected = testing::digestOf(c.expected);
    expected.totalWeight = total;
    expectIdentical(s.digest, expected);
    auto twin = seededStream(c.seed);
    for (int i = 0; i < c.draws; ++i) twin->uniform();
    EXPECT_EQ(s.stream->uniform(), twin->uniform()) << "draws made";
  }
}

// The same algorithm over a plain sorted vector: no tree, no rotations, no
// aggregates, no shortcuts.
struct VectorModel {
  double delta;
  quorix::RandomStream* stream;
  std::uint64_t total = 0;
  std::vector<Centroid> c;  // in order

  void add(double x, std::uint64_t w) {
    std::size_t candidate = c.size();
    std::size_t start = 0;
    std::size_t runLast = 0;
    if (!c.empty()) {
      // The run nearest to x, searched forward from the last mean below x.
      for (std::size_t i = 0; i < c.size(); ++i) start = c[i].mean < x ? i : start;
      double best = kInf;
      for (std::size_t i = start; i < c.size(); ++i) {
        const double d = std::fabs(c[i].mean - x);
        if (d > best) break;
        if (d < best) {
          best = d;
          start = i;
        }
        runLast = i;
      }
      std::uint64_t before = 0;
      for (std::size_t i = 0; i < start; ++i) before += c[i].count;
      double seen = 0.0;
      for (std::size_t i = start; i <= runLast; ++i) {
        const double q = (toDouble(c[i].count) * 0.5 + toDouble(before)) / toDouble(total);
        const double bound = toDouble(4 * total) * q * (1.0 - q) / delta;
        if (bound >= toDouble(c[i].count + w)) {
          seen += 1.0;
          if (1.0 / seen >= stream->uniform()) candidate = i;
        }
        before += c[i].count;
      }
    }
    if (candidate < c.size()) {
      // Grown values move to the far end of the run of equal old means.
      Centroid& g = c[candidate];
      const double m = g.mean;
      g.mean = (toDouble(g.count) * m + toDouble(w) * x) / toDouble(g.count + w);
      g.count += w;
      std::size_t target = candidate;
      while (g.mean > m && target < runLast && c[target + 1].mean == m) ++target;
      while (g.mean < m && target > start && c[target - 1].mean == m) --target;
      std::swap(c[candidate], c[target]);
    } else {
      std::size_t at = 0;
      while (at < c.size() && !(c[at].mean > x)) ++at;
      c.insert(c.begin() + static_cast<std::ptrdiff_t>(at), Centroid{x, w});
    }
    if (toDouble(c.size()) > delta * 20.0) {
      compress();
    } else {
      total += w;
    }
  }

  void compress() {
    std::vector<double> p(c.size());
    stream->randomPermutation(p.data(), p.size(), toDouble(c.size()));
    std::vector<Centroid> listed;
    listed.swap(c);
    total = 0;
    for (const double i : p) {
      const Centroid& next = listed[static_cast<std::size_t>(i) - 1];
      add(next.mean, next.count);
    }
  }
};

class TDigestModel : public ::testing::TestWithParam<double> {};

TEST_P(TDigestModel, tree_digest_matches_a_sorted_vector_bit_for_bit) {
  const double delta = GetParam();
  SeededDigest s(47, delta);
  auto twin = seededStream(47);
  VectorModel model{delta, twin.get(), 0, {}};
  const auto expectMatches = [&] {
    TDigest mine = testing::digestOf(model.c);
    mine.totalWeight = model.total;
    expectIdentical(s.digest, mine);
  };
  auto values = seededStream(48);
  for (int i = 1; i <= 6000; ++i) {
    // A coarse grid makes equal means and equidistant neighbours common;
    // every third value climbs above all others, where centroids stay small,
    // so the tree keeps outgrowing 20 x delta and compresses mid-stream.
    const double x = i % 3 == 0 ? 8.0 + i * 0.25 : std::floor(values->uniform() * 64.0) / 8.0;
    const auto w = static_cast<std::uint64_t>(1 + (i % 3));
    s.digest.add(x, w);
    model.add(x, w);
    if (i % 500 == 0) {
      expectMatches();
      expectValidTree(s.digest.tree);
      expectValidTree(CentroidTree(s.digest.tree));  // a copy links its own nodes
    }
  }
  s.digest.compress();
  model.compress();
  expectMatches();
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
}

// A column of few distinct values: long runs of equal means, two
// spellings of zero, a value halfway between two runs, heavy weights, a
// new delta and a compression midway. (Dyadic values: every grown mean is
// exact, so the means stay in order, which the model needs.)
TEST_P(TDigestModel, few_distinct_values_match_the_sorted_vector_bit_for_bit) {
  const double delta = GetParam();
  SeededDigest s(53, delta);
  auto twin = seededStream(53);
  VectorModel model{delta, twin.get(), 0, {}};
  auto values = seededStream(54);
  const double kValues[] = {0.0, 1.0, 0.25, 0.5, -0.0};
  for (int i = 1; i <= 20000; ++i) {
    const double x = i % 97 == 0 ? 0.375 : kValues[static_cast<int>(values->uniform() * 5.0)];
    const std::uint64_t w = i % 50 == 0 ? 40 : 1;
    s.digest.add(x, w);
    model.add(x, w);
    if (i == 10000) s.digest.delta = model.delta = delta * 2.0;
    if (i == 15000) {
      s.digest.compress();
      model.compress();
    }
  }
  TDigest mine = testing::digestOf(model.c);
  mine.totalWeight = model.total;
  expectIdentical(s.digest, mine);
  expectValidTree(s.digest.tree);
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
}

INSTANTIATE_TEST_SUITE_P(Deltas, TDigestModel, ::testing::Values(2.0, 5.0, 10.0, 100.0));

// Whole-digest fingerprints: a hash over every centroid's mean bits and
// count, every node's height and subtree count in order (which fix the AVL
// shape), the size, the total and the next draw of the stream (which pins
// the number of draws). Recorded from the straightforward node-per-allocation
// implementation: any change to draw order (merge's heaviest first
// included), tree shape or arithmetic shows here, however the tree is stored.
struct Fnv1a {
  std::uint64_t hash = 0xcbf29ce484222325u;
  void add(std::uint64_t v) {
    for (int i = 0; i < 8; ++i) hash = (hash ^ ((v >> (8 * i)) & 0xffu)) * 0x100000001b3u;
  }
  void add(TDigest& digest) {
    for (const CentroidNode* n = digest.tree.first(); n != nullptr; n = CentroidTree::next(n)) {
      const std::uint64_t height = static_cast<std::uint32_t>(n->height);
      for (const std::uint64_t v : {bitsOf(n->mean), n->count, height, n->subtreeCount}) add(v);
    }
    add(digest.tree.size());
    add(digest.totalWeight);
    add(bitsOf(digest.stream->uniform()));
  }
};

// 50000 values. Mixed: weights 1 to 3, a coarse grid (equal means,
// equidistant neighbours), a climbing ramp (compressions mid-stream) and the
// odd infinity, which may go to a centroid mid-tree (all are equally far).
enum Input { kUniform, kSorted, kMixed };
void feed(TDigest& digest, Input input, std::uint64_t seed) {
  auto values = seededStream(seed);
  for (int i = 0; i < 50000; ++i) {
    const double u = values->uniform();
    const double x = input == kUniform  ? u
                     : input == kSorted ? i * 0.001 + u * 1e-4
                     : i % 5 == 0       ? 100.0 + i * 0.01
                     : i % 997 == 0     ? (i % 2 == 0 ? kInf : -kInf)
                                        : std::floor(u * 128.0) / 16.0;
    digest.add(x, input == kMixed ? static_cast<std::uint64_t>(1 + i % 3) : 1);
  }
}

TEST(DigestFingerprint, add_compress_and_merge_reproduce_the_recorded_digests) {
  const std::tuple<Input, double, std::uint64_t> cases[] = {
      {kUniform, 10.0, 0xdfdd18a6ee63448au}, {kUniform, 100.0, 0x9a3a539e7a9d5b6cu},
      {kSorted, 10.0, 0x1409ad6f3045439au},  {kSorted, 100.0, 0x61c7d4bf4fa2f121u},
      {kMixed, 10.0, 0x5e8a7ea7166458f0u},   {kMixed, 100.0, 0x4ff7c0e7608dac82u}};
  for (const auto& [input, delta, expected] : cases) {
    SeededDigest s(7, delta);
    SeededDigest other(8, delta);
    Fnv1a h;
    feed(s.digest, input, 11);
    h.add(s.digest);
    s.digest.compress();
    h.add(s.digest);
    feed(other.digest, input, 12);
    s.digest.merge(other.digest);
    s.digest.merge(s.digest);
    h.add(s.digest);
    EXPECT_EQ(h.hash, expected) << "input " << input << " delta " << delta << std::hex
                                << " fingerprint 0x" << h.hash;
  }
}

}  // namespace
}  // namespace zotdigest
