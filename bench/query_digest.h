// The digest the query benchmarks read: one million normal values at
// Delta 100, built serially on a seeded stream. The callgrind driver counts
// instructions on the same digest, so its counts and the benchmark's times
// describe one tree.
#pragma once

#include <cstddef>
#include <random>

#include "core/tdigest.h"
#include "quorix/random_stream.h"

namespace zotdigest::bench {

inline TDigest normalQueryDigest() {
  auto stream = quorix::RandomStream::create("mrg32k3a", 1000000, 7);
  std::mt19937_64 rng(7);
  std::normal_distribution<double> normal(0.0, 1.0);
  TDigest d;
  d.stream = stream.get();
  for (std::size_t i = 0; i < 1000000; ++i) d.add(normal(rng));
  d.stream = nullptr;
  return d;
}

}  // namespace zotdigest::bench
