#include "routines.h"

#include <cstddef>
#include <utility>

#include "conversion.h"
#include "host_call.h"
#include "host_module.h"
#include "host_object.h"

namespace py = pybind11;
using quorix::HostArrayPtr;

namespace zotdigest::python {

namespace {

// Positions of the routines in the module's function table.
constexpr std::size_t kMergeDigests = 0;
constexpr std::size_t kColumnDigests = 1;
constexpr std::size_t kMergeColumns = 2;

HostArrayPtr callRoutine(std::size_t index, const HostInputs& inputs) {
  quorix::Module& module = zotdigestModule();
  HostOutputs out(1);
  callReleased(locksOf(inputs), [&] {
    // Released: building or merging many digests may take seconds and must
    // let Ctrl-C through.
    module.call(index, 1, out.data(), inputs.count(), inputs.data());
    return true;
  });
  return out.release(0);
}

// An object array of digests for Python, each wrapper keeping the stream its
// digest now borrows.
py::array digestArray(HostArrayPtr result, const py::object& stream) {
  py::array digests = objectArrayToNumpy(*result);
  if (auto held = streamOf(stream)) {
    for (const py::handle item : digests.attr("flat")) {
      item.cast<HostObject&>().lastStream = held;
    }
  }
  return digests;
}

py::object merge(const py::object& digests, const py::object& stream) {
  const HostInputs inputs = optionalInputs({digests, stream});
  py::object merged = toPython(callRoutine(kMergeDigests, inputs));
  if (py::isinstance<HostObject>(merged)) {
    merged.cast<HostObject&>().lastStream = streamOf(stream);
  }
  return merged;
}

py::array columnDigests(const py::object& data, const py::object& delta, const py::object& stream) {
  const HostInputs inputs = optionalInputs({data, delta, stream});
  return digestArray(callRoutine(kColumnDigests, inputs), stream);
}

py::array mergeColumns(const py::object& digests, const py::object& stream) {
  const HostInputs inputs = optionalInputs({digests, stream});
  return digestArray(callRoutine(kMergeColumns, inputs), stream);
}

}  // namespace

void register_routines(py::module_& m) {
  m.def("merge", &merge, py::arg("digests"), py::arg("stream") = py::none(),
        "Merges a list, tuple or object array of digests of equal Delta into one new\n"
        "digest; the digests are unchanged.");
  m.def("column_digests", &columnDigests, py::arg("data"), py::arg("delta") = 100.0,
        py::arg("stream") = py::none(),
        "One digest of compression `delta` per column of `data`, built in parallel\n"
        "(serially and reproducibly with a RandomStream); returns an object array of\n"
        "the data's dimensions with the first replaced by 1 (0 x N for no rows).");
  m.def("merge_columns", &mergeColumns, py::arg("digests"), py::arg("stream") = py::none(),
        "Merges an object array of digests down its first dimension; returns an object\n"
        "array of the input's dimensions with the first replaced by 1.");
  m.def(
      "module_info",
      [] {
        const quorix::Module& module = zotdigestModule();
        py::dict info;
        info["name"] = module.name();
        info["path"] = module.path();
        info["version"] = module.version();
        info["build_date"] = module.buildDate();
        info["routines"] = module.routineCount();
        return info;
      },
      "Name, path, version and build date of the loaded zotdigest module.");
}

}  // namespace zotdigest::python
