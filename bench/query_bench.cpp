// Cost of cdf and icdf per answer: the scalar call (directly, and through
// the element-wise apply on a 1 x 1 array) against the apply over an array
// of one million arguments, which sweeps them in ascending order. The digest
// holds one million normal values at delta 100 (well over a thousand
// centroids), built once outside the timed loops. The yardstick is
// std::upper_bound over a sorted array of the same digest's means, run
// first: each scalar call also reports "vs_upper_bound", its time per call
// over the yardstick's, measured in the same run.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "core/elementwise.h"
#include "core/queries.h"
#include "core/tdigest.h"
#include "query_digest.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace {

using zotdigest::ScalarQuery;
using zotdigest::TDigest;

constexpr std::size_t kArray = 1000000;
constexpr std::size_t kScalarArguments = 4096;  // cycled through by the scalar loops

const TDigest& sharedDigest() {
  static const TDigest digest = zotdigest::bench::normalQueryDigest();
  return digest;
}

// Arguments in random order: normal values for cdf, uniform ones for icdf.
std::vector<double> arguments(ScalarQuery fn, std::size_t n, bool sorted) {
  std::mt19937_64 rng(11);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<double> v(n);
  for (double& x : v) x = fn == &zotdigest::cdf ? normal(rng) : unit(rng);
  if (sorted) std::sort(v.begin(), v.end());
  return v;
}

// CPU time of this thread, so that both sides of a ratio use one clock.
double threadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Seconds per std::upper_bound in this run; 0 until BM_UpperBound_Means ran.
double upperBoundSeconds = 0.0;

void BM_UpperBound_Means(benchmark::State& state) {
  const TDigest& digest = sharedDigest();
  std::vector<zotdigest::Centroid> listed;
  digest.tree.listCentroids(listed);
  std::vector<double> means;
  for (const auto& c : listed) means.push_back(c.mean);
  const std::vector<double> args = arguments(&zotdigest::cdf, kScalarArguments, false);
  std::size_t i = 0;
  const double start = threadSeconds();
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::upper_bound(means.begin(), means.end(), args[i]));
    i = (i + 1) % kScalarArguments;
  }
  upperBoundSeconds = (threadSeconds() - start) / static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["centroids"] = static_cast<double>(means.size());
}

void reportCentroids(benchmark::State& state, const TDigest& digest) {
  state.counters["centroids"] = static_cast<double>(digest.tree.size());
}

void runScalar(benchmark::State& state, ScalarQuery fn) {
  const TDigest& digest = sharedDigest();
  const std::vector<double> args = arguments(fn, kScalarArguments, false);
  std::size_t i = 0;
  const double start = threadSeconds();
  for (auto _ : state) {
    benchmark::DoNotOptimize(fn(digest, args[i]));
    i = (i + 1) % kScalarArguments;
  }
  const double seconds = (threadSeconds() - start) / static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  reportCentroids(state, digest);
  if (upperBoundSeconds > 0.0) state.counters["vs_upper_bound"] = seconds / upperBoundSeconds;
}

void runApplyOne(benchmark::State& state, ScalarQuery fn) {
  const TDigest& digest = sharedDigest();
  const std::vector<double> args = arguments(fn, kScalarArguments, false);
  const auto in = quorix::HostArray::createNumericMatrix(1, 1, quorix::ClassID::Double);
  std::size_t i = 0;
  double lastArgument = 0.0;
  double lastAnswer = 0.0;
  for (auto _ : state) {
    lastArgument = args[i];
    in->data<double>()[0] = lastArgument;
    lastAnswer = zotdigest::applyElementwise(*in, digest, fn)->data<double>()[0];
    benchmark::DoNotOptimize(lastAnswer);
    i = (i + 1) % kScalarArguments;
  }
  if (std::bit_cast<std::uint64_t>(lastAnswer) !=
      std::bit_cast<std::uint64_t>(fn(digest, lastArgument))) {
    state.SkipWithError("the 1 x 1 apply differs from the scalar call");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  reportCentroids(state, digest);
}

void runArray(benchmark::State& state, ScalarQuery fn, bool sorted) {
  const TDigest& digest = sharedDigest();
  const std::vector<double> args = arguments(fn, kArray, sorted);
  const auto in = quorix::HostArray::createNumericMatrix(1, kArray, quorix::ClassID::Double);
  std::copy(args.begin(), args.end(), in->data<double>());
  quorix::HostArrayPtr out;
  for (auto _ : state) {
    out = zotdigest::applyElementwise(*in, digest, fn);
    benchmark::DoNotOptimize(out->data<double>());
  }
  // Every 997th answer against the scalar call, bit for bit.
  for (std::size_t i = 0; i < kArray; i += 997) {
    if (std::bit_cast<std::uint64_t>(out->data<double>()[i]) !=
        std::bit_cast<std::uint64_t>(fn(digest, args[i]))) {
      state.SkipWithError(
          ("element " + std::to_string(i) + " differs from the scalar call").c_str());
      break;
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(kArray));
  reportCentroids(state, digest);
}

void BM_Cdf_Scalar(benchmark::State& state) { runScalar(state, &zotdigest::cdf); }
void BM_Icdf_Scalar(benchmark::State& state) { runScalar(state, &zotdigest::icdf); }
void BM_Cdf_ApplyOne(benchmark::State& state) { runApplyOne(state, &zotdigest::cdf); }
void BM_Icdf_ApplyOne(benchmark::State& state) { runApplyOne(state, &zotdigest::icdf); }
void BM_Cdf_Array(benchmark::State& state) { runArray(state, &zotdigest::cdf, false); }
void BM_Icdf_Array(benchmark::State& state) { runArray(state, &zotdigest::icdf, false); }
void BM_Cdf_ArraySorted(benchmark::State& state) { runArray(state, &zotdigest::cdf, true); }
void BM_Icdf_ArraySorted(benchmark::State& state) { runArray(state, &zotdigest::icdf, true); }

BENCHMARK(BM_UpperBound_Means)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Cdf_Scalar)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Icdf_Scalar)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Cdf_ApplyOne)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Icdf_ApplyOne)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Cdf_Array)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Icdf_Array)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cdf_ArraySorted)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Icdf_ArraySorted)->Unit(benchmark::kMillisecond);

}  // namespace
