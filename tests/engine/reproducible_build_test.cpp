// The reproducible build against a plain serial rendering of its definition,
// written here level by level without the engine's counter; then the same
// digest, bit for bit, across thread counts, chunkings and element classes;
// Ctrl-C and bad input (its accuracy is the definition's: the module's tests).
#include "engine/reproducible_build.h"

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "quorix/interrupt.h"
#include "quorix/messages.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

constexpr std::size_t B = kBlockSize;

HostArrayPtr streamOn(std::uint32_t seed, std::uint64_t substream) {
  auto s = quorix::RandomStream::create("mrg32k3a", 1000000, seed);
  s->selectSubstream(substream);
  return quorix::RandomStream::toHostValue(std::move(s));
}

// The definition, step by step: leaves on substream 2k + 1, then levels of
// neighbour pairs, node j of level L merged on substream j 2^(L+1) + 2^L,
// an odd node out carried up unchanged.
HostArrayPtr definitionDigest(const std::vector<double>& x, double delta, std::uint32_t seed) {
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  std::vector<HostArrayPtr> level;
  for (std::size_t k = 0; k * B < x.size(); ++k) {
    const std::size_t n = std::min(B, x.size() - k * B);
    HostArrayPtr block = HostArray::createNumericMatrix(n, 1, ClassID::Double);
    std::copy_n(x.begin() + static_cast<std::ptrdiff_t>(k * B), n, block->data<double>());
    const HostArrayPtr s = streamOn(seed, 2 * k + 1);
    const std::array<const HostArray*, 3> in = {block.get(), d.get(), s.get()};
    level.push_back(ObjectSystem::construct("TDigest", 3, in.data()));
  }
  if (level.empty()) {
    const HostArrayPtr none = HostArray::createNumericMatrix(0, 0, ClassID::Double);
    const std::array<const HostArray*, 2> in = {none.get(), d.get()};
    return ObjectSystem::construct("TDigest", 2, in.data());
  }
  for (unsigned L = 1; level.size() > 1; ++L) {
    std::vector<HostArrayPtr> up;
    for (std::size_t j = 0; 2 * j < level.size(); ++j) {
      if (2 * j + 1 < level.size()) {
        const HostArrayPtr s =
            streamOn(seed, (std::uint64_t{j} << (L + 1)) + (std::uint64_t{1} << L));
        std::array<HostArray*, 1> out{};
        const std::array<const HostArray*, 3> in = {level[2 * j].get(), level[2 * j + 1].get(),
                                                    s.get()};
        ObjectSystem::callMethod("merge", 0, out.data(), 3, in.data());
      }
      up.push_back(std::move(level[2 * j]));
    }
    level = std::move(up);
  }
  return std::move(level[0]);
}

// Every saved property, bit for bit.
std::vector<std::vector<std::uint64_t>> state(const HostArray& digest) {
  std::vector<std::vector<std::uint64_t>> bits;
  for (const quorix::SavedProperty& p : ObjectSystem::save(digest).properties) {
    const auto* words = static_cast<const std::uint64_t*>(p.value->realData());
    bits.emplace_back(words, words + p.value->numel());
  }
  return bits;
}

std::vector<double> values(std::size_t n, std::uint32_t seed = 7) {
  std::mt19937_64 rng(seed);
  std::lognormal_distribution<double> dist(0.0, 1.5);
  std::vector<double> x(n);
  for (double& v : x) v = dist(rng);
  return x;
}

HostArrayPtr viewOf(const std::vector<double>& x) {
  if (x.empty()) return HostArray::createNumericMatrix(0, 1, ClassID::Double);
  return HostArray::createView(quorix::Dims{x.size(), 1}, ClassID::Double,
                               const_cast<double*>(x.data()), nullptr, nullptr);
}

HostArrayPtr built(const std::vector<double>& x, BuildOptions options = {}) {
  return reproducibleDigest(*viewOf(x), options);
}

class ReproducibleBuildTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { quorix::Module::load("libzotdigest"); }
};

TEST_F(ReproducibleBuildTest, matches_the_definition_from_empty_to_uneven_trees) {
  // Sizes: none, one value, shorter than a block, exactly one, a carried
  // odd node at two levels (5 blocks + a short one = 6 leaves), 7 leaves.
  for (const std::size_t n : {std::size_t{0}, std::size_t{1}, B - 1, B, 5 * B + 77, 7 * B}) {
    for (const std::uint32_t seed : {0u, 4000000000u}) {
      const std::vector<double> x = values(n);
      EXPECT_EQ(state(*built(x, {50.0, seed, 0})), state(*definitionDigest(x, 50.0, seed)))
          << "n = " << n << ", seed = " << seed;
    }
  }
}

TEST_F(ReproducibleBuildTest, seeds_and_deltas_give_their_own_digests) {
  const std::vector<double> x = values(3 * B);
  EXPECT_NE(state(*built(x, {100.0, 0, 0})), state(*built(x, {100.0, 1, 0})));
  EXPECT_NE(state(*built(x, {100.0, 0, 0})), state(*built(x, {90.0, 0, 0})));
}

TEST_F(ReproducibleBuildTest, same_digest_on_any_number_of_threads) {
  const std::vector<double> x = values(5 * B + 5);
  const auto expected = state(*built(x));
  for (const std::size_t threads : {1, 2, 4, 8}) {
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
    EXPECT_EQ(state(*built(x)), expected) << threads << " threads";
    EXPECT_EQ(state(*built(x, {100.0, 0, static_cast<unsigned>(threads)})), expected)
        << "arena of " << threads;
  }
}

TEST_F(ReproducibleBuildTest, same_digest_whatever_the_chunks) {
  const std::vector<double> x = values(4 * B + 3);
  const auto expected = state(*built(x));
  for (const std::size_t chunk :
       {std::size_t{1}, std::size_t{7}, B - 1, B, B + 1, std::size_t{1000000}}) {
    ReproducibleBuild build({});
    for (std::size_t i = 0; i < x.size(); i += chunk) {
      build.append(x.data() + i, std::min(chunk, x.size() - i), ClassID::Double);
    }
    EXPECT_EQ(build.size(), x.size());
    EXPECT_EQ(state(*build.finish()), expected) << "chunks of " << chunk;
  }
}

// How a cluster builds: chunks of 2^K blocks at their block offsets give
// the level-K nodes, merged on in the same tree.
TEST_F(ReproducibleBuildTest, chunk_subtrees_merged_in_the_tree_give_the_whole) {
  const std::vector<double> x = values(11 * B + 9);  // level-2 nodes 0, 1 and a short 2
  std::vector<HostArrayPtr> nodes;
  for (std::size_t i = 0; i * 4 * B < x.size(); ++i) {
    ReproducibleBuild part({100.0, 0, 0, 4 * i});
    part.append(x.data() + i * 4 * B, std::min(4 * B, x.size() - i * 4 * B), ClassID::Double);
    nodes.push_back(part.finish());
  }
  mergeNodes(*nodes[0], *nodes[1], 3, 0, 0);  // node 2 is carried up to level 3
  mergeNodes(*nodes[0], *nodes[2], 4, 0, 0);
  EXPECT_EQ(state(*nodes[0]), state(*built(x)));
}

template <class T>
std::vector<T> as(const std::vector<double>& x) {
  return std::vector<T>(x.begin(), x.end());
}

// Each element class read as it is equals its doubles; chunks alternating
// between the class and double fill blocks the same way.
TEST_F(ReproducibleBuildTest, each_element_class_gives_the_digest_of_its_doubles) {
  std::vector<double> x(2 * B + 300);
  std::mt19937_64 rng(3);
  for (double& v : x) v = static_cast<double>(rng() % 120);
  const auto expected = state(*built(x));
  auto check = [&](auto typed, ClassID id) {
    ReproducibleBuild whole({});
    whole.append(typed.data(), typed.size(), id);
    EXPECT_EQ(state(*whole.finish()), expected) << quorix::className(id);
    ReproducibleBuild mixed({});
    for (std::size_t i = 0, c = 0; i < x.size(); i += 1000, ++c) {
      const std::size_t n = std::min<std::size_t>(1000, x.size() - i);
      if (c % 2 == 0) {
        mixed.append(typed.data() + i, n, id);
      } else {
        mixed.append(x.data() + i, n, ClassID::Double);
      }
    }
    EXPECT_EQ(state(*mixed.finish()), expected) << "mixed with " << quorix::className(id);
  };
  check(as<float>(x), ClassID::Single);
  check(as<std::int8_t>(x), ClassID::Int8);
  check(as<std::uint8_t>(x), ClassID::UInt8);
  check(as<std::int16_t>(x), ClassID::Int16);
  check(as<std::uint16_t>(x), ClassID::UInt16);
  check(as<std::int32_t>(x), ClassID::Int32);
  check(as<std::uint32_t>(x), ClassID::UInt32);
  check(as<std::int64_t>(x), ClassID::Int64);
  check(as<std::uint64_t>(x), ClassID::UInt64);
}

std::string raised(const std::function<void()>& f) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    return e.identifier();
  }
  return "nothing";
}

TEST_F(ReproducibleBuildTest, ctrl_c_stops_the_build_and_is_consumed) {
  const std::vector<double> x = values(3 * B);
  for (const std::size_t threads : {1, 2}) {
    quorix::requestInterrupt();
    EXPECT_EQ(raised([&] {
                built(x, {100.0, 0, static_cast<unsigned>(threads)});
              }),
              "QUORIX:interrupt:Interrupted");
    EXPECT_FALSE(quorix::interruptPending());
  }
  // A streaming build stops at the block an append completes.
  ReproducibleBuild build({});
  build.append(x.data(), B - 1, ClassID::Double);
  quorix::requestInterrupt();
  EXPECT_EQ(raised([&] { build.append(x.data(), 1, ClassID::Double); }),
            "QUORIX:interrupt:Interrupted");
}

TEST_F(ReproducibleBuildTest, empty_and_refused_inputs) {
  ReproducibleBuild build({25.0, 0, 0});
  build.append(*HostArray::createChar(""));  // empty of any class adds nothing
  const HostArrayPtr empty = build.finish();
  EXPECT_EQ(*ObjectSystem::getProperty(*empty, "NumDataPoints")->data<std::uint64_t>(), 0u);
  EXPECT_EQ(*ObjectSystem::getProperty(*empty, "Delta")->data<double>(), 25.0);
  ReproducibleBuild other({});
  EXPECT_EQ(raised([&] {
              other.append(*HostArray::createLogical({3, 1}));
            }),
            "QUORIX:class:RequireReal");
  EXPECT_EQ(
      raised([&] { other.append(*HostArray::createNumericMatrix(2, 1, ClassID::Double, true)); }),
      "QUORIX:class:RequireReal");
  EXPECT_EQ(raised([] { ReproducibleBuild bad({0.0, 0, 0}); }), "stats:tdigest:DeltaInvalidValue");
}

}  // namespace
}  // namespace zotdigest::engine
