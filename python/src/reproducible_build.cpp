#include "reproducible_build.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "conversion.h"
#include "engine/reproducible_build.h"
#include "host_call.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

// One build, appended to from any Python thread; appends wait for each
// other without holding the GIL.
struct Build {
  std::unique_ptr<engine::ReproducibleBuild> build;
  std::mutex mutex;
};

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

std::unique_ptr<Build> makeBuild(double delta, const py::object& seed, const py::object& threads) {
  engine::BuildOptions options{delta, checkedSeed(seed), checkedThreads(threads)};
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

}  // namespace

void register_reproducible_build(py::module_& m) {
  m.attr("BLOCK_SIZE") = engine::kBlockSize;
  py::class_<Build>(m, "ReproducibleBuild",
                    "The reproducible build of one digest; use zotdigest.digest.")
      .def(py::init(&makeBuild), py::arg("delta") = 100.0, py::arg("seed") = 0,
           py::arg("threads") = py::none())
      .def("append", &append, py::arg("data"),
           "Appends the elements of `data` (anything TDigest accepts) in the module's\n"
           "element order (Fortran order for N-d arrays).")
      .def("finish", &finish, "The digest of everything appended; the build is done.")
      .def_property_readonly("size", [](Build& self) { return started(self).size(); });
}

}  // namespace zotdigest::python
