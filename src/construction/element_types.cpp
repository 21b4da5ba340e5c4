// Filling a digest from a host array, serially or on TBB workers.
//
// Serial: the elements go to the target digest in order, and the interrupt
// flag is polled after every full block of 10000 elements (never after the
// remainder), so an interrupted digest holds exactly the blocks added so
// far, uncompressed. All draws come from the target's own stream, so the
// result is reproducible from the stream's state.
//
// Parallel: a parallel_reduce whose bodies each own one partial digest. The
// root body works on the calling thread's slot without moving the
// generator; every split moves the shared generator (substream.h) to a fresh
// substream before its partial digest draws from it. The interrupt flag is
// polled at the start of every leaf call and every join; the exception
// cancels the task group and TBB rethrows it on the calling thread. The
// target digest is touched only after the reduction, so an interrupted or
// failed parallel build leaves it as it was.
#include "construction/element_types.h"

#include <cstddef>
#include <cstdint>

#include <tbb/blocked_range.h>
#include <tbb/parallel_reduce.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include "construction/substream.h"
#include "host/errors.h"
#include "quorix/interrupt.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"

namespace zotdigest {

namespace {

constexpr std::size_t kSerialBlock = 10000;

// Reduction body: one partial digest, filled from the elements of its
// ranges and folded together by merge.
class MergedTDigest {
 public:
  // The root body: no substream move, it starts on the calling thread's
  // slot where the generator was freshly seeded.
  MergedTDigest(double delta, StreamSlots& slots) : slots_(&slots) {
    setDelta(partial_, delta);
    partial_.stream = slots_->local();
  }

  // TBB may run this while `from` is still accumulating on another thread;
  // it reads only members that never change after construction (add and
  // compress leave delta alone).
  MergedTDigest(MergedTDigest& from, tbb::split) : slots_(from.slots_) {
    setDelta(partial_, from.partial_.delta);
    partial_.stream = moveToFreshSubstream(*slots_);
  }

  MergedTDigest(const MergedTDigest&) = delete;
  MergedTDigest& operator=(const MergedTDigest&) = delete;

  // Accumulates; never resets the partial digest.
  template <class T>
  void operator()(const tbb::blocked_range<const T*>& range) {
    quorix::checkInterrupt();
    for (const T* p = range.begin(); p != range.end(); ++p) {
      partial_.add(elementValue(*p));
    }
  }

  void join(MergedTDigest& rhs) {
    quorix::checkInterrupt();
    partial_.merge(rhs.partial_);
  }

  const TDigest& partial() const noexcept { return partial_; }

 private:
  TDigest partial_;
  StreamSlots* slots_;
};

template <class T>
void addSerially(const T* first, std::size_t n, TDigest& digest) {
  const std::size_t fullBlocks = n / kSerialBlock;
  const T* p = first;
  for (std::size_t b = 0; b < fullBlocks; ++b) {
    const T* const blockEnd = p + kSerialBlock;
    for (; p != blockEnd; ++p) {
      digest.add(elementValue(*p));
    }
    quorix::checkInterrupt();
  }
  for (const T* const last = first + n; p != last; ++p) {
    digest.add(elementValue(*p));
  }
  digest.compress();
}

template <class T>
void addInParallel(const T* first, std::size_t n, TDigest& digest) {
  CallGenerator generator(quorix::RandomStream::defaultStream());
  MergedTDigest root(digest.delta, generator.slots());
  tbb::task_group_context context(tbb::task_group_context::bound);
  // Grain size 1 with the automatic partitioner: TBB alone decides the
  // split, from the number of workers and from stealing.
  tbb::parallel_reduce(tbb::blocked_range<const T*>(first, first + n, 1), root,
                       tbb::auto_partitioner(), context);
  digest.merge(root.partial());
  digest.compress();
}

}  // namespace

void checkData(const quorix::HostArray& data) {
  if (!data.isNumeric() || data.isComplex()) {
    raiseError<component_QUORIX::catalog_class::key_RequireReal>(RequireReal());
  }
}

template <class T>
void addArray(const quorix::HostArray& data, TDigest& digest, bool serial) {
  const std::size_t n = data.numel();
  checkCapacity(digest.totalWeight, digest.tree.size(), static_cast<std::uint64_t>(n));
  if (n == 0) {
    return;
  }
  if (serial) {
    addSerially(data.data<T>(), n, digest);
  } else {
    addInParallel(data.data<T>(), n, digest);
  }
  checkCapacity(digest.totalWeight, digest.tree.size(), 0);
}

template void addArray<double>(const quorix::HostArray&, TDigest&, bool);
template void addArray<float>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::int8_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::uint8_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::int16_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::uint16_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::int32_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::uint32_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::int64_t>(const quorix::HostArray&, TDigest&, bool);
template void addArray<std::uint64_t>(const quorix::HostArray&, TDigest&, bool);

void addArrayDispatch(const quorix::HostArray& data, TDigest& digest, bool serial) {
  visitElementType(data.classID(), [&](auto type) {
    addArray<typename decltype(type)::type>(data, digest, serial);
  });
}

}  // namespace zotdigest
