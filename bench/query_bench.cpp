// Cost of cdf and icdf per answer: the scalar call (directly, and through
// the element-wise apply on a 1 x 1 array) against the apply over an array
// of one million arguments, which sweeps them in ascending order. The digest
// holds one million normal values at delta 100 (well over a thousand
// centroids), built once outside the timed loops.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "core/elementwise.h"
#include "core/queries.h"
#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace {

using zotdigest::ScalarQuery;
using zotdigest::TDigest;

constexpr std::size_t kArray = 1000000;
constexpr std::size_t kScalarArguments = 4096;  // cycled through by the scalar loops

const TDigest& sharedDigest() {
  static const TDigest digest = [] {
    auto stream = quorix::RandomStream::create("mrg32k3a", 1000000, 7);
    std::mt19937_64 rng(7);
    std::normal_distribution<double> normal(0.0, 1.0);
    TDigest d;
    d.stream = stream.get();
    for (std::size_t i = 0; i < 1000000; ++i) d.add(normal(rng));
    d.stream = nullptr;
    return d;
  }();
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

void reportCentroids(benchmark::State& state, const TDigest& digest) {
  state.counters["centroids"] = static_cast<double>(digest.tree.size());
}

void runScalar(benchmark::State& state, ScalarQuery fn) {
  const TDigest& digest = sharedDigest();
  const std::vector<double> args = arguments(fn, kScalarArguments, false);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fn(digest, args[i]));
    i = (i + 1) % kScalarArguments;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  reportCentroids(state, digest);
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

BENCHMARK(BM_Cdf_Scalar)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Icdf_Scalar)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Cdf_ApplyOne)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Icdf_ApplyOne)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Cdf_Array)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Icdf_Array)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cdf_ArraySorted)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Icdf_ArraySorted)->Unit(benchmark::kMillisecond);

}  // namespace
