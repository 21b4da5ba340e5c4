#include "reproducible_build.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "conversion.h"
#include "engine/reproducible_build.h"
#include "host_call.h"
#include "host_object.h"
#include "quorix/object_system.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

using UInt64Array = py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>;

// One build, appended to from any Python thread; appends wait for each
// other without holding the GIL.
struct Build {
  std::unique_ptr<engine::ReproducibleBuild> build;
  std::mutex mutex;
};

std::unique_ptr<Build> makeBuild(double delta, const py::object& seed, const py::object& threads,
                                 std::uint64_t firstBlock, bool weighted) {
  engine::BuildOptions options{delta, checkedSeed(seed), checkedThreads(threads), firstBlock,
                               weighted};
  auto made = std::make_unique<Build>();
  made->build =
      callHeld(ObjectLocks{}, [&] { return std::make_unique<engine::ReproducibleBuild>(options); });
  return made;
}

engine::ReproducibleBuild& started(Build& self) {
  if (!self.build) {
    throw py::value_error("zotdigest: this ReproducibleBuild has already finished");
  }
  return *self.build;
}

void append(Build& self, const py::handle& data) {
  quorix::HostArrayPtr values = toHostArray(data);
  engine::ReproducibleBuild& build = started(self);
  callReleased(ObjectLocks{}, [&] {
    // Released: an append digests every whole block it completes, seconds
    // for large arrays, on all worker threads; Ctrl-C must get through.
    const std::lock_guard lock(self.mutex);
    build.append(*values);
    return true;
  });
  // The view of a NumPy array is dropped here, with the GIL held.
  values.reset();
}

// Weights arrive validated by the package (uint64, one per value).
void appendWeighted(Build& self, const py::handle& data, const UInt64Array& weights) {
  quorix::HostArrayPtr values = toHostArray(data);
  engine::ReproducibleBuild& build = started(self);
  const std::size_t count = values->isEmpty() ? 0 : values->numel();
  if (count > 0 && (!values->isNumeric() || values->isComplex())) {
    throw py::type_error("zotdigest: weighted values must be real numbers");
  }
  if (static_cast<std::size_t>(weights.size()) != count) {
    throw py::value_error("zotdigest: weights has " + std::to_string(weights.size()) +
                          " elements but the values have " + std::to_string(count));
  }
  if (count > 0) {
    callReleased(ObjectLocks{}, [&] {
      // Released: as append.
      const std::lock_guard lock(self.mutex);
      build.appendWeighted(values->realData(), values->classID(), weights.data(), count);
      return true;
    });
  }
  values.reset();
}

py::object finish(Build& self) {
  started(self);
  quorix::HostArrayPtr digest = callReleased(ObjectLocks{}, [&] {
    // Released: the last block and the merges along the right edge.
    const std::lock_guard lock(self.mutex);
    return self.build->finish();
  });
  self.build.reset();
  return toPython(std::move(digest));
}

HostObject& digestOf(const py::handle& value, const char* name) {
  HostObject* object = hostObjectOf(value);
  if (object == nullptr) {
    throw py::type_error(std::string("zotdigest: ") + name + " must be a zotdigest.TDigest");
  }
  return *object;
}

// A new digest: a copy of `left` with `right` merged into it as the tree's
// node `index` of `level`. Neither input changes, so a scheduler may hand
// the same inputs to a retried task.
py::object mergeTreeNodes(const py::handle& left, const py::handle& right, unsigned level,
                          std::uint64_t index, const py::object& seed) {
  const HostObject& a = digestOf(left, "left");
  const HostObject& b = digestOf(right, "right");
  if (level < 1 || level > 63) {
    throw py::value_error("zotdigest: level must be in [1, 63]");
  }
  const std::uint32_t s = checkedSeed(seed);
  ObjectLocks locks;
  locks.add(*a.array);
  locks.add(*b.array);
  quorix::HostArrayPtr merged = callReleased(locks, [&] {
    // Released: a merge re-adds up to 40 Delta centroids.
    quorix::HostArrayPtr copy = quorix::ObjectSystem::restore(quorix::ObjectSystem::save(*a.array));
    engine::mergeNodes(*copy, *b.array, level, index, s);
    engine::releaseBuildStream(*copy);
    return copy;
  });
  return toPython(std::move(merged));
}

}  // namespace

std::uint32_t checkedSeed(const py::object& seed) {
  const auto value = seed.cast<long long>();
  if (value < 0 || value > 0xFFFFFFFFLL) {
    throw py::value_error("zotdigest: seed must be a whole number in [0, 2**32)");
  }
  return static_cast<std::uint32_t>(value);
}

unsigned checkedThreads(const py::object& threads) {
  if (threads.is_none()) {
    return 0;
  }
  const auto value = threads.cast<long long>();
  if (value < 1 || value > 4096) {
    throw py::value_error("zotdigest: threads must be None or a whole number >= 1");
  }
  return static_cast<unsigned>(value);
}

void register_reproducible_build(py::module_& m) {
  m.attr("BLOCK_SIZE") = engine::kBlockSize;
  py::class_<Build>(m, "ReproducibleBuild",
                    "The reproducible build of one digest; use zotdigest.digest.")
      .def(py::init(&makeBuild), py::arg("delta") = 100.0, py::arg("seed") = 0,
           py::arg("threads") = py::none(), py::arg("first_block") = 0, py::arg("weighted") = false)
      .def("append", &append, py::arg("data"),
           "Appends the elements of `data` (anything TDigest accepts) in the module's\n"
           "element order (Fortran order for N-d arrays).")
      .def("append_weighted", &appendWeighted, py::arg("data"), py::arg("weights"),
           "Appends the values of `data` with their uint64 `weights` (a weighted build).")
      .def("finish", &finish, "The digest of everything appended; the build is done.")
      .def_property_readonly("size", [](Build& self) { return started(self).size(); });
  m.def("merge_tree_nodes", &mergeTreeNodes, py::arg("left"), py::arg("right"), py::arg("level"),
        py::arg("index"), py::arg("seed"),
        "A copy of `left` with `right` merged into it as node `index` of tree level\n"
        "`level` of the reproducible build (for zotdigest.dask).");
}

}  // namespace zotdigest::python
