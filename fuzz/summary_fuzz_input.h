// Layout of a summary_fuzz input, shared by the target and the program that
// writes its seed corpus.
//
// A 16-byte control block, then the summary matrix: 32 bytes per column, the
// four rows as little-endian int64 words in row order (a partial trailing
// column, and any column past kMaxColumns, is ignored). Control block:
//   byte 0       step mask (the k* bits below)
//   byte 1       index into kDeltas (taken modulo its size)
//   byte 2       number of values added by the add step (modulo 33)
//   byte 3       how NumDataPoints is set (kTotal*, modulo 4)
//   bytes 4-11   little-endian uint64 for kTotalGiven
//   bytes 12-15  little-endian seed of the random stream and of the values
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace zotdigest::fuzz {

inline constexpr std::size_t kControlBytes = 16;
inline constexpr std::size_t kColumnBytes = 32;
// Columns past this many are not read (a 4096-byte input holds 127).
inline constexpr std::size_t kMaxColumns = 127;

// Steps beyond decode, encode and the closing queries.
inline constexpr std::uint8_t kQueryFirst = 1u << 0;
inline constexpr std::uint8_t kAdd = 1u << 1;
inline constexpr std::uint8_t kCompress = 1u << 2;
inline constexpr std::uint8_t kMergeSelf = 1u << 3;
inline constexpr std::uint8_t kMergeFresh = 1u << 4;
inline constexpr std::uint8_t kRoundTrip = 1u << 5;
inline constexpr std::uint8_t kRefusedRows = 1u << 6;
inline constexpr std::uint8_t kMergeMismatch = 1u << 7;

// NumDataPoints after decoding.
inline constexpr std::uint8_t kTotalFromTree = 0;  // sum of the decoded counts
inline constexpr std::uint8_t kTotalGiven = 1;     // bytes 4-11
inline constexpr std::uint8_t kTotalZero = 2;
inline constexpr std::uint8_t kTotalKeep = 3;  // whatever the digest had

// Delta values; the last three are refused by the setter, which keeps the
// default.
// clang-format off
inline constexpr std::array<double, 13> kDeltas = {
    100.0, 1.0, 0.05, 0.5, 2.0, 20.0, 1e-300, std::numeric_limits<double>::infinity(),
    0.049, 1000.0, 0.0, -1.0, std::numeric_limits<double>::quiet_NaN()};
// clang-format on

struct Control {
  std::uint8_t steps = 0;
  std::uint8_t deltaIndex = 0;
  std::uint8_t addCount = 0;
  std::uint8_t totalMode = kTotalFromTree;
  std::uint64_t total = 0;
  std::uint32_t seed = 0;
};

inline void putLittleEndian(std::vector<std::uint8_t>& out, std::uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

inline std::uint64_t getLittleEndian(const std::uint8_t* in, int bytes) {
  std::uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v |= static_cast<std::uint64_t>(in[i]) << (8 * i);
  return v;
}

inline std::vector<std::uint8_t> encodeControl(const Control& c) {
  std::vector<std::uint8_t> out{c.steps, c.deltaIndex, c.addCount, c.totalMode};
  putLittleEndian(out, c.total, 8);
  putLittleEndian(out, c.seed, 4);
  return out;
}

inline Control decodeControl(const std::uint8_t* in) {
  Control c;
  c.steps = in[0];
  c.deltaIndex = in[1];
  c.addCount = in[2];
  c.totalMode = in[3];
  c.total = getLittleEndian(in + 4, 8);
  c.seed = static_cast<std::uint32_t>(getLittleEndian(in + 12, 4));
  return c;
}

}  // namespace zotdigest::fuzz
