// Locks on the runtime's objects for the duration of one call.
//
// Design note. A digest is not safe for concurrent use, but separate digests
// are: the module keeps no unguarded state shared between them (its random
// streams and counters are atomic). Python threads may therefore call into
// separate digests at once, and only calls that touch a common object must
// wait for each other. Each object maps to one of kStripes mutexes by its
// address; a call takes the mutexes of every object among its inputs (the
// digest it is a method of, digests passed as arguments, every element of
// an object array) in ascending stripe order, so that two calls can never
// wait for each other in a cycle. Two unrelated digests that share a stripe
// only serialise, which is rare and harmless. The set is a bit mask: no
// allocation, whatever the number of objects.
#pragma once

#include <cstdint>

#include "quorix/host_array.h"

namespace zotdigest::python {

class ObjectLocks {
 public:
  static constexpr unsigned kStripes = 64;

  // Adds every object of an object array; other arrays hold no object.
  void add(const quorix::HostArray& array);
  bool empty() const noexcept { return stripes_ == 0; }

  // Takes every stripe, in ascending order, waiting as long as needed.
  void lock();
  // Takes every stripe without waiting: true if all were free (then all are
  // held), false if one was taken (then none is held).
  bool tryLock();
  // Releases every stripe taken by lock or a successful tryLock.
  void unlock() noexcept;

 private:
  std::uint64_t stripes_ = 0;
};

}  // namespace zotdigest::python
