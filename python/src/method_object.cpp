#include "method_object.h"

#include <structmember.h>

#include <cstddef>
#include <utility>

#include "errors.h"

namespace py = pybind11;

namespace zotdigest::python {

namespace {

// The instance layout; standard layout, so offsetof applies.
struct MethodObject {
  PyObject_HEAD
  vectorcallfunc vectorcall;
  PyObject* name;      // str
  PyObject* qualname;  // str
  PyObject* doc;       // str or None; writable
  MethodTarget* target;
};

PyObject* callMethod(PyObject* callable, PyObject* const* args, std::size_t nargsf,
                     PyObject* kwnames) {
  auto* const self = reinterpret_cast<MethodObject*>(callable);
  const Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
  if (kwnames != nullptr && PyTuple_GET_SIZE(kwnames) != 0) {
    PyErr_Format(PyExc_TypeError, "%U() takes no keyword arguments", self->qualname);
    return nullptr;
  }
  if (nargs < 1) {
    PyErr_Format(PyExc_TypeError, "%U() needs the object it is called on", self->qualname);
    return nullptr;
  }
  try {
    return self->target->body(*self->target, args, static_cast<std::size_t>(nargs))
        .release()
        .ptr();
  } catch (...) {
    setPythonError();
    return nullptr;
  }
}

PyObject* bind(PyObject* self, PyObject* object, PyObject* /*type*/) {
  if (object == nullptr) {
    Py_INCREF(self);
    return self;
  }
  return PyMethod_New(self, object);
}

PyObject* represent(PyObject* self) {
  return PyUnicode_FromFormat("<method %R>", reinterpret_cast<MethodObject*>(self)->qualname);
}

void destroy(PyObject* self) {
  auto* const method = reinterpret_cast<MethodObject*>(self);
  PyTypeObject* const type = Py_TYPE(self);
  Py_XDECREF(method->name);
  Py_XDECREF(method->qualname);
  Py_XDECREF(method->doc);
  delete method->target;
  type->tp_free(self);
  Py_DECREF(type);  // instances of a heap type hold a reference to it
}

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(MethodObject, vectorcall), READONLY, nullptr},
    {"__name__", T_OBJECT, offsetof(MethodObject, name), READONLY, nullptr},
    {"__qualname__", T_OBJECT, offsetof(MethodObject, qualname), READONLY, nullptr},
    {"__doc__", T_OBJECT, offsetof(MethodObject, doc), 0, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyTypeObject* methodType() {
  static PyTypeObject* const type = [] {
    PyType_Slot slots[] = {
        {Py_tp_call, reinterpret_cast<void*>(&PyVectorcall_Call)},
        {Py_tp_descr_get, reinterpret_cast<void*>(&bind)},
        {Py_tp_repr, reinterpret_cast<void*>(&represent)},
        {Py_tp_dealloc, reinterpret_cast<void*>(&destroy)},
        {Py_tp_members, static_cast<void*>(members)},
        {0, nullptr},
    };
    PyType_Spec typeShape = {
        "zotdigest._core.method",
        static_cast<int>(sizeof(MethodObject)),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
            Py_TPFLAGS_DISALLOW_INSTANTIATION,
        slots,
    };
    PyObject* made = PyType_FromSpec(&typeShape);
    if (made == nullptr) {
      throw py::error_already_set();
    }
    // Kept for the life of the process, like the classes it serves.
    return reinterpret_cast<PyTypeObject*>(made);
  }();
  return type;
}

}  // namespace

py::object makeMethod(const py::handle& owner, MethodTarget target, const std::string& doc) {
  PyTypeObject* const type = methodType();
  auto* const method = PyObject_New(MethodObject, type);
  if (method == nullptr) {
    throw py::error_already_set();
  }
  method->vectorcall = &callMethod;
  method->name = nullptr;
  method->qualname = nullptr;
  method->doc = nullptr;
  method->target = nullptr;
  // Owned from here on: destroy() releases whatever is set.
  py::object result = py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(method));
  const std::string qualname = owner.attr("__qualname__").cast<std::string>() + "." + target.method.name();
  method->name = py::str(target.method.name()).release().ptr();
  method->qualname = py::str(qualname).release().ptr();
  method->doc = py::str(doc).release().ptr();
  method->target = new MethodTarget(std::move(target));
  return result;
}

}  // namespace zotdigest::python
