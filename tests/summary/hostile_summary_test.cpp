// Decoded summaries that no digest could have produced, run through every
// operation. The numbers need not mean anything; the operations must finish,
// stay inside their memory, and leave trees that later operations can use.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "summary/properties.h"
#include "summary/summary_matrix.h"
#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::Column;
using testing::emptySlot;
using testing::node;

constexpr std::int64_t kMaxH = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMinH = std::numeric_limits<std::int32_t>::min();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

struct Hostile {
  const char* name;
  std::vector<Column> columns;
};

std::vector<Column> fullTree(int levels, std::int64_t height, std::int64_t count) {
  std::vector<Column> cols;
  for (int j = 0; j < (1 << levels) - 1; ++j) cols.push_back(node(j * 1.5, count, height, count));
  return cols;
}

std::vector<Column> rightChain(int length, bool consistent) {
  std::vector<Column> cols((std::size_t{1} << length) - 1, emptySlot());
  std::size_t slot = 0;
  for (int i = 0; i < length; ++i) {
    cols[slot] = node(i, 2, consistent ? length - 1 - i : 0, consistent ? 2 * (length - i) : 2);
    slot = 2 * slot + 2;
  }
  return cols;
}

std::vector<Hostile> hostileMatrices() {
  const std::int64_t huge = INT64_C(1) << 62;
  return {
      {"ZeroCountRoot", {Column{0, 0, 3, 9}, node(1.0, 4, 0, 4), node(2.0, 5, 0, 5)}},
      {"ZeroCountRootAlone", {Column{0, 0, 0, 0}}},
      {"MaxHeights", fullTree(3, kMaxH, 3)},
      {"MinHeights", fullTree(3, kMinH, 3)},
      {"NegativeHeights", {node(2.0, 1, -1, 3), node(1.0, 1, -100, 1), node(3.0, 1, -2, 1)}},
      {"MixedJunkHeights",
       {node(5.0, 2, 0, 2), node(2.0, 2, kMaxH, 2), node(8.0, 2, kMinH, 2), node(1.0, 2, -7, 2),
        node(3.0, 2, 40, 2), emptySlot(), node(9.0, 2, 1, 2)}},
      {"UnsortedMeans",
       {node(1.0, 3, 2, 9), node(9.0, 3, 1, 3), node(-4.0, 3, 0, 3), node(7.0, 1, 0, 1),
        node(-8.0, 2, 0, 2), node(0.0, 1, 0, 1), node(100.0, 1, 0, 1)}},
      {"NanAndInfMeans", {node(kNaN, 3, 1, 9), node(kInf, 3, 0, 3), node(-kInf, 3, 0, 3)}},
      {"AllNanMeans", {node(kNaN, 2, 1, 6), node(-kNaN, 2, 0, 2), node(kNaN, 2, 0, 2)}},
      {"JunkSubtreeCounts",
       {node(2.0, 1, 1, 0), node(1.0, 1, 0, -1), node(3.0, 1, 0, INT64_C(1) << 40)}},
      {"HugeCounts", {node(1.0, huge, 1, huge), node(0.0, huge, 0, huge), node(2.0, -1, 0, -1)}},
      {"ManyHugeCounts", fullTree(5, 4, huge)},
      {"MaxCountSingle", {node(4.0, -1, 0, -1)}},
      {"ConsistentChain", rightChain(6, true)},
      {"FlatChain", rightChain(6, false)},
      {"RootHeightBelowDepth", {node(2.0, 1, 0, 3), node(1.0, 1, 0, 1), node(3.0, 1, 0, 1)}},
      {"JunkUnderEmptySlots",
       {node(2.0, 1, 1, 1), Column{-1, 0, -1, -1}, node(3.0, 1, 0, 1), node(0.0, 9, 9, 9),
        node(0.0, 9, 9, 9), emptySlot(), emptySlot()}},
  };
}

// Queries may raise their documented errors on a digest they see as empty;
// anything else is a failure.
template <class F>
void query(F&& f) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    const std::string id = e.identifier();
    EXPECT_TRUE(id == "stats:tdigest:CdfNoData" || id == "stats:tdigest:TrimmedMeanNoData") << id;
  }
}

void runQueries(const TDigest& d) {
  for (const double x : {-kInf, -1e300, -1.0, 0.0, 1.0, 2.5, 7.0, 1e300, kInf, kNaN}) {
    query([&] { cdf(d, x); });
  }
  for (const double q : {0.0, 1e-9, 0.25, 0.5, 0.75, 1.0 - 1e-9, 1.0, kNaN}) {
    query([&] { icdf(d, q); });
  }
  for (const double p : {0.0, 0.1, 0.25, 0.4999, kNaN}) {
    query([&] { trimmedMean(d, p); });
  }
  quorix::HostArray* out[2] = {nullptr, nullptr};
  centroids(d, 2, out);
  const quorix::HostArrayPtr means(out[0]);
  const quorix::HostArrayPtr counts(out[1]);
  EXPECT_EQ(means->rows(), counts->rows());
  const auto m = encodeSummary(d.tree);
  EXPECT_EQ(m->rows(), 4u);
}

// Nodes reachable from the root.
std::uint64_t countNodes(const CentroidNode* root) {
  std::vector<const CentroidNode*> pending;
  if (root != nullptr) pending.push_back(root);
  std::uint64_t n = 0;
  while (!pending.empty()) {
    const CentroidNode* x = pending.back();
    pending.pop_back();
    ++n;
    if (x->left != nullptr) pending.push_back(x->left);
    if (x->right != nullptr) pending.push_back(x->right);
  }
  return n;
}

class HostileSummary : public ::testing::TestWithParam<double> {};

TEST_P(HostileSummary, every_operation_finishes_on_every_hostile_matrix) {
  const double delta = GetParam();
  for (const Hostile& h : hostileMatrices()) {
    SCOPED_TRACE(h.name);
    const auto matrix = testing::makeMatrix(h.columns);
    for (const std::uint64_t total : {UINT64_C(0), UINT64_C(7), UINT64_C(0xFFFFFFFFFFFFFFFF)}) {
      const auto stream = testing::makeStream(5);
      TDigest d;
      d.stream = stream.get();
      setDelta(d, delta);
      setSummary(d, *matrix);
      setNumDataPoints(d, total);
      runQueries(d);

      // Re-encoding and decoding again must give a usable tree as well.
      TDigest again;
      again.stream = stream.get();
      setDelta(again, delta);
      setSummary(again, *getSummary(d));
      runQueries(again);

      for (const double x : {0.5, kNaN, kInf, -kInf, 2.0, -0.0, 1e308, 3.0, 2.0}) d.add(x);
      d.add(1.0, UINT64_C(0xFFFFFFFFFFFFFFFF));
      d.add(2.0, 0);
      runQueries(d);
      d.compress();
      runQueries(d);
      d.merge(d);
      runQueries(d);

      // Merging rebuilds from an empty tree through insertion, so whatever
      // came in, the result is a consistent AVL tree of `size` nodes.
      TDigest fresh;
      fresh.stream = stream.get();
      setDelta(fresh, delta);
      d.merge(fresh);
      EXPECT_EQ(countNodes(d.tree.root()), d.tree.size());
      int height = 0;
      std::uint64_t weight = 0;
      EXPECT_TRUE(testing::consistentAvl(d.tree.root(), height, weight));
      runQueries(d);

      TDigest other;
      other.stream = stream.get();
      setDelta(other, delta);
      setSummary(other, *matrix);
      fresh.merge(other);
      runQueries(fresh);

      // A consistent tree round-trips exactly, unless a count wrapped to 0
      // (a zero count reads back as an empty slot).
      std::vector<Centroid> listed;
      d.tree.listCentroids(listed);
      bool zeroCount = false;
      for (const Centroid& c : listed) zeroCount = zeroCount || c.count == 0;
      if (!zeroCount) {
        TDigest back;
        setSummary(back, *getSummary(d));
        EXPECT_TRUE(testing::sameTree(d.tree, back.tree));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Deltas, HostileSummary, ::testing::Values(0.05, 1.0, 100.0, kInf));

}  // namespace
}  // namespace zotdigest
