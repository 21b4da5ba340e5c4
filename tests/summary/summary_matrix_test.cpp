// The summary matrix: its layout, round trips of every size, shape and
// content, refused matrices, what the decoder reads and skips, and the
// encoder's bound on trees whose stored heights do not describe them.
#include "summary/summary_matrix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::Column;
using testing::elements;
using testing::makeMatrix;
using testing::node;

constexpr std::int64_t kMaxHeight = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMinHeight = std::numeric_limits<std::int32_t>::min();
const Column kEmpty{0, 0, 0, 0};

// Nine nodes, to check that decoding replaces them.
CentroidTree occupiedTree() {
  CentroidTree t;
  for (int i = 0; i < 9; ++i) t.insert(100.0 + i, 2);
  return t;
}

CentroidTree decoded(const std::vector<Column>& columns) {
  CentroidTree t = occupiedTree();
  decodeSummary(t, makeMatrix(columns).get());
  return t;
}

TEST(SummaryLayout, rows_are_mean_bits_count_height_and_subtree_count_in_heap_order) {
  // 1..4 ascending: 2 at the root, 1 left, 3 right with 4 below it.
  CentroidTree t;
  for (int i = 1; i <= 4; ++i) t.insert(i, 1);
  const auto m = encodeSummary(t);
  EXPECT_EQ(m->classID(), quorix::ClassID::Int64);
  EXPECT_EQ(m->dims(), (quorix::Dims{4, 7}));
  EXPECT_EQ(elements(*m),
            elements(*makeMatrix({node(2, 1, 2, 4), node(1, 1, 0, 1), node(3, 1, 1, 2), kEmpty,
                                  kEmpty, kEmpty, node(4, 1, 0, 1)})));
}

class SummaryRoundTrip : public ::testing::TestWithParam<testing::Shape> {};

TEST_P(SummaryRoundTrip, every_size_comes_back_with_the_same_shape_and_bits) {
  const auto stream = testing::seededStream(11);
  for (int n = 0; n <= 300; ++n) {
    SCOPED_TRACE(n);
    const TDigest d = testing::makeDigest(GetParam(), n, *stream);
    const auto m = encodeSummary(d.tree);
    const std::size_t levels = d.tree.size() == 0 ? 0 : d.tree.root()->height + 1;
    ASSERT_EQ(m->dims(), (quorix::Dims{4, (std::size_t{1} << levels) - 1}));
    CentroidTree back = occupiedTree();  // replaced whole, even by an empty tree
    decodeSummary(back, m.get());
    ASSERT_EQ(back.size(), d.tree.size());
    ASSERT_EQ(elements(*encodeSummary(back)), elements(*m));  // same nodes, bit for bit
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, SummaryRoundTrip,
                         ::testing::Values(testing::kRandom, testing::kAscending,
                                           testing::kDescending, testing::kEqualMeans,
                                           testing::kCompressed));

TEST(SummaryBits, signed_zeros_nan_payloads_and_counts_past_two_to_the_63_survive) {
  CentroidTree t;
  // -0.0, +0.0, quiet NaN, negative NaN with payload, signalling NaN, +Inf,
  // -Inf, the smallest subnormal, the largest finite.
  for (const std::uint64_t p : {0x8000000000000000ull, 0x0ull, 0x7FF8000000000000ull,
                                0xFFF8000000000123ull, 0x7FF0000000000001ull, 0x7FF0000000000000ull,
                                0xFFF0000000000000ull, 0x1ull, 0x7FEFFFFFFFFFFFFFull}) {
    t.insert(std::bit_cast<double>(p), p % 3 == 0 ? ~std::uint64_t{0} : std::uint64_t{1} << 63);
  }
  CentroidTree back;
  decodeSummary(back, encodeSummary(t).get());
  ASSERT_EQ(back.size(), 9u);
  EXPECT_EQ(elements(*encodeSummary(back)), elements(*encodeSummary(t)));
}

TEST(SummaryRefused, wrong_rows_or_class_raise_data_malformed_and_keep_the_old_tree) {
  std::vector<quorix::HostArrayPtr> refused;
  for (const std::size_t rows : {0, 1, 3, 5, 8}) {
    refused.push_back(makeMatrix({node(1, 1, 0, 1), kEmpty, kEmpty}, rows));
  }
  for (const auto id : {quorix::ClassID::Double, quorix::ClassID::UInt64, quorix::ClassID::Int8}) {
    refused.push_back(quorix::HostArray::createNumericMatrix(4, 3, id));
  }
  refused.push_back(quorix::HostArray::createNumericMatrix(4, 1, quorix::ClassID::Int64, true));
  CentroidTree t = occupiedTree();
  const CentroidNode* rootBefore = t.root();
  const auto before = elements(*encodeSummary(t));
  for (const auto& m : refused) {
    EXPECT_EQ(testing::raisedIdentifier([&] { decodeSummary(t, m.get()); }),
              "stats:tdigest:DataMalformed");
  }
  decodeSummary(t, nullptr);  // no matrix: no change
  EXPECT_EQ(t.root(), rootBefore);
  EXPECT_EQ(elements(*encodeSummary(t)), before);
}

TEST(SummaryDecode, reads_whole_parents_only_skips_empty_slots_and_keeps_aggregates) {
  // 4 x 2: no complete parent, only the root, its stored aggregates kept.
  const CentroidTree two = decoded({node(3, 4, 1, 9), node(1, 5, 0, 5)});
  EXPECT_EQ(two.size(), 1u);
  EXPECT_EQ(two.root()->left, nullptr);
  EXPECT_EQ(two.root()->height, 1);
  EXPECT_EQ(two.root()->subtreeCount, 9u);
  // Slot 1 has count 0 and junk elsewhere: it and its children are skipped.
  const CentroidTree skipped = decoded({node(2, 1, 2, 2), node(9, 0, 4, 77), node(3, 1, 0, 1),
                                        node(0.5, 8, 0, 8), node(1.5, 8, 0, 8), kEmpty, kEmpty});
  EXPECT_EQ(skipped.size(), 2u);
  EXPECT_EQ(skipped.root()->left, nullptr);
  EXPECT_EQ(skipped.root()->right->parent, skipped.root());
  // A zero-count root: no root, a size of 1, and nothing to encode.
  const CentroidTree rootless = decoded({node(5, 0, 1, 3), node(1, 1, 0, 1), node(9, 1, 0, 1)});
  EXPECT_EQ(rootless.root(), nullptr);
  EXPECT_EQ(rootless.size(), 1u);
  EXPECT_EQ(encodeSummary(rootless)->columns(), 0u);
  // The height row contributes its low 32 bits.
  const std::pair<std::int64_t, std::int32_t> heights[] = {
      {0x100000002, 2},         {-1, -1},        {0xFFFFFFFF, -1}, {0x80000000, kMinHeight},
      {0x7FFFFFFF, kMaxHeight}, {-4294967296, 0}};
  for (const auto& [row, height] : heights) {
    EXPECT_EQ(decoded({node(1, 1, row, 1)}).root()->height, height) << row;
  }
}

TEST(SummaryEncode, implausible_root_heights_give_way_to_the_real_depth_capped_for_avl) {
  std::vector<Column> chain(31, kEmpty);  // a consistent right chain of five nodes
  for (int i = 0, slot = 0; i < 5; ++i, slot = 2 * slot + 2) chain[slot] = node(i, 1, 4 - i, 5 - i);
  std::vector<Column> wide;  // full to depth 5, every height INT32_MAX
  for (int j = 0; j < 63; ++j) wide.push_back(node(j, 1, kMaxHeight, 1));
  // {columns, expected column count}: a root with two leaves under junk root
  // heights, then under a root height below the depth; the chain (no AVL
  // tree of five nodes is taller than 2); the wide tree.
  std::vector<std::pair<std::vector<Column>, std::size_t>> cases{{chain, 7}, {wide, 63}};
  for (const std::int64_t h : {kMaxHeight, kMinHeight, std::int64_t{-1}, std::int64_t{5},
                               std::int64_t{2}, std::int64_t{0}}) {
    cases.push_back({{node(2, 2, h, 4), node(1, 1, -5, 1), node(3, 1, 0, 1)}, h == 0 ? 1u : 3u});
  }
  for (const auto& [columns, expected] : cases) {
    const auto m = encodeSummary(decoded(columns));
    ASSERT_EQ(m->columns(), expected);
    const auto stored = elements(*makeMatrix(columns));  // nodes copied as stored
    EXPECT_TRUE(std::equal(stored.begin(), stored.begin() + 4 * expected, elements(*m).begin()));
  }
}

}  // namespace
}  // namespace zotdigest
