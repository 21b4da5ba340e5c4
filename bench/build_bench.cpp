// Throughput of addArray: the serial path against the parallel reduction,
// on the same one million doubles.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>

#include "build/element_types.h"
#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace {

constexpr std::size_t kValues = 1000000;

quorix::HostArrayPtr makeData() {
  auto data = quorix::HostArray::createNumericMatrix(1, kValues, quorix::ClassID::Double);
  std::mt19937_64 rng(1);
  std::normal_distribution<double> dist(0.0, 1.0);
  double* out = data->data<double>();
  for (std::size_t i = 0; i < kValues; ++i) out[i] = dist(rng);
  return data;
}

void runAddArray(benchmark::State& state, bool serial) {
  const auto data = makeData();
  auto stream = quorix::RandomStream::create("mrg32k3a", 1000000, 0);
  std::uint64_t lastWeight = 0;
  for (auto _ : state) {
    zotdigest::TDigest digest;
    digest.stream = stream.get();
    zotdigest::addArray<double>(*data, digest, serial);
    lastWeight = digest.totalWeight;
    benchmark::DoNotOptimize(lastWeight);
  }
  if (lastWeight != kValues) {
    state.SkipWithError(("the digest did not take every value: " + std::to_string(lastWeight)).c_str());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(kValues));
}

void BM_AddArray_Serial(benchmark::State& state) { runAddArray(state, true); }
void BM_AddArray_Parallel(benchmark::State& state) { runAddArray(state, false); }

BENCHMARK(BM_AddArray_Serial)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AddArray_Parallel)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
