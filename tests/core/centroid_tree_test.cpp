#include "core/centroid_tree.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <deque>
#include <limits>
#include <vector>

#include "core_checks.h"

namespace zotdigest {
namespace {

using testing::expectValidTree;
using testing::seededStream;

TEST(CentroidTree, empty_tree_answers_null_and_zero) {
  CentroidTree tree;
  EXPECT_EQ(tree.size(), 0u);
  EXPECT_EQ(tree.first(), nullptr);
  EXPECT_EQ(tree.last(), nullptr);
  EXPECT_EQ(tree.floor(0.0), nullptr);
  EXPECT_EQ(CentroidTree::headSum(nullptr), 0u);
  std::vector<Centroid> out;
  tree.listCentroids(out);
  EXPECT_TRUE(out.empty());
}

TEST(CentroidTree, increasing_one_two_three_rotates_two_to_the_root) {
  CentroidTree tree;
  tree.insert(1.0, 1);
  tree.insert(2.0, 1);
  tree.insert(3.0, 1);
  ASSERT_NE(tree.root(), nullptr);
  EXPECT_EQ(tree.root()->mean, 2.0);
  EXPECT_EQ(tree.root()->height, 1);
  EXPECT_EQ(tree.root()->subtreeCount, 3u);
  expectValidTree(tree);
}

// Means drawn from a small set so that runs of equal means are common; the
// count records the insertion index, so ties must list in increasing count.
class CentroidTreeRandomInserts : public ::testing::TestWithParam<int> {};

TEST_P(CentroidTreeRandomInserts, keep_every_invariant_and_insertion_order_among_equals) {
  auto stream = seededStream(static_cast<std::uint64_t>(GetParam()));
  CentroidTree tree;
  for (std::uint64_t i = 1; i <= 600; ++i) {
    const double mean = std::floor(stream->uniform() * 40.0);
    tree.insert(mean, i);
    if (i % 97 == 0) expectValidTree(tree);
  }
  expectValidTree(tree);
  std::vector<Centroid> listed;
  listed.push_back({-1.0, 0});  // appends behind existing entries
  tree.listCentroids(listed);
  ASSERT_EQ(listed.size(), 601u);
  EXPECT_EQ(listed[0].count, 0u);
  for (std::size_t i = 2; i < listed.size(); ++i) {
    if (listed[i - 1].mean == listed[i].mean) {
      EXPECT_LT(listed[i - 1].count, listed[i].count);
    }
  }
  const CentroidNode* last = tree.last();
  EXPECT_EQ(CentroidTree::headSum(last), tree.root()->subtreeCount - last->count);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CentroidTreeRandomInserts, ::testing::Values(1, 2, 3, 4));

TEST(CentroidTree, floor_is_strictly_below_and_skips_equal_means) {
  CentroidTree tree;
  const CentroidNode* one = tree.insert(1.0, 1);
  tree.insert(5.0, 1);
  tree.insert(5.0, 2);
  tree.insert(5.0, 3);
  const CentroidNode* nine = tree.insert(9.0, 1);
  EXPECT_EQ(tree.floor(5.0), one);
  EXPECT_EQ(tree.floor(1.0), nullptr);
  EXPECT_EQ(tree.floor(10.0), nine);
  EXPECT_EQ(tree.floor(6.0)->count, 3u);  // the last of the equal run

  CentroidTree same;
  for (int i = 0; i < 5; ++i) same.insert(2.0, 1);
  EXPECT_EQ(same.floor(2.0), nullptr);
  EXPECT_EQ(same.floor(2.5), same.last());
}

// Compares two trees node for node, breadth-first.
void expectSameShape(const CentroidTree& a, const CentroidTree& b) {
  ASSERT_EQ(a.size(), b.size());
  std::deque<std::pair<const CentroidNode*, const CentroidNode*>> queue{{a.root(), b.root()}};
  while (!queue.empty()) {
    auto [x, y] = queue.front();
    queue.pop_front();
    ASSERT_EQ(x == nullptr, y == nullptr);
    if (x == nullptr) continue;
    EXPECT_NE(x, y);
    EXPECT_EQ(testing::bits(x->mean), testing::bits(y->mean));
    EXPECT_EQ(x->count, y->count);
    EXPECT_EQ(x->height, y->height);
    EXPECT_EQ(x->subtreeCount, y->subtreeCount);
    queue.emplace_back(x->left, y->left);
    queue.emplace_back(x->right, y->right);
  }
}

TEST(CentroidTree, copies_have_the_same_shape_and_moves_empty_the_source) {
  CentroidTree tree;
  for (int i = 0; i < 50; ++i) tree.insert(std::fmod(i * 37.0, 23.0), static_cast<unsigned>(i));
  const CentroidTree copy(tree);
  expectSameShape(tree, copy);
  expectValidTree(copy);

  CentroidTree assigned;
  assigned.insert(100.0, 7);
  assigned = tree;
  expectSameShape(tree, assigned);
  const CentroidTree& alias = assigned;
  assigned = alias;  // self-assignment keeps everything
  expectSameShape(tree, assigned);

  CentroidTree moved(std::move(assigned));
  expectSameShape(tree, moved);
  EXPECT_EQ(assigned.root(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(assigned.size(), 0u);
  moved.clear();
  EXPECT_EQ(moved.root(), nullptr);
  EXPECT_EQ(moved.size(), 0u);
}

TEST(CentroidTree, update_moves_grown_values_to_the_far_end_of_the_equal_run) {
  // Run of three 5s; growing the first towards 6 must leave the grown mean
  // after the other two, growing the last towards 4 before them.
  for (const double x : {6.0, 4.0}) {
    CentroidTree tree;
    tree.insert(3.0, 1);
    CentroidNode* a = tree.insert(5.0, 1);
    CentroidNode* b = tree.insert(5.0, 2);
    CentroidNode* c = tree.insert(5.0, 3);
    tree.insert(7.0, 1);
    CentroidNode* grown = x > 5.0 ? a : c;
    tree.updateCentroid(x, 3, grown, a, c);
    expectValidTree(tree);
    std::vector<Centroid> listed;
    tree.listCentroids(listed);
    ASSERT_EQ(listed.size(), 5u);
    if (x > 5.0) {
      EXPECT_EQ(c->count, 4u);
      EXPECT_EQ(c->mean, (1.0 * 5.0 + 3.0 * 6.0) / 4.0);
      EXPECT_EQ(a->count, 3u);  // took the values from the far end
      EXPECT_EQ(b->count, 2u);
    } else {
      EXPECT_EQ(a->count, 6u);
      EXPECT_EQ(a->mean, (3.0 * 5.0 + 3.0 * 4.0) / 6.0);
      EXPECT_EQ(c->count, 1u);
    }
  }
}

// Hand-built malformed structures, as a decoder may produce them: every
// operation must stay memory-safe (the sanitizer build checks that).
CentroidNode* linkChild(CentroidNode* parent, bool left, double mean, std::uint64_t count,
                        std::int32_t height) {
  auto* child = new CentroidNode(mean, count);
  child->height = height;
  child->parent = parent;
  (left ? parent->left : parent->right) = child;
  return child;
}

TEST(CentroidTree, junk_heights_never_rotate_a_missing_child_or_overflow) {
  for (const std::int32_t junk : {std::numeric_limits<std::int32_t>::max(),
                                  std::numeric_limits<std::int32_t>::min(), -3, 7}) {
    auto* root = new CentroidNode(1.0, 2);
    root->height = junk;
    CentroidNode* l = linkChild(root, true, 0.0, 3, junk);
    CentroidNode* lr = linkChild(l, false, 0.5, 1, -3);
    CentroidTree tree;
    tree.adopt(root, 3);
    // The root's balance is computed from the stored heights alone; with
    // -3 below it claims +2 with no right child to lift.
    tree.rebalanceFrom(tree.root());
    tree.rebalanceFrom(lr);
    for (int i = 0; i < 20; ++i) tree.insert(i * 0.1, 1);
    tree.swapContents(tree.first(), tree.last());
    EXPECT_EQ(tree.size(), 23u);
    std::uint64_t seen = 0;
    for (const CentroidNode* n = tree.first(); n != nullptr; n = CentroidTree::next(n)) ++seen;
    EXPECT_EQ(seen, 23u);
    const CentroidTree copy(tree);
    EXPECT_EQ(copy.size(), 23u);
  }
}

TEST(CentroidTree, adopt_with_null_root_behaves_as_empty_for_navigation) {
  CentroidTree tree;
  tree.adopt(nullptr, 1);
  EXPECT_EQ(tree.first(), nullptr);
  EXPECT_EQ(tree.floor(1.0), nullptr);
  tree.insert(3.0, 4);
  EXPECT_EQ(tree.root()->mean, 3.0);
}

}  // namespace
}  // namespace zotdigest
