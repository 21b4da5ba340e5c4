#include "object_locks.h"

#include <bit>
#include <cstddef>
#include <mutex>

namespace zotdigest::python {

namespace {

static_assert(ObjectLocks::kStripes == 64, "the stripe set is one 64-bit mask");

// Constant-initialised, with nothing to destroy: usable at any time, also
// by a daemon thread while the process exits.
std::mutex stripes[ObjectLocks::kStripes];

std::mutex& stripe(unsigned i) { return stripes[i]; }

unsigned stripeOf(const void* object) {
  // Fibonacci hashing of the address: heap addresses differ in their middle
  // bits, the top six bits of the product mix all of them.
  const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object));
  return static_cast<unsigned>((address * UINT64_C(0x9E3779B97F4A7C15)) >> 58);
}

// Calls f(i) for every stripe i of the mask, in ascending order.
template <class F>
void forEachStripe(std::uint64_t mask, F&& f) {
  while (mask != 0) {
    const auto i = static_cast<unsigned>(std::countr_zero(mask));
    f(i);
    mask &= mask - 1;
  }
}

}  // namespace

void ObjectLocks::add(const quorix::HostArray& array) {
  if (array.classID() != quorix::ClassID::Object) {
    return;
  }
  for (std::size_t i = 0; i < array.numel(); ++i) {
    const quorix::ObjectHandle& handle = array.object(i);
    if (handle) {
      stripes_ |= std::uint64_t{1} << stripeOf(handle.get());
    }
  }
}

void ObjectLocks::lock() {
  forEachStripe(stripes_, [](unsigned i) { stripe(i).lock(); });
}

bool ObjectLocks::tryLock() {
  std::uint64_t taken = 0;
  bool all = true;
  forEachStripe(stripes_, [&](unsigned i) {
    if (all && stripe(i).try_lock()) {
      taken |= std::uint64_t{1} << i;
    } else {
      all = false;
    }
  });
  if (!all) {
    forEachStripe(taken, [](unsigned i) { stripe(i).unlock(); });
  }
  return all;
}

void ObjectLocks::unlock() noexcept {
  forEachStripe(stripes_, [](unsigned i) { stripe(i).unlock(); });
}

}  // namespace zotdigest::python
