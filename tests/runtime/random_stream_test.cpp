// The mrg32k3a generator and the stream object over it: the step bit for bit
// against the plain recurrence, jumps against stepping, the draw order of
// permutations, and concurrent use of one stream.
#include "quorix/random_stream.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "../../runtime/src/mrg32k3a.h"
#include "support/raised_identifier.h"
#include "support/seeded_stream.h"

namespace quorix {
namespace {

namespace mrg = detail::mrg32k3a;
using test::raisedIdentifier;
using test::seededStream;

// One step of the two recurrences, the obvious way.
double referenceStep(mrg::State& s) {
  const std::int64_t m1 = 4294967087, m2 = 4294944443;
  std::int64_t p1 =
      (1403580 * static_cast<std::int64_t>(s[1]) - 810728 * static_cast<std::int64_t>(s[0])) % m1;
  if (p1 < 0) p1 += m1;
  std::int64_t p2 =
      (527612 * static_cast<std::int64_t>(s[5]) - 1370589 * static_cast<std::int64_t>(s[3])) % m2;
  if (p2 < 0) p2 += m2;
  s = {s[1], s[2], static_cast<std::uint64_t>(p1), s[4], s[5], static_cast<std::uint64_t>(p2)};
  return static_cast<double>(p1 > p2 ? p1 - p2 : p1 - p2 + m1) * 2.328306549295727688e-10;
}

// A jump of n steps lands where n steps do.
TEST(Mrg32k3a, draws_start_as_published_and_match_the_plain_recurrence_and_jumps_bit_for_bit) {
  auto zero = seededStream(0);
  EXPECT_NEAR(zero->uniform(), 0.127011122046577, 1e-15);
  EXPECT_NEAR(zero->uniform(), 0.318527565396794, 1e-15);
  EXPECT_NEAR(zero->uniform(), 0.309186015583270, 1e-15);
  for (const std::uint64_t seed : {0u, 1u, 4000000000u}) {
    auto single = seededStream(seed);
    auto bulk = seededStream(seed);
    const mrg::State start = mrg::streamStart(seed);
    mrg::State exported = start;
    mrg::State reference = start;
    constexpr std::size_t kDraws = 100000;
    std::vector<double> bulkDraws(kDraws);
    bulk->uniform(bulkDraws.data(), kDraws);
    for (std::size_t i = 0; i < kDraws; ++i) {
      const auto expected = std::bit_cast<std::uint64_t>(referenceStep(reference));
      ASSERT_EQ(std::bit_cast<std::uint64_t>(single->uniform()), expected) << "draw " << i;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(bulkDraws[i]), expected) << "draw " << i;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(mrg::step(exported)), expected) << "draw " << i;
      ASSERT_EQ(exported, reference);
      if (i == 0 || i == 1 || i == 6 || i == 999 || i == 4096) {
        EXPECT_EQ(mrg::jump(start, i + 1), reference) << i + 1 << " steps";
      }
    }
  }
}

// Substream k + 1 starts 2^76 steps after substream k, stream s + 1 2^127
// steps after stream s: each start is the previous one jumped once, and the
// jumps are the powers of the one-step matrices.
TEST(Mrg32k3a, substreams_and_streams_follow_each_other_by_composed_jumps) {
  const auto& sub = mrg::substreamJump();
  const auto& str = mrg::streamJump();
  // By binary powers, not by the squaring that made them: 2^76 = (2^38)^2,
  // 2^127 = 2^76 * 2^51.
  const std::uint64_t p38 = std::uint64_t{1} << 38, p51 = std::uint64_t{1} << 51;
  EXPECT_EQ(mrg::power(mrg::power(mrg::transition1(), p38, mrg::kM1), p38, mrg::kM1), sub.a1);
  EXPECT_EQ(mrg::power(mrg::power(mrg::transition2(), p38, mrg::kM2), p38, mrg::kM2), sub.a2);
  EXPECT_EQ(mrg::power(sub.a1, p51, mrg::kM1), str.a1);
  EXPECT_EQ(mrg::power(sub.a2, p51, mrg::kM2), str.a2);

  EXPECT_EQ(mrg::streamStart(0), mrg::baseState());
  for (const std::uint64_t s : {0u, 3u, 1000u, 4294967294u}) {
    const mrg::State begin = mrg::streamStart(s);
    EXPECT_EQ(mrg::apply(str.a1, str.a2, begin), mrg::streamStart(s + 1)) << s;
    EXPECT_EQ(mrg::substreamStart(begin, 1), begin);
    for (const std::uint64_t k : {1u, 2u, 10u, 999u}) {
      EXPECT_EQ(mrg::apply(sub.a1, sub.a2, mrg::substreamStart(begin, k)),
                mrg::substreamStart(begin, k + 1))
          << "stream " << s << ", substream " << k;
    }
  }
}

TEST(RandomStream, substream_selection_and_reset_move_to_their_starts) {
  auto s = seededStream(7);
  for (const std::uint64_t k : {3u, 1u, 1000000u}) {
    for (int i = 0; i < 11; ++i) s->uniform();  // selection does not depend on the position
    s->selectSubstream(k);
    mrg::State start = mrg::substreamStart(mrg::streamStart(7), k);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(s->uniform(), mrg::step(start)) << k;
  }
  s->reset(9);
  s->selectSubstream(2);  // substreams are then those of the new stream
  EXPECT_EQ(raisedIdentifier([&] { s->reset(std::uint64_t{1} << 32); }),
            "QUORIX:random:InvalidSeed");  // and a refused reset changes nothing
  auto twin = seededStream(9);
  twin->selectSubstream(2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(s->uniform(), twin->uniform());
}

// Batches of every length (the loop takes three steps a turn) draw the
// same sequence as single draws, and leave the stream where they would.
TEST(RandomStream, batches_draw_the_single_draws_sequence) {
  auto s = seededStream(5);
  auto twin = seededStream(5);
  double batch[8];
  for (std::size_t n = 0; n <= 8; ++n) {
    s->uniform(batch, n);
    for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(batch[i], twin->uniform()) << n;
    EXPECT_EQ(s->uniform(), twin->uniform()) << n;
  }
}

// P = 1..n, swap P[i] with P[i + floor(u (n - i))] for i = 0 .. k-1; a full
// permutation skips its last position.
std::vector<double> referencePermutation(RandomStream& s, std::size_t k, std::size_t n) {
  std::vector<double> p(n);
  for (std::size_t i = 0; i < n; ++i) p[i] = static_cast<double>(i + 1);
  const std::size_t swaps = k == n ? (n == 0 ? 0 : n - 1) : k;
  for (std::size_t i = 0; i < swaps; ++i) {
    const double u = s.uniform();
    std::swap(p[i], p[i + static_cast<std::size_t>(
                              std::floor(u * (static_cast<double>(n) - static_cast<double>(i))))]);
  }
  p.resize(k);
  return p;
}

// Small k out of a large n takes another path inside; both follow the rule.
TEST(RandomStream, permutation_follows_the_swap_rule_for_dense_and_sparse_ranges) {
  const std::pair<std::size_t, std::size_t> cases[] = {
      {1000, 1000}, {1, 1}, {0, 0}, {3, 10}, {40, 100000}};
  for (const auto& [k, n] : cases) {
    auto s = seededStream(8), twin = seededStream(8);
    std::vector<double> p(k);
    s->randomPermutation(p.data(), k, static_cast<double>(n));
    EXPECT_EQ(p, referencePermutation(*twin, k, n)) << k << " of " << n;
    EXPECT_EQ(s->uniform(), twin->uniform()) << k << " of " << n;
  }
}

TEST(RandomStream, impossible_requests_are_refused_by_identifier) {
  auto s = seededStream(0);
  std::vector<double> out(4);
  for (const double n : {3.0, 2.5, std::nan(""), HUGE_VAL}) {
    EXPECT_EQ(raisedIdentifier([&] { s->randomPermutation(out.data(), 4, n); }),
              "QUORIX:random:InvalidPermutation")
        << n;
  }
  EXPECT_EQ(raisedIdentifier([] { RandomStream::create("mrg32k3a", 999999, 0); }),
            "QUORIX:random:InvalidStreamCount");
  EXPECT_EQ(raisedIdentifier([] { RandomStream::create("lcg", 1000000, 0); }),
            "QUORIX:random:UnknownGenerator");
}

// Runs clean under ThreadSanitizer: the state words are relaxed atomics.
// Interleaved draws are not reproducible, but every draw stays in (0, 1) and
// whole numbers in their bounds, and once the threads are done the stream's
// substreams are again those of the seed it reports.
TEST(RandomStream, concurrent_draws_and_repositioning_leave_a_consistent_stream) {
  auto s = seededStream(1);
  std::thread drawer([&] {
    double buffer[16];
    for (int i = 0; i < 200; ++i) {
      s->uniform(buffer, 16);
      for (const double u : buffer) ASSERT_TRUE(u > 0.0 && u < 1.0) << u;
      s->wholeNumbers(buffer, 16, 1, 6);
      for (const double k : buffer) ASSERT_TRUE(k >= 1.0 && k <= 6.0 && k == std::floor(k)) << k;
    }
  });
  for (std::uint64_t i = 0; i < 2000; ++i) {
    s->selectSubstream(1 + i % 5);
    if (i % 50 == 0) s->reset(i % 7);
    s->uniform();
  }
  drawer.join();
  const std::uint64_t seed = s->seed();
  for (const std::uint64_t k : {1u, 4u}) {
    s->selectSubstream(k);
    mrg::State start = mrg::substreamStart(mrg::streamStart(seed), k);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(s->uniform(), mrg::step(start)) << "substream " << k;
  }
}

}  // namespace
}  // namespace quorix
