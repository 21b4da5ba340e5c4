// Python methods that call straight into C++, for the generated members of
// TDigest.
//
// Design note. A pybind11 function receives its arguments as a tuple and
// finds its overload by trying each in turn; for a scalar query that costs
// more than the query itself. A method made here is an object of a small
// type of our own that implements the vectorcall protocol and is a method
// descriptor (Py_TPFLAGS_METHOD_DESCRIPTOR): `d.icdf(q)` calls it with the
// array (d, q) as it stands on the interpreter's stack, with no bound method
// and no tuple made. `d.icdf` alone still gives an ordinary bound method,
// and `TDigest.icdf(d, q)` works as for any method. The method takes
// positional arguments only; its __doc__ can be replaced.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>

#include "quorix/object_system.h"

namespace zotdigest::python {

// What one method calls.
struct MethodTarget {
  // The method's name, resolved against its class once.
  quorix::MethodHandle method;
  // The most outputs any overload of the name declares.
  std::size_t outputs = 0;
  // Runs the method: args[0] is the object the method was called on (not
  // yet checked), args[1 .. nargs-1] the arguments. Errors leave as C++
  // exceptions and are translated by setPythonError.
  pybind11::object (*body)(const MethodTarget& target, PyObject* const* args,
                           std::size_t nargs) = nullptr;
};

// A new method object for `target`, documented by `doc`; `owner` is the
// class the method is set on (it names the method's __qualname__).
pybind11::object makeMethod(const pybind11::handle& owner, MethodTarget target,
                            const std::string& doc);

}  // namespace zotdigest::python
