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
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <vector>

#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace zotdigest::python {

// Python value -> host array, by the rules above. Raises TypeError for values
// without a host counterpart.
quorix::HostArrayPtr toHostArray(pybind11::handle value);

// Host array -> Python value, by the rules above; takes ownership. Raises
// TypeError for classes Python cannot receive (cell, struct, objects of
// classes other than TDigest).
pybind11::object toPython(quorix::HostArrayPtr array);

// An object array as a NumPy object array of the host's dimensions, also
// when it holds a single object.
pybind11::array objectArrayToNumpy(const quorix::HostArray& array);

// The stream held by a Python RandomStream, or null for any other value.
std::shared_ptr<quorix::RandomStream> streamOf(pybind11::handle value);

// The converted inputs of one call, in order, with the raw pointer list the
// runtime takes.
class HostInputs {
 public:
  void add(quorix::HostArrayPtr array);
  int count() const noexcept { return static_cast<int>(raw_.size()); }
  const quorix::HostArray* const* data() const noexcept { return raw_.data(); }

 private:
  std::vector<quorix::HostArrayPtr> owned_;
  std::vector<const quorix::HostArray*> raw_;
};

// The inputs of a call whose trailing arguments are optional: as many as the
// last argument that is not None requires, the None values before it passed
// as empty arrays (so f(x, None, s) passes three inputs and f(x) one).
HostInputs optionalInputs(std::initializer_list<pybind11::handle> values);

// Output slots of one call. Arrays the runtime stores in a slot belong to the
// caller; release() hands them over, the destructor frees any not taken.
class HostOutputs {
 public:
  explicit HostOutputs(std::size_t slots) : slots_(slots == 0 ? 1 : slots, nullptr) {}
  ~HostOutputs();
  HostOutputs(const HostOutputs&) = delete;
  HostOutputs& operator=(const HostOutputs&) = delete;

  quorix::HostArray** data() noexcept { return slots_.data(); }
  // Takes output i (null if the runtime left it empty).
  quorix::HostArrayPtr release(std::size_t i);

 private:
  std::vector<quorix::HostArray*> slots_;
};

// Adds the test helper _host_array_info(value): how a value reaches the
// runtime (class name, dimensions, complex flag, whether the host array
// views the value's own buffer).
void register_conversion(pybind11::module_& m);

}  // namespace zotdigest::python
