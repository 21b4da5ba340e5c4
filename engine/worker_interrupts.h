// How Ctrl-C leaves a build that runs on oneTBB's worker threads.
//
// The runtime's check clears the interrupt flag when it raises, so the
// tasks still running on other workers would not see it and would finish
// their work (seconds for some data). A call into the module on a worker
// (onWorker) sets the flag again when it raises the interrupt, so each of
// the others stops at its next check; TBB cancels the rest and rethrows on
// the calling thread, where the public operation (interruptible) clears the
// flag once every worker has stopped, as the runtime's check leaves it.
#pragma once

#include "quorix/interrupt.h"
#include "quorix/messages.h"

namespace zotdigest::engine {

inline bool isInterrupt(const quorix::MsgIDException& e) {
  return e.identifier() == "QUORIX:interrupt:Interrupted";
}

template <class Work>
auto onWorker(Work&& work) {
  try {
    return work();
  } catch (const quorix::MsgIDException& e) {
    if (isInterrupt(e)) {
      quorix::requestInterrupt();
    }
    throw;
  }
}

template <class Work>
void interruptible(Work&& work) {
  try {
    work();
  } catch (const quorix::MsgIDException& e) {
    if (isInterrupt(e)) {
      quorix::clearInterrupt();
    }
    throw;
  }
}

}  // namespace zotdigest::engine
