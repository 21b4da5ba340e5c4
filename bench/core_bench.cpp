// Cost of the digest core: serial add per value on ten million uniform,
// normal and sorted doubles at Delta 50, 100 and 200, compress, and merge of
// two full digests, with std::sort of the same ten million uniform values
// as the yardstick. Run BM_Sort_Doubles first (registration order does
// that): every add then also reports "vs_sort", its time per value over
// sort's, measured in the same run. Serial add of few distinct values (1,
// 2, 5, 10 and 100 small integers, as a column of flags or status codes
// gives them) reports "vs_uniform", its time per value over that of
// uniform values at Delta 100 in the same run. Timings are CPU time of one
// thread; on a shared machine only ratios within one run mean much.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/centroid_tree.h"
#include "core/tdigest.h"
#include "quorix/random_stream.h"

namespace {

using zotdigest::TDigest;

constexpr std::size_t kValues = 10000000;

enum Input : int { kUniform, kNormal, kSorted };
const char* const kInputNames[] = {"uniform", "normal", "sorted"};

// The ten million values of each input, made once (same seed for all, so
// the sorted input is the uniform one in order).
const std::vector<double>& values(int input) {
  static std::unique_ptr<std::vector<double>> cache[3];
  auto& slot = cache[input];
  if (!slot) {
    slot = std::make_unique<std::vector<double>>(kValues);
    std::mt19937_64 rng(2024);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::normal_distribution<double> normal(0.0, 1.0);
    for (double& x : *slot) x = input == kNormal ? normal(rng) : unit(rng);
    if (input == kSorted) std::sort(slot->begin(), slot->end());
  }
  return *slot;
}

std::unique_ptr<quorix::RandomStream> seededStream(std::uint64_t seed) {
  return quorix::RandomStream::create("mrg32k3a", 1000000, seed);
}

// CPU time of this thread, for the ratios to sort: both sides are timed by
// the same clock.
double threadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Seconds per value of std::sort in this run; 0 until BM_Sort_Doubles ran.
double sortSecondsPerValue = 0.0;
// Seconds per value of adding uniform values at Delta 100 in this run; 0
// until that case of BM_TDigest_Add ran.
double uniformSecondsPerValue = 0.0;

void reportPerValue(benchmark::State& state, std::size_t perIteration) {
  const auto items =
      static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(perIteration);
  state.SetItemsProcessed(items);
  // Seconds per value, shown with its SI prefix (n = nanoseconds).
  state.counters["per_value"] = benchmark::Counter(
      static_cast<double>(perIteration),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Sort_Doubles(benchmark::State& state) {
  const std::vector<double>& data = values(kUniform);
  std::vector<double> work;
  double seconds = 0.0;
  for (auto _ : state) {
    state.PauseTiming();
    work = data;
    state.ResumeTiming();
    const double start = threadSeconds();
    std::sort(work.begin(), work.end());
    seconds += threadSeconds() - start;
  }
  if (!std::is_sorted(work.begin(), work.end())) state.SkipWithError("std::sort left disorder");
  sortSecondsPerValue = seconds / static_cast<double>(state.iterations() * kValues);
  reportPerValue(state, kValues);
}

// Times serial adds of `data` into a fresh digest at `delta` per
// iteration, the stream's set-up left out: thread CPU seconds in all, and
// the last digest's weight and centroid count.
struct SerialAddRun {
  double seconds = 0.0;
  std::uint64_t total = 0;
  std::uint64_t centroids = 0;
};

SerialAddRun timeSerialAdd(benchmark::State& state, const std::vector<double>& data, double delta) {
  SerialAddRun run;
  for (auto _ : state) {
    state.PauseTiming();
    auto stream = seededStream(1);
    TDigest digest;
    digest.delta = delta;
    digest.stream = stream.get();
    state.ResumeTiming();
    const double start = threadSeconds();
    for (const double x : data) digest.add(x);
    run.seconds += threadSeconds() - start;
    run.total = digest.totalWeight;
    run.centroids = digest.tree.size();
  }
  return run;
}

void BM_TDigest_Add(benchmark::State& state) {
  const int input = static_cast<int>(state.range(0));
  const auto delta = static_cast<double>(state.range(1));
  const SerialAddRun run = timeSerialAdd(state, values(input), delta);
  if (run.total != kValues) state.SkipWithError("the digest lost weight");
  if (static_cast<double>(run.centroids) > 20.0 * delta) state.SkipWithError("too many centroids");
  state.SetLabel(std::string(kInputNames[input]) + " delta " + std::to_string(state.range(1)));
  reportPerValue(state, kValues);
  state.counters["centroids"] = static_cast<double>(run.centroids);
  const double perValue = run.seconds / static_cast<double>(state.iterations() * kValues);
  if (input == kUniform && state.range(1) == 100) uniformSecondsPerValue = perValue;
  if (sortSecondsPerValue > 0.0) state.counters["vs_sort"] = perValue / sortSecondsPerValue;
}

// Serial add of n values drawn from `distinct` small integers at Delta 100:
// every add of a repeated value walks the whole run of centroids of that
// mean.
void BM_TDigest_AddFew(benchmark::State& state) {
  const auto distinct = static_cast<std::uint64_t>(state.range(0));
  const auto n = static_cast<std::size_t>(state.range(1));
  std::vector<double> data(n);
  std::mt19937_64 rng(3);
  for (double& x : data) x = static_cast<double>(rng() % distinct);
  const SerialAddRun run = timeSerialAdd(state, data, 100.0);
  if (run.total != n) state.SkipWithError("the digest lost weight");
  reportPerValue(state, n);
  state.counters["centroids"] = static_cast<double>(run.centroids);
  if (uniformSecondsPerValue > 0.0) {
    const double perValue = run.seconds / static_cast<double>(state.iterations() * n);
    state.counters["vs_uniform"] = perValue / uniformSecondsPerValue;
  }
}

// A digest of one million uniform values (from a generator seeded with
// `seed`) at `delta`, drawing from `stream`, compressed as construction
// leaves it.
TDigest fullDigest(double delta, std::uint64_t seed, quorix::RandomStream& stream) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  TDigest digest;
  digest.delta = delta;
  digest.stream = &stream;
  for (int i = 0; i < 1000000; ++i) digest.add(unit(rng));
  digest.compress();
  return digest;
}

// Compress of a digest at its limit of 20 x delta centroids, filled with
// sorted values (the state in which sorted input compresses, every few
// hundred values): every centroid re-added in random order. per_value is
// per centroid.
void BM_TDigest_Compress(benchmark::State& state) {
  const auto delta = static_cast<double>(state.range(0));
  auto stream = seededStream(3);
  TDigest before;
  before.delta = delta;
  before.stream = stream.get();
  const std::vector<double>& sorted = values(kSorted);
  // Fill up to exactly 20 x delta centroids without compressing.
  std::size_t i = 0;
  while (static_cast<double>(before.tree.size() + 1) <= 20.0 * delta) before.add(sorted[i++]);
  const std::uint64_t centroids = before.tree.size();
  TDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    digest = before;
    state.ResumeTiming();
    digest.compress();
  }
  if (digest.totalWeight != i || digest.tree.size() >= centroids) {
    state.SkipWithError("compress lost weight or merged nothing");
  }
  reportPerValue(state, centroids);
  state.counters["centroids"] = static_cast<double>(centroids);
}

// Merge of two digests of one million values each; per_value is per
// centroid re-added.
void BM_TDigest_Merge(benchmark::State& state) {
  const auto delta = static_cast<double>(state.range(0));
  auto streamA = seededStream(5);
  auto streamB = seededStream(6);
  const TDigest a = fullDigest(delta, 5, *streamA);
  const TDigest b = fullDigest(delta, 6, *streamB);
  const std::size_t centroids = a.tree.size() + b.tree.size();
  TDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    digest = a;
    state.ResumeTiming();
    digest.merge(b);
  }
  if (digest.totalWeight != 2000000u) state.SkipWithError("merge lost weight");
  reportPerValue(state, centroids);
  state.counters["centroids"] = static_cast<double>(centroids);
}

BENCHMARK(BM_Sort_Doubles)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_TDigest_Add)
    ->ArgNames({"input", "delta"})
    ->ArgsProduct({{kUniform, kNormal, kSorted}, {50, 100, 200}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(BM_TDigest_AddFew)
    ->ArgNames({"distinct", "n"})
    ->ArgsProduct({{1, 2, 5, 10, 100}, {200000, 1000000}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(BM_TDigest_Compress)
    ->ArgNames({"delta"})
    ->Arg(50)
    ->Arg(100)
    ->Arg(200)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.2);
BENCHMARK(BM_TDigest_Merge)
    ->ArgNames({"delta"})
    ->Arg(50)
    ->Arg(100)
    ->Arg(200)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.2);

}  // namespace
