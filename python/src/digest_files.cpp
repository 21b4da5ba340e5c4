#include "digest_files.h"

#include <cstddef>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "conversion.h"
#include "engine/atomic_file.h"
#include "engine/compact_digest.h"
#include "engine/digest_file.h"
#include "engine/errors.h"
#include "host_call.h"
#include "host_object.h"
#include "object_locks.h"
#include "quorix/object_system.h"

namespace py = pybind11;
using quorix::ObjectSystem;

namespace zotdigest::python {

namespace {

HostObject& digestOf(py::handle value) {
  HostObject* const object = hostObjectOf(value);
  if (object == nullptr) {
    throw py::type_error("zotdigest: expected an initialised zotdigest.TDigest, got " +
                         std::string(py::str(py::type::of(value).attr("__name__"))));
  }
  return *object;
}

// The runtime's save of one digest, taken under its lock. Short: it copies
// the tree matrix and a few scalars.
quorix::SavedObject savedOf(const HostObject& digest) {
  ObjectLocks locks;
  locks.add(*digest.array);
  return callHeld(locks, [&] { return ObjectSystem::save(*digest.array); });
}

py::object restored(const quorix::SavedObject& saved) {
  quorix::HostArrayPtr object =
      callHeld(ObjectLocks{}, [&] { return ObjectSystem::restore(saved); });
  return py::cast(HostObject(object->object(0)));
}

std::span<const std::byte> bytesOf(const py::bytes& data) {
  char* buffer = nullptr;
  Py_ssize_t length = 0;
  if (PyBytes_AsStringAndSize(data.ptr(), &buffer, &length) != 0) {
    throw py::error_already_set();
  }
  return {reinterpret_cast<const std::byte*>(buffer), static_cast<std::size_t>(length)};
}

py::bytes toBytes(const std::vector<std::byte>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

engine::LabelKey keyOf(py::handle key) {
  if (key.is_none()) {
    return {};
  }
  const auto [kind, bits, unit] = key.cast<std::tuple<int, std::uint64_t, int>>();
  if (kind <= 0 || kind >= engine::kKeyKindCount || unit < 0 || unit >= engine::kTickUnitCount) {
    throw py::value_error("zotdigest: a key of unknown kind " + std::to_string(kind));
  }
  return {static_cast<engine::KeyKind>(kind), bits, static_cast<std::uint8_t>(unit)};
}

py::object keyTuple(const engine::LabelKey& key) {
  if (key.kind == engine::KeyKind::Text) {
    return py::none();
  }
  return py::make_tuple(static_cast<int>(key.kind), key.bits, static_cast<int>(key.unit));
}

void saveDigests(const std::string& path, const py::sequence& digests, const py::sequence& labels,
                 const py::object& keys) {
  if (labels.size() != digests.size()) {
    throw py::value_error("zotdigest: " + std::to_string(labels.size()) + " labels for " +
                          std::to_string(digests.size()) + " digests");
  }
  const py::sequence keyList = keys.is_none() ? py::sequence(py::list()) : py::sequence(keys);
  if (!keys.is_none() && keyList.size() != digests.size()) {
    throw py::value_error("zotdigest: " + std::to_string(keyList.size()) + " keys for " +
                          std::to_string(digests.size()) + " digests");
  }
  std::vector<engine::StoredDigest> stored;
  stored.reserve(labels.size());
  for (std::size_t i = 0; i < labels.size(); ++i) {
    stored.push_back({labels[i].cast<std::string>(), savedOf(digestOf(digests[i]))});
    if (!keys.is_none()) {
      stored.back().key = keyOf(keyList[i]);
    }
  }
  // Released: compressing many digests and flushing the file to disk may
  // take a while.
  callReleased(ObjectLocks{}, [&] {
    engine::writeFileAtomically(path, engine::encodeDigestFile(stored));
    return true;
  });
}

py::list decodeDigestFile(const py::bytes& data, const std::string& name, bool keys) {
  engine::DigestFile file;
  try {
    file = engine::decodeDigestFile(bytesOf(data));
  } catch (const engine::DigestFileError& e) {
    throw engine::DigestFileError(e.code(), name + ": " + e.what());
  }
  py::list digests;
  for (const engine::StoredDigest& d : file.digests) {
    if (keys) {
      digests.append(py::make_tuple(d.label, restored(d.saved), keyTuple(d.key)));
    } else {
      digests.append(py::make_tuple(d.label, restored(d.saved)));
    }
  }
  return digests;
}

}  // namespace

void register_digest_files(py::module_& m) {
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) {
        std::rethrow_exception(p);
      }
    } catch (const engine::InputError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const engine::OutputError& e) {
      PyErr_SetString(PyExc_OSError, e.what());
    }
  });
  m.def("_save_digests", &saveDigests, py::arg("path"), py::arg("digests"), py::arg("labels"),
        py::arg("keys") = py::none());
  m.def("_decode_digest_file", &decodeDigestFile, py::arg("data"), py::arg("name"),
        py::arg("keys") = false);
  m.def("_to_compact", [](py::handle digest) {
    return toBytes(engine::encodeCompactDigest(savedOf(digestOf(digest))));
  });
  m.def("_from_compact",
        [](const py::bytes& data) { return restored(engine::decodeCompactDigest(bytesOf(data))); });
}

}  // namespace zotdigest::python
