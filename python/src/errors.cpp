#include "errors.h"

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorix/messages.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

constexpr const char* kInterruptedID = "QUORIX:interrupt:Interrupted";

// Identifiers that name a wrong kind of argument: what Python code reports
// with TypeError.
constexpr std::string_view kTypeErrors[] = {
    "QUORIX:class:RequireReal",
    "QUORIX:class:RequireNumeric",
    "QUORIX:class:RequireClass",
    "QUORIX:class:RequireScalarObject",
    "QUORIX:class:NoMatchingSignature",
    "QUORIX:class:WrongNumberOfConstructorArgs",
    "QUORIX:random:InvalidStream",
    "QUORIX:array:WrongClass",
    "QUORIX:array:NotNumeric",
    "stats:tdigest:DeltaInvalidType",
    "stats:tdigest:InvalidNumInputs",
};

// Identifiers that name a value out of its range, inputs that do not fit
// together, or a digest that cannot answer: what Python code reports with
// ValueError.
constexpr std::string_view kValueErrors[] = {
    "QUORIX:random:UnknownGenerator",
    "QUORIX:random:InvalidSeed",
    "QUORIX:random:InvalidStreamCount",
    "QUORIX:random:InvalidPermutation",
    "stats:tdigest:DataMalformed",
    "stats:tdigest:CdfNoData",
    "stats:tdigest:IcdfInvalidQuantile",
    "stats:tdigest:TrimmedMeanInvalidTrim",
    "stats:tdigest:TrimmedMeanNoData",
    "stats:tdigest:MergeDeltaMismatch",
    "stats:tdigest:DeltaInvalidValue",
    "stats:tdigest:General",
};

// The Python classes. Created once and never released: they must outlive
// every module-level object, and the interpreter owns them through the
// module's dictionary anyway.
PyObject* hostError = nullptr;
PyObject* hostValueError = nullptr;
PyObject* hostTypeError = nullptr;
PyObject* hostWarning = nullptr;

bool listed(const std::string_view* begin, const std::string_view* end, std::string_view id) {
  for (const std::string_view* entry = begin; entry != end; ++entry) {
    if (*entry == id) {
      return true;
    }
  }
  return false;
}

PyObject* errorClassFor(std::string_view identifier) {
  if (listed(std::begin(kTypeErrors), std::end(kTypeErrors), identifier)) {
    return hostTypeError;
  }
  if (listed(std::begin(kValueErrors), std::end(kValueErrors), identifier)) {
    return hostValueError;
  }
  return hostError;
}

struct PendingWarning {
  std::string identifier;
  std::string text;
};

// Filled by the sink from any thread, drained by the boundary under the GIL.
// `count` lets the boundary skip the mutex when nothing is queued. Leaked on
// purpose: the runtime keeps the sink past static destruction.
struct WarningQueue {
  std::mutex mutex;
  std::vector<PendingWarning> items;
  std::atomic<std::size_t> count{0};
};

WarningQueue& warningQueue() {
  static WarningQueue* const queue = new WarningQueue;
  return *queue;
}

void raiseAsPython(const quorix::MsgIDException& e) {
  const std::string identifier = e.identifier();
  if (identifier == kInterruptedID) {
    PyErr_SetNone(PyExc_KeyboardInterrupt);
    return;
  }
  const std::string text = quorix::formatMessage(e.messageID());
  PyObject* const cls = errorClassFor(identifier);
  py::object error = py::reinterpret_borrow<py::object>(cls)(text);
  error.attr("identifier") = identifier;
  error.attr("message") = text;
  PyErr_SetObject(cls, error.ptr());
}

// The stack level that attributes a warning to the first frame outside this
// package, so that Python reports the user's line, not a wrapper's.
int userStackLevel() {
  int level = 1;
  py::object frame = py::module_::import("sys").attr("_getframe")(0);
  while (!frame.is_none()) {
    const py::object name = frame.attr("f_globals").attr("get")("__name__", "");
    const std::string module = py::isinstance<py::str>(name) ? name.cast<std::string>() : "";
    if (module != "zotdigest" && module.rfind("zotdigest.", 0) != 0) {
      break;
    }
    ++level;
    frame = frame.attr("f_back");
  }
  return level;
}

PyObject* newClass(const char* name, const char* doc, PyObject* bases) {
  PyObject* cls = PyErr_NewExceptionWithDoc(name, doc, bases, nullptr);
  if (cls == nullptr) {
    throw py::error_already_set();
  }
  return cls;
}

}  // namespace

void register_errors(py::module_& m) {
  hostError = newClass("zotdigest.HostError",
                       "An error reported by the zotdigest module or its runtime.\n\n"
                       "Attributes:\n"
                       "    identifier: the message identifier, catalog:key "
                       "(e.g. 'stats:tdigest:IcdfInvalidQuantile').\n"
                       "    message: the message text (also str(error)).\n\n"
                       "Errors about the kind of an argument are HostTypeError, errors about\n"
                       "its value HostValueError; both derive from HostError.",
                       PyExc_Exception);
  const py::tuple valueBases = py::make_tuple(py::handle(hostError), py::handle(PyExc_ValueError));
  hostValueError = newClass("zotdigest.HostValueError",
                            "A HostError about a value: out of range, not matching another "
                            "input, or not answerable by an empty digest.",
                            valueBases.ptr());
  const py::tuple typeBases = py::make_tuple(py::handle(hostError), py::handle(PyExc_TypeError));
  hostTypeError = newClass("zotdigest.HostTypeError",
                           "A HostError about the kind of an argument: its class, complexity "
                           "or number.",
                           typeBases.ptr());
  hostWarning = newClass(
      "zotdigest.HostWarning",
      "A warning issued by the zotdigest module; `identifier` holds its message identifier.",
      PyExc_UserWarning);
  m.attr("HostError") = py::reinterpret_borrow<py::object>(hostError);
  m.attr("HostValueError") = py::reinterpret_borrow<py::object>(hostValueError);
  m.attr("HostTypeError") = py::reinterpret_borrow<py::object>(hostTypeError);
  m.attr("HostWarning") = py::reinterpret_borrow<py::object>(hostWarning);

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) {
        std::rethrow_exception(p);
      }
    } catch (const quorix::MsgIDException& e) {
      raiseAsPython(e);
    }
  });

  quorix::setWarningSink([](const std::string& identifier, const std::string& text) {
    WarningQueue& queue = warningQueue();
    const std::lock_guard<std::mutex> lock(queue.mutex);
    queue.items.push_back({identifier, text});
    queue.count.store(queue.items.size(), std::memory_order_release);
  });
}

void setPythonError() noexcept {
  try {
    throw;
  } catch (const quorix::MsgIDException& e) {
    try {
      raiseAsPython(e);
    } catch (py::error_already_set& failed) {
      failed.restore();
    } catch (...) {
      PyErr_SetString(PyExc_RuntimeError, e.what());
    }
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (const py::builtin_exception& e) {
    e.set_error();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "zotdigest: unknown C++ exception");
  }
}

void emitPendingWarnings() {
  WarningQueue& queue = warningQueue();
  if (queue.count.load(std::memory_order_acquire) == 0) {
    return;
  }
  std::vector<PendingWarning> pending;
  {
    const std::lock_guard<std::mutex> lock(queue.mutex);
    pending.swap(queue.items);
    queue.count.store(0, std::memory_order_release);
  }
  if (pending.empty()) {
    return;
  }
  const py::object warn = py::module_::import("warnings").attr("warn");
  const int level = userStackLevel();
  for (const PendingWarning& w : pending) {
    py::object warning = py::reinterpret_borrow<py::object>(hostWarning)(w.text);
    warning.attr("identifier") = w.identifier;
    warn(warning, py::arg("stacklevel") = level);
  }
}

}  // namespace zotdigest::python
