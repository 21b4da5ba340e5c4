#include "core/tdigest.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "core_checks.h"
#include "host/errors.h"

namespace zotdigest {
namespace {

using testing::bits;
using testing::countSum;
using testing::expectIdentical;
using testing::expectValidTree;
using testing::listOf;
using testing::seededStream;

constexpr double kInf = std::numeric_limits<double>::infinity();

// A digest on its own seeded stream; the stream is kept alive beside it.
struct SeededDigest {
  explicit SeededDigest(std::uint64_t seed, double delta = 100.0) : stream(seededStream(seed)) {
    digest.delta = delta;
    digest.stream = stream.get();
  }
  std::unique_ptr<quorix::RandomStream> stream;
  TDigest digest;
};

void fillUniform(TDigest& digest, std::uint64_t seed, int n, double scale = 1.0) {
  auto values = seededStream(seed);
  for (int i = 0; i < n; ++i) digest.add(values->uniform() * scale);
}

TEST(TDigestAdd, nan_changes_nothing_and_infinities_are_values) {
  TDigest digest;
  digest.add(std::nan(""), 5);
  EXPECT_EQ(digest.tree.size(), 0u);
  EXPECT_EQ(digest.totalWeight, 0u);
  EXPECT_EQ(digest.stream, nullptr);

  SeededDigest s(3);
  s.digest.add(kInf, 2);
  s.digest.add(-kInf);
  s.digest.add(std::nan(""));
  EXPECT_EQ(s.digest.totalWeight, 3u);
  EXPECT_EQ(countSum(s.digest), 3u);
  EXPECT_EQ(s.digest.tree.first()->mean, -kInf);
}

TEST(TDigestAdd, first_value_makes_one_centroid_without_a_draw) {
  SeededDigest s(5);
  auto twin = seededStream(5);
  s.digest.add(2.5, 7);
  ASSERT_EQ(s.digest.tree.size(), 1u);
  EXPECT_EQ(s.digest.tree.root()->mean, 2.5);
  EXPECT_EQ(s.digest.tree.root()->count, 7u);
  EXPECT_EQ(s.digest.totalWeight, 7u);
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
}

TEST(TDigestAdd, zero_total_weight_makes_a_new_centroid_without_a_draw) {
  // The state inside a rebuild: weight in the tree, none counted yet.
  SeededDigest s(5);
  auto twin = seededStream(5);
  s.digest.tree.insert(1.0, 5);
  s.digest.add(1.0, 1);
  EXPECT_EQ(s.digest.tree.size(), 2u);
  EXPECT_EQ(s.digest.totalWeight, 1u);
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
}

TEST(TDigestAdd, tiny_delta_leaves_total_at_zero_and_never_recurses) {
  TDigest digest;
  digest.delta = 0.04;
  digest.add(1.0, 3);
  EXPECT_EQ(digest.tree.size(), 1u);
  EXPECT_EQ(digest.totalWeight, 0u);
  digest.add(2.0, 3);
  EXPECT_EQ(digest.tree.size(), 2u);
  EXPECT_EQ(digest.totalWeight, 0u);
  digest.compress();
  EXPECT_EQ(digest.tree.size(), 2u);
}

TEST(TDigestAdd, value_between_two_eligible_centroids_draws_twice_in_order) {
  bool tookFirst = false;
  bool tookSecond = false;
  for (std::uint64_t seed = 1; seed <= 24; ++seed) {
    SeededDigest s(seed, 1.0);
    auto twin = seededStream(seed);
    CentroidNode* low = s.digest.tree.insert(0.0, 10);
    CentroidNode* high = s.digest.tree.insert(2.0, 10);
    s.digest.totalWeight = 20;  // bound 15 for both, room for 11
    s.digest.add(1.0);
    twin->uniform();  // the first eligible centroid is always taken
    const bool second = 0.5 >= twin->uniform();
    EXPECT_EQ(high->count, second ? 11u : 10u) << "seed " << seed;
    EXPECT_EQ(low->count, second ? 10u : 11u) << "seed " << seed;
    EXPECT_EQ(second ? high->mean : low->mean,
              second ? (10.0 * 2.0 + 1.0 * 1.0) / 11.0 : (10.0 * 0.0 + 1.0 * 1.0) / 11.0);
    EXPECT_EQ(s.stream->uniform(), twin->uniform()) << "exactly two draws, seed " << seed;
    (second ? tookSecond : tookFirst) = true;
  }
  EXPECT_TRUE(tookFirst && tookSecond);
}

TEST(TDigestAdd, only_the_last_of_equal_means_below_the_value_joins_the_run) {
  SeededDigest s(9, 1.0);
  auto twin = seededStream(9);
  s.digest.tree.insert(1.0, 10);
  CentroidNode* lastOne = s.digest.tree.insert(1.0, 10);
  s.digest.totalWeight = 20;
  s.digest.add(1.5);  // only lastOne is eligible-checked: one draw
  EXPECT_EQ(lastOne->count, 11u);
  twin->uniform();
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
  expectValidTree(s.digest.tree);
}

TEST(TDigestAdd, compression_trigger_is_strict) {
  // Delta 5: 100 centroids are allowed, the 101st compresses. A zero total
  // makes every value a new centroid.
  for (const unsigned existing : {99u, 100u}) {
    SeededDigest s(11, 5.0);
    for (unsigned i = 0; i < existing; ++i) s.digest.tree.insert(i, 1);
    s.digest.add(1000.0);
    if (existing == 99u) {
      EXPECT_EQ(s.digest.tree.size(), 100u);
      EXPECT_EQ(s.digest.totalWeight, 1u);
    } else {
      EXPECT_LT(s.digest.tree.size(), 101u);
      EXPECT_EQ(s.digest.totalWeight, 101u);  // recounted by compress
      expectValidTree(s.digest.tree);
    }
  }
}

TEST(TDigestCompress, keeps_total_and_order_and_bounds_the_centroids) {
  SeededDigest s(13, 10.0);
  fillUniform(s.digest, 99, 20000);
  EXPECT_EQ(s.digest.totalWeight, 20000u);
  EXPECT_LE(s.digest.tree.size(), 200u);
  expectValidTree(s.digest.tree);
  const std::uint64_t before = s.digest.tree.size();
  s.digest.compress();
  EXPECT_EQ(s.digest.totalWeight, 20000u);
  EXPECT_EQ(countSum(s.digest), 20000u);
  EXPECT_LE(s.digest.tree.size(), before);
  expectValidTree(s.digest.tree);

  TDigest single;
  single.add(4.0, 2);
  single.compress();
  EXPECT_EQ(single.stream, nullptr);  // fewer than two centroids: untouched
  EXPECT_EQ(single.totalWeight, 2u);
}

TEST(TDigestCompress, same_stream_state_gives_identical_centroids) {
  // Values on a coarse grid, so runs of equal means make several centroids
  // eligible at once and the draws decide; compress at the end shuffles.
  auto fill = [](TDigest& d) {
    auto values = seededStream(21);
    for (int i = 0; i < 40000; ++i) d.add(std::floor(values->uniform() * 400.0) / 4.0);
    d.compress();
  };
  SeededDigest a(7);
  SeededDigest b(7);
  fill(a.digest);
  fill(b.digest);
  expectIdentical(a.digest, b.digest);
  EXPECT_EQ(a.stream->uniform(), b.stream->uniform());
  // A different stream state must be able to change the outcome.
  SeededDigest c(8);
  fill(c.digest);
  const auto la = listOf(a.digest);
  const auto lc = listOf(c.digest);
  bool differ = la.size() != lc.size();
  for (std::size_t i = 0; !differ && i < la.size(); ++i)
    differ = bits(la[i].mean) != bits(lc[i].mean);
  EXPECT_TRUE(differ);
}

TEST(TDigestMerge, into_itself_doubles_every_weight) {
  SeededDigest s(17);
  fillUniform(s.digest, 4, 5000);
  const std::uint64_t total = s.digest.totalWeight;
  s.digest.merge(s.digest);
  EXPECT_EQ(s.digest.totalWeight, 2 * total);
  EXPECT_EQ(countSum(s.digest), 2 * total);
  expectValidTree(s.digest.tree);
}

TEST(TDigestMerge, empty_sides_keep_the_total) {
  SeededDigest a(19);
  fillUniform(a.digest, 5, 3000);
  SeededDigest empty(20);
  a.digest.merge(empty.digest);
  EXPECT_EQ(a.digest.totalWeight, 3000u);
  EXPECT_EQ(countSum(a.digest), 3000u);
  empty.digest.merge(a.digest);
  EXPECT_EQ(empty.digest.totalWeight, 3000u);
  EXPECT_EQ(a.digest.totalWeight, 3000u);
  expectValidTree(empty.digest.tree);
}

TEST(TDigestMerge, any_delta_difference_or_nan_raises_and_changes_nothing) {
  const double nan = std::nan("");
  const double pairs[][2] = {{100.0, std::nextafter(100.0, kInf)}, {nan, nan}, {100.0, nan}};
  for (const auto& pair : pairs) {
    SeededDigest a(23, pair[0]);
    SeededDigest b(24, pair[1]);
    a.digest.add(1.0);
    a.digest.add(2.0);
    b.digest.add(3.0);
    const auto la = listOf(a.digest);
    testing::expectRaises<stats::tdigest::MergeDeltaMismatch>([&] { a.digest.merge(b.digest); },
                                                              "stats:tdigest:MergeDeltaMismatch");
    EXPECT_EQ(a.digest.totalWeight, 2u);
    EXPECT_EQ(listOf(a.digest).size(), la.size());
    EXPECT_EQ(b.digest.totalWeight, 1u);
  }
}

TEST(TDigestMerge, equal_counts_are_added_in_listing_order_this_digest_first) {
  // Many ties: an unstable sort would reorder them and change the result.
  auto build = [](TDigest& d, double offset) {
    for (int i = 0; i < 60; ++i) d.tree.insert(2.0 * i + offset, 1);
    d.totalWeight = 60;
  };
  SeededDigest self(29, 2.0);
  SeededDigest other(30, 2.0);
  build(self.digest, 0.0);
  build(other.digest, 1.0);
  std::vector<Centroid> order = listOf(self.digest);
  const auto otherList = listOf(other.digest);
  order.insert(order.end(), otherList.begin(), otherList.end());
  self.digest.merge(other.digest);

  SeededDigest expected(29, 2.0);
  for (const Centroid& c : order) expected.digest.add(c.mean, c.count);
  expectIdentical(self.digest, expected.digest);
}

// The same algorithm over a plain sorted vector: no tree, no rotations, no
// aggregates. Fed the same values from a stream in the same state, the
// digest must end with exactly the model's centroids.
class VectorModel {
 public:
  VectorModel(double delta, quorix::RandomStream* stream) : delta_(delta), stream_(stream) {}

  void add(double x, std::uint64_t w) {
    if (std::isnan(x)) return;
    if (c_.empty()) {
      c_.push_back({x, w});
    } else {
      std::size_t start = 0;
      for (std::size_t i = 0; i < c_.size(); ++i) {
        if (c_[i].mean < x) start = i;
      }
      std::size_t runLast = start;
      double best = kInf;
      for (std::size_t i = start; i < c_.size(); ++i) {
        const double d = std::fabs(c_[i].mean - x);
        if (d < best) {
          best = d;
          start = i;
        } else if (d > best) {
          break;
        }
        runLast = i;
      }
      std::uint64_t before = 0;
      for (std::size_t i = 0; i < start; ++i) before += c_[i].count;
      std::size_t candidate = c_.size();
      double seen = 0.0;
      for (std::size_t i = start; i <= runLast; ++i) {
        const double q = (toDouble(c_[i].count) * 0.5 + toDouble(before)) / toDouble(total_);
        const double bound = toDouble(4 * total_) * q * (1.0 - q) / delta_;
        if (bound >= toDouble(c_[i].count + w)) {
          seen += 1.0;
          if (1.0 / seen >= stream_->uniform()) candidate = i;
        }
        before += c_[i].count;
      }
      if (candidate < c_.size()) {
        Centroid& g = c_[candidate];
        const double m = g.mean;
        g.mean = (toDouble(g.count) * m + toDouble(w) * x) / toDouble(g.count + w);
        g.count += w;
        std::size_t target = candidate;
        if (g.mean > m) {
          while (target < runLast && c_[target + 1].mean == m) ++target;
        } else if (g.mean < m) {
          while (target > start && c_[target - 1].mean == m) --target;
        }
        std::swap(c_[candidate], c_[target]);
      } else {
        std::size_t at = 0;
        while (at < c_.size() && !(c_[at].mean > x)) ++at;
        c_.insert(c_.begin() + static_cast<std::ptrdiff_t>(at), Centroid{x, w});
      }
    }
    if (toDouble(c_.size()) > delta_ * 20.0 && c_.size() >= 2 && !(delta_ * 20.0 < 1.0)) {
      compress();
      return;
    }
    total_ += w;
  }

  void compress() {
    if (c_.size() < 2) return;
    std::vector<double> p(c_.size());
    stream_->randomPermutation(p.data(), p.size(), toDouble(c_.size()));
    std::vector<Centroid> shuffled;
    for (const double i : p) shuffled.push_back(c_[static_cast<std::size_t>(i) - 1]);
    c_.clear();
    total_ = 0;
    for (const Centroid& c : shuffled) add(c.mean, c.count);
  }

  void expectMatches(const TDigest& digest) const {
    EXPECT_EQ(digest.totalWeight, total_);
    const std::vector<Centroid> listed = listOf(digest);
    ASSERT_EQ(listed.size(), c_.size());
    for (std::size_t i = 0; i < c_.size(); ++i) {
      ASSERT_EQ(bits(listed[i].mean), bits(c_[i].mean)) << "centroid " << i;
      ASSERT_EQ(listed[i].count, c_[i].count) << "centroid " << i;
    }
  }

 private:
  double delta_;
  quorix::RandomStream* stream_;
  std::uint64_t total_ = 0;
  std::vector<Centroid> c_;
};

class TDigestModel : public ::testing::TestWithParam<double> {};

TEST_P(TDigestModel, tree_digest_matches_a_sorted_vector_bit_for_bit) {
  const double delta = GetParam();
  SeededDigest s(47, delta);
  auto twin = seededStream(47);
  VectorModel model(delta, twin.get());
  auto values = seededStream(48);
  for (int i = 1; i <= 6000; ++i) {
    // A coarse grid makes equal means and equidistant neighbours common;
    // every third value climbs above all others, where centroids stay small,
    // so the tree keeps outgrowing 20 x delta and compresses mid-stream.
    const double x = i % 3 == 0 ? 8.0 + i * 0.25 : std::floor(values->uniform() * 64.0) / 8.0;
    const auto w = static_cast<std::uint64_t>(1 + (i % 3));
    s.digest.add(x, w);
    model.add(x, w);
    if (i % 1000 == 0) {
      model.expectMatches(s.digest);
      expectValidTree(s.digest.tree);
    }
  }
  s.digest.compress();
  model.compress();
  model.expectMatches(s.digest);
  EXPECT_EQ(s.stream->uniform(), twin->uniform());
}

INSTANTIATE_TEST_SUITE_P(Deltas, TDigestModel, ::testing::Values(2.0, 5.0, 10.0, 100.0));

// Trees as a decoder may hand them over: operations must stay memory-safe
// and terminate, whatever the numbers mean.
void exerciseEverything(TDigest& digest) {
  for (const double x : {0.5, -3.0, 1e300, 2.0, 2.0, -kInf}) digest.add(x, 3);
  for (const double x : {-1.0, 0.5, 2.0, 1e301}) {
    try {
      (void)cdf(digest, x);
    } catch (const quorix::MsgIDException&) {
    }
  }
  for (const double q : {0.0, 0.3, 0.999, 1.0}) (void)icdf(digest, q);
  for (const double p : {0.0, 0.1, 0.49}) {
    try {
      (void)trimmedMean(digest, p);
    } catch (const quorix::MsgIDException&) {
    }
  }
  const TDigest copy = digest;
  digest.compress();
  digest.merge(copy);
  digest.merge(digest);
}

TEST(TDigestRobustness, malformed_trees_stay_safe) {
  const double nan = std::nan("");
  for (const std::uint64_t claimedSize : {0ull, 1ull, 5ull, 1000ull}) {
    for (const double delta : {100.0, 0.06}) {
      SeededDigest s(31, delta);
      auto* root = new CentroidNode(nan, 4);
      root->height = std::numeric_limits<std::int32_t>::max();
      root->subtreeCount = 1;
      auto* l = new CentroidNode(5.0, 2);  // unsorted
      l->height = -7;
      l->parent = root;
      root->left = l;
      auto* r = new CentroidNode(-1.0, std::uint64_t{1} << 63);
      r->height = std::numeric_limits<std::int32_t>::min();
      r->parent = root;
      root->right = r;
      s.digest.tree.adopt(root, claimedSize);
      s.digest.totalWeight = 17;
      exerciseEverything(s.digest);
    }
  }
  SeededDigest noRoot(32);
  noRoot.digest.tree.adopt(nullptr, 1);
  testing::expectRaises<stats::tdigest::CdfNoData>([&] { (void)cdf(noRoot.digest, 1.0); },
                                                   "stats:tdigest:CdfNoData");
  EXPECT_TRUE(std::isnan(icdf(noRoot.digest, 0.5)));
  noRoot.digest.compress();
  exerciseEverything(noRoot.digest);
}

TEST(TDigestRobustness, centroids_that_can_never_merge_do_not_recurse_forever) {
  // Zero weights keep q NaN; weights of 2^62 wrap 4 x total to 0. Either way
  // no centroid is ever eligible and every compression re-adds them all.
  for (const std::uint64_t w : {std::uint64_t{0}, std::uint64_t{1} << 62}) {
    for (const double delta : {0.06, 1.0}) {
      SeededDigest s(37, delta);
      for (int i = 0; i < 60; ++i) s.digest.add(i, w);
      EXPECT_EQ(s.digest.totalWeight, countSum(s.digest));
      s.digest.compress();
      EXPECT_EQ(s.digest.totalWeight, countSum(s.digest));
      // Normal service resumes afterwards.
      TDigest fresh;
      fresh.delta = delta;
      fresh.stream = s.stream.get();
      for (int i = 0; i < 500; ++i) fresh.add(i);
      EXPECT_EQ(fresh.totalWeight, 500u);
      EXPECT_LE(toDouble(fresh.tree.size()), 20.0 * delta);
    }
  }
}

}  // namespace
}  // namespace zotdigest
