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
//
// On a tree built by its own operations (no adopt() since the last clear)
// heights and subtree counts are exact, and the walks to the root skip the
// work that would only recompute the values already stored, giving bit for
// bit the result of the full walk:
//  - after a change of count without a change of shape (updateCentroid,
//    swapContents) no height or balance changes, so only the subtree counts
//    on the way up change, each by the same wrapping difference;
//  - after an insertion, once a subtree comes out of its rebalancing as
//    high as it was before, nothing above it changes but the subtree
//    counts, which grow by the new node's count.
// A tree holding an adopted structure always takes the full walk.
//
// locate() serves add: one descent finds floor(x), its successor and its
// head sum, and records the path, so that add neither climbs for the head
// sum nor for the update of the centroid it grows (below or after, both on
// the path). The descent's direction is as good as random, so it is
// steered by conditional moves and masks rather than by branches that
// would be mispredicted half the time.
//
// Node storage. The pool hands out nodes from slabs in order and takes them
// all back at once: nodes leave a tree only when it is cleared, so no free
// list is needed. Slabs double in size up to a limit and are kept until the
// tree is destroyed or assigned, so the re-adds of a compression reuse the
// memory of the nodes it dropped.
#include "core/centroid_tree.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

#include "core/tdigest.h"  // toDouble

namespace zotdigest {
namespace {

std::int64_t heightOf(const CentroidNode* node) noexcept {
  return node != nullptr ? static_cast<std::int64_t>(node->height) : -1;
}

CentroidNode* descendFirst(CentroidNode* node) noexcept {
  if (node == nullptr) return nullptr;
  while (node->left != nullptr) node = node->left;
  return node;
}

CentroidNode* descendLast(CentroidNode* node) noexcept {
  if (node == nullptr) return nullptr;
  while (node->right != nullptr) node = node->right;
  return node;
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

// Slab sizes in nodes: the first, and the limit of the doubling.
constexpr std::size_t kFirstSlab = 64;
constexpr std::size_t kSlabLimit = std::size_t{1} << 20;

static_assert(std::is_trivially_destructible_v<CentroidNode>,
              "pooled nodes are reused without running a destructor");

// All ones for true, zero for false.
std::uint64_t maskOf(bool b) noexcept { return std::uint64_t{0} - static_cast<std::uint64_t>(b); }

// a where mask is all ones, b where it is zero.
std::uint64_t blend(std::uint64_t mask, std::uint64_t a, std::uint64_t b) noexcept {
  return (a & mask) | (b & ~mask);
}

// The child of `node` on x's side: left when its mean is at least x, right
// when it is below x or NaN; `goesLeft` is 1 for left, else 0. On x86-64 a
// conditional move and a flag read straight off one comparison, so the
// next load waits for nothing else.
CentroidNode* childToward(const CentroidNode* node, double x, std::uint64_t& goesLeft) noexcept {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
  CentroidNode* child = node->right;
  std::uint64_t bit;
  asm("xorl %k[bit], %k[bit]\n\tcomisd %[x], %[mean]\n\tcmovae %[left], %[child]\n\t"
      "setae %b[bit]"
      : [child] "+r"(child), [bit] "=&q"(bit)
      : [mean] "x"(node->mean), [x] "x"(x), [left] "rm"(node->left)
      : "cc");
  goesLeft = bit;
  return child;
#else
  const bool toLeft = node->mean >= x;
  goesLeft = toLeft ? 1 : 0;
  return toLeft ? node->left : node->right;
#endif
}

// The largest count n with toDouble(n) not above `target`, so that
// toDouble(n) > target exactly when n is above it (the conversion never
// decreases); the largest count when nothing converts above the target
// (NaN, or 2^64 and more). The target must not be below -0.0.
std::uint64_t lastNotAbove(double target) noexcept {
  constexpr double kTwoTo53 = 9007199254740992.0;
  constexpr double kTwoTo64 = 18446744073709551616.0;
  if (!(target < kTwoTo64)) return std::numeric_limits<std::uint64_t>::max();
  const auto whole = static_cast<std::uint64_t>(target);
  // Below 2^53 every count up to the target's floor converts exactly, and
  // the next one to more than the target.
  if (target < kTwoTo53) return whole;
  // From there on the target is whole, and the counts up to half way to the
  // next double round down to it; the one half way rounds to the even one
  // of the two. (The next double is the next bit pattern: the target is
  // positive and finite.)
  const double next = std::bit_cast<double>(std::bit_cast<std::uint64_t>(target) + 1);
  const std::uint64_t halfway = whole + static_cast<std::uint64_t>((next - target) * 0.5);
  return toDouble(halfway) > target ? halfway - 1 : halfway;
}

// Adds a wrapping difference to the subtree count of node and of every
// ancestor.
void addOnPathToRoot(CentroidNode* node, std::uint64_t delta) noexcept {
  for (CentroidNode* n = node; n != nullptr; n = n->parent) n->subtreeCount += delta;
}

}  // namespace

// --- NodePool ----------------------------------------------------------------

CentroidTree::NodePool::NodePool(NodePool&& other) noexcept
    : slabs_(std::exchange(other.slabs_, {})),
      current_(std::exchange(other.current_, 0)),
      next_(std::exchange(other.next_, nullptr)),
      end_(std::exchange(other.end_, nullptr)) {}

CentroidTree::NodePool& CentroidTree::NodePool::operator=(NodePool&& other) noexcept {
  if (this != &other) {
    release();
    slabs_ = std::exchange(other.slabs_, {});
    current_ = std::exchange(other.current_, 0);
    next_ = std::exchange(other.next_, nullptr);
    end_ = std::exchange(other.end_, nullptr);
  }
  return *this;
}

CentroidTree::NodePool::~NodePool() { release(); }

void CentroidTree::NodePool::release() noexcept {
  std::allocator<Slot> allocator;
  for (const Slab& slab : slabs_) allocator.deallocate(slab.slots, slab.capacity);
  slabs_.clear();
  current_ = 0;
  next_ = nullptr;
  end_ = nullptr;
}

void CentroidTree::NodePool::reset() noexcept {
  current_ = 0;
  next_ = slabs_.empty() ? nullptr : slabs_.front().slots;
  end_ = slabs_.empty() ? nullptr : slabs_.front().slots + slabs_.front().capacity;
}

void CentroidTree::NodePool::reserve(std::uint64_t n) {
  if (!slabs_.empty()) return;
  const std::size_t capacity =
      static_cast<std::size_t>(std::clamp<std::uint64_t>(n, kFirstSlab, kSlabLimit));
  slabs_.reserve(1);
  slabs_.push_back(Slab{std::allocator<Slot>().allocate(capacity), capacity});
  reset();
}

void CentroidTree::NodePool::refill() {
  if (!slabs_.empty() && current_ + 1 < slabs_.size()) {
    ++current_;
  } else {
    std::size_t held = 0;
    for (const Slab& slab : slabs_) held += slab.capacity;
    const std::size_t capacity = std::clamp(held, kFirstSlab, kSlabLimit);
    slabs_.reserve(slabs_.size() + 1);  // so that push_back cannot fail below
    Slot* slots = std::allocator<Slot>().allocate(capacity);
    slabs_.push_back(Slab{slots, capacity});
    current_ = slabs_.size() - 1;
  }
  next_ = slabs_[current_].slots;
  end_ = next_ + slabs_[current_].capacity;
}

bool CentroidTree::NodePool::owns(const CentroidNode* node) const noexcept {
  const auto* at = reinterpret_cast<const unsigned char*>(node);
  const std::less<const unsigned char*> before;
  for (const Slab& slab : slabs_) {
    const auto* first = reinterpret_cast<const unsigned char*>(slab.slots);
    if (!before(at, first) && before(at, first + slab.capacity * sizeof(Slot))) return true;
  }
  return false;
}

// --- CentroidTree --------------------------------------------------------------

CentroidTree::~CentroidTree() { clear(); }

CentroidTree::CentroidTree(const CentroidTree& other)
    : size_(other.size_),
      adopted_(other.adopted_),
      countsFit_(other.countsFit_),
      meansOrdered_(other.meansOrdered_) {
  if (other.root_ == nullptr) return;
  // An adopted tree's size may be anything; a tree of its own counts its
  // nodes exactly, and one slab then holds the copy.
  if (!other.adopted_) pool_.reserve(other.size_);
  // Every node comes from pool_, which frees them all should an allocation
  // fail half way.
  const auto copyNode = [this](const CentroidNode* src, CentroidNode* parent) {
    CentroidNode* node = pool_.make(src->mean, src->count);
    node->height = src->height;
    node->subtreeCount = src->subtreeCount;
    node->parent = parent;
    return node;
  };
  CentroidNode* root = copyNode(other.root_, nullptr);
  std::deque<std::pair<const CentroidNode*, CentroidNode*>> queue;
  queue.emplace_back(other.root_, root);
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
  root_ = root;
  first_ = descendFirst(root_);
  last_ = descendLast(root_);
  if (!adopted_) {
    for (CentroidNode* node = first_; node != nullptr; node = node->following) {
      node->following = next(node);
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
    : root_(std::exchange(other.root_, nullptr)),
      first_(std::exchange(other.first_, nullptr)),
      last_(std::exchange(other.last_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      pool_(std::move(other.pool_)),
      adopted_(std::exchange(other.adopted_, false)),
      countsFit_(std::exchange(other.countsFit_, true)),
      meansOrdered_(std::exchange(other.meansOrdered_, true)) {
  other.runs_.forgetAll();
}

CentroidTree& CentroidTree::operator=(CentroidTree&& other) noexcept {
  if (this != &other) {
    clear();
    root_ = std::exchange(other.root_, nullptr);
    first_ = std::exchange(other.first_, nullptr);
    last_ = std::exchange(other.last_, nullptr);
    size_ = std::exchange(other.size_, 0);
    pool_ = std::move(other.pool_);  // frees this tree's slabs
    adopted_ = std::exchange(other.adopted_, false);
    countsFit_ = std::exchange(other.countsFit_, true);
    meansOrdered_ = std::exchange(other.meansOrdered_, true);
    other.runs_.forgetAll();
  }
  return *this;
}

void CentroidTree::noteEnds(CentroidNode* node) noexcept {
  if (first_ == nullptr || (node->parent == first_ && first_->left == node)) first_ = node;
  if (last_ == nullptr || (node->parent == last_ && last_->right == node)) last_ = node;
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
  for (const CentroidNode* node = first(); node != nullptr; node = successor(node)) {
    out.push_back(Centroid{node->mean, node->count});
  }
}

CentroidTree::Location CentroidTree::locate(double x) const noexcept {
  Location at;
  // A tree of its own has exact heights, so its height bounds the path:
  // the record needs no check per level.
  if (!adopted_ && (root_ == nullptr || root_->height < Location::kMaxPath)) {
    // The descent chooses by masking rather than by branching (compilers
    // turn a plain conditional back into a jump here). It records the nodes
    // passed and one bit per turn (set for left), shifted in from the
    // bottom, so the deepest turn ends in bit 0; below is the last node
    // passed on the right, after the last one passed on the left (the
    // leftmost node of below's right subtree if it has one, else the
    // nearest ancestor below lies left of). The head sums need no node off
    // the path: a node's subtree starts where its parent's did when reached
    // from the left, and ends where its parent's ended when reached from
    // the right; the slot it ends in lies at the start of the last node's
    // subtree when it fell off on the left, at its end on the right.
    std::uint64_t right = 0;  // all ones after a right turn
    std::uint64_t turns = 0;
    std::uint64_t start = 0;  // counts before the subtree of the node at hand
    std::uint64_t above = 0;  // subtree count of the node passed before it
    CentroidNode** slot = at.path;
    for (CentroidNode* node = root_; node != nullptr;) {
      *slot++ = node;
      const std::uint64_t total = node->subtreeCount;
      // A left child's subtree starts where its parent's does, a right
      // child's where the parent's ends less its own size.
      start += right & (above - total);
      above = total;
      std::uint64_t goesLeft;
      node = childToward(node, x, goesLeft);
      right = goesLeft - 1;
      turns = turns + turns + goesLeft;
    }
    const auto depth = static_cast<int>(slot - at.path);
    const std::uint64_t passed = depth == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << depth) - 1;
    const std::uint64_t rights = ~turns & passed;
    at.pathKnown = true;
    at.leftTurns = turns;
    at.depth = depth;
    at.slotLeft = right == 0;
    if (rights != 0) {
      at.belowDepth = depth - 1 - std::countr_zero(rights);
      at.below = at.path[at.belowDepth];
      // The descent ends in the empty slot just after below in order.
      at.belowHead = start + (right & above) - at.below->count;
    }
    if (turns != 0) {
      at.afterDepth = depth - 1 - std::countr_zero(turns);
      at.after = at.path[at.afterDepth];
    }
    return at;
  }
  // An adopted structure, whose stored counts and links are not trusted.
  at.below = floor(x);
  at.after = at.below != nullptr ? next(at.below) : first();
  at.belowHead = headSum(at.below);
  return at;
}

template <class GoesLeft>
CentroidTree::Split CentroidTree::split(GoesLeft goesLeft) const noexcept {
  // Each turn keeps the node it leaves: the last one passed on the right is
  // the last false, the last one passed on the left the first true, and
  // the one before the last false on its side is its neighbour when it has
  // no left child.
  Split s;
  std::uint64_t base = 0;  // counts before the subtree at hand
  for (const CentroidNode* node = root_; node != nullptr;) {
    const std::uint64_t head = base + subtreeCountOf(node->left);
    const std::uint64_t through = head + node->count;
    if (goesLeft(node, through)) {
      s.after = node;
      s.afterHead = head;
      node = node->left;
    } else {
      s.beforeUp = s.before;
      s.before = node;
      base = through;
      node = node->right;
    }
  }
  if (s.after == nullptr) s.afterHead = base;
  return s;
}

CentroidTree::Split CentroidTree::splitAboveRunning(double target) const noexcept {
  // The conversion never decreases, so its test is a comparison of whole
  // counts, with no conversion on the way down.
  const std::uint64_t limit = lastNotAbove(target);
  return split([limit](const CentroidNode*, std::uint64_t through) { return through > limit; });
}

CentroidNode* CentroidTree::insertAt(const Location& at, double mean, std::uint64_t count) {
  if (!at.pathKnown) return insert(mean, count);
  // Only where the descent went left can a mean have equalled x.
  for (std::uint64_t turns = at.leftTurns; turns != 0; turns &= turns - 1) {
    if (at.path[at.depth - 1 - std::countr_zero(turns)]->mean == mean) return insert(mean, count);
  }
  noteCountAdded(count);
  if (std::isnan(mean)) meansOrdered_ = false;
  runs_.forget(mean);
  CentroidNode* node = pool_.make(mean, count);
  if (at.depth == 0) {
    root_ = node;
  } else {
    CentroidNode* parent = at.path[at.depth - 1];
    (at.slotLeft ? parent->left : parent->right) = node;
    node->parent = parent;
  }
  // The descent fell off between below and after in order.
  node->following = at.after;
  if (at.below != nullptr) at.below->following = node;
  noteEnds(node);
  settleInsert(node, &at);
  ++size_;
  return node;
}

void CentroidTree::settleInsert(CentroidNode* node, const Location* at) {
  if (adopted_) {
    rebalanceFrom(node);
    return;
  }
  // A new leaf's aggregates are already right and it is balanced: the walk
  // starts at its parent. A rotation keeps the place of the subtree it
  // turns, so the node standing at path entry j after its rebalancing has
  // entry j - 1 for parent.
  const bool onPath = at != nullptr && at->pathKnown;
  int j = onPath ? at->depth : 0;
  CentroidNode* n = node->parent;
  if (n == nullptr) {
    root_ = node;
    return;
  }
  for (;;) {
    --j;
    const std::int32_t heightBefore = n->height;
    // Exact heights are small: no clamping needed.
    n->subtreeCount = n->count + subtreeCountOf(n->left) + subtreeCountOf(n->right);
    n->height = static_cast<std::int32_t>(std::max(heightOf(n->left), heightOf(n->right)) + 1);
    CentroidNode* standing = balance(n);
    CentroidNode* up = standing->parent;
    if (up == nullptr) {
      root_ = standing;
      return;
    }
    if (standing->height == heightBefore) {
      // Same height in the same place: above here only the counts grow.
      if (onPath) {
        for (int i = 0; i < j; ++i) at->path[i]->subtreeCount += node->count;
      } else {
        addOnPathToRoot(up, node->count);
      }
      return;
    }
    n = up;
  }
}

CentroidNode* CentroidTree::insert(double mean, std::uint64_t count) {
  // Placed by the means, a new node keeps them in order unless it is NaN.
  noteCountAdded(count);
  if (std::isnan(mean)) meansOrdered_ = false;
  runs_.forget(mean);
  CentroidNode* node = pool_.make(mean, count);
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
    if (!adopted_) {
      // A leaf: its neighbours in order are found by climbing.
      node->following = next(node);
      CentroidNode* before = previous(node);
      if (before != nullptr) before->following = node;
    }
  }
  noteEnds(node);
  settleInsert(node, nullptr);
  ++size_;
  return node;
}

void CentroidTree::updateCentroid(double x, std::uint64_t w, CentroidNode* node,
                                  CentroidNode* runFirst, CentroidNode* runLast) {
  const std::uint64_t c = node->count;
  const double m = node->mean;
  const std::uint64_t grown = c + w;
  const double grownMean = (toDouble(c) * m + toDouble(w) * x) / toDouble(grown);
  noteCountAdded(w);
  node->count = grown;
  node->mean = grownMean;
  carryCount(node, w);
  if (runFirst != runLast) {
    restoreOrder(node, m, grownMean, runFirst, runLast);
  } else {
    noteGrownMean(node, m, grownMean, nullptr, false);
  }
  // Last: nothing has to survive the call.
  runs_.grew(node, m, grownMean, w);
}

void CentroidTree::updateCentroid(double x, std::uint64_t w, CentroidNode* node,
                                  CentroidNode* runFirst, CentroidNode* runLast,
                                  const Location& at) {
  const std::uint64_t c = node->count;
  const double m = node->mean;
  const std::uint64_t grown = c + w;
  const double grownMean = (toDouble(c) * m + toDouble(w) * x) / toDouble(grown);
  noteCountAdded(w);
  node->count = grown;
  node->mean = grownMean;
  // Below and after are equally likely: told apart without a branch.
  const bool isBelow = node == at.below;
  const bool onPath = at.pathKnown & (isBelow | (node == at.after));
  if (onPath) {
    const auto length =
        static_cast<int>(blend(maskOf(isBelow), static_cast<std::uint64_t>(at.belowDepth),
                               static_cast<std::uint64_t>(at.afterDepth)) +
                         1);
    // The entries are independent: no chain of parent loads.
#pragma GCC unroll 4
    for (int i = 0; i < length; ++i) at.path[i]->subtreeCount += w;
  } else {
    carryCount(node, w);
  }
  if (runFirst != runLast) {
    restoreOrder(node, m, grownMean, runFirst, runLast);
  } else if ((grownMean > m && grownMean <= x) || (grownMean < m && grownMean >= x)) {
    // A run of one is below or after. In an ordered tree every node up to
    // below has a mean under x and every later one a mean of at least x,
    // so a mean that moved towards x without passing it is still in order.
  } else {
    noteGrownMean(node, m, grownMean, nullptr, false);
  }
  // Last: nothing has to survive the call (the index is told of an exchange
  // by exchange() itself).
  runs_.grew(node, m, grownMean, w);
}

void CentroidTree::restoreOrder(CentroidNode* node, double m, double grownMean,
                                CentroidNode* runFirst, CentroidNode* runLast) {
  // The grown values must move past every node that still holds the old
  // mean, within the run, so the in-order sequence stays sorted.
  // Each walk ends with `beyond` the neighbour of target on the side the
  // mean moved to, which is all the order check needs.
  CentroidNode* target = node;
  CentroidNode* beyond = nullptr;
  if (grownMean > m) {
    beyond = successor(node);
    while (beyond != nullptr && beyond->mean == m && target != runLast) {
      target = beyond;
      beyond = successor(beyond);
    }
  } else if (grownMean < m) {
    beyond = previous(node);
    while (beyond != nullptr && beyond->mean == m && target != runFirst) {
      target = beyond;
      beyond = previous(beyond);
    }
  }
  exchange(node, target);
  noteGrownMean(target, m, grownMean, beyond, true);
}

void CentroidTree::noteGrownMean(const CentroidNode* at, double m, double grownMean,
                                 const CentroidNode* towards, bool towardsKnown) noexcept {
  if (!meansOrdered_ || adopted_ || grownMean == m) return;
  if (grownMean > m) {
    const CentroidNode* n = towardsKnown ? towards : at->following;
    meansOrdered_ = n == nullptr || grownMean <= n->mean;
  } else if (grownMean < m) {
    const CentroidNode* n = towardsKnown ? towards : previous(at);
    meansOrdered_ = n == nullptr || n->mean <= grownMean;
  } else {
    meansOrdered_ = false;  // NaN, as from infinities of both signs
  }
}

void CentroidTree::noteCountAdded(std::uint64_t w) noexcept {
  const std::uint64_t total = root_ != nullptr ? root_->subtreeCount : 0;
  if (total + w < total) countsFit_ = false;
}

void CentroidTree::swapContents(CentroidNode* a, CentroidNode* b) {
  // Exchanging different means puts them out of order.
  if (a != b && !(a->mean == b->mean)) meansOrdered_ = false;
  exchange(a, b);
}

void CentroidTree::exchange(CentroidNode* a, CentroidNode* b) {
  if (a == b) return;
  runs_.forget(a->mean);
  runs_.forget(b->mean);
  const std::uint64_t countA = a->count;
  const std::uint64_t countB = b->count;
  std::swap(a->mean, b->mean);
  std::swap(a->count, b->count);
  if (adopted_) {
    a->subtreeCount += countB - countA;
    b->subtreeCount += countA - countB;
    rebalanceFrom(a);
    rebalanceFrom(b);
  } else {
    addOnPathToRoot(a, countB - countA);
    addOnPathToRoot(b, countA - countB);
  }
}

void CentroidTree::carryCount(CentroidNode* node, std::uint64_t delta) {
  if (adopted_) {
    node->subtreeCount += delta;
    rebalanceFrom(node);
  } else {
    addOnPathToRoot(node, delta);
  }
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
  first_ = nullptr;
  last_ = nullptr;
  size_ = 0;
  const bool adopted = std::exchange(adopted_, false);
  countsFit_ = true;
  meansOrdered_ = true;
  runs_.forgetAll();
  pool_.reset();
  // Only an adopted structure can hold nodes of its own allocation.
  if (!adopted || node == nullptr) return;
  // Walked breadth-first, threading the pending nodes through their parent
  // links, so clearing neither recurses nor allocates; the pool's nodes
  // need nothing, the others are deleted.
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
    if (!pool_.owns(done)) delete done;
  }
}

void CentroidTree::adopt(CentroidNode* root, std::uint64_t size) noexcept {
  clear();
  root_ = root;
  size_ = size;
  adopted_ = true;
  if (root_ != nullptr) root_->parent = nullptr;
}

}  // namespace zotdigest
