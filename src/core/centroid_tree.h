// CentroidTree: the centroids of one digest in an AVL tree ordered by mean.
//
// Every node carries the total count of its subtree, so the count of
// everything before a node (headSum) is logarithmic. Equal means are kept in
// insertion order (a new node goes after existing equal means). Clearing and
// copying walk the tree with a queue, never by recursion, so a degenerate
// tree (for instance one decoded from a hand-made summary) cannot overflow
// the stack.
//
// Nodes made by the tree come from slabs the tree owns and keeps: clear()
// hands them all back at once, so a digest that compresses (empties its
// tree and re-adds every centroid) reuses the same memory instead of
// freeing and allocating a node per centroid. A structure handed to adopt()
// may hold nodes allocated one by one with `new`; clear() deletes those.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "core/equal_runs.h"

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
  std::int32_t height;         // leaf 0; an absent child counts as -1
  std::uint64_t subtreeCount;  // count + both children's subtreeCount
  CentroidNode* parent = nullptr;
  CentroidNode* left = nullptr;   // smaller, or equal and inserted earlier
  CentroidNode* right = nullptr;  // larger or equal
  // The next node in order, kept only by a tree of its own (see
  // CentroidTree::successor); null in a structure handed to adopt().
  CentroidNode* following = nullptr;
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
  // next(node) (node not null) without a climb: a tree of its own links every node to the
  // next in order as it inserts (rotations and exchanges of contents keep
  // the order), so walks along a run cost one load per node. An adopted
  // tree climbs.
  CentroidNode* successor(const CentroidNode* node) const noexcept {
    return adopted_ ? next(node) : node->following;
  }
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
  // Empties the tree. Its own nodes go back to its pool, whose memory stays
  // with the tree until it is destroyed or assigned; adopted nodes are
  // deleted.
  void clear() noexcept;

  // --- decoding support ----------------------------------------------------
  // Takes ownership of a linked node structure built by a decoder, its nodes
  // each allocated with `new CentroidNode`. `size` is the decoder's own
  // count and is stored as it stands; `root` may be null. Clears the tree
  // first. Until the next clear() the stored heights and subtree counts are
  // not trusted: every update then takes the full walk to the root.
  void adopt(CentroidNode* root, std::uint64_t size) noexcept;

  // --- insertion support ---------------------------------------------------
  // What one descent from the root finds for a value x.
  struct Location {
    CentroidNode* below = nullptr;  // floor(x)
    CentroidNode* after = nullptr;  // next(below), or first() when below is null
    std::uint64_t belowHead = 0;    // headSum(below)
    // When pathKnown: the nodes passed from the root down to where the
    // descent fell off the tree, depth of them, below and after among them
    // at belowDepth and afterDepth; bit depth - 1 - i of leftTurns is set
    // when the descent went left at path[i], slotLeft when it fell off on
    // the left. Known only for a tree with exact aggregates no deeper than
    // kMaxPath (an AVL tree that deep would need some 10^13 nodes).
    static constexpr int kMaxPath = 64;
    bool pathKnown = false;
    bool slotLeft = false;
    std::uint64_t leftTurns = 0;
    int depth = 0;
    int belowDepth = 0;
    int afterDepth = 0;
    CentroidNode* path[kMaxPath];
  };
  // Finds floor(x), its successor and its head sum in one descent. NaN x
  // behaves as in floor.
  Location locate(double x) const noexcept;
  // insert(mean, count) where `at` (from locate(mean), the tree unchanged
  // since) fell off the tree, unless the two searches part: floor() goes
  // left at a mean equal to x, insert() right. The same result either way.
  CentroidNode* insertAt(const Location& at, double mean, std::uint64_t count);
  // updateCentroid for a node of the nearest run found by `at` (the tree
  // unchanged since): the same result, carried up along the recorded path
  // when the node is below or after.
  void updateCentroid(double x, std::uint64_t w, CentroidNode* node, CentroidNode* runFirst,
                      CentroidNode* runLast, const Location& at);
  // True when every node was placed by this tree's own operations (or
  // copied from such a tree): heights and subtree counts are then exact,
  // and head sums may be accumulated along a walk. False after adopt()
  // until the next clear().
  bool aggregatesExact() const noexcept { return !adopted_; }

  // --- searches by descent -------------------------------------------------
  // An ordered walk that stops at the first node where a test turns true
  // reaches, when the test stays true from there on, the same node as one
  // descent. Two such tests are offered, each safe only on the trees that
  // the matching promise below covers.
  //
  // runningCountsExact(): the running count of every node (the sum of the
  // counts up to and including it) is below 2^64 and follows from the
  // subtree counts. The tree knows it from its total: every insertion and
  // growth of a count checks that the sum of all counts did not wrap, and
  // once it has, the promise is off until the next clear(). Never made for
  // an adopted structure.
  bool runningCountsExact() const noexcept { return !adopted_ && countsFit_; }
  // meansOrdered(): no mean is NaN and the means never decrease in order.
  // Insertion keeps that for any mean but NaN; growing a centroid checks the
  // grown mean against its neighbours in its new place (rounding, or a mean
  // made from infinities of both signs, can break the order), and once it
  // breaks the promise is off until the next clear(). Never made for an
  // adopted structure. Implies aggregatesExact().
  bool meansOrdered() const noexcept { return !adopted_ && meansOrdered_; }

  // The runs of equal means indexed for add. The tree reports every change
  // of mean, count or position to it; a copy or a moved tree starts with
  // none.
  EqualRuns& equalRuns() noexcept { return runs_; }

  // Where a descent parts the nodes: `before` is the last node in order for
  // which the test is false, `after` the first for which it is true (null
  // when there is none). `beforeUp` is previous(before) when before has no
  // left child; the two helpers below find the neighbours (both splits
  // need a tree of its own, whose nodes link to the next in order).
  struct Split {
    const CentroidNode* before = nullptr;
    const CentroidNode* beforeUp = nullptr;
    const CentroidNode* after = nullptr;
    std::uint64_t afterHead = 0;  // headSum(after); the whole sum when after is null
  };
  // The first node whose mean is above x (for x NaN: none). Needs
  // meansOrdered().
  Split splitAboveMean(double x) const noexcept;
  // The first node whose running count, converted to double, is above
  // `target`. Needs runningCountsExact().
  Split splitAboveRunning(double target) const noexcept;
  static const CentroidNode* previousOfBefore(const Split& s) noexcept;
  static const CentroidNode* nextOfAfter(const Split& s) noexcept;

 private:
  // Slabs of node storage, handed out in order and taken back all at once.
  class NodePool {
   public:
    NodePool() noexcept = default;
    NodePool(NodePool&& other) noexcept;
    NodePool& operator=(NodePool&& other) noexcept;
    NodePool(const NodePool&) = delete;
    NodePool& operator=(const NodePool&) = delete;
    ~NodePool();

    // A node as `new CentroidNode(mean, count)` would make it. Raises
    // std::bad_alloc when a new slab cannot be had.
    CentroidNode* make(double mean, std::uint64_t count) {
      if (next_ == end_) refill();
      return &(new (next_++) Slot{CentroidNode(mean, count)})->node;
    }
    // Takes back every node at once; the slabs are kept for reuse.
    void reset() noexcept;
    // Makes the first slab hold at least n nodes (up to the slab limit).
    void reserve(std::uint64_t n);
    // Whether the node lies in one of this pool's slabs.
    bool owns(const CentroidNode* node) const noexcept;

   private:
    // One node per cache line: a descent reads one line per level, and the
    // hot upper levels of the tree take fewer lines of the first-level
    // cache (a node straddles two lines otherwise).
    struct alignas(64) Slot {
      CentroidNode node;
    };
    struct Slab {
      Slot* slots;
      std::size_t capacity;
    };
    void refill();
    void release() noexcept;

    std::vector<Slab> slabs_;
    std::size_t current_ = 0;  // slab that next_ points into
    Slot* next_ = nullptr;
    Slot* end_ = nullptr;
  };

  // The walk up from a node whose count changed by `delta` (wrapping) while
  // the shape stayed: with exact aggregates only the subtree counts on the
  // way to the root change.
  void carryCount(CentroidNode* node, std::uint64_t delta);
  // The walk up from a freshly linked leaf; `at` as in insertAt, or null.
  void settleInsert(CentroidNode* node, const Location* at);
  // The second half of updateCentroid: moves the grown values of `node`
  // (old mean m, new mean grownMean) to the far end of the run.
  void restoreOrder(CentroidNode* node, double m, double grownMean, CentroidNode* runFirst,
                    CentroidNode* runLast);

  // A new node becomes the first (last) only as the left (right) child of
  // the present one, and rotations keep the order, so a tree of its own
  // keeps its ends up to date on insertion instead of descending to them on
  // every query. An adopted tree descends.
  void noteEnds(CentroidNode* node) noexcept;

  // The descent behind both splits: goesLeft(node, running count through
  // node) is the test.
  template <class GoesLeft>
  Split split(GoesLeft goesLeft) const noexcept;
  // Notes a count of w joining the tree: off with the promise if the sum of
  // all counts wraps.
  void noteCountAdded(std::uint64_t w) noexcept;
  // swapContents without the order check, for moves within a run of equal
  // means.
  void exchange(CentroidNode* a, CentroidNode* b);
  // Checks the grown mean of the node at `at` against the neighbour the
  // mean moved towards (`towards`, already known, or null to look it up).
  void noteGrownMean(const CentroidNode* at, double m, double grownMean,
                     const CentroidNode* towards, bool towardsKnown) noexcept;

  CentroidNode* root_ = nullptr;
  CentroidNode* first_ = nullptr;
  CentroidNode* last_ = nullptr;
  std::uint64_t size_ = 0;
  NodePool pool_;
  bool adopted_ = false;
  bool countsFit_ = true;     // see runningCountsExact()
  bool meansOrdered_ = true;  // see meansOrdered()
  EqualRuns runs_;
};

// Inline: the walks of the queries call it once per node.
inline CentroidNode* CentroidTree::next(const CentroidNode* node) noexcept {
  if (node == nullptr) return nullptr;
  if (node->right != nullptr) {
    CentroidNode* n = node->right;
    while (n->left != nullptr) n = n->left;
    return n;
  }
  const CentroidNode* from = node;
  CentroidNode* up = node->parent;
  while (up != nullptr && up->right == from) {
    from = up;
    up = up->parent;
  }
  return up;
}

// Inline too, with the descent below: a scalar cdf reads both ends and
// makes one descent, and as calls (the descent's record returned through
// memory) they cost more than the work they do.
inline CentroidNode* CentroidTree::first() const noexcept {
  if (!adopted_) return first_;
  CentroidNode* node = root_;
  if (node != nullptr) {
    while (node->left != nullptr) node = node->left;
  }
  return node;
}

inline CentroidNode* CentroidTree::last() const noexcept {
  if (!adopted_) return last_;
  CentroidNode* node = root_;
  if (node != nullptr) {
    while (node->right != nullptr) node = node->right;
  }
  return node;
}

inline CentroidTree::Split CentroidTree::splitAboveMean(double x) const noexcept {
  // The test reads no count, and the head sum needs no child off the path:
  // a right turn at a node passes its count and its left subtree, that is
  // its subtree less its right child's, and the right child is the next
  // node on the path. Left turns pass nothing. The descent falls off just
  // before `after`, whose head sum is all that the right turns passed.
  const CentroidNode* before = nullptr;
  const CentroidNode* beforeUp = nullptr;
  const CentroidNode* after = nullptr;
  std::uint64_t head = 0;
  const CentroidNode* node = root_;
  while (node != nullptr) {
    if (node->mean > x) {
      after = node;
      node = node->left;
    } else {
      beforeUp = before;
      before = node;
      head += node->subtreeCount;
      node = node->right;
      if (node != nullptr) head -= node->subtreeCount;
    }
  }
  return Split{before, beforeUp, after, head};
}

inline const CentroidNode* CentroidTree::previousOfBefore(const Split& s) noexcept {
  const CentroidNode* node = s.before->left;
  if (node == nullptr) return s.beforeUp;
  while (node->right != nullptr) node = node->right;
  return node;
}

inline const CentroidNode* CentroidTree::nextOfAfter(const Split& s) noexcept {
  return s.after->following;
}

}  // namespace zotdigest
