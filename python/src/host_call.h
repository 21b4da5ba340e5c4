// The boundary between Python and the runtime.
//
// Design note. Every call into the runtime goes through callReleased or
// callHeld:
// - The module is used by one Python thread at a time: a process-wide mutex
//   serialises calls (a digest is not safe for concurrent use, and the module
//   parallelises internally with TBB anyway). The mutex is never waited for
//   while holding the GIL, and a released call drops it before taking the
//   GIL back, so the two locks cannot deadlock.
// - callReleased runs the work without the GIL. While it runs on the main
//   thread, SIGINT sets the runtime's interrupt flag instead of Python's, so
//   Ctrl-C stops the module at its next check ("QUORIX:interrupt:Interrupted",
//   seen in Python as KeyboardInterrupt). A Ctrl-C that the module did not
//   consume is handed back to Python as a pending SIGINT.
// - Warnings queued during the call are emitted afterwards, on this thread,
//   also when the call failed.
// The work must not touch any Python object: inputs are converted before,
// outputs after.
#pragma once

#include <pybind11/pybind11.h>

#include <csignal>
#include <mutex>
#include <type_traits>
#include <utility>

#include "errors.h"

namespace zotdigest::python {

// The mutex that serialises calls into the runtime.
std::mutex& moduleMutex();

// Locks moduleMutex from a thread holding the GIL, dropping the GIL only if
// it has to wait.
std::unique_lock<std::mutex> lockModuleHoldingGil();

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

 private:
  bool installed_ = false;
  struct sigaction previous_ {};
};

// Runs work() (which returns a value) without the GIL, interruptible by
// Ctrl-C, then emits pending warnings. Callers say why they release.
template <class Work>
auto callReleased(Work&& work) -> decltype(work()) {
  static_assert(!std::is_void_v<decltype(work())>, "work must return a value");
  InterruptWatch watch;
  try {
    auto result = [&] {
      // The work touches no Python object (see the design note above).
      pybind11::gil_scoped_release release;
      const std::lock_guard<std::mutex> lock(moduleMutex());
      return work();
    }();
    watch.finish();
    emitPendingWarnings();
    return result;
  } catch (...) {
    watch.finish();
    emitPendingWarnings();
    throw;
  }
}

// Runs a short work() with the GIL held, then emits pending warnings.
template <class Work>
auto callHeld(Work&& work) -> decltype(work()) {
  static_assert(!std::is_void_v<decltype(work())>, "work must return a value");
  try {
    auto result = [&] {
      const std::unique_lock<std::mutex> lock = lockModuleHoldingGil();
      return work();
    }();
    emitPendingWarnings();
    return result;
  } catch (...) {
    emitPendingWarnings();
    throw;
  }
}

}  // namespace zotdigest::python
