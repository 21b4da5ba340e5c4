// The grouped build: every group's digest is the reproducible digest of
// that group's values (or pairs) in input order, on any number of threads;
// then the edge cases of the codes.
#include "engine/grouped_build.h"

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <random>
#include <string>
#include <vector>

#include "build_state.h"
#include "engine/errors.h"
#include "quorix/interrupt.h"
#include "quorix/messages.h"
#include "quorix/module.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArrayPtr;
using testing::state;

constexpr std::size_t B = kBlockSize;

struct Grouped {
  std::vector<double> x;
  std::vector<std::int64_t> codes;
  std::vector<std::uint64_t> w;
  std::size_t groups;
};

// Group 0 takes more than a block (the parallel build), the others are
// small; some codes are negative (dropped), some weights 0.
Grouped sample(std::size_t n, std::size_t groups) {
  Grouped g{testing::lognormal(n, 3), std::vector<std::int64_t>(n), std::vector<std::uint64_t>(n),
            groups};
  std::mt19937_64 rng(9);
  for (std::size_t i = 0; i < n; ++i) {
    const auto r = rng() % 100;
    g.codes[i] = r < 5 ? -1 : r < 60 ? 0 : static_cast<std::int64_t>(rng() % groups);
    g.w[i] = rng() % 4;
  }
  return g;
}

// The definition: each group's values gathered in order, built alone.
HostArrayPtr expectedDigest(const Grouped& g, std::size_t group, bool weighted) {
  std::vector<double> x;
  std::vector<std::uint64_t> w;
  for (std::size_t i = 0; i < g.x.size(); ++i) {
    if (g.codes[i] == static_cast<std::int64_t>(group)) {
      x.push_back(g.x[i]);
      w.push_back(g.w[i]);
    }
  }
  if (weighted) return reproducibleDigest(x.data(), ClassID::Double, w.data(), x.size(), {});
  ReproducibleBuild build({});
  build.append(x.data(), x.size(), ClassID::Double);
  return build.finish();
}

std::vector<HostArrayPtr> grouped(const Grouped& g, bool weighted) {
  return groupedDigests({g.x.data(), ClassID::Double, g.x.size(), g.codes.data(), g.groups,
                         weighted ? g.w.data() : nullptr},
                        {});
}

class GroupedBuildTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { quorix::Module::load("libzotdigest"); }
};

TEST_F(GroupedBuildTest, each_group_is_the_digest_of_its_values_on_any_threads) {
  const Grouped g = sample(2 * B + 1234, 40);  // group 39 may stay empty or tiny
  for (const bool weighted : {false, true}) {
    std::vector<std::vector<std::vector<std::uint64_t>>> expected;
    for (std::size_t k = 0; k < g.groups; ++k) {
      expected.push_back(state(*expectedDigest(g, k, weighted)));
    }
    for (const std::size_t threads : {1, 2, 4}) {
      const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
      const std::vector<HostArrayPtr> digests = grouped(g, weighted);
      ASSERT_EQ(digests.size(), g.groups);
      for (std::size_t k = 0; k < g.groups; ++k) {
        EXPECT_EQ(state(*digests[k]), expected[k])
            << "group " << k << ", " << threads << " threads, weighted " << weighted;
      }
    }
  }
}

TEST_F(GroupedBuildTest, one_group_every_value_its_own_group_and_empty_input) {
  Grouped g = sample(3000, 1);
  for (auto& c : g.codes) c = 0;
  EXPECT_EQ(state(*grouped(g, false)[0]), state(*expectedDigest(g, 0, false)));
  for (std::size_t i = 0; i < g.codes.size(); ++i) g.codes[i] = static_cast<std::int64_t>(i);
  g.groups = g.codes.size() + 2;  // the last two groups have no values
  const std::vector<HostArrayPtr> own = grouped(g, true);
  for (const std::size_t k : {std::size_t{0}, std::size_t{1234}, std::size_t{2999}, g.groups - 1}) {
    EXPECT_EQ(state(*own[k]), state(*expectedDigest(g, k, true))) << "group " << k;
  }
  const Grouped none{{}, {}, {}, 3};
  const std::vector<HostArrayPtr> empty = grouped(none, false);
  ASSERT_EQ(empty.size(), 3u);
  EXPECT_EQ(state(*empty[2]), state(*expectedDigest(none, 2, false)));
}

TEST_F(GroupedBuildTest, a_code_past_the_groups_is_refused_by_position) {
  Grouped g = sample(5000, 7);
  g.codes[4321] = 7;
  g.codes[4400] = 70;
  try {
    grouped(g, false);
    ADD_FAILURE() << "no error";
  } catch (const InputError& e) {
    EXPECT_EQ(std::string(e.what()),
              "group code 7 at position 4321 is not below the number of groups (7)");
  }
}

TEST_F(GroupedBuildTest, ctrl_c_stops_it_and_is_consumed) {
  const Grouped g = sample(B + 100, 500);
  for (const unsigned threads : {1u, 2u}) {
    quorix::requestInterrupt();
    try {
      groupedDigests({g.x.data(), ClassID::Double, g.x.size(), g.codes.data(), g.groups},
                     {100.0, 0, threads});
      ADD_FAILURE() << "not stopped";
    } catch (const quorix::MsgIDException& e) {
      EXPECT_EQ(e.identifier(), "QUORIX:interrupt:Interrupted");
    }
    EXPECT_FALSE(quorix::interruptPending());
  }
}

}  // namespace
}  // namespace zotdigest::engine
