// The process-wide interrupt flag. A front end sets it (SIGINT handler,
// Ctrl-C during a call that released the interpreter lock); long loops poll
// it with checkInterrupt at points where stopping leaves state consistent.
#pragma once

#include "quorix/config.h"

namespace quorix {

// Async-signal-safe.
QUORIX_API void requestInterrupt() noexcept;
QUORIX_API bool interruptPending() noexcept;
QUORIX_API void clearInterrupt() noexcept;
// Raises "QUORIX:interrupt:Interrupted" and clears the flag when it is set.
// Safe from any thread.
QUORIX_API void checkInterrupt();

}  // namespace quorix
