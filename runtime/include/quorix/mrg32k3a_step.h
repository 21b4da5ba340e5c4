// One step of the mrg32k3a generator, inline. Part of the runtime's public
// headers only so that UniformCursor can draw in its user's own loop; the
// rest of the generator's arithmetic (jumps, matrices) is internal.
//
// A state is x1[n-3], x1[n-2], x1[n-1], x2[n-3], x2[n-2], x2[n-1]. Every
// operation is exact integer arithmetic on values below 2^32.
#pragma once

#include <array>
#include <cstdint>

namespace quorix::detail::mrg32k3a {

inline constexpr std::uint64_t kM1 = 4294967087u;
inline constexpr std::uint64_t kM2 = 4294944443u;
inline constexpr double kNorm = 2.328306549295727688e-10;
inline constexpr std::uint64_t kBaseWord = 12345u;
// Multipliers of the two recurrences (n: the magnitude of a negative one).
inline constexpr std::int64_t kA12 = 1403580;
inline constexpr std::int64_t kA13n = 810728;
inline constexpr std::int64_t kA21 = 527612;
inline constexpr std::int64_t kA23n = 1370589;

using State = std::array<std::uint64_t, 6>;

// Advances both components once (in place) and returns the uniform draw
// (x1 - x2) * norm when x1 > x2, else (x1 - x2 + m1) * norm. Inline, for
// drawing loops (the runtime's and UniformCursor's).
inline double stepInline(State& s) noexcept {
  // Component 1: x1[n] = (1403580 x1[n-2] - 810728 x1[n-3]) mod m1. Both
  // products are below 2^53, so the difference is exact in int64.
  std::int64_t p1 =
      kA12 * static_cast<std::int64_t>(s[1]) - kA13n * static_cast<std::int64_t>(s[0]);
  p1 %= static_cast<std::int64_t>(kM1);
  if (p1 < 0) {
    p1 += static_cast<std::int64_t>(kM1);
  }
  s[0] = s[1];
  s[1] = s[2];
  s[2] = static_cast<std::uint64_t>(p1);

  // Component 2: x2[n] = (527612 x2[n-1] - 1370589 x2[n-3]) mod m2.
  std::int64_t p2 =
      kA21 * static_cast<std::int64_t>(s[5]) - kA23n * static_cast<std::int64_t>(s[3]);
  p2 %= static_cast<std::int64_t>(kM2);
  if (p2 < 0) {
    p2 += static_cast<std::int64_t>(kM2);
  }
  s[3] = s[4];
  s[4] = s[5];
  s[5] = static_cast<std::uint64_t>(p2);

  // The difference is below 2^32 in magnitude: exact as a double. m1 is
  // added to a difference of 0 or less by masking, not by a branch: the two
  // cases are equally likely.
  const std::int64_t difference = p1 - p2;
  const std::int64_t wrap = -static_cast<std::int64_t>(difference <= 0);
  return static_cast<double>(difference + (static_cast<std::int64_t>(kM1) & wrap)) * kNorm;
}

}  // namespace quorix::detail::mrg32k3a
