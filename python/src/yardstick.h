// The benchmarks' yardsticks for the cost of a call from Python.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds two private functions for bench/python:
//   _noop()                        a plain pybind11 function that does nothing
//   _native_calls(d, name, x, n)   calls method `name` of digest d with the
//                                  double scalar x n times, from C++ through
//                                  the runtime's dispatch as every Python call
//                                  does, and returns the nanoseconds per call
// so that a scalar query from Python can be set against a call that does
// nothing and against the same query without Python around it.
void register_yardstick(pybind11::module_& m);

}  // namespace zotdigest::python
