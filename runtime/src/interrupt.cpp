// The interrupt flag: one lock-free atomic, so setting it from a signal
// handler is safe. checkInterrupt takes the flag with an exchange, so one
// request raises exactly once even when several threads poll at the same
// time.
#include "quorix/interrupt.h"

#include <atomic>

#include "quorix/messages.h"

namespace quorix {

namespace {

std::atomic<bool> interruptFlag{false};
static_assert(std::atomic<bool>::is_always_lock_free,
              "the interrupt flag must be settable from a signal handler");

}  // namespace

void requestInterrupt() noexcept { interruptFlag.store(true, std::memory_order_relaxed); }

bool interruptPending() noexcept { return interruptFlag.load(std::memory_order_relaxed); }

void clearInterrupt() noexcept { interruptFlag.store(false, std::memory_order_relaxed); }

void checkInterrupt() {
  // The cheap load first: polling loops call this often and the flag is
  // almost never set.
  if (!interruptFlag.load(std::memory_order_relaxed)) {
    return;
  }
  if (interruptFlag.exchange(false, std::memory_order_relaxed)) {
    raiseHostError(MessageID("QUORIX:interrupt", "Interrupted"));
  }
}

}  // namespace quorix
