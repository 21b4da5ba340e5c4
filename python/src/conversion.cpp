#include "conversion.h"

#include <complex>
#include <cstdint>
#include <string>
#include <utility>

#include "host_object.h"
#include "quorix/object_system.h"
#include "random_stream.h"

namespace py = pybind11;
using quorix::ClassID;
using quorix::Dims;
using quorix::HostArray;
using quorix::HostArrayPtr;

namespace zotdigest::python {

namespace {

py::module_ numpy() { return py::module_::import("numpy"); }

// numpy.generic, the base of the NumPy scalar types; looked up once and kept
// for the life of the process.
PyObject* numpyGeneric() {
  static PyObject* const generic = py::object(numpy().attr("generic")).release().ptr();
  return generic;
}

HostArrayPtr emptyDouble() { return HostArray::createNumericMatrix(0, 0, ClassID::Double); }

[[noreturn]] void refuse(const std::string& what) {
  throw py::type_error("zotdigest: " + what + " cannot be passed to the module");
}

Dims hostDims(const py::array& a) {
  if (a.ndim() == 0) {
    return {1, 1};
  }
  if (a.ndim() == 1) {
    return {static_cast<std::size_t>(a.shape(0)), 1};
  }
  Dims dims;
  for (py::ssize_t k = 0; k < a.ndim(); ++k) {
    dims.push_back(static_cast<std::size_t>(a.shape(k)));
  }
  return dims;
}

// The host class of a real numeric dtype, or Unknown.
ClassID numericClass(char kind, py::ssize_t itemsize) {
  switch (kind) {
    case 'f':
      return itemsize == 8 ? ClassID::Double : itemsize == 4 ? ClassID::Single : ClassID::Unknown;
    case 'i':
      switch (itemsize) {
        case 1:
          return ClassID::Int8;
        case 2:
          return ClassID::Int16;
        case 4:
          return ClassID::Int32;
        case 8:
          return ClassID::Int64;
        default:
          return ClassID::Unknown;
      }
    case 'u':
      switch (itemsize) {
        case 1:
          return ClassID::UInt8;
        case 2:
          return ClassID::UInt16;
        case 4:
          return ClassID::UInt32;
        case 8:
          return ClassID::UInt64;
        default:
          return ClassID::Unknown;
      }
    case 'b':
      return ClassID::Logical;
    default:
      return ClassID::Unknown;
  }
}

// The NumPy dtype of a host numeric or logical class.
py::dtype numpyDtype(ClassID id, bool complex) {
  switch (id) {
    case ClassID::Logical:
      return py::dtype::of<bool>();
    case ClassID::Double:
      return complex ? py::dtype::of<std::complex<double>>() : py::dtype::of<double>();
    case ClassID::Single:
      return complex ? py::dtype::of<std::complex<float>>() : py::dtype::of<float>();
    case ClassID::Int8:
      return py::dtype::of<std::int8_t>();
    case ClassID::UInt8:
      return py::dtype::of<std::uint8_t>();
    case ClassID::Int16:
      return py::dtype::of<std::int16_t>();
    case ClassID::UInt16:
      return py::dtype::of<std::uint16_t>();
    case ClassID::Int32:
      return py::dtype::of<std::int32_t>();
    case ClassID::UInt32:
      return py::dtype::of<std::uint32_t>();
    case ClassID::Int64:
      return py::dtype::of<std::int64_t>();
    case ClassID::UInt64:
      return py::dtype::of<std::uint64_t>();
    default:
      throw py::type_error("zotdigest: the module returned a value of class " +
                           std::string(quorix::className(id)) + ", which Python cannot receive");
  }
}

// Keeps a NumPy array alive for as long as a host view of it exists. The last
// host reference may go without the GIL held, so the deleter takes it.
std::shared_ptr<const void> ownerOf(const py::array& a) {
  auto* held = new py::object(a);
  return std::shared_ptr<const void>(held, [](const void* p) {
    if (!Py_IsInitialized()) {
      return;  // interpreter gone: nothing left to release into
    }
    py::gil_scoped_acquire gil;
    delete static_cast<const py::object*>(p);
  });
}

// A copy in Fortran order with native byte order.
py::array fortranCopy(const py::array& a) {
  const py::object native = a.dtype().attr("newbyteorder")("=");
  return numpy().attr("array")(a, py::arg("dtype") = native, py::arg("order") = "F",
                               py::arg("copy") = true);
}

bool viewable(const py::array& a) {
  const int flags = a.flags();
  return (flags & py::array::f_style) != 0 &&
         (flags & py::detail::npy_api::NPY_ARRAY_ALIGNED_) != 0 &&
         a.dtype().attr("isnative").cast<bool>();
}

template <class T>
HostArrayPtr complexToHost(const py::array& a, ClassID id) {
  const py::array f = fortranCopy(a);
  HostArrayPtr out = HostArray::createNumeric(hostDims(a), id, true);
  const auto* source = static_cast<const std::complex<T>*>(f.data());
  T* re = out->data<T>();
  T* im = static_cast<T*>(out->imagData());
  for (std::size_t i = 0; i < out->numel(); ++i) {
    re[i] = source[i].real();
    im[i] = source[i].imag();
  }
  return out;
}

HostArrayPtr objectsToHost(const py::array& a) {
  const Dims dims = hostDims(a);
  const py::object flat = a.attr("ravel")("F");
  const auto n = static_cast<std::size_t>(a.size());
  if (n == 0) {
    return HostArray::createNumeric(dims, ClassID::Double);
  }
  std::string className;
  std::vector<quorix::ObjectHandle> handles;
  handles.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const py::object item = flat[py::int_(i)];
    const HostObject* const object = hostObjectOf(item);
    if (object == nullptr) {
      refuse("an object array holding " + py::repr(item).cast<std::string>());
    }
    const quorix::ObjectHandle& handle = object->handle;
    if (i == 0) {
      className = handle->className();
    } else if (handle->className() != className) {
      refuse("an object array mixing classes");
    }
    handles.push_back(handle);
  }
  HostArrayPtr out = HostArray::createObjectArray(className, dims);
  for (std::size_t i = 0; i < n; ++i) {
    out->setObject(i, std::move(handles[i]));
  }
  return out;
}

HostArrayPtr arrayToHost(py::array a) {
  const py::dtype dtype = a.dtype();
  const char kind = dtype.kind();
  if (kind == 'O') {
    return objectsToHost(a);
  }
  if (kind == 'c') {
    if (dtype.itemsize() == 16) {
      return complexToHost<double>(a, ClassID::Double);
    }
    if (dtype.itemsize() == 8) {
      return complexToHost<float>(a, ClassID::Single);
    }
  }
  if ((kind == 'U' || kind == 'S') && a.size() == 1) {
    return HostArray::createChar(py::str(a.attr("item")()).cast<std::string>());
  }
  const ClassID id = numericClass(kind, dtype.itemsize());
  if (id == ClassID::Unknown ||
      static_cast<std::size_t>(dtype.itemsize()) != quorix::elementSize(id)) {
    refuse("an array of dtype " + py::str(py::object(dtype)).cast<std::string>());
  }
  const Dims dims = hostDims(a);
  if (!viewable(a)) {
    a = fortranCopy(a);
  }
  // The module only reads its inputs; the const_cast lets read-only arrays
  // through without a copy.
  void* data = const_cast<void*>(a.data());
  return HostArray::createView(dims, id, data, nullptr, ownerOf(a));
}

py::object wrapObject(const quorix::ObjectHandle& handle) {
  if (!handle) {
    return py::none();
  }
  if (handle->className() != kWrappedClass) {
    throw py::type_error("zotdigest: the module returned an object of class " +
                         handle->className() + ", which Python cannot receive");
  }
  return py::cast(HostObject(handle));
}

py::tuple shapeOf(const Dims& dims) {
  py::tuple shape(dims.size());
  for (std::size_t k = 0; k < dims.size(); ++k) {
    shape[k] = py::int_(dims[k]);
  }
  return shape;
}

std::vector<py::ssize_t> fortranStrides(const Dims& dims, py::ssize_t itemsize) {
  std::vector<py::ssize_t> strides(dims.size());
  py::ssize_t step = itemsize;
  for (std::size_t k = 0; k < dims.size(); ++k) {
    strides[k] = step;
    step *= static_cast<py::ssize_t>(dims[k]);
  }
  return strides;
}

template <class T>
py::object complexToNumpy(const HostArray& array, const Dims& dims) {
  const py::dtype dtype = numpyDtype(array.classID(), true);
  std::vector<py::ssize_t> shape(dims.begin(), dims.end());
  py::array out(dtype, shape, fortranStrides(dims, dtype.itemsize()));
  auto* target = static_cast<std::complex<T>*>(out.mutable_data());
  const T* re = array.data<T>();
  const T* im = static_cast<const T*>(array.imagData());
  for (std::size_t i = 0; i < array.numel(); ++i) {
    target[i] = std::complex<T>(re[i], im[i]);
  }
  return out;
}

// A numeric or logical array as a NumPy array of the given dimensions (of
// the array's element count; column-major).
py::object numericToNumpy(HostArrayPtr array, const Dims& dims) {
  if (array->isComplex()) {
    return array->classID() == ClassID::Single ? complexToNumpy<float>(*array, dims)
                                               : complexToNumpy<double>(*array, dims);
  }
  const py::dtype dtype = numpyDtype(array->classID(), false);
  if (static_cast<std::size_t>(dtype.itemsize()) != quorix::elementSize(array->classID())) {
    throw py::type_error("zotdigest: element size mismatch for class " +
                         std::string(quorix::className(array->classID())));
  }
  std::vector<py::ssize_t> shape(dims.begin(), dims.end());
  std::vector<py::ssize_t> strides = fortranStrides(dims, dtype.itemsize());
  void* data = array->realData();
  // The NumPy array takes over the host array's memory.
  py::capsule owner(array.release(), [](void* p) { delete static_cast<HostArray*>(p); });
  return py::array(dtype, std::move(shape), std::move(strides), data, owner);
}

py::object numericToNumpy(HostArrayPtr array) {
  const Dims dims = array->dims();
  return numericToNumpy(std::move(array), dims);
}

bool numericOrLogical(const HostArray& array) {
  return array.isNumeric() || array.classID() == ClassID::Logical;
}

// The single element of a numeric or logical array as a Python number, the
// type ndarray.item() gives.
py::object pythonNumber(const HostArray& array) {
  if (array.isComplex()) {
    const double re = array.elementAsDouble(0);
    const double im = array.classID() == ClassID::Single
                          ? static_cast<double>(*static_cast<const float*>(array.imagData()))
                          : *static_cast<const double*>(array.imagData());
    return py::reinterpret_steal<py::object>(PyComplex_FromDoubles(re, im));
  }
  switch (array.classID()) {
    case ClassID::Double:
      return py::float_(*array.data<double>());
    case ClassID::Single:
      return py::float_(static_cast<double>(*array.data<float>()));
    case ClassID::Logical:
      return py::bool_(*array.data<std::uint8_t>() != 0);
    case ClassID::Int8:
      return py::int_(*array.data<std::int8_t>());
    case ClassID::UInt8:
      return py::int_(*array.data<std::uint8_t>());
    case ClassID::Int16:
      return py::int_(*array.data<std::int16_t>());
    case ClassID::UInt16:
      return py::int_(*array.data<std::uint16_t>());
    case ClassID::Int32:
      return py::int_(*array.data<std::int32_t>());
    case ClassID::UInt32:
      return py::int_(*array.data<std::uint32_t>());
    case ClassID::Int64:
      return py::int_(*array.data<std::int64_t>());
    case ClassID::UInt64:
      return py::int_(*array.data<std::uint64_t>());
    default:
      throw py::type_error("zotdigest: the module returned a value of class " +
                           std::string(quorix::className(array.classID())) +
                           ", which Python cannot receive");
  }
}

}  // namespace

HostObject* hostObjectOf(py::handle value) {
  // The class's pybind11 record, looked up once: the type test below then
  // costs a pointer comparison for the class itself.
  static const py::detail::type_info* const record =
      py::detail::get_type_info(typeid(HostObject), true);
  PyObject* const p = value.ptr();
  if (Py_TYPE(p) != record->type && PyObject_TypeCheck(p, record->type) == 0) {
    return nullptr;
  }
  const py::detail::value_and_holder slot =
      reinterpret_cast<py::detail::instance*>(p)->get_value_and_holder(record, false);
  // Not yet constructed while an instance made by __new__ waits for
  // __init__ or __setstate__.
  if (!slot || !slot.holder_constructed()) {
    return nullptr;
  }
  return slot.value_ptr<HostObject>();
}

HostArrayPtr toHostArray(py::handle value, ArgumentShape* shape) {
  ArgumentShape seen;
  HostArrayPtr array = [&]() -> HostArrayPtr {
    PyObject* const p = value.ptr();
    // The common scalar arguments first, without any look-up.
    if (PyFloat_CheckExact(p)) {
      seen.kind = ArgumentShape::Kind::PythonNumber;
      return HostArray::createDoubleScalar(PyFloat_AS_DOUBLE(p));
    }
    if (value.is_none()) {
      return emptyDouble();
    }
    if (HostObject* object = hostObjectOf(value)) {
      return object->array->clone();
    }
    if (auto stream = streamOf(value)) {
      return quorix::RandomStream::toHostValue(std::move(stream));
    }
    const bool numpyScalar = PyObject_IsInstance(p, numpyGeneric()) == 1;
    if (!numpyScalar && (PyComplex_Check(p) || PyLong_Check(p) || PyFloat_Check(p))) {
      seen.kind = ArgumentShape::Kind::PythonNumber;
      if (!PyBool_Check(p) && !PyComplex_Check(p)) {
        const double x = PyFloat_AsDouble(p);
        if (x == -1.0 && PyErr_Occurred() != nullptr) {
          throw py::error_already_set();
        }
        return HostArray::createDoubleScalar(x);
      }
    }
    if (PyUnicode_Check(p)) {
      return HostArray::createChar(value.cast<std::string>());
    }
    if ((PyList_Check(p) || PyTuple_Check(p)) && PySequence_Size(p) == 0) {
      seen = {ArgumentShape::Kind::Array, 1, 0};
      return emptyDouble();
    }
    const py::array a = numpy().attr("asarray")(value);
    if (a.ndim() > 0) {
      seen = {ArgumentShape::Kind::Array, static_cast<int>(a.ndim()),
              static_cast<std::size_t>(a.size())};
    }
    return arrayToHost(a);
  }();
  if (shape != nullptr) {
    *shape = seen;
  }
  return array;
}

py::object toPython(HostArrayPtr array) {
  if (!array) {
    return py::none();
  }
  switch (array->classID()) {
    case ClassID::Object:
      if (array->isScalar()) {
        return wrapObject(array->object(0));
      }
      return objectArrayToNumpy(*array);
    case ClassID::Char:
      return py::str(array->text());
    default:
      return numericToNumpy(std::move(array));
  }
}

py::object answerAfter(HostArrayPtr answer, const ArgumentShape& argument) {
  if (!answer || !numericOrLogical(*answer)) {
    return toPython(std::move(answer));
  }
  const std::size_t n = answer->numel();
  if (argument.ndim == 0 && n == 1) {
    if (argument.kind == ArgumentShape::Kind::PythonNumber) {
      py::object number = pythonNumber(*answer);
      HostArray::recycle(std::move(answer));
      return number;
    }
    // A NumPy scalar of the answer's dtype.
    return numericToNumpy(std::move(answer), Dims{1})[py::int_(0)];
  }
  if (argument.ndim == 1 && n == argument.size) {
    return numericToNumpy(std::move(answer), Dims{n});
  }
  return toPython(std::move(answer));
}

py::object answerWithoutArguments(HostArrayPtr answer) {
  if (answer && numericOrLogical(*answer) && answer->dims().size() == 2 &&
      answer->dims()[1] == 1) {
    const std::size_t n = answer->numel();
    return numericToNumpy(std::move(answer), Dims{n});
  }
  return toPython(std::move(answer));
}

py::array objectArrayToNumpy(const HostArray& array) {
  py::array flat = numpy().attr("empty")(array.numel(), py::arg("dtype") = "object");
  for (std::size_t i = 0; i < array.numel(); ++i) {
    flat[py::int_(i)] = wrapObject(array.object(i));
  }
  return flat.attr("reshape")(shapeOf(array.dims()), py::arg("order") = "F");
}

std::shared_ptr<quorix::RandomStream> streamOf(py::handle value) {
  if (py::isinstance<StreamHandle>(value)) {
    return value.cast<const StreamHandle&>().stream;
  }
  return nullptr;
}

void register_conversion(py::module_& m) {
  m.def(
      "_host_array_info",
      [](py::handle value) {
        const HostArrayPtr array = toHostArray(value);
        py::dict info;
        info["class"] = array->classID() == ClassID::Object
                            ? array->objectClassName()
                            : std::string(quorix::className(array->classID()));
        info["dims"] = shapeOf(array->dims());
        info["complex"] = array->isComplex();
        info["owns_data"] = array->ownsData();
        info["address"] = py::int_(reinterpret_cast<std::uintptr_t>(array->realData()));
        return info;
      },
      py::arg("value"),
      "How a value reaches the module: its host class, dimensions, complex flag, "
      "whether the host array owns its memory, and the address of its real data.");
}

}  // namespace zotdigest::python
