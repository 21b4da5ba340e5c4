// CentroidTree: the centroids of one digest in an AVL tree ordered by mean.
//
// Every node carries the total count of its subtree, so the count of
// everything before a node (headSum) is logarithmic. Equal means are kept in
// insertion order (a new node goes after existing equal means). Clearing and
// copying walk the tree with a queue, never by recursion, so a degenerate
// tree (for instance one decoded from a hand-made summary) cannot overflow
// the stack.
#pragma once

#include <cstdint>
#include <vector>

namespace zotdigest {

struct Centroid {
  double mean;
  std::uint64_t count;
};

struct CentroidNode {
  CentroidNode(double x, std::uint64_t w) noexcept
      : mean(x), count(w), height(0), subtreeCount(w) {}

  double getMean() const noexcept { return mean; }
  std::uint64_t getCount() const noexcept { return count; }

  double mean;
  std::uint64_t count;
  std::int32_t height;          // leaf 0; an absent child counts as -1
  std::uint64_t subtreeCount;   // count + both children's subtreeCount
  CentroidNode* parent = nullptr;
  CentroidNode* left = nullptr;   // smaller, or equal and inserted earlier
  CentroidNode* right = nullptr;  // larger or equal
};

class CentroidTree {
 public:
  CentroidTree() noexcept = default;
  ~CentroidTree();
  // Copies node for node, same shape and aggregates (breadth-first).
  CentroidTree(const CentroidTree& other);
  CentroidTree& operator=(const CentroidTree& other);
  CentroidTree(CentroidTree&& other) noexcept;
  CentroidTree& operator=(CentroidTree&& other) noexcept;

  // --- queries (null where there is no such node) --------------------------
  CentroidNode* root() const noexcept { return root_; }
  std::uint64_t size() const noexcept { return size_; }
  CentroidNode* first() const noexcept;
  CentroidNode* last() const noexcept;
  static CentroidNode* next(const CentroidNode* node) noexcept;
  static CentroidNode* previous(const CentroidNode* node) noexcept;
  // Last node in order whose mean is strictly below x (a NaN mean counts as
  // below).
  CentroidNode* floor(double x) const noexcept;
  // Sum of the counts of every node before `node` in order; 0 for null.
  static std::uint64_t headSum(const CentroidNode* node) noexcept;
  // Appends (mean, count) of every node, in order.
  void listCentroids(std::vector<Centroid>& out) const;

  // --- updates -------------------------------------------------------------
  // Inserts after every node of equal mean; returns the new node.
  CentroidNode* insert(double mean, std::uint64_t count);
  // Folds weight w at x into `node`, then moves the grown values to the far
  // end of the run [runFirst, runLast] of nodes that shared node's old mean,
  // keeping the tree ordered without a removal.
  void updateCentroid(double x, std::uint64_t w, CentroidNode* node, CentroidNode* runFirst,
                      CentroidNode* runLast);
  // Exchanges mean and count of a and b and repairs the aggregates.
  void swapContents(CentroidNode* a, CentroidNode* b);
  // Repairs aggregates, heights and balance from `node` up to the root.
  void rebalanceFrom(CentroidNode* node);
  void clear() noexcept;

  // --- decoding support ----------------------------------------------------
  // Takes ownership of a linked node structure built by a decoder. `size` is
  // the decoder's own count and is stored as it stands; `root` may be null.
  // The tree must be empty.
  void adopt(CentroidNode* root, std::uint64_t size) noexcept;

 private:
  CentroidNode* root_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace zotdigest
