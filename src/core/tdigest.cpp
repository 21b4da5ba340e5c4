// TDigest: insertion, compression and merge.
//
// Design note. A digest fed the same values from a stream in the same state
// must end with the same centroids, bit for bit. What fixes that:
//  - add draws exactly one uniform value per eligible centroid of the
//    nearest run, in order, and none for an ineligible one;
//  - the run is searched forward from floor(x), so of several equal means
//    below x only the last can take part;
//  - compress draws one full permutation and re-adds in that order;
//  - merge re-adds heaviest first, ties in listing order (stable sort);
//  - counts enter floating point only through toDouble, after any unsigned
//    64-bit arithmetic (4 x totalWeight and count + w wrap before they are
//    converted), and every formula is evaluated left to right as written.
//
// add and compress call each other. A compression that re-adds centroids
// none of which can absorb another (zero weights, or weights so large that
// 4 x totalWeight wraps) would recurse without end, so nesting is capped:
// past kMaxCompressDepth nested compressions, compression is abandoned for
// the rest of the outermost add, compress or merge: the remaining values
// are simply inserted, each add whose compression was refused counting its
// own weight. Ordinary data never gets near the cap (a level repeats only
// when a whole re-add merged nothing, which random order makes ever less
// likely). The nesting state lives in the outermost call's frame and is
// passed down explicitly.
//
// Speed. The nearest run and the head sum of its first node come from one
// descent (CentroidTree::locate), the head sum then carried along the walk
// by adding counts, which on a tree with exact aggregates gives the value
// headSum would climb for; an adopted tree, whose stored counts are not
// trusted, gets headSum itself. A new centroid is linked where that same
// descent ended whenever the insertion's own search would take the same
// path, and a grown one carries its weight up along the recorded path.
// On a tree with ordered means and a finite x the run is found and offered
// in one pass (addToOrdered), which matters for a column of few distinct
// values, where each add walks a run of hundreds of equal means: each step
// follows the node's link to the next in order, its eligibility test avoids
// the divisions where it safely can, and the draws of its eligible
// centroids are made in batches (Reservoir::offerRun).
#include "core/tdigest.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include "core/equal_runs.h"
#include "host/errors.h"
#include "quorix/random_stream.h"

namespace zotdigest {
namespace {

constexpr int kMaxCompressDepth = 64;

// Nesting state of one outermost add, compress or merge. Once abandoned,
// compression stays off until that call returns, so a merge of centroids
// that cannot fold pays for one futile chain only.
struct Nesting {
  int compressDepth = 0;
  bool compressAbandoned = false;
};

// 1 / k, the probability with which the k-th eligible centroid replaces the
// choice: a table for the common counts, the same quotients the division
// gives.
constexpr std::size_t kReciprocals = 256;
constexpr std::array<double, kReciprocals> kReciprocalTable = [] {
  std::array<double, kReciprocals> t{};
  for (std::size_t k = 0; k < kReciprocals; ++k) t[k] = 1.0 / static_cast<double>(k + 1);
  return t;
}();

// `seen` is at least 1.
double reciprocalOf(std::size_t seen) noexcept {
  return seen <= kReciprocals ? kReciprocalTable[seen - 1] : 1.0 / static_cast<double>(seen);
}

quorix::RandomStream& streamOf(TDigest& digest) {
  if (digest.stream == nullptr) digest.stream = &quorix::RandomStream::defaultStream();
  return *digest.stream;
}

enum class Compression {
  Rebuilt,    // the tree was rebuilt and the total recounted
  Unchanged,  // fewer than two centroids, or 20 x delta < 1
  Refused,    // nested too deep: the caller must count its own weight
};

void addValue(TDigest& digest, double x, std::uint64_t w, Nesting& nesting);

Compression compressDigest(TDigest& digest, Nesting& nesting) {
  // Below 20 x delta = 1 every re-add would compress again.
  if (digest.tree.size() < 2 || digest.delta * 20.0 < 1.0) return Compression::Unchanged;
  if (nesting.compressAbandoned) return Compression::Refused;
  if (nesting.compressDepth >= kMaxCompressDepth) {
    nesting.compressAbandoned = true;
    return Compression::Refused;
  }

  std::vector<Centroid> listed;
  // A tree of its own counts its nodes exactly; a decoded one may not.
  if (digest.tree.aggregatesExact()) listed.reserve(digest.tree.size());
  digest.tree.listCentroids(listed);
  // The listing, not size(), sizes the permutation: a decoded tree may carry
  // a size that does not match its nodes.
  const std::size_t n = listed.size();
  quorix::RandomStream& random = streamOf(digest);
  std::vector<Centroid> shuffled;
  shuffled.reserve(n);
  if (n > 0) {
    // Left uninitialised: the permutation fills every entry.
    const std::unique_ptr<double[]> positions(new double[n]);
    random.randomPermutation(positions.get(), n, toDouble(n));
    for (std::size_t i = 0; i < n; ++i) {
      shuffled.push_back(listed[static_cast<std::size_t>(positions[i]) - 1]);  // 1-based
    }
  }

  digest.totalWeight = 0;
  // Clearing keeps the tree's node storage for the re-adds.
  digest.tree.clear();
  ++nesting.compressDepth;
  for (const Centroid& c : shuffled) addValue(digest, c.mean, c.count, nesting);
  --nesting.compressDepth;
  return Compression::Rebuilt;
}

// The reservoir choice among the eligible centroids of a run, offered in
// order with the head sum of each.
//
// Eligible centroids wait in a small batch and their uniform values are
// drawn together: the same values in the same order as one draw per
// centroid, since nothing else draws in between.
//
// The test bound >= count + w needs two divisions per centroid, and a run
// of equal means can be hundreds of centroids long. It is first made with
// reciprocals: the rounding of the two forms differs by far less than
// `slack` (a bound on the difference, with a margin of four), so where the
// reciprocal form is further than that from the threshold both forms
// agree, and only near it is the exact form evaluated. The shortcut is
// taken only where nothing can overflow or lose its normal precision on
// the way (a positive total, a normal reciprocal of delta, a threshold of
// at least 1), and only once a run proves long: most runs are one or two
// centroids, for which the reciprocals would cost more than they save.
class Reservoir {
 public:
  Reservoir(TDigest& digest, std::uint64_t w)
      : random_(streamOf(digest)),
        w_(w),
        delta_(digest.delta),
        total_(toDouble(digest.totalWeight)),
        fourTotal_(toDouble(UINT64_C(4) * digest.totalWeight)) {}

  // For a run that goes on past its first centroids.
  void expectLongRun() {
    inverseTotal_ = 1.0 / total_;
    inverseDelta_ = 1.0 / delta_;
    slackScale_ = fourTotal_ * inverseDelta_ * 0x1p-46;
    shortcut_ = total_ > 0.0 && delta_ > 0.0 &&
                inverseDelta_ >= std::numeric_limits<double>::min() &&
                inverseDelta_ < std::numeric_limits<double>::infinity();
  }

  // Offers `node` (whose head sum is `before`) and every node after it in
  // order up to the first one further than `reach` from x, none of them
  // with a mean below x (nor NaN); returns the last one offered. `treeTotal` is the sum of all
  // counts when the tree promises it (CentroidTree::runningCountsExact), else null. After
  // expectLongRun(). Counts the nodes offered into `offered`.
  //
  // This is the step a column of few distinct values repeats for hundreds
  // of centroids per add, so it is kept tight where the arithmetic allows:
  // when every count, head sum and count + w stays below 2^53 they are all
  // exact in double, so the head sum is carried as a double and the counts
  // converted by the cheaper signed conversion, giving the values toDouble
  // gives; and since the head sums only grow along the run, the slack of
  // the last (largest) one serves every node, which takes its computation
  // out of the loop.
  CentroidNode* offerRun(CentroidNode* node, std::uint64_t before, double x, double reach,
                         const std::uint64_t* treeTotal, std::size_t& offered) {
    constexpr std::uint64_t kExact = std::uint64_t{1} << 53;
    if (!shortcut_ || w_ == 0 || treeTotal == nullptr || w_ >= kExact ||
        *treeTotal >= kExact - w_) {
      CentroidNode* last = nullptr;
      std::size_t walked = 0;
      do {
        offer(node, before);
        before += node->count;
        last = node;
        ++walked;
        node = node->following;
      } while (node != nullptr && !(std::fabs(node->mean - x) > reach));
      offered += walked;
      return last;
    }
    // Every half below is at most the tree's total, so q and the slack are
    // at most those of the total (rounding is monotone).
    const double qMost = toDouble(*treeTotal) * inverseTotal_;
    const double spreadMost = 1.0 + qMost;
    const double slack = slackScale_ * (spreadMost * spreadMost);
    const auto exact = [](std::uint64_t v) {
      return static_cast<double>(static_cast<std::int64_t>(v));
    };
    const double w = exact(w_);
    double head = exact(before);
    // Held in locals: the loop keeps them in registers.
    const double inverseTotal = inverseTotal_;
    const double fourTotal = fourTotal_;
    const double inverseDelta = inverseDelta_;
    std::size_t pending = pendingCount_;
    std::size_t walked = 0;
    CentroidNode* last = nullptr;
    do {
      const double count = exact(node->count);
      const double need = count + w;
      const double half = count * 0.5 + head;
      const double q = half * inverseTotal;
      const double bound = fourTotal * q * (1.0 - q) * inverseDelta;
      // The test's outcome is as good as random along a run: it must not
      // steer a branch. Only the rare case near the threshold does.
      bool take = bound - slack >= need;
      const bool refuse = bound + slack < need;
      if (static_cast<int>(take) + static_cast<int>(refuse) == 0) [[unlikely]] {
        take = exactTest(half, need);
      }
      pending_[pending] = node;
      pending += take ? 1 : 0;
      if (pending == kBatch) {
        pendingCount_ = pending;
        draw();
        pending = 0;
      }
      head += count;
      last = node;
      ++walked;
      node = node->following;
      // No mean from here on is below x: its distance is mean - x.
    } while (node != nullptr && !(node->mean - x > reach));
    pendingCount_ = pending;
    offered += walked;
    return last;
  }

  void offer(CentroidNode* node, std::uint64_t before) {
    const double need = toDouble(node->count + w_);
    const double half = toDouble(node->count) * 0.5 + toDouble(before);
    // Written without a branch on the test, which is as good as random
    // along a run.
    pending_[pendingCount_] = node;
    pendingCount_ += eligible(half, need) ? 1 : 0;
    if (pendingCount_ == kBatch) draw();
  }

  CentroidNode* candidate() {
    if (pendingCount_ == 1) {  // the usual case, kept out of the batch's loop
      pendingCount_ = 0;
      seen_ += 1.0;
      if (1.0 / seen_ >= random_.uniform()) candidate_ = pending_[0];
    } else if (pendingCount_ > 1) {
      draw();
    }
    return candidate_;
  }

 private:
  static constexpr std::size_t kBatch = 64;

  bool eligible(double half, double need) const {
    if (shortcut_ && need >= 1.0) {
      const double q = half * inverseTotal_;
      const double bound = fourTotal_ * q * (1.0 - q) * inverseDelta_;
      const double spread = 1.0 + std::fabs(q);
      const double slack = slackScale_ * (spread * spread);
      if (bound - slack >= need) return true;
      if (bound + slack < need) return false;
    }
    return exactTest(half, need);
  }

  bool exactTest(double half, double need) const {
    const double q = half / total_;
    const double bound = fourTotal_ * q * (1.0 - q) / delta_;
    return bound >= need;
  }

  // The k-th eligible centroid replaces the current choice with
  // probability 1/k.
  void draw() {
    double u[kBatch];
    random_.uniform(u, pendingCount_);
    for (std::size_t i = 0; i < pendingCount_; ++i) {
      seen_ += 1.0;
      if (reciprocalOf(static_cast<std::size_t>(seen_)) >= u[i]) candidate_ = pending_[i];
    }
    pendingCount_ = 0;
  }

  quorix::RandomStream& random_;
  const std::uint64_t w_;
  const double delta_;
  const double total_;      // totalWeight, not yet counting w
  const double fourTotal_;  // 4 x totalWeight, wrapped before conversion
  double inverseTotal_ = 0.0;
  double inverseDelta_ = 0.0;
  double slackScale_ = 0.0;
  bool shortcut_ = false;
  CentroidNode* pending_[kBatch];
  std::size_t pendingCount_ = 0;
  CentroidNode* candidate_ = nullptr;
  double seen_ = 0.0;
};

// The nearest run found and offered in one pass, for a finite x on a tree
// whose means are ordered (CentroidTree::meansOrdered). Every node after
// floor(x) then has a mean of at least x, so the distances from `after` on
// never decrease: the run's first node is settled by below and after
// alone, and each later node can be offered as soon as it is reached. The
// distances, the comparisons and the order of the offers are those of the
// general walk. Returns how many nodes from `after` on were offered.
std::size_t addToOrdered(CentroidTree& tree, const CentroidTree::Location& at, double x,
                         std::uint64_t w, Reservoir& reservoir) {
  CentroidNode* const below = at.below;
  CentroidNode* const after = at.after;
  const double inf = std::numeric_limits<double>::infinity();
  // The walk's best distance once below is passed is below's distance (or
  // +inf, which is the same when below is that far).
  const double dBelow = below != nullptr ? std::fabs(below->mean - x) : inf;
  const double dAfter = after != nullptr ? std::fabs(after->mean - x) : inf;
  const bool withBelow = below != nullptr && !(after != nullptr && dAfter < dBelow);
  const bool withAfter = after != nullptr && !(below != nullptr && dAfter > dBelow);

  CentroidNode* runLast = below;
  std::size_t offered = 0;
  std::uint64_t before = below != nullptr ? at.belowHead : 0;
  if (below != nullptr) {
    if (withBelow) reservoir.offer(below, before);
    before += below->count;
  }
  if (withAfter) {
    reservoir.offer(after, before);
    before += after->count;
    runLast = after;
    offered = 1;
    CentroidNode* node = after->following;
    if (node != nullptr && !(std::fabs(node->mean - x) > dAfter)) {
      reservoir.expectLongRun();
      const std::uint64_t total = tree.root()->subtreeCount;
      runLast = reservoir.offerRun(node, before, x, dAfter,
                                   tree.runningCountsExact() ? &total : nullptr, offered);
    }
  }

  CentroidNode* const candidate = reservoir.candidate();
  if (candidate != nullptr) {
    tree.updateCentroid(x, w, candidate, withBelow ? below : after, runLast, at);
  } else {
    tree.insertAt(at, x, w);
  }
  return offered;
}

// The add of an x equal to the mean of `at.after`, on an ordered tree, from
// the index of that run of equal means (EqualRuns). The nearest run is then
// exactly the nodes of mean x: below, if any, is further away. Returns
// false, having done nothing, where the index does not serve: the run is
// not indexed (addValue indexes it after walking it whole, if long), or
// counts, weights or a delta for which its arithmetic is not exact.
//
// The offers are those of the walk, in the same order, with the same
// draws: a centroid is passed over only where its note proves the walk's
// test false, and taken untested only where its note proves it true (see
// EqualRun). Every other one is tested as the walk tests it (the
// reciprocal form where that is safely far from the threshold, else the
// exact form), and its note is renewed from that test. The notes' margins:
//  - `slack` covers the reciprocal form's distance from the exact value;
//  - `margin` covers the rounding of any later exact test while the total
//    stays below 64 times today's, where every note expires (`horizon`);
//  - a factor just under 1 covers the rounding of the note itself.
// The draws are made together once the eligible centroids are known: the
// same values in the same order as one draw per centroid.
bool addToEqualRun(TDigest& digest, const CentroidTree::Location& at, double x, std::uint64_t w) {
  CentroidTree& tree = digest.tree;
  constexpr std::uint64_t kExact = std::uint64_t{1} << 53;
  const std::uint64_t total = digest.totalWeight;
  if (w == 0 || total == 0 || total >= kExact - w || !tree.runningCountsExact() ||
      total != tree.root()->subtreeCount) {
    return false;
  }
  const double delta = digest.delta;
  const double inverseDelta = 1.0 / delta;
  if (!(delta > 0.0) || !(inverseDelta >= std::numeric_limits<double>::min()) ||
      !(inverseDelta < std::numeric_limits<double>::infinity())) {
    return false;
  }

  // Every count and head sum below is a whole number under 2^53: exact.
  const double s = toDouble(total);
  EqualRun* run = tree.equalRuns().find(x);
  if (run == nullptr || run->nodes.front() != at.after) return false;
  // Notes are relative to a base, so that floats hold them exactly for a
  // long while; they are simply dropped when the base moves.
  if (!(run->delta == delta) || s - run->base >= 0x1p22) run->resetNotes(delta, s);
  const double w1 = toDouble(w);
  if (run->listedCount != 0 && (w1 > run->listRoom || s >= run->listUntil)) run->unlist();

  const double base = at.below != nullptr ? toDouble(at.belowHead + at.below->count) : 0.0;
  const double inverseTotal = 1.0 / s;
  const double fourTotal = toDouble(UINT64_C(4) * total);
  const double scale = fourTotal * inverseDelta;
  const double spread = 1.0 + s * inverseTotal;
  const double slack = scale * 0x1p-46 * (spread * spread);
  const double margin = scale * 0x1p-44;
  const double horizon = s * 64.0;
  // The notes of ineligible centroids count from the run's base and are
  // scaled down by kDown, so that neither the rounding here nor the float
  // they are stored in can carry one past the total it stands for.
  constexpr double kDown = 1.0 - 0x1p-20;
  const double since = s - run->base;
  const double sinceDown = since * kDown;
  const double rateDown = delta * 0.25 * kDown;
  const double horizonDown = (horizon - run->base) * kDown;
  // count + 1 - (bound + slack + margin), from bound - need.
  const double gapFrom = (1.0 - w1) - (slack + margin);
  // The room of an eligible one: bound - slack - margin - count, from
  // bound - need.
  const double roomFrom = w1 - (slack + margin);
  // The total past the base, rounded up to a float: a note below it is
  // certainly below the total.
  float sinceUp = static_cast<float>(since);
  if (static_cast<double>(sinceUp) < since) {
    sinceUp = std::nextafter(sinceUp, std::numeric_limits<float>::infinity());
  }

  const double* count = run->count.data();
  const double* before = run->before.data();
  const double* blockBefore = run->blockBefore.data();
  float* recheckAt = run->recheckAt.data();
  std::uint32_t* order = run->scratch.data();
  const std::size_t listed = run->listedCount;
  if (listed == 0) {
    run->listRoom = std::numeric_limits<double>::infinity();
    run->listUntil = std::numeric_limits<double>::infinity();
  }
  double listRoom = run->listRoom;
  quorix::RandomStream& random = streamOf(digest);
  const std::size_t open = run->listOpen(sinceUp);

  // The newly eligible ones, in order, written over the same list. The
  // outcome of each test is as good as random, so none steers a branch;
  // only the rare test too close to call with the reciprocals does.
  std::size_t fresh = 0;
  for (std::size_t k = 0; k < open; ++k) {
    const std::uint32_t i = order[k];
    const double c = count[i];
    const double need = c + w1;
    const double half = c * 0.5 + (base + (blockBefore[i / EqualRun::kBlock] + before[i]));
    const double q = half * inverseTotal;
    const double bound = scale * q * (1.0 - q);
    const double over = bound - need;
    bool take = over >= slack;
    if (!take && !(over < -slack)) [[unlikely]] {
      const double exactQ = half / s;
      take = fourTotal * exactQ * (1.0 - exactQ) / delta >= need;
    }
    // An eligible one is listed if its room covers this weight (else it is
    // left to be tested, 0); an ineligible one gets its note, which at or
    // below today's total (no gap) just leaves it to be tested.
    const double gap = gapFrom - over;
    const auto note = static_cast<float>(std::min(sinceDown + gap * rateDown, horizonDown));
    const double roomNow = roomFrom + over;
    const bool listable = take && roomNow >= w1;
    recheckAt[i] = listable ? EqualRun::kListed : take ? 0.0f : note;
    listRoom = listable ? std::min(listRoom, roomNow) : listRoom;
    order[fresh] = i;
    fresh += take ? 1 : 0;
  }

  run->listRoom = listRoom;

  // All eligible ones in order: the fresh inserted into the list. Those of
  // them that cannot stay listed (rare) leave it again below.
  std::uint32_t* list = run->listed.data();
  std::size_t n = listed;
  bool unlisted = false;
  for (std::size_t b = 0; b < fresh; ++b) {
    const std::uint32_t i = order[b];
    std::uint32_t* slot = std::lower_bound(list, list + n, i);
    std::copy_backward(slot, list + n, list + n + 1);
    *slot = i;
    ++n;
    unlisted = unlisted || recheckAt[i] != EqualRun::kListed;
  }
  if (fresh != 0) run->listUntil = std::min(run->listUntil, horizon);
  double* u = run->draws.data();
  random.uniform(u, n);

  // The k-th eligible centroid replaces the choice with probability 1/k:
  // the choice is the last k whose draw is at most 1/k, found from the end.
  std::ptrdiff_t chosen = -1;
  for (std::size_t k = n; k > 0; --k) {
    if (reciprocalOf(k) >= u[k - 1]) {
      chosen = list[k - 1];
      break;
    }
  }
  // The chosen one grows: it leaves the list, to be tested next time.
  std::size_t kept = n;
  if (unlisted) {
    kept = 0;
    for (std::size_t k = 0; k < n; ++k) {
      list[kept] = list[k];
      kept += recheckAt[list[k]] == EqualRun::kListed && list[k] != chosen ? 1 : 0;
    }
  } else if (chosen >= 0) {
    std::uint32_t* slot = std::lower_bound(list, list + n, static_cast<std::uint32_t>(chosen));
    std::copy(slot + 1, list + n, slot);
    --kept;
  }
  run->listedCount = kept;

  if (chosen >= 0) {
    // The index applies the growth it is told of (and has the grown
    // centroid tested again).
    run->growing = chosen;
    tree.updateCentroid(x, w, run->nodes[static_cast<std::size_t>(chosen)], run->nodes.front(),
                        run->nodes.back(), at);
  } else {
    tree.insertAt(at, x, w);
  }
  return true;
}

void addValue(TDigest& digest, double x, std::uint64_t w, Nesting& nesting) {
  // The host's NaN test, inline on this hot path.
  if (std::isnan(x)) return;
  CentroidTree& tree = digest.tree;

  const CentroidTree::Location at = tree.locate(x);
  CentroidNode* start = at.below != nullptr ? at.below : at.after;
  if (start == nullptr) {
    tree.insertAt(at, x, w);
  } else if (tree.meansOrdered() && std::isfinite(x)) {
    CentroidNode* const after = at.after;
    const bool onMean = after != nullptr && after->mean == x;
    if (!onMean || !addToEqualRun(digest, at, x, w)) {
      Reservoir reservoir(digest, w);
      const std::size_t offered = addToOrdered(tree, at, x, w, reservoir);
      // A long run of this very mean is indexed for the adds to come
      // (unless the add just moved the first node's values away).
      if (onMean && offered >= EqualRuns::kMinIndexed && after->mean == x) {
        tree.equalRuns().index(after, x);
      }
    }
  } else {
    // The run of centroids nearest to x, walking forward from start, with
    // the head sum of each node walked.
    CentroidNode* runLast = nullptr;
    double best = std::numeric_limits<double>::infinity();
    std::uint64_t head = at.below != nullptr ? at.belowHead : 0;
    std::uint64_t before = head;
    for (CentroidNode* node = start; node != nullptr;) {
      const double d = std::fabs(node->mean - x);
      if (d < best) {
        best = d;
        start = node;
        before = head;
      } else if (d > best) {
        break;
      }
      runLast = node;
      head += node->count;
      node = node == at.below ? at.after : tree.successor(node);
    }
    if (!tree.aggregatesExact()) before = CentroidTree::headSum(start);

    CentroidNode* candidate = nullptr;
    double seen = 0.0;
    const std::uint64_t total = digest.totalWeight;
    const double delta = digest.delta;
    quorix::RandomStream& random = streamOf(digest);
    for (CentroidNode* node = start; node != nullptr; node = tree.successor(node)) {
      const double q = (toDouble(node->count) * 0.5 + toDouble(before)) / toDouble(total);
      const double bound = toDouble(UINT64_C(4) * total) * q * (1.0 - q) / delta;
      if (bound >= toDouble(node->count + w)) {
        // Reservoir choice: the k-th eligible centroid replaces the current
        // choice with probability 1/k.
        const double u = random.uniform();
        seen += 1.0;
        if (1.0 / seen >= u) candidate = node;
      }
      before += node->count;
      if (node == runLast) break;
    }

    if (candidate != nullptr) {
      tree.updateCentroid(x, w, candidate, start, runLast, at);
    } else {
      tree.insertAt(at, x, w);
    }
  }

  // A compression recounts the total from the tree, which already holds w;
  // one that did nothing leaves w uncounted, as designed for tiny deltas.
  if (toDouble(tree.size()) > digest.delta * 20.0 &&
      compressDigest(digest, nesting) != Compression::Refused) {
    return;
  }
  digest.totalWeight += w;
}

}  // namespace

void TDigest::add(double x, std::uint64_t w) {
  Nesting nesting;
  addValue(*this, x, w, nesting);
}

void TDigest::compress() {
  Nesting nesting;
  compressDigest(*this, nesting);
}

void TDigest::merge(const TDigest& other) {
  if (!(delta == other.delta)) raiseError<stats::tdigest::MergeDeltaMismatch>(MergeDeltaMismatch());
  Nesting nesting;

  // Both listings are taken before the tree is emptied, so other may be
  // this digest.
  std::vector<Centroid> all;
  tree.listCentroids(all);
  other.tree.listCentroids(all);
  std::stable_sort(all.begin(), all.end(),
                   [](const Centroid& a, const Centroid& b) { return a.count > b.count; });

  totalWeight = 0;
  tree.clear();
  for (const Centroid& c : all) addValue(*this, c.mean, c.count, nesting);
}

}  // namespace zotdigest
