// CentroidTree implementation.
//
// Design note. The tree must stay memory-safe on any structure a decoder
// hands to adopt(): heights and subtree counts there are whatever the
// serialised form said. So:
//  - heights are combined in 64-bit arithmetic and clamped back into int32,
//    so a stored INT32_MAX (or INT32_MIN) never overflows;
//  - a rotation happens only when the child it lifts really exists, whatever
//    the stored heights claim about the balance;
//  - subtree counts are unsigned and simply wrap;
//  - nothing here trusts size_: emptiness for navigation is "root is null".
// On a tree built by insert these guards never change anything.
#include "core/centroid_tree.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <utility>

#include "core/tdigest.h"  // toDouble

namespace zotdigest {
namespace {

std::int64_t heightOf(const CentroidNode* node) noexcept {
  return node != nullptr ? static_cast<std::int64_t>(node->height) : -1;
}

std::uint64_t subtreeCountOf(const CentroidNode* node) noexcept {
  return node != nullptr ? node->subtreeCount : 0;
}

// Recomputes the node's aggregates from its children.
void updateAggregates(CentroidNode* node) noexcept {
  node->subtreeCount = node->count + subtreeCountOf(node->left) + subtreeCountOf(node->right);
  const std::int64_t h = std::max(heightOf(node->left), heightOf(node->right)) + 1;
  node->height = static_cast<std::int32_t>(std::clamp<std::int64_t>(
      h, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

std::int64_t balanceOf(const CentroidNode* node) noexcept {
  return heightOf(node->right) - heightOf(node->left);
}

// In the parent of `child` (if any) replaces the link to `child` by `with`.
void replaceInParent(CentroidNode* parent, const CentroidNode* child, CentroidNode* with) noexcept {
  if (parent == nullptr) return;
  if (parent->left == child) {
    parent->left = with;
  } else if (parent->right == child) {
    parent->right = with;
  }
}

// Requires n->right.
CentroidNode* rotateLeft(CentroidNode* n) noexcept {
  CentroidNode* r = n->right;
  n->right = r->left;
  if (r->left != nullptr) r->left->parent = n;
  r->parent = n->parent;
  n->parent = r;
  r->left = n;
  replaceInParent(r->parent, n, r);
  updateAggregates(n);
  updateAggregates(r);
  return r;
}

// Requires n->left.
CentroidNode* rotateRight(CentroidNode* n) noexcept {
  CentroidNode* l = n->left;
  n->left = l->right;
  if (l->right != nullptr) l->right->parent = n;
  l->parent = n->parent;
  n->parent = l;
  l->right = n;
  replaceInParent(l->parent, n, l);
  updateAggregates(n);
  updateAggregates(l);
  return l;
}

// Returns the node that now stands in n's place.
CentroidNode* balance(CentroidNode* n) noexcept {
  const std::int64_t b = balanceOf(n);
  if (b == 2) {
    if (n->right == nullptr) return n;  // only with nonsense heights
    if (balanceOf(n->right) < 0 && n->right->left != nullptr) {
      n->right = rotateRight(n->right);
    }
    return rotateLeft(n);
  }
  if (b == -2) {
    if (n->left == nullptr) return n;
    if (balanceOf(n->left) > 0 && n->left->right != nullptr) {
      n->left = rotateLeft(n->left);
    }
    return rotateRight(n);
  }
  return n;
}

CentroidNode* copyNode(const CentroidNode* src, CentroidNode* parent) {
  auto* node = new CentroidNode(src->mean, src->count);
  node->height = src->height;
  node->subtreeCount = src->subtreeCount;
  node->parent = parent;
  return node;
}

}  // namespace

CentroidTree::~CentroidTree() { clear(); }

CentroidTree::CentroidTree(const CentroidTree& other) : size_(other.size_) {
  if (other.root_ == nullptr) return;
  // root_ is set before the first child is copied, so a failing allocation
  // leaves a linked partial tree that the destructor frees.
  root_ = copyNode(other.root_, nullptr);
  std::deque<std::pair<const CentroidNode*, CentroidNode*>> queue;
  queue.emplace_back(other.root_, root_);
  while (!queue.empty()) {
    const auto [src, dst] = queue.front();
    queue.pop_front();
    if (src->left != nullptr) {
      dst->left = copyNode(src->left, dst);
      queue.emplace_back(src->left, dst->left);
    }
    if (src->right != nullptr) {
      dst->right = copyNode(src->right, dst);
      queue.emplace_back(src->right, dst->right);
    }
  }
}

CentroidTree& CentroidTree::operator=(const CentroidTree& other) {
  if (this != &other) {
    CentroidTree copy(other);
    *this = std::move(copy);
  }
  return *this;
}

CentroidTree::CentroidTree(CentroidTree&& other) noexcept
    : root_(std::exchange(other.root_, nullptr)), size_(std::exchange(other.size_, 0)) {}

CentroidTree& CentroidTree::operator=(CentroidTree&& other) noexcept {
  if (this != &other) {
    clear();
    root_ = std::exchange(other.root_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

CentroidNode* CentroidTree::first() const noexcept {
  CentroidNode* node = root_;
  if (node == nullptr) return nullptr;
  while (node->left != nullptr) node = node->left;
  return node;
}

CentroidNode* CentroidTree::last() const noexcept {
  CentroidNode* node = root_;
  if (node == nullptr) return nullptr;
  while (node->right != nullptr) node = node->right;
  return node;
}

CentroidNode* CentroidTree::next(const CentroidNode* node) noexcept {
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

CentroidNode* CentroidTree::previous(const CentroidNode* node) noexcept {
  if (node == nullptr) return nullptr;
  if (node->left != nullptr) {
    CentroidNode* n = node->left;
    while (n->right != nullptr) n = n->right;
    return n;
  }
  const CentroidNode* from = node;
  CentroidNode* up = node->parent;
  while (up != nullptr && up->left == from) {
    from = up;
    up = up->parent;
  }
  return up;
}

CentroidNode* CentroidTree::floor(double x) const noexcept {
  CentroidNode* candidate = nullptr;
  CentroidNode* node = root_;
  while (node != nullptr) {
    if (node->mean >= x) {
      node = node->left;
    } else {  // below x, or NaN
      candidate = node;
      node = node->right;
    }
  }
  return candidate;
}

std::uint64_t CentroidTree::headSum(const CentroidNode* node) noexcept {
  if (node == nullptr) return 0;
  std::uint64_t sum = subtreeCountOf(node->left);
  const CentroidNode* from = node;
  for (const CentroidNode* up = node->parent; up != nullptr; up = up->parent) {
    if (up->right == from) sum += up->count + subtreeCountOf(up->left);
    from = up;
  }
  return sum;
}

void CentroidTree::listCentroids(std::vector<Centroid>& out) const {
  for (const CentroidNode* node = first(); node != nullptr; node = next(node)) {
    out.push_back(Centroid{node->mean, node->count});
  }
}

CentroidNode* CentroidTree::insert(double mean, std::uint64_t count) {
  auto* node = new CentroidNode(mean, count);
  if (root_ == nullptr) {
    root_ = node;
  } else {
    CentroidNode* at = root_;
    for (;;) {
      // Equal means go right: a new node follows every equal one.
      CentroidNode*& link = at->mean > mean ? at->left : at->right;
      if (link == nullptr) {
        link = node;
        node->parent = at;
        break;
      }
      at = link;
    }
  }
  rebalanceFrom(node);
  ++size_;
  return node;
}

void CentroidTree::updateCentroid(double x, std::uint64_t w, CentroidNode* node,
                                  CentroidNode* runFirst, CentroidNode* runLast) {
  const std::uint64_t c = node->count;
  const double m = node->mean;
  const std::uint64_t grown = c + w;
  const double grownMean = (toDouble(c) * m + toDouble(w) * x) / toDouble(grown);
  node->count = grown;
  node->mean = grownMean;
  node->subtreeCount += w;
  rebalanceFrom(node);
  if (runFirst == runLast) return;

  // The grown values must move past every node that still holds the old
  // mean, within the run, so the in-order sequence stays sorted.
  CentroidNode* target = node;
  if (grownMean > m) {
    for (CentroidNode* n = next(node); n != nullptr && n->mean == m && target != runLast;
         n = next(n)) {
      target = n;
    }
  } else if (grownMean < m) {
    for (CentroidNode* n = previous(node); n != nullptr && n->mean == m && target != runFirst;
         n = previous(n)) {
      target = n;
    }
  }
  swapContents(node, target);
}

void CentroidTree::swapContents(CentroidNode* a, CentroidNode* b) {
  if (a == b) return;
  const std::uint64_t countA = a->count;
  const std::uint64_t countB = b->count;
  std::swap(a->mean, b->mean);
  std::swap(a->count, b->count);
  a->subtreeCount += countB - countA;
  b->subtreeCount += countA - countB;
  rebalanceFrom(a);
  rebalanceFrom(b);
}

void CentroidTree::rebalanceFrom(CentroidNode* node) {
  CentroidNode* n = node;
  while (n != nullptr) {
    updateAggregates(n);
    CentroidNode* standing = balance(n);
    if (standing->parent == nullptr) {
      root_ = standing;
      return;
    }
    n = standing->parent;
  }
}

void CentroidTree::clear() noexcept {
  CentroidNode* node = root_;
  root_ = nullptr;
  size_ = 0;
  if (node == nullptr) return;
  // Freed breadth-first, threading the pending nodes through their parent
  // links, so clearing neither recurses nor allocates.
  node->parent = nullptr;
  CentroidNode* head = node;
  CentroidNode* tail = node;
  while (head != nullptr) {
    for (CentroidNode* child : {head->left, head->right}) {
      if (child == nullptr) continue;
      child->parent = nullptr;
      tail->parent = child;
      tail = child;
    }
    CentroidNode* done = head;
    head = head->parent;
    delete done;
  }
}

void CentroidTree::adopt(CentroidNode* root, std::uint64_t size) noexcept {
  clear();
  root_ = root;
  size_ = size;
  if (root_ != nullptr) root_->parent = nullptr;
}

}  // namespace zotdigest
