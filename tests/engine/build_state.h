// What the engine's build tests compare: a digest's saved state, bit for
// bit, and log-normal test values.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "quorix/object_system.h"

namespace zotdigest::engine::testing {

// Every saved property, bit for bit.
inline std::vector<std::vector<std::uint64_t>> state(const quorix::HostArray& digest) {
  std::vector<std::vector<std::uint64_t>> bits;
  for (const quorix::SavedProperty& p : quorix::ObjectSystem::save(digest).properties) {
    const auto* words = static_cast<const std::uint64_t*>(p.value->realData());
    bits.emplace_back(words, words + p.value->numel());
  }
  return bits;
}

inline std::vector<double> lognormal(std::size_t n, std::uint32_t seed = 7) {
  std::mt19937_64 rng(seed);
  std::lognormal_distribution<double> dist(0.0, 1.5);
  std::vector<double> x(n);
  for (double& v : x) v = dist(rng);
  return x;
}

}  // namespace zotdigest::engine::testing
