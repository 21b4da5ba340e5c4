// RandomStream: the runtime's random number service.
//
// One generator, "mrg32k3a" (combined multiple recursive generator, moduli
// m1 = 4294967087 and m2 = 4294944443). Seed s selects stream s, which
// starts s * 2^127 steps after the base state of six words 12345; substream
// k >= 1 of a stream starts (k - 1) * 2^76 steps after the stream's start.
// Jumps are matrix powers by repeated squaring, so positioning is cheap.
//
// A stream may be drawn from and re-positioned by several threads at once:
// the state words are relaxed atomics, so concurrent use is free of data
// races although interleaved draws are not reproducible. One thread's draws
// are exactly the published sequence.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "quorix/config.h"

namespace quorix {

class HostArray;

class QUORIX_API RandomStream {
 public:
  // Raises "QUORIX:random:UnknownGenerator" for a name other than
  // "mrg32k3a", "QUORIX:random:InvalidSeed" for a seed outside [0, 2^32) and
  // "QUORIX:random:InvalidStreamCount" for fewer than 1000000 streams.
  static std::unique_ptr<RandomStream> create(std::string_view generator, std::uint64_t numStreams,
                                              std::uint64_t seed);
  // The process-wide "mrg32k3a" stream with seed 0, created on first use.
  static RandomStream& defaultStream();
  // The stream held by a scalar object of class "RandomStream"; anything
  // else raises "QUORIX:random:InvalidStream". The stream lives as long as
  // the object.
  static RandomStream& fromHostValue(const HostArray& value);
  // A scalar "RandomStream" object that shares ownership of the stream.
  static std::unique_ptr<HostArray> toHostValue(std::shared_ptr<RandomStream> stream);

  RandomStream(const RandomStream&) = delete;
  RandomStream& operator=(const RandomStream&) = delete;
  ~RandomStream();

  std::string_view generatorName() const noexcept { return "mrg32k3a"; }
  std::uint64_t seed() const noexcept { return seed_.load(std::memory_order_relaxed); }
  std::uint64_t numStreams() const noexcept { return numStreams_; }

  // One uniform value in (0, 1).
  double uniform() noexcept;
  // n uniform values in (0, 1), in draw order.
  void uniform(double* out, std::size_t n) noexcept;
  // count whole numbers lo + floor(u * (hi - lo + 1)), one draw each.
  void wholeNumbers(double* out, std::size_t count, double lo, double hi) noexcept;
  // k distinct values of 1..n in random order (partial Fisher-Yates from
  // 1, 2, ..., n; a full permutation makes n - 1 draws). Requires k <= n.
  // Raises "QUORIX:random:InvalidPermutation" when n is not a whole number
  // in [k, 2^53] (NaN and Inf included); nothing is drawn then.
  void randomPermutation(double* out, std::size_t k, double n);
  // Moves to the start of substream k (k >= 1) of the current stream.
  void selectSubstream(std::uint64_t k) noexcept;
  // Re-seeds: moves to the start of stream `seed` (validated as in create).
  void reset(std::uint64_t seed);

 private:
  RandomStream(std::uint64_t numStreams, std::uint64_t seed);
  void setState(const std::array<std::uint64_t, 6>& s) noexcept;
  std::array<std::uint64_t, 6> loadStreamStart() const noexcept;

  std::uint64_t numStreams_;
  std::atomic<std::uint64_t> seed_;
  // Current state: x1[n-3], x1[n-2], x1[n-1], x2[n-3], x2[n-2], x2[n-1].
  std::array<std::atomic<std::uint64_t>, 6> state_;
  // Start of the current stream, for substream selection.
  std::array<std::atomic<std::uint64_t>, 6> streamStart_;
};

}  // namespace quorix
