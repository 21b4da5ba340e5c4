#include "host_call.h"

#include <atomic>
#include <string>

#include "quorix/interrupt.h"
#include "quorix/messages.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

// Whether a call on the main thread currently routes SIGINT to the runtime.
std::atomic<bool> watchActive{false};

extern "C" void onSigint(int) { quorix::requestInterrupt(); }

bool onMainThread() {
  static const unsigned long mainThread =
      py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();
  return PyThread_get_thread_ident() == mainThread;
}

}  // namespace

bool isShortCall(const HostInputs& inputs, std::size_t first) {
  for (std::size_t i = first; i < static_cast<std::size_t>(inputs.count()); ++i) {
    const quorix::HostArray& input = *inputs.data()[i];
    if (input.classID() == quorix::ClassID::Object || input.numel() > kShortCallElements) {
      return false;
    }
  }
  return true;
}

ObjectLocks locksOf(const HostInputs& inputs) {
  ObjectLocks locks;
  for (int i = 0; i < inputs.count(); ++i) {
    locks.add(*inputs.data()[i]);
  }
  return locks;
}

InterruptWatch::InterruptWatch() {
  if (!onMainThread()) {
    return;
  }
  struct sigaction current {};
  if (sigaction(SIGINT, nullptr, &current) != 0 || current.sa_handler == SIG_IGN ||
      current.sa_handler == SIG_DFL || current.sa_handler == onSigint) {
    return;
  }
  struct sigaction mine {};
  mine.sa_handler = onSigint;
  sigemptyset(&mine.sa_mask);
  mine.sa_flags = 0;
  // A request left over from before the call must not stop this one.
  quorix::clearInterrupt();
  if (sigaction(SIGINT, &mine, &previous_) == 0) {
    installed_ = true;
    watchActive.store(true);
  }
}

InterruptWatch::~InterruptWatch() {
  if (installed_) {
    sigaction(SIGINT, &previous_, nullptr);
    watchActive.store(false);
  }
}

void InterruptWatch::finish() noexcept {
  if (!installed_) {
    return;
  }
  sigaction(SIGINT, &previous_, nullptr);
  installed_ = false;
  watchActive.store(false);
  if (quorix::interruptPending()) {
    quorix::clearInterrupt();
    PyErr_SetInterrupt();
  }
}

void InterruptWatch::handOnInterrupt() const noexcept {
  if (installed_ || !watchActive.load()) {
    return;
  }
  try {
    throw;
  } catch (const quorix::MsgIDException& e) {
    try {
      if (e.identifier() == "QUORIX:interrupt:Interrupted") {
        quorix::requestInterrupt();
      }
    } catch (...) {
      // identifier() allocates; without it there is nothing to hand on.
    }
  } catch (...) {
    // Not the runtime's error: nothing to hand on.
  }
}

void LockedHoldingGil::waitWithoutGil() {
  // Another thread's call on one of these objects may run for seconds: wait
  // without stalling every other Python thread.
  py::gil_scoped_release release;
  locks_.lock();
}

}  // namespace zotdigest::python
