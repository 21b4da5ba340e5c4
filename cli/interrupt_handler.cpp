#include "cli/interrupt_handler.h"

#include <signal.h>

#include <csignal>

#include "quorix/interrupt.h"

namespace zotdigest::cli {
namespace {

volatile std::sig_atomic_t presses = 0;

extern "C" void onInterrupt(int) {
  if (presses != 0) {
    // The user insists: take the default action (the shell sees the
    // process ended by SIGINT, which it also reports as 130).
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
    return;
  }
  presses = 1;
  quorix::requestInterrupt();
}

}  // namespace

void installInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocking call returns EINTR and the caller looks at
  // the flag.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
}

}  // namespace zotdigest::cli
