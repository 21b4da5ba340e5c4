// The tree's shortcuts against the plain operations they stand in for: one
// descent (locate) against floor, next and headSum, and the successor read
// off its path against next; linking at the
// descent's end against insert's own search; carrying a count along the
// recorded path against the climb; and a digest whose tree was adopted
// (which takes every full walk) against the same digest built in place
// (which takes the shortcuts). Also the node storage: slabs reused after
// clear, adopted nodes mixed with the tree's own, copies and moves.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "core/centroid_tree.h"
#include "core/tdigest.h"
#include "core_checks.h"

namespace zotdigest {
namespace {

using testing::bits;
using testing::expectValidTree;
using testing::seededStream;

constexpr double kInf = std::numeric_limits<double>::infinity();

// Node for node: means (bits), counts, heights and subtree counts.
void expectSameStructure(const CentroidTree& a, const CentroidTree& b) {
  ASSERT_EQ(a.size(), b.size());
  std::deque<std::pair<const CentroidNode*, const CentroidNode*>> queue{{a.root(), b.root()}};
  while (!queue.empty()) {
    const auto [x, y] = queue.front();
    queue.pop_front();
    ASSERT_EQ(x == nullptr, y == nullptr);
    if (x == nullptr) continue;
    ASSERT_EQ(bits(x->mean), bits(y->mean));
    ASSERT_EQ(x->count, y->count);
    ASSERT_EQ(x->height, y->height);
    ASSERT_EQ(x->subtreeCount, y->subtreeCount);
    queue.emplace_back(x->left, y->left);
    queue.emplace_back(x->right, y->right);
  }
}

// The same structure in nodes of its own allocation, as a decoder builds it.
CentroidNode* cloneWithNew(const CentroidNode* src, CentroidNode* parent) {
  if (src == nullptr) return nullptr;
  auto* node = new CentroidNode(src->mean, src->count);
  node->height = src->height;
  node->subtreeCount = src->subtreeCount;
  node->parent = parent;
  // Trees here are a few thousand nodes and balanced: recursion is fine.
  node->left = cloneWithNew(src->left, node);
  node->right = cloneWithNew(src->right, node);
  return node;
}

// A tree with runs of equal means, both infinities and (when withNaN) a NaN
// mean, built by insert (exact aggregates) and, when `adopted`, handed over
// by adopt().
CentroidTree awkwardTree(bool adopted, bool withNaN = true) {
  CentroidTree built;
  auto stream = seededStream(21);
  for (std::uint64_t i = 1; i <= 700; ++i) {
    built.insert(std::floor(stream->uniform() * 50.0) / 4.0, i % 5 + 1);
  }
  built.insert(kInf, 3);
  built.insert(-kInf, 2);
  if (withNaN) built.insert(std::nan(""), 4);
  if (!adopted) return built;
  CentroidTree handed;
  handed.adopt(cloneWithNew(built.root(), nullptr), built.size());
  return handed;
}

class Locate : public ::testing::TestWithParam<bool> {};

TEST_P(Locate, finds_what_floor_next_and_head_sum_find) {
  const CentroidTree tree = awkwardTree(GetParam());
  EXPECT_EQ(tree.aggregatesExact(), !GetParam());
  std::vector<double> probes{-kInf, kInf, -1.0, 100.0, std::nextafter(0.0, -1.0)};
  for (int i = 0; i <= 60; ++i) probes.push_back(i / 8.0);  // means, and between them
  for (const double x : probes) {
    const CentroidTree::Location at = tree.locate(x);
    const CentroidNode* below = tree.floor(x);
    ASSERT_EQ(at.below, below) << "x = " << x;
    EXPECT_EQ(at.after, below != nullptr ? CentroidTree::next(below) : tree.first()) << x;
    EXPECT_EQ(at.belowHead, CentroidTree::headSum(below)) << "x = " << x;
    for (const CentroidNode* walked : {at.below, at.after}) {
      if (walked != nullptr) {
        EXPECT_EQ(CentroidTree::next(walked, at), CentroidTree::next(walked)) << "x = " << x;
      }
    }
    EXPECT_EQ(at.pathKnown, !GetParam());
    if (!at.pathKnown) continue;
    // The path runs from the root down to where the descent fell off.
    ASSERT_GT(at.depth, 0);
    EXPECT_EQ(at.path[0], tree.root());
    for (int d = 0; d + 1 < at.depth; ++d) {
      const bool left = (at.leftTurns >> d & 1) != 0;
      EXPECT_EQ(left ? at.path[d]->left : at.path[d]->right, at.path[d + 1]);
    }
    const CentroidNode* end = at.path[at.depth - 1];
    EXPECT_EQ(at.slotLeft ? end->left : end->right, nullptr);
    if (at.below != nullptr) {
      EXPECT_EQ(at.path[at.belowDepth], at.below);
    }
    if (at.after != nullptr) {
      EXPECT_EQ(at.path[at.afterDepth], at.after);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(BuiltOrAdopted, Locate, ::testing::Values(false, true));

TEST(LocateShortcuts, insert_at_builds_the_same_tree_as_insert) {
  // A coarse grid makes means equal to the new one common, where the two
  // searches part and insertAt must fall back on insert's own.
  CentroidTree plain;
  CentroidTree linked;
  auto stream = seededStream(22);
  for (std::uint64_t i = 1; i <= 3000; ++i) {
    const double mean = i % 7 == 0 ? 1000.0 + static_cast<double>(i)  // climbing: rotations
                                   : std::floor(stream->uniform() * 64.0);
    plain.insert(mean, i);
    const CentroidNode* made = linked.insertAt(linked.locate(mean), mean, i);
    ASSERT_EQ(made->mean, mean);
    if (i % 250 == 0) {
      expectSameStructure(plain, linked);
      expectValidTree(linked);
    }
  }
  expectSameStructure(plain, linked);
}

TEST(LocateShortcuts, growing_below_or_after_matches_the_climb) {
  CentroidTree plain = awkwardTree(false);
  CentroidTree pathed = awkwardTree(false);
  auto stream = seededStream(23);
  for (int i = 0; i < 400; ++i) {
    const double x = stream->uniform() * 13.0;
    const CentroidTree::Location at = pathed.locate(x);
    const CentroidTree::Location same = plain.locate(x);
    // Grow below, after, or (every third time) a node past the path's
    // reach, with a run that may force a swap within equal means.
    CentroidNode* target = i % 3 == 2 ? CentroidTree::next(at.after) : i % 2 ? at.after : at.below;
    CentroidNode* twin = i % 3 == 2 ? CentroidTree::next(same.after)
                         : i % 2    ? same.after
                                    : same.below;
    if (target == nullptr) continue;
    CentroidNode* runLast = CentroidTree::next(target);
    CentroidNode* twinLast = CentroidTree::next(twin);
    if (runLast == nullptr || runLast->mean != target->mean) {
      runLast = target;
      twinLast = twin;
    }
    pathed.updateCentroid(x, 2, target, target, runLast, at);
    plain.updateCentroid(x, 2, twin, twin, twinLast);
  }
  expectSameStructure(plain, pathed);
  EXPECT_EQ(plain.root()->subtreeCount, pathed.root()->subtreeCount);
}

// Two digests with the same centroids: one built in place, one whose tree
// was adopted from a copy in nodes of its own. Fed the same values from
// streams in the same state they must stay identical, through the
// compression that turns the adopted tree back into one of the digest's
// own.
TEST(LocateShortcuts, adopted_digest_takes_the_same_course_as_a_built_one) {
  for (const double delta : {5.0, 50.0}) {
    auto builtStream = seededStream(31);
    auto adoptedStream = seededStream(32);
    TDigest built;
    built.delta = delta;
    built.stream = builtStream.get();
    auto values = seededStream(33);
    for (int i = 0; i < 4000; ++i) built.add(std::floor(values->uniform() * 200.0) / 8.0);

    TDigest adopted;
    adopted.delta = delta;
    adopted.totalWeight = built.totalWeight;
    adopted.tree.adopt(cloneWithNew(built.tree.root(), nullptr), built.tree.size());
    adopted.stream = adoptedStream.get();
    builtStream->reset(34);
    adoptedStream->reset(34);

    bool compressed = false;
    for (int i = 0; i < 6000; ++i) {
      const double x = i % 4 == 0 ? 30.0 + i * 0.01 : std::floor(values->uniform() * 200.0) / 8.0;
      const auto w = static_cast<std::uint64_t>(1 + i % 3);
      built.add(x, w);
      adopted.add(x, w);
      if (i % 500 == 0) {
        expectSameStructure(built.tree, adopted.tree);
        ASSERT_EQ(built.totalWeight, adopted.totalWeight);
      }
      compressed = compressed || adopted.tree.aggregatesExact();
    }
    EXPECT_TRUE(compressed) << "the adopted tree was never rebuilt";
    expectSameStructure(built.tree, adopted.tree);
    EXPECT_EQ(builtStream->uniform(), adoptedStream->uniform());
  }
}

TEST(NodeStorage, trees_outgrow_slabs_and_refill_them_after_clear) {
  CentroidTree tree;
  auto stream = seededStream(41);
  for (int round = 0; round < 3; ++round) {
    // 64 nodes fill the first slab; thousands need several.
    const int n = round == 1 ? 64 : 5000 + 1000 * round;
    for (int i = 0; i < n; ++i) tree.insert(stream->uniform(), 1);
    expectValidTree(tree);
    EXPECT_EQ(tree.root()->subtreeCount, static_cast<std::uint64_t>(n));
    const CentroidTree copy(tree);
    expectSameStructure(tree, copy);
    tree.clear();
    EXPECT_EQ(tree.root(), nullptr);
    EXPECT_EQ(tree.size(), 0u);
    expectValidTree(copy);  // the copy's nodes are its own
  }
}

TEST(NodeStorage, adopted_nodes_mix_with_the_trees_own_through_copy_move_and_clear) {
  // The sanitizer build checks that every node is freed exactly once, by
  // the tree that owns it, with the deallocation that matches.
  CentroidTree source = awkwardTree(false, false);
  CentroidTree mixed;
  mixed.insert(1.0, 1);  // own nodes before the adoption are dropped by it
  mixed.adopt(cloneWithNew(source.root(), nullptr), source.size());
  for (int i = 0; i < 300; ++i) mixed.insert(i * 0.05, 2);  // own nodes among adopted ones
  expectValidTree(mixed);
  CentroidTree copy(mixed);
  expectSameStructure(mixed, copy);
  EXPECT_FALSE(copy.aggregatesExact());  // a copy trusts no more than its source

  CentroidTree target = awkwardTree(false, false);
  target = std::move(mixed);
  EXPECT_EQ(mixed.root(), nullptr);  // NOLINT(bugprone-use-after-move)
  expectSameStructure(copy, target);
  target.clear();
  EXPECT_TRUE(target.aggregatesExact());
  target.insert(2.0, 1);
  expectValidTree(target);

  CentroidTree assigned;
  assigned = copy;
  expectSameStructure(copy, assigned);
}

}  // namespace
}  // namespace zotdigest
