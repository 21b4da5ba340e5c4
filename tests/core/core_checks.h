// Helpers shared by the core tests: a full structural check of a centroid
// tree, digests on seeded streams, and exact comparison of two digests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "core/tdigest.h"
#include "quorix/random_stream.h"
#include "support/raised_identifier.h"
#include "support/seeded_stream.h"

namespace zotdigest::testing {

using quorix::test::raisedIdentifier;

using quorix::test::bitsOf;
using quorix::test::seededStream;

// A digest on its own seeded stream, kept alive beside it.
struct SeededDigest {
  explicit SeededDigest(std::uint64_t seed, double delta = 100.0) : stream(seededStream(seed)) {
    digest.delta = delta;
    digest.stream = stream.get();
  }
  std::unique_ptr<quorix::RandomStream> stream;
  TDigest digest;
};

// Centroids inserted directly, in this order; the total is their sum.
inline TDigest digestOf(const std::vector<Centroid>& centroids) {
  TDigest digest;
  for (const Centroid& c : centroids) {
    digest.tree.insert(c.mean, c.count);
    digest.totalWeight += c.count;
  }
  return digest;
}

inline std::vector<Centroid> listOf(const TDigest& digest) {
  std::vector<Centroid> out;
  digest.tree.listCentroids(out);
  return out;
}

// Checks links, heights, balance and subtree counts below node; returns its
// height (-1 for null) and appends the nodes in order. Navigation is checked
// by the model and restore tests, which list and add through it.
inline int checkSubtree(const CentroidNode* node, const CentroidNode* parent,
                        std::vector<const CentroidNode*>& inOrder) {
  if (node == nullptr) return -1;
  EXPECT_EQ(node->parent, parent);
  const int hl = checkSubtree(node->left, node, inOrder);
  inOrder.push_back(node);
  const int hr = checkSubtree(node->right, node, inOrder);
  EXPECT_EQ(node->height, std::max(hl, hr) + 1);
  EXPECT_LE(std::abs(hr - hl), 1) << "unbalanced at mean " << node->mean;
  const std::uint64_t below =
      (node->left ? node->left->subtreeCount : 0) + (node->right ? node->right->subtreeCount : 0);
  EXPECT_EQ(node->subtreeCount, node->count + below);
  return node->height;
}

// Every structural invariant of a tree built by insertion: AVL, the size,
// the order of the means and the links to the next node in order.
inline void expectValidTree(const CentroidTree& tree) {
  std::vector<const CentroidNode*> inOrder;
  checkSubtree(tree.root(), nullptr, inOrder);
  ASSERT_EQ(tree.size(), inOrder.size());
  for (std::size_t i = 1; i < inOrder.size(); ++i) {
    EXPECT_LE(inOrder[i - 1]->mean, inOrder[i]->mean);
    EXPECT_EQ(tree.successor(inOrder[i - 1]), inOrder[i]);
  }
  if (!inOrder.empty()) {
    EXPECT_EQ(tree.successor(inOrder.back()), nullptr);
  }
  // The ends the tree keeps as it grows are the ends of the order.
  EXPECT_EQ(tree.first(), inOrder.empty() ? nullptr : inOrder.front());
  EXPECT_EQ(tree.last(), inOrder.empty() ? nullptr : inOrder.back());
}

// Same total and the same centroids, bit for bit.
inline void expectIdentical(const TDigest& a, const TDigest& b) {
  EXPECT_EQ(a.totalWeight, b.totalWeight);
  const std::vector<Centroid> la = listOf(a);
  const std::vector<Centroid> lb = listOf(b);
  ASSERT_EQ(la.size(), lb.size());
  for (std::size_t i = 0; i < la.size(); ++i) {
    ASSERT_EQ(bitsOf(la[i].mean), bitsOf(lb[i].mean)) << "centroid " << i;
    ASSERT_EQ(la[i].count, lb[i].count) << "centroid " << i;
  }
}

}  // namespace zotdigest::testing
