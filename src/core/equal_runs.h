// EqualRuns: an index of the runs of centroids that share one mean, for the
// adds that walk such a run whole.
//
// An add of a value equal to the mean of hundreds of centroids (a column of
// few distinct values) offers every centroid of that run, in order. Walking
// the run node by node is a chain of dependent loads, and testing each
// centroid costs two divisions' worth of arithmetic; the index keeps the
// run's nodes, counts and head sums in arrays instead, together with what
// earlier adds learnt about each centroid (see EqualRun), so that an add
// tests only the centroids whose answer may have changed.
//
// The tree keeps the index honest: every change of a node's mean or count,
// every insertion and every exchange of contents reports the means it
// touches, and a run of such a mean is dropped, except for the one change
// the add that used the run announced (growing one of its centroids without
// moving its mean), which the index applies to its arrays.
//
// The index holds pointers to the tree's nodes and is owned by the tree,
// so it never outlives them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zotdigest {

struct CentroidNode;

// One run: every node, from the first with this mean on, whose mean equals
// it, in order. Counts and head sums are held as doubles, which the add
// using them checks are exact (below 2^53).
//
// What an add learnt about each centroid is kept in terms of the tree's
// total S (the sum of all counts, equal to the digest's total weight
// whenever it is used). While a centroid's count stays the same the rest
// of the tree only gains weight, before it or after it, so its bound
// 4 S q (1 - q) / delta never decreases, and it grows by at most 4 / delta
// per unit of weight gained. Hence two kinds of note:
//  - a centroid found ineligible for count + 1, its bound short by
//    (count + 1 - bound), stays ineligible for any weight until S has grown
//    by (count + 1 - bound) x delta / 4: `recheckAt[i]` holds that S (less
//    margins for rounding), relative to `base`, as a float rounded down;
//  - a centroid found eligible stays eligible for any weight up to its
//    room (a lower bound of bound - count, less the rounding of later
//    tests) while S stays below a horizon: it is `listed`, and its
//    recheckAt is kListed.
// A recheckAt of 0 means the centroid must be tested.
struct EqualRun {
  static constexpr float kListed = 3.0e38f;

  double mean = 0.0;
  bool live = false;  // false: the slot holds nothing
  std::vector<CentroidNode*> nodes;
  std::vector<double> count;
  // The sum of the counts of the run's nodes before node i, in two parts so
  // that a growth moves few of them: blockBefore[i / kBlock], for the nodes
  // before i's block of kBlock, plus before[i], for those before it in it.
  static constexpr std::size_t kBlock = 16;
  std::vector<double> blockBefore;
  std::vector<double> before;
  double delta = 0.0;  // the delta the notes were worked out for; NaN: none
  double base = 0.0;   // the total recheckAt counts from
  std::vector<float> recheckAt;
  std::vector<std::uint32_t> listed;  // in order, the first listedCount (room for all)
  std::size_t listedCount = 0;
  // Every listed centroid stays eligible for weights up to listRoom while
  // S stays below listUntil (the least of their rooms and untils).
  double listRoom = 0.0;
  double listUntil = 0.0;
  // Working space of one add, one entry per node (and four more, for
  // writes four at a time): the centroids to test, and the draws.
  std::vector<std::uint32_t> scratch;
  std::vector<double> draws;
  // The node the add in progress is about to grow, or -1.
  std::ptrdiff_t growing = -1;
  std::uint64_t lastUse = 0;  // for the choice of which run to replace

  // Forgets what was learnt; `total` becomes the base.
  void resetNotes(double newDelta, double total);
  // Sends every listed centroid back to be tested.
  void unlist() noexcept;
  // Lists in `scratch`, in order, the centroids not known to be ineligible
  // or listed at the total `sinceBase` past the base (rounded up); returns
  // how many.
  std::size_t listOpen(float sinceBase) noexcept;
};

class EqualRuns {
 public:
  // Shorter runs are walked: their index would cost more than it saves.
  static constexpr std::size_t kMinIndexed = 16;

  EqualRuns() noexcept = default;
  EqualRuns(const EqualRuns&) = delete;
  EqualRuns& operator=(const EqualRuns&) = delete;
  ~EqualRuns();

  // The remembered run of this mean, or null.
  EqualRun* find(double mean) noexcept;
  // Indexes the run of `mean` that begins at `first` (whose mean is
  // `mean`), replacing whatever run shared its slot. It has no notes yet.
  EqualRun& index(CentroidNode* first, double mean);

  // Reports from the tree. A node of mean m grew by w to mean grownMean.
  void grew(const CentroidNode* node, double m, double grownMean, std::uint64_t w) noexcept {
    if (live_ != 0) applyGrowth(node, m, grownMean, w);
  }
  // Something about the nodes of this mean changed.
  void forget(double mean) noexcept {
    if (live_ != 0) drop(mean);
  }
  void forgetAll() noexcept;

 private:
  // Two slots per mean (a pair), so that a few keys of a column rarely
  // push each other out.
  static constexpr std::size_t kSlots = 128;
  static std::size_t pairOf(double mean) noexcept;
  void applyGrowth(const CentroidNode* node, double m, double grownMean, std::uint64_t w) noexcept;
  void drop(double mean) noexcept;

  // Allocated when the first run is indexed, so a tree that never sees a
  // run of equal means pays nothing.
  std::unique_ptr<std::array<std::unique_ptr<EqualRun>, kSlots>> slots_;
  std::size_t live_ = 0;  // slots holding a run
  std::uint64_t uses_ = 0;
};

}  // namespace zotdigest
