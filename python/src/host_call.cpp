#include "host_call.h"

#include "quorix/interrupt.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

extern "C" void onSigint(int) { quorix::requestInterrupt(); }

bool onMainThread() {
  static const unsigned long mainThread =
      py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();
  return PyThread_get_thread_ident() == mainThread;
}

}  // namespace

std::mutex& moduleMutex() {
  static std::mutex mutex;
  return mutex;
}

std::unique_lock<std::mutex> lockModuleHoldingGil() {
  std::unique_lock<std::mutex> lock(moduleMutex(), std::try_to_lock);
  if (!lock.owns_lock()) {
    // Another thread's call may run for seconds: wait without stalling every
    // other Python thread.
    py::gil_scoped_release release;
    lock.lock();
  }
  return lock;
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
  }
}

InterruptWatch::~InterruptWatch() {
  if (installed_) {
    sigaction(SIGINT, &previous_, nullptr);
  }
}

void InterruptWatch::finish() noexcept {
  if (!installed_) {
    return;
  }
  sigaction(SIGINT, &previous_, nullptr);
  installed_ = false;
  if (quorix::interruptPending()) {
    quorix::clearInterrupt();
    PyErr_SetInterrupt();
  }
}

}  // namespace zotdigest::python
