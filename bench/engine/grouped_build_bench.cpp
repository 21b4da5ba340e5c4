// The grouped build against one reproducible digest of all the same values,
// on the same threads (every core), measured in the same round:
// wall_x_one_digest is the grouped build's wall clock over the single
// build's, cpu_x_one_digest its process CPU time over the single build's
// (steadier on a shared machine). 10^7 log-normal values fall into 1,000 or
// 100,000 groups whose sizes follow Zipf's law (group r holds a share
// proportional to 1/r), in random order. Each case runs kRounds rounds and
// reports the medians; the digests are counted and freed outside the timed
// sections.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "engine/grouped_build.h"
#include "engine/reproducible_build.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "timing.h"

namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using zotdigest::bench::timed;
using zotdigest::bench::Timing;

constexpr std::size_t kValues = 10000000;
constexpr int kRounds = 3;

struct Input {
  std::vector<double> x;
  std::vector<std::int64_t> codes;
};

Input zipfGroups(std::size_t groups) {
  std::mt19937_64 rng(42);
  std::lognormal_distribution<double> value(0.0, 1.0);
  std::vector<double> cumulative(groups);
  double sum = 0.0;
  for (std::size_t r = 0; r < groups; ++r) {
    sum += 1.0 / static_cast<double>(r + 1);
    cumulative[r] = sum;
  }
  std::uniform_real_distribution<double> u(0.0, sum);
  Input in{std::vector<double>(kValues), std::vector<std::int64_t>(kValues)};
  for (std::size_t i = 0; i < kValues; ++i) {
    in.x[i] = value(rng);
    const auto r = std::upper_bound(cumulative.begin(), cumulative.end(), u(rng));
    in.codes[i] =
        std::min<std::int64_t>(r - cumulative.begin(), static_cast<std::int64_t>(groups) - 1);
  }
  return in;
}

std::uint64_t weight(const HostArray& digest) {
  return *quorix::ObjectSystem::getProperty(digest, "NumDataPoints")->data<std::uint64_t>();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void BM_GroupedBuild_Ratio(benchmark::State& state, std::size_t groups) {
  quorix::Module::load("libzotdigest");
  const Input in = zipfGroups(groups);
  const HostArrayPtr all =
      HostArray::createView(quorix::Dims{kValues, 1}, ClassID::Double,
                            const_cast<double*>(in.x.data()), nullptr, nullptr);
  std::vector<double> ratio, cpuRatio, groupedSeconds, oneSeconds;
  bool complete = true;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      HostArrayPtr whole;
      std::vector<HostArrayPtr> digests;
      const Timing one = timed([&] { whole = zotdigest::engine::reproducibleDigest(*all, {}); });
      const Timing grouped = timed([&] {
        digests = zotdigest::engine::groupedDigests(
            {in.x.data(), ClassID::Double, kValues, in.codes.data(), groups}, {});
      });
      std::uint64_t counted = 0;
      for (const HostArrayPtr& d : digests) counted += weight(*d);
      complete = complete && counted == kValues && weight(*whole) == kValues;
      ratio.push_back(grouped.wall / one.wall);
      cpuRatio.push_back(grouped.cpu / one.cpu);
      groupedSeconds.push_back(grouped.wall);
      oneSeconds.push_back(one.wall);
    }
  }
  if (!complete) {
    state.SkipWithError("the digests did not take every value");
    return;
  }
  state.counters["wall_x_one_digest"] = median(ratio);
  state.counters["cpu_x_one_digest"] = median(cpuRatio);
  state.counters["grouped_s"] = median(groupedSeconds);
  state.counters["one_digest_s"] = median(oneSeconds);
  state.counters["largest_group"] =
      static_cast<double>(std::count(in.codes.begin(), in.codes.end(), std::int64_t{0}));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRounds *
                          static_cast<std::int64_t>(kValues));
}

BENCHMARK_CAPTURE(BM_GroupedBuild_Ratio, zipf_1e3_groups, 1000)
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_GroupedBuild_Ratio, zipf_1e5_groups, 100000)
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();

}  // namespace
