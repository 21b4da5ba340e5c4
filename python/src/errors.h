// Errors and warnings of the runtime, as Python sees them.
//
// Errors: every quorix::MsgIDException that reaches a bound function is
// translated once, by one pybind11 exception translator, into
// zotdigest.Error (a ValueError) carrying `identifier` and `message`; the
// runtime's interrupt error becomes KeyboardInterrupt.
//
// Warnings: the runtime may issue a warning from any thread, TBB workers
// included, with or without the interpreter lock. The sink installed here
// therefore never touches Python: it queues the warning, and the boundary
// emits the queue through Python's warnings module (category
// zotdigest.ZotdigestWarning) on the calling thread once the call returns.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds Error and ZotdigestWarning to the module, registers the translator and
// installs the warning sink.
void register_errors(pybind11::module_& m);

// Emits the queued warnings through warnings.warn, oldest first; the GIL
// must be held. A warning turned into an error by the warnings filter
// propagates as py::error_already_set; the rest of the queue is dropped.
void emitPendingWarnings();

}  // namespace zotdigest::python
