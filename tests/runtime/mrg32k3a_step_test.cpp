// The generator's step, as every drawing operation of a stream makes it,
// against the recurrence written out plainly (with a branch where the step
// masks): the same words and the same doubles, bit for bit.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "../../runtime/src/mrg32k3a.h"
#include "quorix/random_stream.h"

namespace {

namespace mrg = quorix::detail::mrg32k3a;

// One step of the two recurrences, the obvious way.
double referenceStep(mrg::State& s, bool& wrapped) {
  const std::int64_t m1 = 4294967087;
  const std::int64_t m2 = 4294944443;
  std::int64_t p1 =
      (1403580 * static_cast<std::int64_t>(s[1]) - 810728 * static_cast<std::int64_t>(s[0])) % m1;
  if (p1 < 0) p1 += m1;
  std::int64_t p2 =
      (527612 * static_cast<std::int64_t>(s[5]) - 1370589 * static_cast<std::int64_t>(s[3])) % m2;
  if (p2 < 0) p2 += m2;
  s = {s[1], s[2], static_cast<std::uint64_t>(p1), s[4], s[5], static_cast<std::uint64_t>(p2)};
  wrapped = p1 <= p2;
  return static_cast<double>(p1 > p2 ? p1 - p2 : p1 - p2 + m1) * 2.328306549295727688e-10;
}

TEST(Mrg32k3aStep, every_drawing_path_matches_the_plain_recurrence_bit_for_bit) {
  for (const std::uint64_t seed : {0u, 1u, 4000000000u}) {
    auto single = quorix::RandomStream::create("mrg32k3a", 1000000, seed);
    auto bulk = quorix::RandomStream::create("mrg32k3a", 1000000, seed);
    mrg::State exported = mrg::streamStart(seed);
    mrg::State reference = exported;
    constexpr std::size_t kDraws = 100000;
    std::vector<double> bulkDraws(kDraws);
    bulk->uniform(bulkDraws.data(), kDraws);
    std::size_t wraps = 0;
    for (std::size_t i = 0; i < kDraws; ++i) {
      bool wrapped = false;
      const auto expected = std::bit_cast<std::uint64_t>(referenceStep(reference, wrapped));
      wraps += wrapped ? 1 : 0;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(single->uniform()), expected) << "draw " << i;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(bulkDraws[i]), expected) << "draw " << i;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(mrg::step(exported)), expected) << "draw " << i;
      ASSERT_EQ(exported, reference);
    }
    // Both sides of the wrap were taken, about equally often.
    EXPECT_GT(wraps, kDraws / 3);
    EXPECT_LT(wraps, 2 * kDraws / 3);
  }
}

}  // namespace
