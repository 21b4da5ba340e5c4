// A driver for instruction counts of the core's hot operations under
// callgrind. Only the operations themselves are instrumented (the set-up,
// such as filling the digest a query reads, runs uninstrumented), so
//   valgrind --tool=callgrind --instr-atstart=no build/bin/zotdigest_core_ops MODE N [K]
// reports their instructions; divide by N for a count per operation.
// Unlike wall times these counts repeat from run to run.
//
// Modes:
//   cdf N, icdf N      N scalar queries of a digest of one million normal
//                      values at Delta 100 (the query benchmark's digest)
//   upper_bound N      N std::upper_bound over that digest's sorted means
//   uniform N          N serial adds of uniform values at Delta 100
//   few N K            N serial adds of K distinct values at Delta 100
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core/tdigest.h"
#include "query_digest.h"
#include "quorix/random_stream.h"

namespace {

using zotdigest::TDigest;

std::unique_ptr<quorix::RandomStream> seededStream(std::uint64_t seed) {
  return quorix::RandomStream::create("mrg32k3a", 1000000, seed);
}

std::vector<double> arguments(std::size_t n, bool unit) {
  std::mt19937_64 rng(11);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  std::vector<double> v(n);
  for (double& x : v) x = unit ? uniform(rng) : normal(rng);
  return v;
}

// Serial adds of `values` at Delta 100; only the adds are counted.
double addAll(const std::vector<double>& values) {
  auto stream = seededStream(1);
  TDigest digest;
  digest.stream = stream.get();
  CALLGRIND_START_INSTRUMENTATION;
  for (const double x : values) digest.add(x);
  CALLGRIND_STOP_INSTRUMENTATION;
  return static_cast<double>(digest.tree.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s cdf|icdf|upper_bound|uniform|few N [K]\n", argv[0]);
    return 2;
  }
  const std::string mode = argv[1];
  const auto n = static_cast<std::size_t>(std::strtoull(argv[2], nullptr, 10));
  double sink = 0.0;
  if (mode == "cdf" || mode == "icdf" || mode == "upper_bound") {
    const TDigest digest = zotdigest::bench::normalQueryDigest();
    const bool quantiles = mode == "icdf";
    const std::vector<double> args = arguments(4096, quantiles);
    std::vector<double> means;
    if (mode == "upper_bound") {
      std::vector<zotdigest::Centroid> listed;
      digest.tree.listCentroids(listed);
      for (const auto& c : listed) means.push_back(c.mean);
    }
    CALLGRIND_START_INSTRUMENTATION;
    for (std::size_t i = 0; i < n; ++i) {
      const double a = args[i % args.size()];
      if (mode == "cdf") {
        sink += zotdigest::cdf(digest, a);
      } else if (mode == "icdf") {
        sink += zotdigest::icdf(digest, a);
      } else {
        sink +=
            static_cast<double>(std::upper_bound(means.begin(), means.end(), a) - means.begin());
      }
    }
    CALLGRIND_STOP_INSTRUMENTATION;
  } else if (mode == "uniform") {
    sink = addAll(arguments(n, true));
  } else if (mode == "few" && argc > 3) {
    const auto k = std::strtoull(argv[3], nullptr, 10);
    std::mt19937_64 rng(3);
    std::vector<double> values(n);
    for (double& x : values) x = static_cast<double>(rng() % k);
    sink = addAll(values);
  } else {
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
  }
  std::printf("%.17g\n", sink);
  return 0;
}
