// The shared generator of parallel construction and its substream positions.
//
// A parallel build creates one "mrg32k3a" generator for the call and hands
// the same pointer to every worker thread through a thread-specific slot
// table. Threads do not get generators of their own: each unit of work (a
// reduction split, a column) moves the one generator to a fresh substream
// taken from a process-wide counter and then draws from it. The generator
// keeps its state in relaxed atomics, so this sharing is free of data races;
// the price is that parallel results are not reproducible run to run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <tbb/cache_aligned_allocator.h>
#include <tbb/enumerable_thread_specific.h>

#include "quorix/random_stream.h"

namespace zotdigest {

// Substream indices run 1 .. kSubstreamCount and then start again at 1; the
// per-call generator is created with this many streams.
inline constexpr std::uint64_t kSubstreamCount = 1000000;

// One slot per thread, every slot holding the per-call generator.
using StreamSlots =
    tbb::enumerable_thread_specific<quorix::RandomStream*,
                                    tbb::cache_aligned_allocator<quorix::RandomStream*>,
                                    tbb::ets_key_per_instance>;

// The next substream index from `counter`: resets the counter from exactly
// kSubstreamCount to 0 (one compare-and-exchange), then increments it and
// returns the incremented value. The two steps are separate atomic
// operations; a counter pushed past kSubstreamCount by two threads at once
// is not reset again and keeps counting.
std::uint64_t takeSubstreamIndex(std::atomic<std::uint64_t>& counter) noexcept;

// takeSubstreamIndex on the process-wide counter shared by every build.
std::uint64_t nextSubstreamIndex() noexcept;

// Moves the generator held in the calling thread's slot to the next
// substream and returns it.
quorix::RandomStream* moveToFreshSubstream(StreamSlots& slots);

// The generator of one parallel call and its slot table. The seed is one
// whole number in [0, 999999] drawn from `seedStream`.
class CallGenerator {
 public:
  explicit CallGenerator(quorix::RandomStream& seedStream);
  CallGenerator(const CallGenerator&) = delete;
  CallGenerator& operator=(const CallGenerator&) = delete;

  StreamSlots& slots() noexcept { return slots_; }

 private:
  std::unique_ptr<quorix::RandomStream> generator_;
  StreamSlots slots_;
};

}  // namespace zotdigest
