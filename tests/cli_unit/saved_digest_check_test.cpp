// The check that a stored TDigest state is a tree the module could have
// written: each rule broken on its own gives its own reason, and the
// decoder refuses such a record as InvalidDigest.
#include "cli/saved_digest_check.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>

#include "cli/digest_file.h"
#include "cli_unit/digest_fixtures.h"

namespace zotdigest::cli {
namespace {

using testing::perfectTree;
using testing::savedDigest;
using testing::Slot;
using testing::sparseTree;

TEST(SavedDigestCheck, accepts_trees_the_module_could_write) {
  EXPECT_EQ(checkSavedDigest(savedDigest({})), "");
  EXPECT_EQ(checkSavedDigest(savedDigest({{1.5, 4, 0, 4}})), "");
  for (int h = 0; h <= 6; ++h) {
    EXPECT_EQ(checkSavedDigest(savedDigest(perfectTree(h))), "") << h;
    EXPECT_EQ(checkSavedDigest(savedDigest(sparseTree(h))), "") << h;
  }
  // equal neighbouring means, infinite means, a NaN mean, Delta +Inf
  std::vector<Slot> t = perfectTree(1);
  t[1].mean = 2.0;
  t[2].mean = INFINITY;
  EXPECT_EQ(checkSavedDigest(savedDigest(t)), "");
  t[1].mean = NAN;
  EXPECT_EQ(checkSavedDigest(savedDigest(t)), "");
  EXPECT_EQ(checkSavedDigest(savedDigest(t, INFINITY)), "");
  // NumDataPoints is not compared with the tree
  EXPECT_EQ(checkSavedDigest(savedDigest(t, 100.0, 12345)), "");
}

struct TreeDamage {
  const char* name;
  std::function<void(std::vector<Slot>&)> damage;
  const char* reason;
  friend void PrintTo(const TreeDamage& c, std::ostream* os) { *os << c.name; }
};

class SavedDigestTreeDamage : public ::testing::TestWithParam<TreeDamage> {};

TEST_P(SavedDigestTreeDamage, gives_its_own_reason) {
  std::vector<Slot> slots = perfectTree(3);  // 15 slots, in-order means 1..15
  GetParam().damage(slots);
  const std::string why = checkSavedDigest(savedDigest(slots));
  EXPECT_NE(why.find(GetParam().reason), std::string::npos) << why;

  // The decoder gives the same reason as InvalidDigest.
  std::vector<StoredDigest> digests;
  digests.push_back(StoredDigest{"", savedDigest(slots)});
  testing::PayloadWriter w;
  w.record("", digests[0].saved);
  try {
    decodeDigestFile(packDigestFile(w.bytes, 1));
    ADD_FAILURE() << "accepted";
  } catch (const DigestFileError& e) {
    EXPECT_EQ(e.code(), FileError::InvalidDigest);
    EXPECT_NE(std::string(e.what()).find(GetParam().reason), std::string::npos) << e.what();
  }
  EXPECT_THROW(encodeDigestFile(digests), InputError);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, SavedDigestTreeDamage,
    ::testing::Values(
        TreeDamage{"slot_count_not_levels", [](auto& s) { s.pop_back(); },
                   "not a whole number of tree levels"},
        TreeDamage{"empty_root", [](auto& s) { s.assign(1, Slot{}); }, "no root centroid"},
        TreeDamage{"leftover_in_empty_slot",
                   [](auto& s) {
                     s[14] = Slot{};
                     s[14].height = 3;
                   },
                   "empty slot 14 of the summary holds non-zero values"},
        TreeDamage{"node_below_empty_slot",
                   [](auto& s) {
                     s[1].count = 0;
                     s[1].mean = 0.0;
                     s[1].height = 0;
                     s[1].subtree = 0;
                   },
                   "centroid below the empty slot 1"},
        TreeDamage{"wrong_height", [](auto& s) { s[2].height = 1; },
                   "height stored in slot 2 of the summary is wrong"},
        TreeDamage{"leaf_height", [](auto& s) { s[9].height = 1; }, "height stored in slot 9"},
        TreeDamage{"wrong_subtree_weight", [](auto& s) { s[4].subtree += 1; },
                   "subtree weight stored in slot 4 of the summary is wrong"},
        TreeDamage{"subtree_overflow",
                   [](auto& s) {
                     s[13].count = ~std::uint64_t{0};
                     s[13].subtree = ~std::uint64_t{0};
                   },
                   "overflows"},
        TreeDamage{"unbalanced",
                   [](auto& s) {
                     // Remove the whole right subtree of the root's right
                     // child's children: right side height 1 vs left 2.
                     for (std::size_t j : {5, 6, 11, 12, 13, 14}) s[j] = Slot{};
                     s[2].height = 0;
                     s[2].subtree = s[2].count;
                     s[0].height = 3;
                   },
                   "not balanced at slot"},
        TreeDamage{"root_height_against_slots",
                   [](auto& s) {
                     // A valid tree of height 2 stored with one level too many.
                     s = perfectTree(2);
                     s.resize(15);
                   },
                   "root height does not match"},
        TreeDamage{"means_out_of_order", [](auto& s) { std::swap(s[7].mean, s[8].mean); },
                   "not in ascending order"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SavedDigestCheck, property_rules_each_give_their_reason) {
  const auto check = [](const std::function<void(quorix::SavedObject&)>& edit) {
    quorix::SavedObject s = savedDigest(perfectTree(1));
    edit(s);
    return checkSavedDigest(s);
  };
  const auto has = [](const std::string& why, const char* part) {
    return why.find(part) != std::string::npos;
  };
  EXPECT_TRUE(has(
      check([](auto& s) { s.properties[1].value = quorix::HostArray::createDoubleScalar(0.0); }),
      "Delta is not greater than 0"));
  EXPECT_TRUE(has(
      check([](auto& s) { s.properties[1].value = quorix::HostArray::createDoubleScalar(NAN); }),
      "Delta is not greater than 0"));
  EXPECT_TRUE(has(check([](auto& s) {
                    s.properties[1].value =
                        quorix::HostArray::createNumericMatrix(1, 2, quorix::ClassID::Double);
                  }),
                  "Delta is not a real double scalar"));
  EXPECT_TRUE(
      has(check([](auto& s) { s.properties[2].value = quorix::HostArray::createUInt64Scalar(2); }),
          "NumCentroids is 2 but the summary holds 3 centroids"));
  EXPECT_TRUE(
      has(check([](auto& s) { s.properties[3].value = quorix::HostArray::createDoubleScalar(3); }),
          "must be real uint64 scalars"));
  EXPECT_TRUE(has(check([](auto& s) {
                    s.properties[0].value =
                        quorix::HostArray::createNumericMatrix(3, 3, quorix::ClassID::Int64);
                  }),
                  "not a real int64 matrix with 4 rows"));
  EXPECT_TRUE(has(check([](auto& s) {
                    s.properties.push_back({"Delta", quorix::HostArray::createDoubleScalar(1)});
                  }),
                  "has property 'Delta' twice"));
  EXPECT_TRUE(has(check([](auto& s) { s.properties[3].value.reset(); }), "no value for property"));
  EXPECT_TRUE(has(check([](auto& s) {
                    s.properties[0].value =
                        quorix::HostArray::createNumericMatrix(4, 0, quorix::ClassID::Int64);
                  }),
                  "NumCentroids does not match the summary, which is empty"));
}

}  // namespace
}  // namespace zotdigest::cli
