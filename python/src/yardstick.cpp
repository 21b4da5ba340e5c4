#include "yardstick.h"

#include <chrono>
#include <cstddef>
#include <string>

#include "call_arguments.h"
#include "conversion.h"
#include "host_object.h"
#include "quorix/object_system.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

double nativeCalls(py::handle digest, const std::string& name, double x, std::size_t n) {
  const HostObject* const self = hostObjectOf(digest);
  if (self == nullptr || n == 0) {
    throw py::type_error("zotdigest: _native_calls needs a TDigest and n > 0");
  }
  const quorix::HostArrayPtr argument = quorix::HostArray::createDoubleScalar(x);
  const quorix::HostArray* const inputs[] = {self->array.get(), argument.get()};
  // Resolved once, as the Python methods are.
  const quorix::MethodHandle method(self->array->objectClassName(), name);
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < n; ++i) {
    HostOutputs out(1);
    method.call(1, out.data(), 2, inputs);
    // As the Python call does with an answer it has read.
    quorix::HostArray::recycle(out.release(0));
  }
  const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / static_cast<double>(n);
}

}  // namespace

void register_yardstick(py::module_& m) {
  m.def(
      "_noop", [] {}, "Does nothing: the cost of a plain pybind11 call, for benchmarks.");
  m.def("_native_calls", &nativeCalls, py::arg("digest"), py::arg("name"), py::arg("x"),
        py::arg("n"),
        "Calls method `name` of `digest` with the double scalar x, n times, from C++\n"
        "through the runtime; returns nanoseconds per call. For benchmarks.");
}

}  // namespace zotdigest::python
