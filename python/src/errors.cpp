#include "errors.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "quorix/messages.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

constexpr const char* kInterruptedID = "QUORIX:interrupt:Interrupted";

// The two Python classes. Created once and never released: they must outlive
// every module-level object, and the interpreter owns them through the
// module's dictionary anyway.
PyObject* errorClass = nullptr;
PyObject* warningClass = nullptr;

struct PendingWarning {
  std::string identifier;
  std::string text;
};

// Filled by the sink from any thread, drained by the boundary under the GIL.
// Leaked on purpose: the runtime keeps the sink past static destruction.
struct WarningQueue {
  std::mutex mutex;
  std::vector<PendingWarning> items;
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
  py::object error = py::reinterpret_borrow<py::object>(errorClass)(text);
  error.attr("identifier") = identifier;
  error.attr("message") = text;
  PyErr_SetObject(errorClass, error.ptr());
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

}  // namespace

void register_errors(py::module_& m) {
  errorClass =
      PyErr_NewExceptionWithDoc("zotdigest.Error",
                                "An error reported by the zotdigest module or its runtime.\n\n"
                                "Attributes:\n"
                                "    identifier: the message identifier, catalog:key "
                                "(e.g. 'stats:tdigest:CdfNoData').\n"
                                "    message: the message text.",
                                PyExc_ValueError, nullptr);
  if (errorClass == nullptr) {
    throw py::error_already_set();
  }
  warningClass = PyErr_NewExceptionWithDoc(
      "zotdigest.ZotdigestWarning",
      "A warning issued by the zotdigest module; `identifier` holds its message identifier.",
      PyExc_UserWarning, nullptr);
  if (warningClass == nullptr) {
    throw py::error_already_set();
  }
  m.attr("Error") = py::reinterpret_borrow<py::object>(errorClass);
  m.attr("ZotdigestWarning") = py::reinterpret_borrow<py::object>(warningClass);

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
  });
}

void emitPendingWarnings() {
  std::vector<PendingWarning> pending;
  {
    WarningQueue& queue = warningQueue();
    const std::lock_guard<std::mutex> lock(queue.mutex);
    pending.swap(queue.items);
  }
  if (pending.empty()) {
    return;
  }
  const py::object warn = py::module_::import("warnings").attr("warn");
  const int level = userStackLevel();
  for (const PendingWarning& w : pending) {
    py::object warning = py::reinterpret_borrow<py::object>(warningClass)(w.text);
    warning.attr("identifier") = w.identifier;
    warn(warning, py::arg("stacklevel") = level);
  }
}

}  // namespace zotdigest::python
