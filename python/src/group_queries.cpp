#include "group_queries.h"

#include <pybind11/numpy.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "call_arguments.h"
#include "host_call.h"
#include "host_object.h"
#include "object_locks.h"
#include "quorix/interrupt.h"
#include "quorix/object_system.h"

namespace py = pybind11;
using quorix::HostArray;
using quorix::HostArrayPtr;

namespace zotdigest::python {

namespace {

using Points = py::array_t<double, py::array::c_style | py::array::forcecast>;

// The wrappers' arrays, each holding its object for the whole call, and
// their locks.
struct Digests {
  std::vector<std::shared_ptr<const HostArray>> objects;
  ObjectLocks locks;
};

Digests digestsOf(const py::sequence& digests) {
  Digests all;
  all.objects.reserve(digests.size());
  for (const py::handle item : digests) {
    const HostObject* const digest = hostObjectOf(item);
    if (digest == nullptr) {
      throw py::type_error("zotdigest: expected initialised TDigest objects");
    }
    all.objects.push_back(digest->array);
    all.locks.add(*digest->array);
  }
  return all;
}

std::uint64_t dataPoints(const HostArray& digest) {
  const HostArrayPtr count = quorix::ObjectSystem::getProperty(digest, "NumDataPoints");
  std::uint64_t n = 0;
  std::memcpy(&n, count->realData(), sizeof n);
  return n;
}

// One 8-byte scalar property of every digest, as the element type T.
template <class T>
py::array_t<T> scalarProperty(const py::sequence& sequence, const std::string& name) {
  Digests digests = digestsOf(sequence);
  py::array_t<T> values(static_cast<py::ssize_t>(digests.objects.size()));
  T* const out = values.mutable_data();
  callReleased(digests.locks, [&] {
    for (std::size_t i = 0; i < digests.objects.size(); ++i) {
      const HostArrayPtr value = quorix::ObjectSystem::getProperty(*digests.objects[i], name);
      std::memcpy(out + i, value->realData(), sizeof(T));
    }
    return true;
  });
  return values;
}

py::array digestProperty(const py::sequence& digests, const std::string& name) {
  if (name == "NumDataPoints") {
    return scalarProperty<std::uint64_t>(digests, name);
  }
  if (name == "Delta") {
    return scalarProperty<double>(digests, name);
  }
  throw py::value_error("zotdigest: _digest_property reads 'NumDataPoints' or 'Delta', not '" +
                        name + "'");
}

py::array_t<double> queryDigests(const py::sequence& sequence, const std::string& name,
                                 const Points& points) {
  if (name != "icdf" && name != "cdf") {
    throw py::value_error("zotdigest: _query_digests answers 'icdf' or 'cdf', not '" + name + "'");
  }
  if (points.ndim() != 1) {
    throw py::value_error("zotdigest: _query_digests takes a 1-D array of points");
  }
  Digests digests = digestsOf(sequence);
  const std::vector<std::shared_ptr<const HostArray>>& objects = digests.objects;
  const std::size_t groups = objects.size();
  const auto width = static_cast<std::size_t>(points.shape(0));
  const HostArrayPtr argument = HostArray::createNumericMatrix(1, width, quorix::ClassID::Double);
  if (width > 0) {
    std::memcpy(argument->realData(), points.data(), width * sizeof(double));
  }
  py::array_t<double> answers({groups, width});
  double* const out = answers.mutable_data();
  const bool needsData = name == "cdf";
  // Released: 10^5 digests take a good fraction of a second.
  callReleased(digests.locks, [&] {
    const quorix::MethodHandle method("TDigest", name);
    for (std::size_t i = 0; i < groups; ++i) {
      quorix::checkInterrupt();
      double* const row = out + i * width;
      if (needsData) {
        if (dataPoints(*objects[i]) == 0) {
          for (std::size_t j = 0; j < width; ++j) {
            row[j] = std::numeric_limits<double>::quiet_NaN();
          }
          continue;
        }
      }
      const HostArray* const inputs[] = {objects[i].get(), argument.get()};
      HostOutputs result(1);
      method.call(1, result.data(), 2, inputs);
      const HostArrayPtr answer = result.release(0);
      std::memcpy(row, answer->realData(), width * sizeof(double));
    }
    return true;
  });
  return answers;
}

}  // namespace

void register_group_queries(py::module_& m) {
  m.def("_query_digests", &queryDigests, py::arg("digests"), py::arg("name"), py::arg("points"));
  m.def("_digest_property", &digestProperty, py::arg("digests"), py::arg("name"));
}

}  // namespace zotdigest::python
