// The weighted reproducible build against its definition rendered here
// independently (the summary written in another balanced shape, which the
// module's merge must not see), then the same digest across chunkings and
// element classes, its counts, and the refused uses.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "build_state.h"
#include "engine/errors.h"
#include "engine/reproducible_build.h"
#include "quorix/module.h"
#include "quorix/random_stream.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;
using testing::state;

constexpr std::size_t B = kBlockSize;
using Pairs = std::vector<std::pair<double, std::uint64_t>>;

HostArrayPtr emptyOf(double delta) {
  const HostArrayPtr none = HostArray::createNumericMatrix(0, 0, ClassID::Double);
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const std::array<const HostArray*, 2> in = {none.get(), d.get()};
  return ObjectSystem::construct("TDigest", 2, in.data());
}

// Heap-order columns of a tree with the upper middle of each range at its
// root; returns the range's height.
int writeUpper(const Pairs& p, std::size_t lo, std::size_t hi, std::size_t slot,
               std::vector<std::int64_t>& m, std::uint64_t& weight) {
  if (lo == hi) return -1;
  const std::size_t mid = lo + (hi - lo - 1) / 2 + ((hi - lo) % 2 == 0 ? 1 : 0);
  if (m.size() < 4 * (slot + 1)) m.resize(4 * (slot + 1));
  std::uint64_t wl = 0, wr = 0;
  const int hl = writeUpper(p, lo, mid, 2 * slot + 1, m, wl);
  const int hr = writeUpper(p, mid + 1, hi, 2 * slot + 2, m, wr);
  weight = wl + wr + p[mid].second;
  m[4 * slot] = std::bit_cast<std::int64_t>(p[mid].first);
  m[4 * slot + 1] = static_cast<std::int64_t>(p[mid].second);
  m[4 * slot + 2] = std::max(hl, hr) + 1;
  m[4 * slot + 3] = static_cast<std::int64_t>(weight);
  return std::max(hl, hr) + 1;
}

// Leaf k of the definition from the block's pairs (weights of 0 removed).
HostArrayPtr definitionLeaf(Pairs block, double delta, std::uint32_t seed, std::uint64_t k) {
  std::uint64_t total = 0;
  Pairs kept;
  for (const auto& [x, w] : block) {
    total += w;
    if (!std::isnan(x)) kept.emplace_back(x, w);
  }
  std::stable_sort(kept.begin(), kept.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::int64_t> m;
  std::uint64_t weight = 0;
  const int h = writeUpper(kept, 0, kept.size(), 0, m, weight);
  m.resize(4 * ((std::size_t{1} << (h + 1)) - 1));
  HostArrayPtr summary = HostArray::createNumericMatrix(4, m.size() / 4, ClassID::Int64);
  std::copy(m.begin(), m.end(), summary->data<std::int64_t>());
  const HostArrayPtr held = emptyOf(delta);
  ObjectSystem::setProperty(*held, "AVLTreeSummary", *summary, quorix::kRestrictedAccess);
  ObjectSystem::setProperty(*held, "NumDataPoints", *HostArray::createUInt64Scalar(total),
                            quorix::kRestrictedAccess);
  HostArrayPtr leaf = emptyOf(delta);
  auto s = quorix::RandomStream::create("mrg32k3a", 1000000, seed);
  s->selectSubstream(2 * k + 1);
  const HostArrayPtr stream = quorix::RandomStream::toHostValue(std::move(s));
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 3> in = {leaf.get(), held.get(), stream.get()};
  ObjectSystem::callMethod("merge", 0, out.data(), 3, in.data());
  return leaf;
}

// Values with ties, -0.0 beside 0.0 and NaN; weights 0 to 5 and a few
// heavy ones.
struct Data {
  std::vector<double> x;
  std::vector<std::uint64_t> w;
};

Data data(std::size_t n, std::uint32_t seed = 5) {
  Data d{testing::lognormal(n, seed), std::vector<std::uint64_t>(n)};
  std::mt19937_64 rng(seed);
  for (std::size_t i = 0; i < n; ++i) {
    const auto r = rng() % 100;
    if (r < 10) d.x[i] = std::round(d.x[i]);
    if (r == 10) d.x[i] = (i % 2 == 0) ? -0.0 : 0.0;
    if (r == 11) d.x[i] = std::numeric_limits<double>::quiet_NaN();
    d.w[i] = r < 95 ? rng() % 6 : 1000 + rng() % 100000;
  }
  return d;
}

HostArrayPtr weighted(const Data& d, BuildOptions options = {}) {
  return reproducibleDigest(d.x.data(), ClassID::Double, d.w.data(), d.x.size(), options);
}

class WeightedBuildTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { quorix::Module::load("libzotdigest"); }
};

TEST_F(WeightedBuildTest, matches_the_definition_leaves_and_tree) {
  // About 1.7 B non-zero pairs: a full leaf and a short one, merged.
  const Data d = data(2 * B + 333);
  std::vector<Pairs> blocks(1);
  for (std::size_t i = 0; i < d.x.size(); ++i) {
    if (d.w[i] == 0) continue;
    if (blocks.back().size() == B) blocks.emplace_back();
    blocks.back().emplace_back(d.x[i], d.w[i]);
  }
  ASSERT_EQ(blocks.size(), 2u);
  for (const std::uint32_t seed : {0u, 77u}) {
    const HostArrayPtr left = definitionLeaf(blocks[0], 30.0, seed, 0);
    const HostArrayPtr right = definitionLeaf(blocks[1], 30.0, seed, 1);
    mergeNodes(*left, *right, 1, 0, seed);
    releaseBuildStream(*left);
    EXPECT_EQ(state(*weighted(d, {30.0, seed})), state(*left)) << "seed " << seed;
  }
  // One block of weights 1 and distinct values.
  Data ones{testing::lognormal(5000), std::vector<std::uint64_t>(5000, 1)};
  Pairs block;
  for (std::size_t i = 0; i < 5000; ++i) block.emplace_back(ones.x[i], 1);
  const HostArrayPtr leaf = definitionLeaf(block, 100.0, 0, 0);
  releaseBuildStream(*leaf);
  EXPECT_EQ(state(*weighted(ones)), state(*leaf));
}

TEST_F(WeightedBuildTest, same_digest_whatever_the_chunks_and_threads) {
  const Data d = data(2 * B + 3001);
  const auto expected = state(*weighted(d));
  for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, B - 1, B, B + 1}) {
    ReproducibleBuild build({100.0, 0, 0, 0, true});
    for (std::size_t i = 0; i < d.x.size(); i += chunk) {
      const std::size_t n = std::min(chunk, d.x.size() - i);
      build.appendWeighted(d.x.data() + i, ClassID::Double, d.w.data() + i, n);
    }
    EXPECT_EQ(build.size(), d.x.size());
    EXPECT_EQ(state(*build.finish()), expected) << "chunks of " << chunk;
  }
  for (const unsigned threads : {1u, 2u}) {
    EXPECT_EQ(state(*weighted(d, {100.0, 0, threads})), expected) << threads << " threads";
  }
  // An element class is read as its doubles.
  std::vector<std::int32_t> ints(d.x.size());
  std::vector<double> asDoubles(d.x.size());
  for (std::size_t i = 0; i < ints.size(); ++i) {
    ints[i] = static_cast<std::int32_t>(std::isnan(d.x[i]) ? 0.0 : d.x[i] * 1000.0);
    asDoubles[i] = ints[i];
  }
  EXPECT_EQ(state(*reproducibleDigest(ints.data(), ClassID::Int32, d.w.data(), ints.size(), {})),
            state(*weighted({asDoubles, d.w})));
}

TEST_F(WeightedBuildTest, counts_are_the_weights_of_the_values) {
  for (const std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{900}, B + 5}) {
    const Data d = data(n, 11);
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += std::isnan(d.x[i]) ? 0 : d.w[i];
    const HostArrayPtr digest = weighted(d);
    EXPECT_EQ(*ObjectSystem::getProperty(*digest, "NumDataPoints")->data<std::uint64_t>(), sum)
        << n << " pairs";
  }
  // Weight 0 everywhere is no data: the empty digest.
  const Data zeros{{1.0, 2.0}, {0, 0}};
  EXPECT_EQ(state(*weighted(zeros)), state(*emptyOf(100.0)));
}

TEST_F(WeightedBuildTest, refuses_the_other_kind_of_append_and_an_overflowing_sum) {
  const double x[] = {1.0, 2.0};
  const std::uint64_t w[] = {std::numeric_limits<std::uint64_t>::max() - 1, 2};
  ReproducibleBuild plain({});
  EXPECT_THROW(plain.appendWeighted(x, ClassID::Double, w, 2), std::logic_error);
  ReproducibleBuild build({100.0, 0, 0, 0, true});
  EXPECT_THROW(build.append(x, 2, ClassID::Double), std::logic_error);
  try {
    build.appendWeighted(x, ClassID::Double, w, 2);
    ADD_FAILURE() << "no error";
  } catch (const InputError& e) {
    EXPECT_NE(std::string(e.what()).find("more than 2^64 - 1 at position 1"), std::string::npos);
  }
  // Nothing was taken: the build goes on.
  build.appendWeighted(x, ClassID::Double, w, 1);
  EXPECT_EQ(build.size(), 1u);
}

}  // namespace
}  // namespace zotdigest::engine
