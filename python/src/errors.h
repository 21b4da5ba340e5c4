// Errors and warnings of the runtime, as Python sees them.
//
// Errors: every quorix::MsgIDException that reaches the boundary is turned,
// in one place (setPythonError), into an instance of zotdigest.HostError
// carrying `identifier` and `message`. HostError derives from Exception
// only; an identifier that names a wrong kind of argument raises
// HostTypeError (HostError and TypeError), one that names a bad value or a
// state the value cannot be computed in raises HostValueError (HostError and
// ValueError), every other identifier plain HostError (see errorClassFor in
// errors.cpp for the table). The runtime's interrupt error becomes
// KeyboardInterrupt.
//
// Warnings: the runtime may issue a warning from any thread, TBB workers
// included, with or without the interpreter lock. The sink installed here
// therefore never touches Python: it queues the warning, and the boundary
// emits the queue through Python's warnings module (category
// zotdigest.HostWarning, a UserWarning with `identifier`) on the calling
// thread once a call returns. With several Python threads calling at once,
// a warning is emitted by whichever call returns next.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds HostError, HostValueError, HostTypeError and HostWarning to the
// module, registers the exception translator for pybind11-made functions and
// installs the warning sink.
void register_errors(pybind11::module_& m);

// Sets the Python error for the C++ exception being handled; call it from a
// catch (...) block, with the GIL held. Runtime errors become HostError (or
// KeyboardInterrupt), pybind11 errors keep their Python type, other
// exceptions become RuntimeError (MemoryError for std::bad_alloc).
void setPythonError() noexcept;

// Emits the queued warnings through warnings.warn, oldest first; the GIL
// must be held. Costs one atomic load when nothing is queued. A warning
// turned into an error by the warnings filter propagates as
// py::error_already_set; the rest of the queue is dropped.
void emitPendingWarnings();

}  // namespace zotdigest::python
