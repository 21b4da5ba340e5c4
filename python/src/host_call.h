// The boundary between Python and the runtime.
//
// Design note. Every call into the runtime goes through callReleased or
// callHeld, with the ObjectLocks of the objects it touches:
// - Calls that touch separate objects run at once; calls that share an
//   object wait for each other (object_locks.h). An object lock is never
//   waited for while holding the GIL, and a released call drops its locks
//   before taking the GIL back, so the two kinds of lock cannot deadlock.
// - callReleased runs the work without the GIL. While it runs on the main
//   thread, SIGINT sets the runtime's interrupt flag instead of Python's, so
//   Ctrl-C stops the module at its next check ("QUORIX:interrupt:Interrupted",
//   seen in Python as KeyboardInterrupt). A Ctrl-C that the module did not
//   consume is handed back to Python as a pending SIGINT. The flag is
//   process-wide: when a call on another thread consumes a Ctrl-C meant for
//   the main thread's call, it sets the flag again so that call stops too.
// - callHeld keeps the GIL, for calls known to be short (isShortCall): a
//   scalar query costs less than releasing and retaking the GIL would.
// - Warnings queued during the call are emitted afterwards, on this thread,
//   also when the call failed.
// The work must not touch any Python object: inputs are converted before,
// outputs after.
#pragma once

#include <pybind11/pybind11.h>

#include <csignal>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "call_arguments.h"
#include "errors.h"
#include "object_locks.h"

namespace zotdigest::python {

// Inputs with at most this many elements each, and no objects, make a short
// call. Queries walk the centroids once per element, so a few dozen elements
// stay in the microseconds.
inline constexpr std::size_t kShortCallElements = 16;

// Whether a call on these inputs is short enough to hold the GIL: no input
// from position `first` on holds objects or more than kShortCallElements
// elements. Inputs before `first` (the object a method is called on) are not
// counted.
bool isShortCall(const HostInputs& inputs, std::size_t first);

// The locks of every object among the inputs.
ObjectLocks locksOf(const HostInputs& inputs);

// Routes SIGINT to quorix::requestInterrupt while alive. Installs itself only
// on Python's main thread and only when Python handles SIGINT (not when the
// signal is ignored or left at its default action).
class InterruptWatch {
 public:
  InterruptWatch();
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

  // Restores Python's handler. A request the call left unconsumed is cleared
  // and re-raised as Python's own pending SIGINT. Needs the GIL.
  void finish() noexcept;

  // From a catch block of a call that failed: when the failure is the
  // runtime's interrupt, this call had no watch of its own and another
  // thread's call is being watched, sets the flag again for that call.
  void handOnInterrupt() const noexcept;

 private:
  bool installed_ = false;
  struct sigaction previous_ {};
};

// Holds ObjectLocks::lock for a scope.
class LockedObjects {
 public:
  explicit LockedObjects(ObjectLocks& locks) : locks_(locks) { locks_.lock(); }
  ~LockedObjects() { locks_.unlock(); }
  LockedObjects(const LockedObjects&) = delete;
  LockedObjects& operator=(const LockedObjects&) = delete;

 private:
  ObjectLocks& locks_;
};

// Takes the locks from a thread holding the GIL, dropping the GIL only if it
// has to wait; beforeWaiting() runs first in that case, for a caller that
// relies on the GIL to keep its inputs alive. Releases them when destroyed.
class LockedHoldingGil {
 public:
  explicit LockedHoldingGil(ObjectLocks& locks) : LockedHoldingGil(locks, [] {}) {}
  template <class BeforeWaiting>
  LockedHoldingGil(ObjectLocks& locks, BeforeWaiting&& beforeWaiting) : locks_(locks) {
    if (!locks_.tryLock()) {
      beforeWaiting();
      waitWithoutGil();
    }
  }
  ~LockedHoldingGil() { locks_.unlock(); }
  LockedHoldingGil(const LockedHoldingGil&) = delete;
  LockedHoldingGil& operator=(const LockedHoldingGil&) = delete;

 private:
  void waitWithoutGil();

  ObjectLocks& locks_;
};

// Runs work() (which returns a value) without the GIL, interruptible by
// Ctrl-C, then emits pending warnings. Callers say why they release.
template <class Work>
auto callReleased(ObjectLocks locks, Work&& work) -> decltype(work()) {
  static_assert(!std::is_void_v<decltype(work())>, "work must return a value");
  InterruptWatch watch;
  try {
    auto result = [&] {
      // The work touches no Python object (see the design note above).
      pybind11::gil_scoped_release release;
      const LockedObjects locked(locks);
      return work();
    }();
    watch.finish();
    emitPendingWarnings();
    return result;
  } catch (...) {
    watch.handOnInterrupt();
    watch.finish();
    emitPendingWarnings();
    throw;
  }
}

// Runs a short work() with the GIL held, then emits pending warnings. If the
// locks are taken, beforeWaiting() runs before the GIL is let go to wait.
template <class Work, class BeforeWaiting>
auto callHeld(ObjectLocks locks, Work&& work, BeforeWaiting&& beforeWaiting) -> decltype(work()) {
  static_assert(!std::is_void_v<decltype(work())>, "work must return a value");
  try {
    auto result = [&] {
      const LockedHoldingGil locked(locks, beforeWaiting);
      return work();
    }();
    emitPendingWarnings();
    return result;
  } catch (...) {
    emitPendingWarnings();
    throw;
  }
}

template <class Work>
auto callHeld(ObjectLocks locks, Work&& work) -> decltype(work()) {
  return callHeld(locks, std::forward<Work>(work), [] {});
}

// callHeld when the inputs from position `first` on make a short call,
// callReleased otherwise; the objects among all inputs are locked.
template <class Work>
auto callFitting(const HostInputs& inputs, std::size_t first, Work&& work) -> decltype(work()) {
  if (isShortCall(inputs, first)) {
    return callHeld(locksOf(inputs), std::forward<Work>(work));
  }
  // Released: the call may add or merge many values and must let Ctrl-C in.
  return callReleased(locksOf(inputs), std::forward<Work>(work));
}

}  // namespace zotdigest::python
