// Wall-clock and process CPU time of one piece of work, for the engine's
// benchmarks that print ratios from one run.
#pragma once

#include <chrono>
#include <ctime>
#include <thread>

namespace zotdigest::bench {

struct Timing {
  double wall = 0.0;
  double cpu = 0.0;
};

inline double processCpu() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <class Work>
Timing timed(Work&& work) {
  // Let TBB's workers stop spinning from the last measurement first.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto w0 = std::chrono::steady_clock::now();
  const double c0 = processCpu();
  work();
  const double c1 = processCpu();
  const auto w1 = std::chrono::steady_clock::now();
  return {std::chrono::duration<double>(w1 - w0).count(), c1 - c0};
}

}  // namespace zotdigest::bench
