// Whole-digest fingerprints: fixed seeded inputs, and a hash over everything
// a digest holds afterwards (every centroid's mean bits and count, every
// node's height and subtree count in order, the size, the total and the
// next draw of its stream, which pins the number of draws made). The
// constants were recorded from the straightforward node-per-allocation
// implementation; any change to draw order, tree shape or arithmetic shows
// up here, however the tree is stored or walked.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>

#include "core/tdigest.h"
#include "core_checks.h"

namespace zotdigest {
namespace {

using testing::bits;
using testing::expectValidTree;
using testing::seededStream;

constexpr double kInf = std::numeric_limits<double>::infinity();

class Fnv1a {
 public:
  void add(std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
      hash_ ^= (v >> (8 * i)) & 0xffu;
      hash_ *= 0x100000001b3u;
    }
  }
  std::uint64_t value() const { return hash_; }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325u;
};

// In-order heights determine an AVL tree's shape (the root is the unique
// highest node of its range), so this covers the shape as well.
void fold(Fnv1a& h, TDigest& digest) {
  for (const CentroidNode* n = digest.tree.first(); n != nullptr; n = CentroidTree::next(n)) {
    h.add(bits(n->mean));
    h.add(n->count);
    h.add(static_cast<std::uint64_t>(static_cast<std::uint32_t>(n->height)));
    h.add(n->subtreeCount);
  }
  h.add(digest.tree.size());
  h.add(digest.totalWeight);
  h.add(bits(digest.stream->uniform()));
}

enum class Input { Uniform, Sorted, Mixed };

// 50000 values (weights 1 to 3 for Mixed).
void feed(TDigest& digest, Input input, std::uint64_t seed) {
  auto values = seededStream(seed);
  for (int i = 0; i < 50000; ++i) {
    switch (input) {
      case Input::Uniform:
        digest.add(values->uniform());
        break;
      case Input::Sorted:
        digest.add(i * 0.001 + values->uniform() * 1e-4);
        break;
      case Input::Mixed: {
        // A coarse grid (equal means, equidistant neighbours), a climbing
        // ramp (compressions mid-stream) and the odd infinity.
        const double u = values->uniform();
        const double x = i % 5 == 0     ? 100.0 + i * 0.01
                         : i % 997 == 0 ? (i % 2 == 0 ? kInf : -kInf)
                                        : std::floor(u * 128.0) / 16.0;
        digest.add(x, static_cast<std::uint64_t>(1 + i % 3));
        break;
      }
    }
  }
}

using Case = std::tuple<Input, double>;

class DigestFingerprint : public ::testing::TestWithParam<Case> {};

std::uint64_t expectedFingerprint(Input input, double delta) {
  switch (input) {
    case Input::Uniform:
      return delta == 10.0 ? 0xdfdd18a6ee63448au : 0x9a3a539e7a9d5b6cu;
    case Input::Sorted:
      return delta == 10.0 ? 0x1409ad6f3045439au : 0x61c7d4bf4fa2f121u;
    case Input::Mixed:
      return delta == 10.0 ? 0x5e8a7ea7166458f0u : 0x4ff7c0e7608dac82u;
  }
  return 0;
}

TEST_P(DigestFingerprint, add_compress_and_merge_reproduce_the_recorded_digests) {
  const Input input = std::get<0>(GetParam());
  const double delta = std::get<1>(GetParam());
  auto stream = seededStream(7);
  TDigest digest;
  digest.delta = delta;
  digest.stream = stream.get();
  Fnv1a h;
  // An infinity is at infinite distance from every centroid, so all of them
  // form its run and the one that takes it may sit mid-tree: the mixed
  // input does not keep the means sorted, by design.
  const auto check = [input](const TDigest& d) {
    if (input != Input::Mixed) expectValidTree(d.tree);
  };

  feed(digest, input, 11);
  check(digest);
  fold(h, digest);

  digest.compress();
  check(digest);
  fold(h, digest);

  auto otherStream = seededStream(8);
  TDigest other;
  other.delta = delta;
  other.stream = otherStream.get();
  feed(other, input, 12);
  digest.merge(other);
  digest.merge(digest);
  check(digest);
  fold(h, digest);

  EXPECT_EQ(h.value(), expectedFingerprint(input, delta))
      << "fingerprint 0x" << std::hex << h.value();
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  static const char* const names[] = {"Uniform", "Sorted", "Mixed"};
  return std::string(names[static_cast<int>(std::get<0>(info.param))]) + "_delta" +
         std::to_string(static_cast<int>(std::get<1>(info.param)));
}

INSTANTIATE_TEST_SUITE_P(InputsAndDeltas, DigestFingerprint,
                         ::testing::Combine(::testing::Values(Input::Uniform, Input::Sorted,
                                                              Input::Mixed),
                                            ::testing::Values(10.0, 100.0)),
                         caseName);

}  // namespace
}  // namespace zotdigest
