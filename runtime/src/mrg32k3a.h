// The arithmetic of the mrg32k3a generator, free of any stream object: one
// step, the two 3x3 transition matrices, their products and powers modulo
// m1 and m2, and jumps of a state by a matrix power. Internal to the
// runtime; exported only so the runtime's tests can check jumps against
// stepping.
//
// A state is x1[n-3], x1[n-2], x1[n-1], x2[n-3], x2[n-2], x2[n-1]. Every
// operation is exact integer arithmetic on values below 2^32.
#pragma once

#include <array>
#include <cstdint>

#include "quorix/config.h"

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
using Matrix = std::array<std::array<std::uint64_t, 3>, 3>;

// Six words 12345.
QUORIX_API State baseState() noexcept;

// Advances both components once (in place) and returns the uniform draw
// (x1 - x2) * norm when x1 > x2, else (x1 - x2 + m1) * norm.
QUORIX_API double step(State& s) noexcept;

// The same step, inline for the stream's drawing loops (an exported
// function is called through the symbol table even from inside the
// library).
inline double stepInline(State& s) noexcept {
  // Each component is reduced as one non-negative sum: the negative term
  // -a x[n-3] is written a (m - x[n-3]), the same value modulo m, so one
  // unsigned reduction does (every operand is below 2^32, every sum below
  // 2^64), and the part of a step that waits on the steps before is one
  // product, one sum and the reduction.
  //
  // Component 1: x1[n] = (1403580 x1[n-2] - 810728 x1[n-3]) mod m1.
  const std::uint64_t p1 =
      (static_cast<std::uint64_t>(kA12) * s[1] + static_cast<std::uint64_t>(kA13n) * (kM1 - s[0])) %
      kM1;
  s[0] = s[1];
  s[1] = s[2];
  s[2] = p1;

  // Component 2: x2[n] = (527612 x2[n-1] - 1370589 x2[n-3]) mod m2.
  const std::uint64_t p2 =
      (static_cast<std::uint64_t>(kA21) * s[5] + static_cast<std::uint64_t>(kA23n) * (kM2 - s[3])) %
      kM2;
  s[3] = s[4];
  s[4] = s[5];
  s[5] = p2;

  // The difference is below 2^32 in magnitude: exact as a double. m1 is
  // added to a difference of 0 or less by masking, not by a branch: the two
  // cases are equally likely.
  const std::int64_t difference = static_cast<std::int64_t>(p1) - static_cast<std::int64_t>(p2);
  const std::int64_t wrap = -static_cast<std::int64_t>(difference <= 0);
  return static_cast<double>(difference + (static_cast<std::int64_t>(kM1) & wrap)) * kNorm;
}

// The transition matrices: (x[n-3], x[n-2], x[n-1]) -> (x[n-2], x[n-1], x[n]).
QUORIX_API const Matrix& transition1() noexcept;
QUORIX_API const Matrix& transition2() noexcept;

QUORIX_API Matrix identity() noexcept;
// a * b modulo m.
QUORIX_API Matrix multiply(const Matrix& a, const Matrix& b, std::uint64_t m) noexcept;
// a^n modulo m, by repeated squaring.
QUORIX_API Matrix power(const Matrix& a, std::uint64_t n, std::uint64_t m) noexcept;
// a^(2^e) modulo m: a squared e times.
QUORIX_API Matrix powerOfTwo(const Matrix& a, unsigned e, std::uint64_t m) noexcept;

// The state after the jump: component 1 multiplied by j1 modulo m1,
// component 2 by j2 modulo m2.
QUORIX_API State apply(const Matrix& j1, const Matrix& j2, const State& s) noexcept;
// The state `steps` steps after s, by matrix powers.
QUORIX_API State jump(const State& s, std::uint64_t steps) noexcept;

// Transition powers for 2^76 steps (one substream) and 2^127 steps (one
// stream), computed once on first use by squaring.
struct JumpMatrices {
  Matrix a1;
  Matrix a2;
};
QUORIX_API const JumpMatrices& substreamJump() noexcept;
QUORIX_API const JumpMatrices& streamJump() noexcept;

// Start of stream s (the base state advanced s * 2^127 steps), and the start
// of substream k >= 1 of a stream whose start is given ((k - 1) * 2^76 steps
// later).
QUORIX_API State streamStart(std::uint64_t s) noexcept;
QUORIX_API State substreamStart(const State& streamBegin, std::uint64_t k) noexcept;

}  // namespace quorix::detail::mrg32k3a
