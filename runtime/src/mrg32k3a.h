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
#include "quorix/mrg32k3a_step.h"

namespace quorix::detail::mrg32k3a {

using Matrix = std::array<std::array<std::uint64_t, 3>, 3>;

// Six words 12345.
QUORIX_API State baseState() noexcept;

// stepInline, exported for the runtime's tests.
QUORIX_API double step(State& s) noexcept;

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
