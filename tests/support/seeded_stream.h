// Streams and exact comparisons shared by the test suites.
#pragma once

#include <bit>
#include <cstdint>
#include <memory>

#include "quorix/random_stream.h"

namespace quorix::test {

// A fresh "mrg32k3a" stream of the seed.
inline std::unique_ptr<RandomStream> seededStream(std::uint64_t seed) {
  return RandomStream::create("mrg32k3a", 1000000, seed);
}

// The bit pattern of a double, for comparisons that tell -0.0 from 0.0 and
// NaN payloads apart.
inline std::uint64_t bitsOf(double x) { return std::bit_cast<std::uint64_t>(x); }

}  // namespace quorix::test
