// Shared helpers of the summary tests: hand-made summary matrices, digests
// of several shapes, and exact comparison of two trees.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/random_stream.h"

namespace zotdigest::testing {

using Column = std::array<std::int64_t, 4>;

inline std::int64_t bitsOf(double x) { return std::bit_cast<std::int64_t>(x); }
inline std::uint64_t ubitsOf(double x) { return std::bit_cast<std::uint64_t>(x); }

// A 4 x n int64 matrix (or rows x n when rows != 4) holding the columns.
inline quorix::HostArrayPtr makeMatrix(const std::vector<Column>& columns, std::size_t rows = 4) {
  auto m = quorix::HostArray::createNumericMatrix(rows, columns.size(), quorix::ClassID::Int64);
  std::int64_t* d = m->data<std::int64_t>();
  for (std::size_t j = 0; j < columns.size(); ++j) {
    for (std::size_t r = 0; r < rows; ++r) d[rows * j + r] = r < 4 ? columns[j][r] : 7;
  }
  return m;
}

// A node column: mean, count, height, subtree count.
inline Column node(double mean, std::int64_t count, std::int64_t height, std::int64_t subtree) {
  return Column{bitsOf(mean), count, height, subtree};
}
inline Column emptySlot() { return Column{0, 0, 0, 0}; }

inline Column columnOf(const quorix::HostArray& m, std::size_t j) {
  const std::int64_t* d = m.data<std::int64_t>();
  return Column{d[4 * j], d[4 * j + 1], d[4 * j + 2], d[4 * j + 3]};
}

inline std::vector<std::int64_t> elements(const quorix::HostArray& m) {
  const std::int64_t* d = m.data<std::int64_t>();
  return std::vector<std::int64_t>(d, d + m.numel());
}

// Runs f, expecting a MsgIDException carrying `identifier`; returns its
// arguments.
template <class F>
std::vector<std::string> expectRaises(F&& f, const std::string& identifier) {
  try {
    std::forward<F>(f)();
  } catch (const quorix::MsgIDException& e) {
    EXPECT_EQ(e.identifier(), identifier);
    return e.messageID().args();
  }
  ADD_FAILURE() << "expected " << identifier;
  return {};
}

// Walks both trees breadth-first and reports the first difference in shape,
// mean bits, count, height, subtree count or parent link.
inline ::testing::AssertionResult sameTree(const CentroidTree& a, const CentroidTree& b) {
  if (a.size() != b.size()) {
    return ::testing::AssertionFailure() << "size " << a.size() << " vs " << b.size();
  }
  std::deque<std::pair<const CentroidNode*, const CentroidNode*>> queue{{a.root(), b.root()}};
  std::size_t visited = 0;
  while (!queue.empty()) {
    const auto [x, y] = queue.front();
    queue.pop_front();
    if ((x == nullptr) != (y == nullptr)) {
      return ::testing::AssertionFailure() << "shape differs at breadth-first entry " << visited;
    }
    ++visited;
    if (x == nullptr) continue;
    if (ubitsOf(x->mean) != ubitsOf(y->mean) || x->count != y->count || x->height != y->height ||
        x->subtreeCount != y->subtreeCount) {
      return ::testing::AssertionFailure() << "node differs at breadth-first entry " << visited;
    }
    for (const CentroidNode* child : {y->left, y->right}) {
      if (child != nullptr && child->parent != y) {
        return ::testing::AssertionFailure() << "broken parent link below entry " << visited;
      }
    }
    queue.emplace_back(x->left, y->left);
    queue.emplace_back(x->right, y->right);
  }
  return ::testing::AssertionSuccess();
}

// Every node's height and subtree count agree with its children and the
// AVL bound holds.
inline bool consistentAvl(const CentroidNode* node, int& height, std::uint64_t& total) {
  if (node == nullptr) {
    height = -1;
    total = 0;
    return true;
  }
  int hl = 0;
  int hr = 0;
  std::uint64_t tl = 0;
  std::uint64_t tr = 0;
  if (!consistentAvl(node->left, hl, tl) || !consistentAvl(node->right, hr, tr)) return false;
  height = std::max(hl, hr) + 1;
  total = node->count + tl + tr;
  return node->height == height && node->subtreeCount == total && hr - hl <= 1 && hl - hr <= 1;
}

inline std::unique_ptr<quorix::RandomStream> makeStream(std::uint64_t seed) {
  return quorix::RandomStream::create("mrg32k3a", 1000000, seed);
}

enum class Shape { RandomInserts, SortedInserts, DescendingInserts, EqualMeans, Compressed };

inline const char* shapeName(Shape s) {
  switch (s) {
    case Shape::RandomInserts:
      return "RandomInserts";
    case Shape::SortedInserts:
      return "SortedInserts";
    case Shape::DescendingInserts:
      return "DescendingInserts";
    case Shape::EqualMeans:
      return "EqualMeans";
    case Shape::Compressed:
      return "Compressed";
  }
  return "?";
}

// A digest of the given shape. The insert shapes put exactly n centroids in
// through CentroidTree::insert and set totalWeight to their sum; Compressed
// adds 4 n values to a digest with delta n / 20 + 0.05, so its tree is
// whatever add and compress leave behind (at most n + 1 centroids).
inline TDigest makeDigest(Shape shape, int n, quorix::RandomStream& stream) {
  TDigest d;
  d.stream = &stream;
  switch (shape) {
    case Shape::RandomInserts:
      for (int i = 0; i < n; ++i) {
        const double x = stream.uniform() * 1000.0 - 500.0;
        d.tree.insert(x, 1 + static_cast<std::uint64_t>(stream.uniform() * 100.0));
      }
      break;
    case Shape::SortedInserts:
      for (int i = 0; i < n; ++i) d.tree.insert(static_cast<double>(i) * 0.5, 3);
      break;
    case Shape::DescendingInserts:
      for (int i = 0; i < n; ++i) d.tree.insert(static_cast<double>(n - i), UINT64_C(1) << 40);
      break;
    case Shape::EqualMeans:
      for (int i = 0; i < n; ++i) d.tree.insert(static_cast<double>(i % 3), 1 + (i % 5));
      break;
    case Shape::Compressed:
      d.delta = n / 20.0 + 0.05;
      for (int i = 0; i < 4 * n; ++i) d.add(stream.uniform() * stream.uniform());
      return d;
  }
  std::uint64_t total = 0;
  std::vector<Centroid> listed;
  d.tree.listCentroids(listed);
  for (const Centroid& c : listed) total += c.count;
  d.totalWeight = total;
  return d;
}

}  // namespace zotdigest::testing
