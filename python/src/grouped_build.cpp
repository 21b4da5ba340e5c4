#include "grouped_build.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "conversion.h"
#include "engine/grouped_build.h"
#include "host_call.h"
#include "reproducible_build.h"

namespace py = pybind11;

namespace zotdigest::python {
namespace {

using CodeArray = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>;
using WeightArray = py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>;

void checkLength(const char* name, py::ssize_t length, std::size_t count) {
  if (static_cast<std::size_t>(length) != count) {
    throw py::value_error(std::string("zotdigest: ") + name + " has " + std::to_string(length) +
                          " elements but the values have " + std::to_string(count));
  }
}

py::list groupedDigests(const py::array& values, const CodeArray& codes, std::size_t groups,
                        const py::object& weights, double delta, const py::object& seed,
                        const py::object& threads) {
  if (values.ndim() != 1) {
    throw py::value_error("zotdigest: values must be a 1-D array");
  }
  quorix::HostArrayPtr held = toHostArray(values);
  const std::size_t count = static_cast<std::size_t>(values.size());
  if (count > 0 && (!held->isNumeric() || held->isComplex())) {
    throw py::type_error("zotdigest: values must be real numbers");
  }
  checkLength("codes", codes.size(), count);
  std::optional<WeightArray> w;
  if (!weights.is_none()) {
    w = weights.cast<WeightArray>();
    checkLength("weights", w->size(), count);
  }
  const engine::GroupedInput input{count > 0 ? held->realData() : nullptr,
                                   count > 0 ? held->classID() : quorix::ClassID::Double,
                                   count,
                                   codes.data(),
                                   groups,
                                   w ? w->data() : nullptr};
  const engine::BuildOptions options{delta, checkedSeed(seed), checkedThreads(threads)};
  std::vector<quorix::HostArrayPtr> digests = callReleased(ObjectLocks{}, [&] {
    // Released: a pass over every value and one build per group, on all
    // worker threads; Ctrl-C must get through.
    return engine::groupedDigests(input, options);
  });
  held.reset();
  py::list out(digests.size());
  for (std::size_t g = 0; g < digests.size(); ++g) {
    out[g] = toPython(std::move(digests[g]));
  }
  return out;
}

}  // namespace

void register_grouped_build(py::module_& m) {
  m.def("_grouped_digests", &groupedDigests, py::arg("values"), py::arg("codes"), py::arg("groups"),
        py::arg("weights") = py::none(), py::arg("delta") = 100.0, py::arg("seed") = 0,
        py::arg("threads") = py::none(),
        "One reproducible digest per group code 0 .. groups-1 (for zotdigest.digest_by).");
}

}  // namespace zotdigest::python
