// The substream counter's wrap rule and the shared per-call generator.
#include "build/substream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <set>

#include <tbb/blocked_range.h>
#include <tbb/concurrent_vector.h>
#include <tbb/parallel_for.h>

namespace zotdigest {
namespace {

TEST(SubstreamIndex, runs_from_1_to_one_million_and_starts_again_at_1) {
  std::atomic<std::uint64_t> counter{0};
  EXPECT_EQ(takeSubstreamIndex(counter), 1u);
  EXPECT_EQ(takeSubstreamIndex(counter), 2u);
  counter = kSubstreamCount - 1;
  EXPECT_EQ(takeSubstreamIndex(counter), kSubstreamCount);
  EXPECT_EQ(takeSubstreamIndex(counter), 1u);
  EXPECT_EQ(counter.load(), 1u);
}

TEST(SubstreamIndex, a_counter_pushed_past_the_limit_keeps_counting) {
  std::atomic<std::uint64_t> counter{kSubstreamCount + 1};
  EXPECT_EQ(takeSubstreamIndex(counter), kSubstreamCount + 2);
}

TEST(SubstreamIndex, process_counter_never_gives_0_and_wraps_single_threaded) {
  std::uint64_t previous = nextSubstreamIndex();
  bool wrapped = false;
  for (std::uint64_t i = 0; i < kSubstreamCount; ++i) {
    const std::uint64_t k = nextSubstreamIndex();
    ASSERT_GE(k, 1u);
    ASSERT_LE(k, kSubstreamCount);
    if (previous == kSubstreamCount) {
      ASSERT_EQ(k, 1u);
      wrapped = true;
    } else {
      ASSERT_EQ(k, previous + 1);
    }
    previous = k;
  }
  EXPECT_TRUE(wrapped);
}

TEST(CallGenerator, every_thread_slot_holds_the_one_generator) {
  auto seed = quorix::RandomStream::create("mrg32k3a", 1000000, 1);
  CallGenerator generator(*seed);
  tbb::concurrent_vector<quorix::RandomStream*> seen;
  tbb::parallel_for(tbb::blocked_range<int>(0, 64, 1), [&](const tbb::blocked_range<int>&) {
    seen.push_back(generator.slots().local());
  });
  const std::set<quorix::RandomStream*> distinct(seen.begin(), seen.end());
  ASSERT_EQ(distinct.size(), 1u);
  EXPECT_NE(*distinct.begin(), nullptr);
  EXPECT_NE(*distinct.begin(), seed.get());
}

TEST(CallGenerator, is_seeded_from_one_whole_number_draw_of_the_seed_stream) {
  auto seedA = quorix::RandomStream::create("mrg32k3a", 1000000, 77);
  auto seedB = quorix::RandomStream::create("mrg32k3a", 1000000, 77);
  double draw = 0.0;
  seedB->wholeNumbers(&draw, 1, 0.0, 999999.0);
  auto expected = quorix::RandomStream::create("mrg32k3a", 1000000,
                                               static_cast<std::uint64_t>(draw));
  CallGenerator generator(*seedA);
  quorix::RandomStream* shared = generator.slots().local();
  EXPECT_EQ(shared->seed(), expected->seed());
  EXPECT_EQ(shared->uniform(), expected->uniform());
  // The seed stream moved by exactly that one draw.
  EXPECT_EQ(seedA->uniform(), seedB->uniform());
}

TEST(CallGenerator, moving_to_a_fresh_substream_positions_the_shared_generator) {
  auto seed = quorix::RandomStream::create("mrg32k3a", 1000000, 2);
  CallGenerator generator(*seed);
  quorix::RandomStream* shared = generator.slots().local();
  auto twin = quorix::RandomStream::create("mrg32k3a", 1000000, shared->seed());
  quorix::RandomStream* moved = moveToFreshSubstream(generator.slots());
  EXPECT_EQ(moved, shared);
  // The index taken was the one before the counter's current value.
  const std::uint64_t next = nextSubstreamIndex();
  twin->selectSubstream(next == 1 ? kSubstreamCount : next - 1);
  EXPECT_EQ(moved->uniform(), twin->uniform());
}

}  // namespace
}  // namespace zotdigest
