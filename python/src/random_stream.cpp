#include "random_stream.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <limits>
#include <string>

namespace py = pybind11;

namespace zotdigest::python {

namespace {

// Streams are addressed by seed; the runtime requires room for at least a
// million of them.
constexpr std::uint64_t kStreamCount = 1000000;

// A Python integer as a seed. Values no uint64 can hold become one the
// runtime refuses, so that its own check reports the error with its own
// identifier.
std::uint64_t seedValue(const py::handle& seed) {
  const py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(seed.ptr()));
  if (!index) {
    throw py::error_already_set();
  }
  const unsigned long long value = PyLong_AsUnsignedLongLong(index.ptr());
  if (PyErr_Occurred() != nullptr) {
    PyErr_Clear();
    return std::numeric_limits<std::uint64_t>::max();
  }
  return value;
}

StreamHandle defaultHandle() {
  // The runtime owns the default stream for the whole process: share it
  // without owning it.
  return StreamHandle{std::shared_ptr<quorix::RandomStream>(
      std::shared_ptr<quorix::RandomStream>{}, &quorix::RandomStream::defaultStream())};
}

}  // namespace

void register_random_stream(py::module_& m) {
  py::class_<StreamHandle> cls(
      m, "RandomStream",
      "A stream of uniform random numbers from the runtime.\n\n"
      "RandomStream(generator='mrg32k3a', seed=0) starts stream `seed` of\n"
      "the generator; results are reproducible from the seed on any machine.\n"
      "Pass a stream where the module takes one (TDigest(x, None, s),\n"
      "add(x, s), merge(other, s), the routines) to make its random choices\n"
      "reproducible.");
  cls.def(py::init([](const std::string& generator, const py::object& seed) {
            return StreamHandle{std::shared_ptr<quorix::RandomStream>(
                quorix::RandomStream::create(generator, kStreamCount, seedValue(seed)))};
          }),
          py::arg("generator") = "mrg32k3a", py::arg("seed") = 0)
      .def(
          "rand",
          [](const StreamHandle& self, py::ssize_t n) {
            if (n < 0) {
              throw py::value_error("zotdigest: rand(n) needs n >= 0");
            }
            py::array_t<double> out(n);
            self.stream->uniform(out.mutable_data(), static_cast<std::size_t>(n));
            return out;
          },
          py::arg("n"), "The next n uniform draws in (0, 1), as a float64 array.")
      .def(
          "reset",
          [](const StreamHandle& self, const py::object& seed) {
            self.stream->reset(seed.is_none() ? self.stream->seed() : seedValue(seed));
          },
          py::arg("seed") = py::none(),
          "Moves to the start of stream `seed`; without a seed, back to the start of the\n"
          "current stream.")
      .def_static("default", &defaultHandle,
                  "The process-wide default stream (mrg32k3a, seed 0), which the module uses\n"
                  "when no stream is passed.")
      .def_property_readonly(
          "generator",
          [](const StreamHandle& self) { return std::string(self.stream->generatorName()); },
          "The generator's name.")
      .def_property_readonly(
          "seed", [](const StreamHandle& self) { return self.stream->seed(); },
          "The seed that selected the current stream.")
      .def("__repr__", [](const StreamHandle& self) {
        return "RandomStream('" + std::string(self.stream->generatorName()) +
               "', seed=" + std::to_string(self.stream->seed()) + ")";
      });
  // Users meet the class as zotdigest.RandomStream.
  cls.attr("__module__") = "zotdigest";
}

}  // namespace zotdigest::python
