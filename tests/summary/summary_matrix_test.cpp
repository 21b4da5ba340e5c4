#include "summary/summary_matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "summary_helpers.h"

namespace zotdigest {
namespace {

using testing::bitsOf;
using testing::Column;
using testing::columnOf;
using testing::elements;
using testing::emptySlot;
using testing::expectRaises;
using testing::makeMatrix;
using testing::node;
using testing::sameTree;
using testing::Shape;
using testing::ubitsOf;

constexpr std::int32_t kMaxHeight = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMinHeight = std::numeric_limits<std::int32_t>::min();

std::uint64_t fullColumns(std::int32_t h) { return (UINT64_C(1) << (h + 1)) - 1; }

// A tree with some nodes in it, to check that decoding replaces it.
CentroidTree occupiedTree() {
  CentroidTree t;
  for (int i = 0; i < 9; ++i) t.insert(100.0 + i, 2);
  return t;
}

// --- layout of small trees ---------------------------------------------------

TEST(SummaryLayout, empty_tree_is_four_by_zero_and_four_by_zero_empties_a_tree) {
  const CentroidTree empty;
  const auto m = encodeSummary(empty);
  EXPECT_EQ(m->classID(), quorix::ClassID::Int64);
  EXPECT_FALSE(m->isComplex());
  EXPECT_EQ(m->rows(), 4u);
  EXPECT_EQ(m->columns(), 0u);

  CentroidTree t = occupiedTree();
  decodeSummary(t, m.get());
  EXPECT_EQ(t.size(), 0u);
  EXPECT_EQ(t.root(), nullptr);
}

TEST(SummaryLayout, one_centroid_is_mean_bits_count_zero_height_and_count) {
  CentroidTree t;
  t.insert(-2.75, 41);
  const auto m = encodeSummary(t);
  ASSERT_EQ(m->columns(), 1u);
  EXPECT_EQ(columnOf(*m, 0), (Column{bitsOf(-2.75), 41, 0, 41}));
}

TEST(SummaryLayout, two_centroids_take_three_columns_one_of_them_all_zero) {
  CentroidTree rightChild;
  rightChild.insert(1.0, 5);
  rightChild.insert(2.0, 7);
  const auto r = encodeSummary(rightChild);
  ASSERT_EQ(r->columns(), 3u);
  EXPECT_EQ(columnOf(*r, 0), (Column{bitsOf(1.0), 5, 1, 12}));
  EXPECT_EQ(columnOf(*r, 1), emptySlot());
  EXPECT_EQ(columnOf(*r, 2), (Column{bitsOf(2.0), 7, 0, 7}));

  CentroidTree leftChild;
  leftChild.insert(2.0, 7);
  leftChild.insert(1.0, 5);
  const auto l = encodeSummary(leftChild);
  ASSERT_EQ(l->columns(), 3u);
  EXPECT_EQ(columnOf(*l, 1), (Column{bitsOf(1.0), 5, 0, 5}));
  EXPECT_EQ(columnOf(*l, 2), emptySlot());
}

TEST(SummaryLayout, deeper_levels_are_padded_below_missing_children) {
  // 1..4 ascending: 2 at the root, 1 left, 3 right with 4 below it.
  CentroidTree t;
  for (int i = 1; i <= 4; ++i) t.insert(i, 1);
  const auto m = encodeSummary(t);
  ASSERT_EQ(m->columns(), 7u);
  EXPECT_EQ(columnOf(*m, 0), (Column{bitsOf(2.0), 1, 2, 4}));
  EXPECT_EQ(columnOf(*m, 1), (Column{bitsOf(1.0), 1, 0, 1}));
  EXPECT_EQ(columnOf(*m, 2), (Column{bitsOf(3.0), 1, 1, 2}));
  EXPECT_EQ(columnOf(*m, 3), emptySlot());
  EXPECT_EQ(columnOf(*m, 4), emptySlot());
  EXPECT_EQ(columnOf(*m, 5), emptySlot());
  EXPECT_EQ(columnOf(*m, 6), (Column{bitsOf(4.0), 1, 0, 1}));
}

// --- round trips over shapes and sizes ----------------------------------------

class SummaryRoundTrip : public ::testing::TestWithParam<Shape> {};

TEST_P(SummaryRoundTrip, every_size_comes_back_with_the_same_shape_and_bits) {
  const auto stream = testing::makeStream(11);
  for (int n = 0; n <= 300; ++n) {
    SCOPED_TRACE(n);
    const TDigest d = testing::makeDigest(GetParam(), n, *stream);
    const auto m = encodeSummary(d.tree);
    ASSERT_EQ(m->rows(), 4u);
    if (d.tree.size() == 0) {
      EXPECT_EQ(m->columns(), 0u);
    } else {
      ASSERT_EQ(m->columns(), fullColumns(d.tree.root()->height));
      // Heap layout: a slot holds a node only below a slot that does.
      for (std::size_t j = 1; j < m->columns(); ++j) {
        if (columnOf(*m, j)[1] != 0) {
          ASSERT_NE(columnOf(*m, (j - 1) / 2)[1], 0) << j;
        }
      }
    }

    CentroidTree back = occupiedTree();
    decodeSummary(back, m.get());
    ASSERT_TRUE(sameTree(d.tree, back));
    EXPECT_EQ(elements(*encodeSummary(back)), elements(*m));
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, SummaryRoundTrip,
                         ::testing::Values(Shape::RandomInserts, Shape::SortedInserts,
                                           Shape::DescendingInserts, Shape::EqualMeans,
                                           Shape::Compressed),
                         [](const auto& info) { return testing::shapeName(info.param); });

TEST(SummaryRoundTripBits, negative_zero_nan_payloads_and_infinities_survive_bit_for_bit) {
  const std::vector<std::uint64_t> patterns = {
      UINT64_C(0x8000000000000000),  // -0.0
      UINT64_C(0x0000000000000000),  // +0.0
      UINT64_C(0x7FF8000000000000),  // quiet NaN
      UINT64_C(0xFFF8000000000123),  // negative quiet NaN with payload
      UINT64_C(0x7FF0000000000001),  // signalling NaN
      UINT64_C(0x7FF0000000000000),  // +Inf
      UINT64_C(0xFFF0000000000000),  // -Inf
      UINT64_C(0x0000000000000001),  // smallest subnormal
      UINT64_C(0x7FEFFFFFFFFFFFFF),  // largest finite
  };
  CentroidTree t;
  for (const std::uint64_t p : patterns) t.insert(std::bit_cast<double>(p), 3);
  const auto m = encodeSummary(t);
  CentroidTree back;
  decodeSummary(back, m.get());
  ASSERT_TRUE(sameTree(t, back));

  std::vector<Centroid> before;
  std::vector<Centroid> after;
  t.listCentroids(before);
  back.listCentroids(after);
  ASSERT_EQ(before.size(), patterns.size());
  ASSERT_EQ(after.size(), patterns.size());
  for (std::size_t i = 0; i < before.size(); ++i) {
    EXPECT_EQ(ubitsOf(after[i].mean), ubitsOf(before[i].mean)) << i;
  }
}

TEST(SummaryRoundTripBits, counts_at_and_above_two_to_the_63_stay_unsigned) {
  CentroidTree t;
  t.insert(1.0, UINT64_C(0xFFFFFFFFFFFFFFFF));
  t.insert(2.0, UINT64_C(0x8000000000000000));
  const auto m = encodeSummary(t);
  EXPECT_EQ(columnOf(*m, 0)[1], -1);
  CentroidTree back;
  decodeSummary(back, m.get());
  ASSERT_TRUE(sameTree(t, back));
  EXPECT_EQ(back.root()->count, UINT64_C(0xFFFFFFFFFFFFFFFF));
  EXPECT_EQ(back.root()->right->count, UINT64_C(0x8000000000000000));
}

// --- refused matrices -----------------------------------------------------------

class SummaryRefusedRows : public ::testing::TestWithParam<std::size_t> {};

TEST_P(SummaryRefusedRows, raise_data_malformed_and_keep_the_old_tree) {
  CentroidTree t = occupiedTree();
  const CentroidNode* rootBefore = t.root();
  const auto before = elements(*encodeSummary(t));
  const auto m = makeMatrix({node(1.0, 1, 0, 1), emptySlot(), emptySlot()}, GetParam());
  const auto args = expectRaises([&] { decodeSummary(t, m.get()); }, "stats:tdigest:DataMalformed");
  EXPECT_TRUE(args.empty());
  EXPECT_EQ(t.root(), rootBefore);
  EXPECT_EQ(t.size(), 9u);
  EXPECT_EQ(elements(*encodeSummary(t)), before);
}

INSTANTIATE_TEST_SUITE_P(RowCounts, SummaryRefusedRows, ::testing::Values(0, 1, 3, 5, 8));

TEST(SummaryRefused, arrays_that_are_not_real_int64_are_refused_before_any_change) {
  CentroidTree t = occupiedTree();
  const CentroidNode* rootBefore = t.root();
  for (const auto id : {quorix::ClassID::Double, quorix::ClassID::UInt64, quorix::ClassID::Int8}) {
    const auto m = quorix::HostArray::createNumericMatrix(4, 3, id);
    expectRaises([&] { decodeSummary(t, m.get()); }, "stats:tdigest:DataMalformed");
  }
  const auto complex = quorix::HostArray::createNumericMatrix(4, 1, quorix::ClassID::Int64, true);
  expectRaises([&] { decodeSummary(t, complex.get()); }, "stats:tdigest:DataMalformed");
  EXPECT_EQ(t.root(), rootBefore);
  EXPECT_EQ(t.size(), 9u);
}

TEST(SummaryRefused, no_matrix_changes_nothing) {
  CentroidTree t = occupiedTree();
  const CentroidNode* rootBefore = t.root();
  decodeSummary(t, nullptr);
  EXPECT_EQ(t.root(), rootBefore);
  EXPECT_EQ(t.size(), 9u);
}

// --- what the decoder reads and what it skips ----------------------------------

TEST(SummaryDecode, four_by_two_yields_only_the_root) {
  CentroidTree t = occupiedTree();
  const auto m = makeMatrix({node(3.0, 4, 1, 9), node(1.0, 5, 0, 5)});
  decodeSummary(t, m.get());
  EXPECT_EQ(t.size(), 1u);
  ASSERT_NE(t.root(), nullptr);
  EXPECT_EQ(t.root()->left, nullptr);
  EXPECT_EQ(t.root()->right, nullptr);
  // The root keeps its stored aggregates as they stand.
  EXPECT_EQ(t.root()->height, 1);
  EXPECT_EQ(t.root()->subtreeCount, 9u);
}

TEST(SummaryDecode, columns_past_the_last_complete_parent_are_ignored) {
  // Four columns: P = 1, so column 3 (a left child of column 1) is not read.
  CentroidTree four;
  decodeSummary(four, makeMatrix({node(2.0, 1, 1, 3), node(1.0, 1, 0, 1), node(3.0, 1, 0, 1),
                                  node(0.5, 1, 0, 1)})
                          .get());
  EXPECT_EQ(four.size(), 3u);
  EXPECT_EQ(four.root()->left->left, nullptr);

  // Six columns: P = 2, column 4 is read, column 5 is not.
  CentroidTree six;
  decodeSummary(six, makeMatrix({node(2.0, 1, 2, 5), node(1.0, 1, 1, 3), node(3.0, 1, 0, 1),
                                 node(0.5, 1, 0, 1), node(1.5, 1, 0, 1), node(2.5, 1, 0, 1)})
                         .get());
  EXPECT_EQ(six.size(), 5u);
  EXPECT_EQ(six.root()->right->left, nullptr);
  EXPECT_EQ(six.root()->left->right->mean, 1.5);
}

TEST(SummaryDecode, columns_under_an_empty_slot_are_ignored) {
  // Slot 1 has count 0 but junk elsewhere; its children 3 and 4 hold nodes.
  const std::vector<Column> cols = {node(2.0, 1, 2, 2), Column{bitsOf(9.0), 0, 4, 77},
                                    node(3.0, 1, 0, 1), node(0.5, 8, 0, 8),
                                    node(1.5, 8, 0, 8), emptySlot(),
                                    emptySlot()};
  CentroidTree t;
  decodeSummary(t, makeMatrix(cols).get());
  EXPECT_EQ(t.size(), 2u);
  EXPECT_EQ(t.root()->left, nullptr);
  ASSERT_NE(t.root()->right, nullptr);
  EXPECT_EQ(t.root()->right->parent, t.root());
  EXPECT_EQ(t.root()->right->mean, 3.0);
}

TEST(SummaryDecode, zero_count_root_gives_a_rootless_tree_of_size_one) {
  CentroidTree t = occupiedTree();
  decodeSummary(
      t, makeMatrix({Column{bitsOf(5.0), 0, 1, 3}, node(1.0, 1, 0, 1), node(9.0, 1, 0, 1)}).get());
  EXPECT_EQ(t.root(), nullptr);
  EXPECT_EQ(t.size(), 1u);
  EXPECT_EQ(encodeSummary(t)->columns(), 0u);
}

TEST(SummaryDecode, height_row_contributes_its_low_32_bits) {
  const std::vector<std::pair<std::int64_t, std::int32_t>> cases = {
      {INT64_C(0x100000002), 2},         {-1, -1},
      {INT64_C(0xFFFFFFFF), -1},         {INT64_C(0x80000000), kMinHeight},
      {INT64_C(0x7FFFFFFF), kMaxHeight}, {INT64_C(-4294967296), 0},
  };
  for (const auto& [row, height] : cases) {
    CentroidTree t;
    decodeSummary(t, makeMatrix({node(1.0, 1, row, 1)}).get());
    EXPECT_EQ(t.root()->height, height) << row;
  }
}

// --- the encoder on trees whose heights do not describe them ------------------

// Root, left and right leaf, with the given stored root height.
CentroidTree threeNodes(std::int64_t rootHeight) {
  CentroidTree t;
  decodeSummary(
      t, makeMatrix({node(2.0, 2, rootHeight, 4), node(1.0, 1, 0, 1), node(3.0, 1, 0, 1)}).get());
  return t;
}

TEST(SummaryEncodeBounds, implausible_root_heights_give_way_to_the_real_depth) {
  for (const std::int64_t h : {std::int64_t{kMaxHeight}, std::int64_t{kMinHeight}, std::int64_t{-1},
                               std::int64_t{5}, std::int64_t{2}}) {
    SCOPED_TRACE(h);
    const CentroidTree t = threeNodes(h);
    const auto m = encodeSummary(t);
    ASSERT_EQ(m->columns(), 3u);
    // The nodes are still copied as they stand, stored height included.
    EXPECT_EQ(columnOf(*m, 0), (Column{bitsOf(2.0), 2, static_cast<std::int32_t>(h), 4}));
    EXPECT_EQ(columnOf(*m, 1), (Column{bitsOf(1.0), 1, 0, 1}));
  }
}

TEST(SummaryEncodeBounds, a_root_height_below_the_real_depth_encodes_that_many_levels) {
  const auto m = encodeSummary(threeNodes(0));
  ASSERT_EQ(m->columns(), 1u);
  EXPECT_EQ(columnOf(*m, 0), (Column{bitsOf(2.0), 2, 0, 4}));
}

TEST(SummaryEncodeBounds, node_heights_are_written_sign_extended_as_stored) {
  CentroidTree t;
  decodeSummary(t, makeMatrix({node(2.0, 2, 1, 3), node(1.0, 1, -5, 1), emptySlot()}).get());
  const auto m = encodeSummary(t);
  ASSERT_EQ(m->columns(), 3u);
  EXPECT_EQ(columnOf(*m, 1)[2], -5);
}

TEST(SummaryEncodeBounds, an_unbalanced_chain_is_cut_at_the_avl_height_of_its_node_count) {
  // A right chain of five nodes with consistent heights 4..0 in slots
  // 0, 2, 6, 14, 30. No AVL tree of five nodes is taller than 2.
  std::vector<Column> cols(31, emptySlot());
  const std::size_t slots[] = {0, 2, 6, 14, 30};
  for (int i = 0; i < 5; ++i) cols[slots[i]] = node(i, 1, 4 - i, 5 - i);
  CentroidTree t;
  decodeSummary(t, makeMatrix(cols).get());
  ASSERT_EQ(t.size(), 5u);
  const auto m = encodeSummary(t);
  ASSERT_EQ(m->columns(), 7u);
  EXPECT_EQ(columnOf(*m, 6), cols[6]);
}

TEST(SummaryEncodeBounds, a_huge_decoded_height_on_a_wide_tree_stays_bounded) {
  // 63 columns, full to depth 5, every stored height INT32_MAX.
  std::vector<Column> cols;
  for (int j = 0; j < 63; ++j) cols.push_back(node(j, 1, kMaxHeight, 1));
  CentroidTree t;
  decodeSummary(t, makeMatrix(cols).get());
  ASSERT_EQ(t.size(), 63u);
  const auto m = encodeSummary(t);
  EXPECT_EQ(m->columns(), 63u);
}

}  // namespace
}  // namespace zotdigest
