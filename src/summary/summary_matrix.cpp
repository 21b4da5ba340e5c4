// Design note: encoding and decoding the centroid tree as a heap-ordered
// 4 x C int64 matrix.
//
// Every field is a bit copy: the mean's IEEE-754 pattern (so -0.0 and NaN
// payloads survive), the unsigned counts reinterpreted as int64, the int32
// height sign-extended. Both directions walk level by level with queues, so
// neither recursion depth nor the queue length depends on anything but the
// matrix size.
//
// The decoder trusts the matrix beyond its row count, which means the tree
// it builds may have heights that do not describe it. The encoder therefore
// takes the root's stored height as the number of levels only when that
// height is possible for the tree it describes (not negative, no deeper than
// the tree really is, and no taller than an AVL tree of that many nodes can
// be); otherwise it encodes the levels the tree really has, capped at the
// AVL height bound. On every tree that insertion and compression produce
// the stored height passes this test, so the encoding is exactly the
// documented one; on a hand-made tree the column count stays polynomial in
// the node count (below 2 (n + 2)^1.45) instead of growing with 2^height.
#include "summary/summary_matrix.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "host/errors.h"

namespace zotdigest {

namespace {

constexpr std::size_t kRows = 4;
constexpr std::size_t kMeanRow = 0;
constexpr std::size_t kCountRow = 1;
constexpr std::size_t kHeightRow = 2;
constexpr std::size_t kSubtreeRow = 3;

// The deepest level ever encoded: beyond it the matrix's byte count
// (32 bytes per column) would not fit in 64 bits. No tree that fits in
// memory gets near it, since the AVL bound below applies first.
constexpr int kMaxLevels = 57;

struct TreeShape {
  std::uint64_t nodes = 0;
  int depth = -1;  // levels from the root down to its deepest node; -1 if no root
};

// Counts the nodes and the real depth, level by level.
TreeShape measure(const CentroidNode* root) {
  TreeShape shape;
  std::vector<const CentroidNode*> level;
  std::vector<const CentroidNode*> below;
  if (root != nullptr) level.push_back(root);
  while (!level.empty()) {
    ++shape.depth;
    shape.nodes += level.size();
    below.clear();
    for (const CentroidNode* node : level) {
      if (node->left != nullptr) below.push_back(node->left);
      if (node->right != nullptr) below.push_back(node->right);
    }
    std::swap(level, below);
  }
  return shape;
}

// The tallest AVL tree with at most `nodes` nodes: the smallest tree of
// height h has 1, 2, 4, 7, 12, ... nodes (N(h) = N(h-1) + N(h-2) + 1).
int maxBalancedHeight(std::uint64_t nodes) {
  if (nodes == 0) return -1;
  int height = 0;
  std::uint64_t shorter = 0;   // N(height - 1), with N(-1) = 0
  std::uint64_t smallest = 1;  // N(height)
  for (;;) {
    const std::uint64_t taller = smallest + shorter + 1;
    if (taller < smallest || taller > nodes) return height;
    shorter = smallest;
    smallest = taller;
    ++height;
  }
}

// The root height the encoding uses: the stored one when it is possible for
// this tree, otherwise the real depth within the AVL bound.
int encodedHeight(const CentroidNode* root) {
  const TreeShape shape = measure(root);
  const int possible = std::min({shape.depth, maxBalancedHeight(shape.nodes), kMaxLevels});
  const std::int32_t stored = root->height;
  if (stored >= 0 && stored <= possible) return stored;
  return possible;
}

// 2^0 + 2^1 + ... + 2^h, each power formed in double and converted before it
// is added; 0 for a negative h.
std::uint64_t columnCount(int h) {
  std::uint64_t columns = 0;
  for (int i = 0; i <= h; ++i) {
    columns += static_cast<std::uint64_t>(std::pow(2.0, static_cast<double>(i)));
  }
  return columns;
}

void writeColumn(std::int64_t* column, const CentroidNode& node) {
  column[kMeanRow] = std::bit_cast<std::int64_t>(node.mean);
  column[kCountRow] = static_cast<std::int64_t>(node.count);
  column[kHeightRow] = static_cast<std::int64_t>(node.height);
  column[kSubtreeRow] = static_cast<std::int64_t>(node.subtreeCount);
}

// A node from column j, or null when the column's count is 0.
CentroidNode* readColumn(const std::int64_t* data, std::size_t j) {
  const std::int64_t* column = data + kRows * j;
  const auto count = static_cast<std::uint64_t>(column[kCountRow]);
  if (count == 0) return nullptr;
  auto* node = new CentroidNode(std::bit_cast<double>(column[kMeanRow]), count);
  node->height = static_cast<std::int32_t>(
      static_cast<std::uint32_t>(static_cast<std::uint64_t>(column[kHeightRow])));
  node->subtreeCount = static_cast<std::uint64_t>(column[kSubtreeRow]);
  return node;
}

// Owns the nodes linked below `root` until they are handed to the tree, so
// an allocation failure half way frees what was built.
class PendingNodes {
 public:
  PendingNodes() = default;
  PendingNodes(const PendingNodes&) = delete;
  PendingNodes& operator=(const PendingNodes&) = delete;
  ~PendingNodes() {
    if (root_ != nullptr) {
      CentroidTree owner;
      owner.adopt(root_, 0);
    }
  }
  void setRoot(CentroidNode* root) noexcept { root_ = root; }
  CentroidNode* release() noexcept { return std::exchange(root_, nullptr); }

 private:
  CentroidNode* root_ = nullptr;
};

}  // namespace

quorix::HostArrayPtr encodeSummary(const CentroidTree& tree) {
  const CentroidNode* root = tree.root();
  // A decoded tree can count a root slot that holds no node; it has nothing
  // to encode either.
  if (tree.size() == 0 || root == nullptr) {
    return quorix::HostArray::createNumericMatrix(kRows, 0, quorix::ClassID::Int64);
  }

  const int h = encodedHeight(root);
  const std::uint64_t columns = columnCount(h);
  auto matrix = quorix::HostArray::createNumericMatrix(kRows, static_cast<std::size_t>(columns),
                                                       quorix::ClassID::Int64);
  std::int64_t* data = matrix->data<std::int64_t>();

  // Absent slots are null entries; the matrix starts zero-filled, so their
  // columns need no writing.
  std::vector<const CentroidNode*> current{root};
  std::vector<const CentroidNode*> next;
  std::size_t j = 0;
  for (int level = 0; level <= h; ++level) {
    const bool last = level == h;
    next.clear();
    for (const CentroidNode* entry : current) {
      if (entry != nullptr) writeColumn(data + kRows * j, *entry);
      ++j;
      if (!last) {
        next.push_back(entry != nullptr ? entry->left : nullptr);
        next.push_back(entry != nullptr ? entry->right : nullptr);
      }
    }
    std::swap(current, next);
  }
  return matrix;
}

void decodeSummary(CentroidTree& tree, const quorix::HostArray* matrix) {
  if (matrix == nullptr) return;
  // The row count is the format's one check. The element class is checked
  // too, since the columns are read as 64-bit words: anything else would be
  // read past its end.
  if (matrix->rows() != kRows || matrix->classID() != quorix::ClassID::Int64 ||
      matrix->isComplex()) {
    raiseError<stats::tdigest::DataMalformed>(DataMalformed());
  }

  tree.clear();
  const std::size_t columns = matrix->columns();
  if (columns == 0) return;
  const std::int64_t* data = matrix->data<std::int64_t>();

  PendingNodes pending;
  CentroidNode* root = readColumn(data, 0);
  pending.setRoot(root);
  // The root slot counts even when it holds no node.
  std::uint64_t size = 1;

  // Slots whose two children both lie inside the matrix; a column past 2P
  // is never read.
  const std::size_t parents = (columns - 1) / 2;
  std::vector<CentroidNode*> queue;
  queue.reserve(2 * parents + 1);
  queue.push_back(root);
  std::size_t head = 0;
  for (std::size_t k = 0; k < parents; ++k) {
    CentroidNode* entry = queue[head++];
    if (entry == nullptr) {
      queue.push_back(nullptr);
      queue.push_back(nullptr);
      continue;
    }
    CentroidNode* left = readColumn(data, 2 * k + 1);
    if (left != nullptr) {
      left->parent = entry;
      entry->left = left;
      ++size;
    }
    queue.push_back(left);
    CentroidNode* right = readColumn(data, 2 * k + 2);
    if (right != nullptr) {
      right->parent = entry;
      entry->right = right;
      ++size;
    }
    queue.push_back(right);
  }
  tree.adopt(pending.release(), size);
}

}  // namespace zotdigest
