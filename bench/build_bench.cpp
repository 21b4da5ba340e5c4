// Construction benchmarks: addArray serially and in parallel on 10^7 and
// 10^8 doubles, uniform and sorted, with std::sort of the same values as the
// yardstick; the parallel path limited to one worker; the column build of a
// 10^4 x 10^3 matrix.
//
// How the figures are taken.
//  - Time is wall clock (UseRealTime); CPU is the CPU time of the whole
//    process (MeasureProcessCPUTime), so the TBB workers' time counts, their
//    spinning included. On a shared two-core machine wall clock depends on
//    what else runs; the CPU time of a build does not, or much less, so the
//    parallel path is judged by its CPU time against the serial path's.
//  - On a loaded machine the CPU time of one and the same build varies by a
//    fifth from run to run, so single-run ratios are rough. The
//    WorkEfficiency cases pair the builds instead (see there) and are the
//    figures to hold the parallel path to.
//  - Every case records its wall and CPU time per iteration; the cases that
//    follow their yardstick in this file report the ratios of the same run
//    as counters: cpu_x_serial (process CPU of this case / CPU of the
//    serial build of the same values) and wall_x_sort (wall clock / wall
//    clock of std::sort of the same values in random order). The cases are
//    registered in the order they need, and a ratio whose yardstick did not
//    run (a filtered run) is left out rather than made up.
//  - peak_rss_MB is the growth of the resident set over the case: the
//    kernel's high-water mark is reset to the current resident set just
//    before the timed loop (/proc/self/clear_refs, "5") and read after it,
//    so each case sees its own peak whatever ran earlier in the process.
//    The inputs are made, and touched, before the reset, so they are not
//    counted: the figure is what the build needs on top of its input.
//    malloc_trim runs first so that heap freed by earlier cases goes back
//    to the kernel instead of being reused unseen; allocator caches that
//    malloc_trim cannot release (TBB's own task pools) are small and could
//    only hide a few hundred kilobytes.
//  - overlap is the parallel build's CPU time over its wall clock: 2 when
//    both threads ran all the time, 1 when they only took turns on one
//    core. Costs that arise only while the threads run at the same time
//    (above all the cache line of the generator they share, which every
//    add draws from) show in cpu_x_serial only as far as overlap is above
//    1; a ratio taken at overlap 1 says nothing about them.
//  - splits counts the reduction bodies split off the root during one
//    parallel build: every split takes one index of the process-wide
//    substream counter, and nothing else takes one meanwhile.
//  - Every input is made once and shared by all cases; the 10^8 cases run
//    one iteration, and so in practice do the 10^7 ones (each takes longer
//    than the minimum measuring time).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "construction/column_build.h"
#include "construction/element_types.h"
#include "construction/substream.h"
#include "core/tdigest.h"
#include "host/errors.h"
#include "host/tdigest_class.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace {

constexpr std::size_t k1e6 = 1000000;
constexpr std::size_t k1e7 = 10000000;
constexpr std::size_t k1e8 = 100000000;
constexpr std::size_t kColumnRows = 10000;
constexpr std::size_t kColumnCount = 1000;

enum class Shape { Uniform, Sorted };

const char* shapeName(Shape shape) { return shape == Shape::Uniform ? "uniform" : "sorted"; }

// ---------------------------------------------------------------- inputs

// n uniform values in [0, 1) from a fixed seed, written into `out`.
void fillUniform(double* out, std::size_t n) {
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> dist(0.0, 1.0);
  for (std::size_t i = 0; i < n; ++i) out[i] = dist(rng);
}

// The row of n input values, made on first use; the sorted input holds the
// same values as the uniform one, in increasing order.
const quorix::HostArray& input(Shape shape, std::size_t n) {
  static std::map<std::pair<Shape, std::size_t>, quorix::HostArrayPtr> cache;
  quorix::HostArrayPtr& slot = cache[{shape, n}];
  if (!slot) {
    slot = quorix::HostArray::createNumericMatrix(1, n, quorix::ClassID::Double);
    double* const values = slot->data<double>();
    fillUniform(values, n);
    if (shape == Shape::Sorted) std::sort(values, values + n);
  }
  return *slot;
}

// ----------------------------------------------------- time and memory

struct Timing {
  double wall = 0.0;  // seconds per iteration
  double cpu = 0.0;   // process CPU seconds per iteration
};

std::map<std::string, Timing>& timings() {
  static std::map<std::string, Timing> byKey;
  return byKey;
}

std::string key(const char* what, Shape shape, std::size_t n) {
  return std::string(what) + "/" + shapeName(shape) + "/" + std::to_string(n);
}

double seconds(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Wall and process CPU time of the iterations it is told about.
class Stopwatch {
 public:
  void start() {
    wall0_ = seconds(CLOCK_MONOTONIC);
    cpu0_ = seconds(CLOCK_PROCESS_CPUTIME_ID);
  }
  void stop() {
    total_.cpu += seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0_;
    total_.wall += seconds(CLOCK_MONOTONIC) - wall0_;
    ++count_;
  }
  Timing perIteration() const {
    if (count_ == 0) return {};
    const double n = static_cast<double>(count_);
    return {total_.wall / n, total_.cpu / n};
  }

 private:
  double wall0_ = 0.0;
  double cpu0_ = 0.0;
  Timing total_;
  std::uint64_t count_ = 0;
};

// A field of /proc/self/status in kB ("VmRSS", "VmHWM"); 0 if absent.
double statusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return std::stod(line.substr(field.size() + 1));
    }
  }
  return 0.0;
}

// Growth of the resident set between begin() and end(), peak included.
class PeakGrowth {
 public:
  void begin() {
    malloc_trim(0);
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.close();
    resetOk_ = !clear.fail();
    before_ = statusKiB("VmRSS");
  }
  void end(benchmark::State& state) const {
    // Without the reset the high-water mark may belong to an earlier case.
    if (!resetOk_) return;
    state.counters["peak_rss_MB"] = (statusKiB("VmHWM") - before_) / 1024.0;
  }

 private:
  double before_ = 0.0;
  bool resetOk_ = false;
};

// `value` over the figure recorded under `yardstick`, when that case ran.
void reportRatio(benchmark::State& state, const char* name, double value,
                 const std::string& yardstick, double Timing::*figure) {
  const auto it = timings().find(yardstick);
  if (it == timings().end() || !(it->second.*figure > 0.0)) return;
  state.counters[name] = value / it->second.*figure;
}

void setItems(benchmark::State& state, std::size_t n) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(n));
}

// ------------------------------------------------------------ std::sort

std::vector<double>& sortBuffer(std::size_t n) {
  static std::vector<double> buffer;
  buffer.resize(n);  // resident from here on: written by the first copy
  return buffer;
}

void BM_Sort_Doubles(benchmark::State& state, std::size_t n) {
  const double* values = input(Shape::Uniform, n).data<double>();
  std::vector<double>& copy = sortBuffer(n);
  std::copy(values, values + n, copy.begin());
  Stopwatch watch;
  PeakGrowth peak;
  peak.begin();
  for (auto _ : state) {
    state.PauseTiming();
    std::copy(values, values + n, copy.begin());
    state.ResumeTiming();
    watch.start();
    std::sort(copy.begin(), copy.end());
    watch.stop();
    benchmark::DoNotOptimize(copy.data());
  }
  peak.end(state);
  if (!std::is_sorted(copy.begin(), copy.end()))
    state.SkipWithError("std::sort left the copy unsorted");
  timings()[key("sort", Shape::Uniform, n)] = watch.perIteration();
  setItems(state, n);
}

BENCHMARK_CAPTURE(BM_Sort_Doubles, 1e7, k1e7)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// ------------------------------------------------------------ addArray

enum class Path { Serial, Parallel, OneWorker };

const char* pathName(Path path) {
  switch (path) {
    case Path::Serial:
      return "serial";
    case Path::Parallel:
      return "parallel";
    case Path::OneWorker:
      return "one-worker";
  }
  return "";
}

quorix::RandomStream& benchStream() {
  static const std::unique_ptr<quorix::RandomStream> stream =
      quorix::RandomStream::create("mrg32k3a", 1000000, 0);
  return *stream;
}

// An idle TBB worker spins for a moment before it sleeps; a pause after a
// parallel build keeps that spinning out of the next measurement.
void letWorkersSleep() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

struct Build {
  Timing time;
  std::uint64_t splits = 0;
  std::uint64_t weight = 0;
};

// One addArray of `data` into a fresh digest on the given path.
Build buildOnce(const quorix::HostArray& data, Path path) {
  // One worker: TBB runs the whole reduction on the calling thread.
  std::unique_ptr<tbb::global_control> oneWorker;
  if (path == Path::OneWorker) {
    oneWorker =
        std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, 1);
  }
  zotdigest::TDigest digest;
  digest.stream = &benchStream();
  const std::uint64_t firstIndex = zotdigest::nextSubstreamIndex();
  Stopwatch watch;
  watch.start();
  zotdigest::addArray<double>(data, digest, path == Path::Serial);
  watch.stop();
  Build build;
  build.time = watch.perIteration();
  build.splits = zotdigest::nextSubstreamIndex() - firstIndex - 1;
  build.weight = digest.totalWeight;
  return build;
}

void runAddArray(benchmark::State& state, Path path, Shape shape, std::size_t n) {
  const quorix::HostArray& data = input(shape, n);
  letWorkersSleep();
  PeakGrowth peak;
  Timing total;
  std::uint64_t weight = 0;
  std::uint64_t splits = 0;
  peak.begin();
  for (auto _ : state) {
    const Build build = buildOnce(data, path);
    total.wall += build.time.wall;
    total.cpu += build.time.cpu;
    splits += build.splits;
    weight = build.weight;
    benchmark::DoNotOptimize(weight);
  }
  peak.end(state);
  if (weight != n) {
    state.SkipWithError(("the digest took " + std::to_string(weight) + " values").c_str());
    return;
  }
  const double iterations = static_cast<double>(state.iterations());
  const Timing mine{total.wall / iterations, total.cpu / iterations};
  timings()[key(pathName(path), shape, n)] = mine;
  if (path != Path::Serial) {
    reportRatio(state, "cpu_x_serial", mine.cpu, key("serial", shape, n), &Timing::cpu);
    state.counters["splits"] = static_cast<double>(splits) / iterations;
  }
  if (path == Path::Parallel) {
    reportRatio(state, "wall_x_sort", mine.wall, key("sort", Shape::Uniform, n), &Timing::wall);
    state.counters["overlap"] = mine.cpu / mine.wall;
  }
  setItems(state, n);
}

void BM_AddArray_Serial(benchmark::State& state, Shape shape, std::size_t n) {
  runAddArray(state, Path::Serial, shape, n);
}
void BM_AddArray_Parallel(benchmark::State& state, Shape shape, std::size_t n) {
  runAddArray(state, Path::Parallel, shape, n);
}
void BM_AddArray_Parallel_OneWorker(benchmark::State& state, Shape shape, std::size_t n) {
  runAddArray(state, Path::OneWorker, shape, n);
}

// Registration order is run order: each yardstick runs just before the
// cases measured against it, so that all of them see much the same machine.
#define ZOTDIGEST_BUILD_CASE(fn, name, shape, n) \
  BENCHMARK_CAPTURE(fn, name, shape, n)          \
      ->Unit(benchmark::kMillisecond)            \
      ->UseRealTime()                            \
      ->MeasureProcessCPUTime()

ZOTDIGEST_BUILD_CASE(BM_AddArray_Serial, uniform_1e7, Shape::Uniform, k1e7);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel, uniform_1e7, Shape::Uniform, k1e7);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel_OneWorker, uniform_1e7, Shape::Uniform, k1e7);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Serial, sorted_1e7, Shape::Sorted, k1e7);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel, sorted_1e7, Shape::Sorted, k1e7);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel_OneWorker, sorted_1e7, Shape::Sorted, k1e7);

// ------------------------------------------------- work efficiency

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t mid = v.size() / 2;
  return v.size() % 2 != 0 ? v[mid] : (v[mid - 1] + v[mid]) / 2.0;
}

// The CPU cost of the parallel path against the serial path, taken so that
// a loaded machine disturbs it little. On a shared machine the CPU time of
// one and the same build varies by a fifth from run to run (its core is
// slowed by what runs beside it), which swamps single-run ratios such as
// cpu_x_serial above. Here each round builds the same values serially, with
// one worker and in parallel, back to back, and the round's ratios compare
// builds that saw much the same machine; the median over the rounds is
// reported. The input is 10^6 values, so the fixed costs of the parallel
// path (generator, splits, joins, the last merge and compress) weigh ten
// times more than at 10^7: the figures are if anything pessimistic. Read
// cpu_x_serial together with overlap (see the top of this file).
void BM_AddArray_WorkEfficiency(benchmark::State& state, Shape shape, std::size_t n) {
  constexpr int kRounds = 9;
  const quorix::HostArray& data = input(shape, n);
  std::vector<double> parallel;
  std::vector<double> oneWorker;
  std::vector<double> overlap;
  bool complete = true;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      const Build s = buildOnce(data, Path::Serial);
      const Build o = buildOnce(data, Path::OneWorker);
      const Build p = buildOnce(data, Path::Parallel);
      letWorkersSleep();
      complete = complete && s.weight == n && o.weight == n && p.weight == n;
      parallel.push_back(p.time.cpu / s.time.cpu);
      oneWorker.push_back(o.time.cpu / s.time.cpu);
      overlap.push_back(p.time.cpu / p.time.wall);
    }
  }
  if (!complete) {
    state.SkipWithError("a digest did not take every value");
    return;
  }
  state.counters["cpu_x_serial"] = median(parallel);
  state.counters["one_worker_cpu_x_serial"] = median(oneWorker);
  state.counters["overlap"] = median(overlap);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * 3 * kRounds *
                          static_cast<std::int64_t>(n));
}

BENCHMARK_CAPTURE(BM_AddArray_WorkEfficiency, uniform_1e6, Shape::Uniform, k1e6)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_AddArray_WorkEfficiency, sorted_1e6, Shape::Sorted, k1e6)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Iterations(1);

// ---------------------------------------------------- column build

void BM_ColumnBuild_1e4x1e3(benchmark::State& state) {
  static const bool registered = [] {
    zotdigest::registerMessageTexts();
    zotdigest::registerTDigestClass();
    return true;
  }();
  benchmark::DoNotOptimize(registered);
  static const quorix::HostArrayPtr matrix = [] {
    auto m =
        quorix::HostArray::createNumericMatrix(kColumnRows, kColumnCount, quorix::ClassID::Double);
    fillUniform(m->data<double>(), kColumnRows * kColumnCount);
    return m;
  }();
  Stopwatch watch;
  PeakGrowth peak;
  std::size_t digests = 0;
  peak.begin();
  for (auto _ : state) {
    watch.start();
    const quorix::HostArrayPtr result =
        zotdigest::buildColumnDigests(*matrix, 100.0, benchStream());
    watch.stop();
    digests = result->numel();
    benchmark::DoNotOptimize(digests);
  }
  peak.end(state);
  if (digests != kColumnCount) state.SkipWithError("wrong number of column digests");
  timings()["column"] = watch.perIteration();
  setItems(state, kColumnRows * kColumnCount);
}

BENCHMARK(BM_ColumnBuild_1e4x1e3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// ---------------------------------------------------------------- 10^8

BENCHMARK_CAPTURE(BM_Sort_Doubles, 1e8, k1e8)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Iterations(1);

ZOTDIGEST_BUILD_CASE(BM_AddArray_Serial, uniform_1e8, Shape::Uniform, k1e8)->Iterations(1);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel, uniform_1e8, Shape::Uniform, k1e8)->Iterations(1);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Serial, sorted_1e8, Shape::Sorted, k1e8)->Iterations(1);
ZOTDIGEST_BUILD_CASE(BM_AddArray_Parallel, sorted_1e8, Shape::Sorted, k1e8)->Iterations(1);

#undef ZOTDIGEST_BUILD_CASE

}  // namespace
