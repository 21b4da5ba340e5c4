// The reproducible build against its yardsticks, all measured in the same
// round so that the ratios compare runs that saw much the same machine:
//  - the module's serial constructor (three inputs, one stream) on all the
//    values: cpu_x_serial is the build's process CPU time over its CPU time,
//    on one thread (one_thread_cpu_x_serial: the cost of the tree alone) and
//    on two (cpu_x_serial, which also pays for two threads sharing caches);
//  - the machine's own two-thread ceiling: two serial constructors on the
//    halves of the values, side by side on two std::threads. wall_x_ceiling
//    is the two-thread build's wall clock over theirs; ceiling_speedup the
//    serial wall clock over theirs (2 on an idle two-core machine);
//  - std::sort of a copy of the values (wall_x_sort).
// Process CPU time counts every thread; the workers are let go idle between
// the measurements, outside them. Each case runs kRounds rounds and reports
// the median of each ratio. Shapes: uniform, log-normal, sorted.
#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/reproducible_build.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"
#include "timing.h"

namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using zotdigest::bench::timed;
using zotdigest::bench::Timing;

constexpr std::size_t k1e7 = 10000000;
constexpr std::size_t k1e8 = 100000000;
constexpr int kRounds = 3;

enum class Shape { Uniform, LogNormal, Sorted };

const std::vector<double>& input(Shape shape, std::size_t n) {
  static std::map<std::pair<Shape, std::size_t>, std::vector<double>> made;
  auto& x = made[{shape, n}];
  if (x.empty()) {
    std::mt19937_64 rng(42);
    x.resize(n);
    if (shape == Shape::LogNormal) {
      std::lognormal_distribution<double> d(0.0, 1.0);
      for (double& v : x) v = d(rng);
    } else {
      std::uniform_real_distribution<double> d(0.0, 1.0);
      for (double& v : x) v = d(rng);
    }
    if (shape == Shape::Sorted) std::sort(x.begin(), x.end());
  }
  return x;
}

HostArrayPtr view(const double* x, std::size_t n) {
  return HostArray::createView(quorix::Dims{n, 1}, ClassID::Double, const_cast<double*>(x), nullptr,
                               nullptr);
}

std::uint64_t weight(const HostArray& digest) {
  return *quorix::ObjectSystem::getProperty(digest, "NumDataPoints")->data<std::uint64_t>();
}

std::uint64_t serialBuild(const double* x, std::size_t n) {
  const HostArrayPtr data = view(x, n);
  const HostArrayPtr delta = HostArray::createDoubleScalar(100.0);
  const HostArrayPtr stream =
      quorix::RandomStream::toHostValue(quorix::RandomStream::create("mrg32k3a", 1000000, 0));
  const std::array<const HostArray*, 3> in = {data.get(), delta.get(), stream.get()};
  return weight(*quorix::ObjectSystem::construct("TDigest", 3, in.data()));
}

std::uint64_t treeBuild(const std::vector<double>& x, unsigned threads) {
  return weight(
      *zotdigest::engine::reproducibleDigest(*view(x.data(), x.size()), {100.0, 0, threads, 0}));
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void BM_ReproducibleBuild_Ratios(benchmark::State& state, Shape shape, std::size_t n) {
  quorix::Module::load("libzotdigest");
  const std::vector<double>& x = input(shape, n);
  std::map<std::string, std::vector<double>> r;
  bool complete = true;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      std::uint64_t w[5] = {};
      const Timing serial = timed([&] { w[0] = serialBuild(x.data(), n); });
      const Timing one = timed([&] { w[1] = treeBuild(x, 1); });
      const Timing two = timed([&] { w[2] = treeBuild(x, 2); });
      const Timing ceiling = timed([&] {
        std::thread half([&] { w[3] = serialBuild(x.data(), n / 2); });
        w[4] = serialBuild(x.data() + n / 2, n - n / 2);
        half.join();
      });
      std::vector<double> copy(x.begin(), x.end());
      const Timing sort = timed([&] { std::sort(copy.begin(), copy.end()); });
      complete = complete && w[0] == n && w[1] == n && w[2] == n && w[3] + w[4] == n;
      r["one_thread_cpu_x_serial"].push_back(one.cpu / serial.cpu);
      r["cpu_x_serial"].push_back(two.cpu / serial.cpu);
      r["wall_x_ceiling"].push_back(two.wall / ceiling.wall);
      r["ceiling_speedup"].push_back(serial.wall / ceiling.wall);
      r["wall_x_sort"].push_back(two.wall / sort.wall);
      r["serial_s"].push_back(serial.wall);
      r["two_threads_s"].push_back(two.wall);
    }
  }
  if (!complete) {
    state.SkipWithError("a digest did not take every value");
    return;
  }
  for (const auto& [name, values] : r) state.counters[name] = median(values);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRounds *
                          static_cast<std::int64_t>(n));
}

#define ZOTDIGEST_RATIO_CASE(name, shape, n)                     \
  BENCHMARK_CAPTURE(BM_ReproducibleBuild_Ratios, name, shape, n) \
      ->Unit(benchmark::kSecond)                                 \
      ->Iterations(1)                                            \
      ->UseRealTime()

ZOTDIGEST_RATIO_CASE(uniform_1e7, Shape::Uniform, k1e7);
ZOTDIGEST_RATIO_CASE(lognormal_1e7, Shape::LogNormal, k1e7);
ZOTDIGEST_RATIO_CASE(sorted_1e7, Shape::Sorted, k1e7);
ZOTDIGEST_RATIO_CASE(uniform_1e8, Shape::Uniform, k1e8);

}  // namespace
