// Conversions between Python values and host arrays.
//
// Design note. Into the runtime (toHostArray):
// - None and an empty list or tuple are the empty 0x0 double array, so the
//   module's own rules for empty inputs apply.
// - A Python bool is a logical scalar, a Python int or float a double scalar,
//   a Python complex a complex double scalar, a str a 1 x n char array.
// - A TDigest is a scalar object; a RandomStream the runtime's "RandomStream"
//   host value.
// - Everything else goes through numpy.asarray and keeps its class: the ten
//   numeric dtypes map to the ten numeric classes, bool to logical,
//   complex64/complex128 to complex single/double, object arrays of TDigest
//   to object arrays. float16, long double, string arrays and other objects
//   are refused with TypeError.
// - Shapes: a 0-d array is 1x1, a 1-D array of n elements is n x 1, higher
//   dimensions are kept (the host is column-major, so element order is
//   Fortran order).
// - Memory: an aligned, native-endian, Fortran-contiguous array (every
//   contiguous 1-D array is one) is viewed without a copy; the view holds a
//   reference to the NumPy array and drops it under the GIL whenever the
//   last host reference goes. Any other layout is first copied to Fortran
//   order. Complex arrays are always copied: the host keeps the real and
//   imaginary parts in separate buffers.
//
// Out of the runtime (toPython): numeric and logical arrays become NumPy
// arrays with the host's dimensions (two or more) that take over the host
// array's memory; complex arrays are copied; char arrays become str; a scalar
// object becomes its Python wrapper, other object arrays NumPy object arrays.
//
// Answers of methods (answerAfter) take the shape of the first argument, as
// a NumPy user expects: a Python number in gives a Python number out, any
// other 0-d value (a NumPy scalar, a 0-d array) a NumPy scalar, a 1-D array
// of n elements a 1-D array of n elements; 2-D and more keep the module's
// 2-D answer. Answers of a call without arguments that are column vectors
// (the centroid listing) become 1-D.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace zotdigest::python {

struct HostObject;

// What an argument looked like in Python, for shaping an answer after it.
struct ArgumentShape {
  enum class Kind {
    PythonNumber,  // int, float, bool or complex, not a NumPy scalar
    Scalar,        // any other value of no dimensions
    Array,         // one dimension or more
  };
  Kind kind = Kind::Scalar;
  int ndim = 0;
  std::size_t size = 1;
};

// Python value -> host array, by the rules above. Raises TypeError for values
// without a host counterpart. When `shape` is given, records there what the
// value looked like.
quorix::HostArrayPtr toHostArray(pybind11::handle value, ArgumentShape* shape = nullptr);

// The wrapped object of a Python TDigest (or of a subclass), else null.
HostObject* hostObjectOf(pybind11::handle value);

// Host array -> Python value, by the rules above; takes ownership. Raises
// TypeError for classes Python cannot receive (cell, struct, objects of
// classes other than TDigest).
pybind11::object toPython(quorix::HostArrayPtr array);

// The answer of a method called with a first argument of this shape, shaped
// by the rules above; takes ownership.
pybind11::object answerAfter(quorix::HostArrayPtr answer, const ArgumentShape& argument);

// The answer of a method called without arguments: a column vector becomes
// 1-D, anything else is toPython's.
pybind11::object answerWithoutArguments(quorix::HostArrayPtr answer);

// An object array as a NumPy object array of the host's dimensions, also
// when it holds a single object.
pybind11::array objectArrayToNumpy(const quorix::HostArray& array);

// The stream held by a Python RandomStream, or null for any other value.
std::shared_ptr<quorix::RandomStream> streamOf(pybind11::handle value);

// Adds the test helper _host_array_info(value): how a value reaches the
// runtime (class name, dimensions, complex flag, whether the host array
// views the value's own buffer).
void register_conversion(pybind11::module_& m);

}  // namespace zotdigest::python
