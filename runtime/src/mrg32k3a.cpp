// mrg32k3a arithmetic. Matrix entries and state words are below 2^32, so a
// product fits 64 bits and a row of three products fits 128 bits: each dot
// product is summed exactly in unsigned __int128 and reduced once.
#include "mrg32k3a.h"

namespace quorix::detail::mrg32k3a {

namespace {

using Wide = unsigned __int128;

std::uint64_t dot(const std::array<std::uint64_t, 3>& row, const std::uint64_t* v,
                  std::uint64_t m) noexcept {
  const Wide sum = static_cast<Wide>(row[0]) * v[0] + static_cast<Wide>(row[1]) * v[1] +
                   static_cast<Wide>(row[2]) * v[2];
  return static_cast<std::uint64_t>(sum % m);
}

Matrix makeTransition(std::uint64_t m, std::int64_t c0, std::int64_t c1, std::int64_t c2) noexcept {
  // Coefficients may be negative; represent them modulo m.
  const auto mod = [m](std::int64_t c) {
    const std::int64_t r = c % static_cast<std::int64_t>(m);
    return static_cast<std::uint64_t>(r < 0 ? r + static_cast<std::int64_t>(m) : r);
  };
  return Matrix{{{0, 1, 0}, {0, 0, 1}, {mod(c0), mod(c1), mod(c2)}}};
}

}  // namespace

State baseState() noexcept {
  return State{kBaseWord, kBaseWord, kBaseWord, kBaseWord, kBaseWord, kBaseWord};
}

double step(State& s) noexcept { return stepInline(s); }

const Matrix& transition1() noexcept {
  static const Matrix a = makeTransition(kM1, -kA13n, kA12, 0);
  return a;
}

const Matrix& transition2() noexcept {
  static const Matrix a = makeTransition(kM2, -kA23n, 0, kA21);
  return a;
}

Matrix identity() noexcept { return Matrix{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}; }

Matrix multiply(const Matrix& a, const Matrix& b, std::uint64_t m) noexcept {
  Matrix c{};
  for (std::size_t i = 0; i < 3; ++i) {
    for (std::size_t j = 0; j < 3; ++j) {
      const std::uint64_t column[3] = {b[0][j], b[1][j], b[2][j]};
      c[i][j] = dot(a[i], column, m);
    }
  }
  return c;
}

Matrix power(const Matrix& a, std::uint64_t n, std::uint64_t m) noexcept {
  Matrix result = identity();
  Matrix base = a;
  while (n != 0) {
    if ((n & 1u) != 0) {
      result = multiply(result, base, m);
    }
    n >>= 1;
    if (n != 0) {
      base = multiply(base, base, m);
    }
  }
  return result;
}

Matrix powerOfTwo(const Matrix& a, unsigned e, std::uint64_t m) noexcept {
  Matrix result = a;
  for (unsigned i = 0; i < e; ++i) {
    result = multiply(result, result, m);
  }
  return result;
}

State apply(const Matrix& j1, const Matrix& j2, const State& s) noexcept {
  State out{};
  for (std::size_t i = 0; i < 3; ++i) {
    out[i] = dot(j1[i], &s[0], kM1);
    out[3 + i] = dot(j2[i], &s[3], kM2);
  }
  return out;
}

State jump(const State& s, std::uint64_t steps) noexcept {
  return apply(power(transition1(), steps, kM1), power(transition2(), steps, kM2), s);
}

const JumpMatrices& substreamJump() noexcept {
  static const JumpMatrices j{powerOfTwo(transition1(), 76, kM1),
                              powerOfTwo(transition2(), 76, kM2)};
  return j;
}

const JumpMatrices& streamJump() noexcept {
  static const JumpMatrices j{powerOfTwo(transition1(), 127, kM1),
                              powerOfTwo(transition2(), 127, kM2)};
  return j;
}

State streamStart(std::uint64_t s) noexcept {
  const JumpMatrices& j = streamJump();
  return apply(power(j.a1, s, kM1), power(j.a2, s, kM2), baseState());
}

State substreamStart(const State& streamBegin, std::uint64_t k) noexcept {
  if (k <= 1) {
    return streamBegin;
  }
  const JumpMatrices& j = substreamJump();
  return apply(power(j.a1, k - 1, kM1), power(j.a2, k - 1, kM2), streamBegin);
}

}  // namespace quorix::detail::mrg32k3a
