#include "tdigest.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "conversion.h"
#include "host_call.h"
#include "host_module.h"
#include "host_object.h"
#include "method_object.h"
#include "object_locks.h"
#include "quorix/object_system.h"

namespace py = pybind11;
using quorix::ClassDefinition;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

namespace zotdigest::python {

namespace {

// All overloads registered under one method name.
struct MethodGroup {
  std::string name;
  std::size_t outputs = 0;  // the most outputs any overload declares
  std::vector<const quorix::MethodInfo*> overloads;
};

// The ordinary methods by name, in order of first registration; the
// constructor (named after the class) is not among them.
std::vector<MethodGroup> methodGroups(const ClassDefinition& definition) {
  std::vector<MethodGroup> groups;
  for (const auto& method : definition.methods()) {
    if (method->name() == definition.name()) {
      continue;
    }
    auto group = std::find_if(groups.begin(), groups.end(),
                              [&](const MethodGroup& g) { return g.name == method->name(); });
    if (group == groups.end()) {
      groups.push_back({method->name(), 0, {}});
      group = groups.end() - 1;
    }
    group->outputs = std::max(group->outputs, method->signature().outputs().size());
    group->overloads.push_back(method.get());
  }
  return groups;
}

std::string typeList(const std::vector<const quorix::Type*>& types) {
  std::string text;
  for (const quorix::Type* type : types) {
    text += (text.empty() ? "" : ", ") + type->text();
  }
  return text;
}

std::string methodDoc(const MethodGroup& group) {
  std::string doc = group.name + "(*args)\n\nRegistered overloads (the object first):\n";
  for (const quorix::MethodInfo* method : group.overloads) {
    const quorix::Signature& signature = method->signature();
    doc += "  " + group.name + "(" + typeList(signature.inputs()) +
           (signature.openEnded() ? ", ..." : "") + ")";
    if (!signature.outputs().empty()) {
      doc += " -> " + typeList(signature.outputs());
    }
    doc += "\n";
  }
  return doc;
}

const ClassDefinition& wrappedDefinition() { return ObjectSystem::classDefinition(kWrappedClass); }

ObjectLocks objectLocks(const HostObject& self) {
  ObjectLocks locks;
  locks.add(*self.array);
  return locks;
}

HostObject& initialised(HostObject* self, const std::string& member, const char* suffix = "") {
  if (self == nullptr) {
    throw py::type_error("zotdigest: " + member + suffix +
                         " needs an initialised zotdigest.TDigest");
  }
  return *self;
}

HostObject construct(const py::object& data, const py::object& delta, const py::object& stream) {
  const HostInputs inputs = optionalInputs({data, delta, stream});
  // Released unless the data are a few values: the constructor adds all of
  // them, which may take seconds.
  HostArrayPtr object = callFitting(inputs, 0, [&] {
    return ObjectSystem::construct(kWrappedClass, inputs.count(), inputs.data());
  });
  return HostObject(object->object(0), streamOf(stream));
}

// Answers as the module's shapes give them: a single answer shaped after
// the first argument (or as a method without arguments answers), several
// as a tuple.
py::object answersOf(HostOutputs& out, int used, bool withArguments, const ArgumentShape& first) {
  if (used <= 0) {
    return py::none();
  }
  const auto shaped = [&](HostArrayPtr answer) {
    return withArguments ? answerAfter(std::move(answer), first)
                         : answerWithoutArguments(std::move(answer));
  };
  if (used == 1) {
    return shaped(out.release(0));
  }
  py::tuple answers(static_cast<std::size_t>(used));
  for (int i = 0; i < used; ++i) {
    const auto slot = static_cast<std::size_t>(i);
    // With arguments, several answers keep the module's shapes.
    answers[slot] = withArguments ? toPython(out.release(slot)) : shaped(out.release(slot));
  }
  return answers;
}

// d.f(x) with a Python float x, the usual scalar query: the same call as
// invoke makes, without building a general argument list.
py::object invokeOnFloat(const MethodTarget& target, const HostObject& self, double x) {
  // A float argument makes a short call, made holding the GIL: while it is
  // held, no other thread can give the wrapper a different digest, so the
  // digest needs a reference of its own only if the call has to wait for
  // its lock without the GIL.
  std::shared_ptr<const quorix::HostArray> kept;
  const PooledScalar argument(x);
  const quorix::HostArray* const in[] = {self.array.get(), argument.get()};
  ObjectLocks locks;
  locks.add(*in[0]);
  HostOutputs out(target.outputs);
  const int requested = static_cast<int>(target.outputs);
  const int used = callHeld(
      locks, [&] { return target.method.call(requested, out.data(), 2, in); },
      [&] { kept = self.array; });
  return answersOf(out, used, true, ArgumentShape{ArgumentShape::Kind::PythonNumber, 0, 1});
}

// The body of every generated method: args[0] is the digest, the rest the
// method's arguments.
py::object invoke(const MethodTarget& target, PyObject* const* args, std::size_t nargs) {
  HostObject& self = initialised(hostObjectOf(args[0]), target.method.name(), "()");
  if (nargs == 2 && PyFloat_CheckExact(args[1])) {
    return invokeOnFloat(target, self, PyFloat_AS_DOUBLE(args[1]));
  }
  HostInputs inputs;
  inputs.add(self.array);
  ArgumentShape first;
  for (std::size_t i = 1; i < nargs; ++i) {
    const py::handle arg(args[i]);
    inputs.addValue(arg, i == 1 ? &first : nullptr);
    if (!PyFloat_CheckExact(args[i])) {
      if (auto stream = streamOf(arg)) {
        self.lastStream = std::move(stream);
      }
    }
  }
  HostOutputs out(target.outputs);
  const int requested = static_cast<int>(target.outputs);
  const int used = callFitting(inputs, 1, [&] {
    return target.method.call(requested, out.data(), inputs.count(), inputs.data());
  });
  return answersOf(out, used, nargs > 1, first);
}

py::object getProperty(py::handle object, const std::string& name, bool scalar) {
  const HostObject& self = initialised(hostObjectOf(object), name);
  HostArrayPtr value = callHeld(objectLocks(self), [&] {
    return ObjectSystem::getProperty(*self.array, name, quorix::kPublicAccess);
  });
  // A property registered as a scalar reads as a Python number.
  if (scalar && value && value->isScalar() && !value->isComplex() &&
      (value->isNumeric() || value->classID() == quorix::ClassID::Logical)) {
    return answerAfter(std::move(value), ArgumentShape{ArgumentShape::Kind::PythonNumber, 0, 1});
  }
  return toPython(std::move(value));
}

void setProperty(py::handle object, const std::string& name, const py::handle& value) {
  const HostObject& self = initialised(hostObjectOf(object), name);
  const HostArrayPtr converted = toHostArray(value);
  callHeld(objectLocks(self), [&] {
    ObjectSystem::setProperty(*self.array, name, *converted, quorix::kPublicAccess);
    return true;
  });
}

py::dict saveState(py::handle object) {
  const HostObject& self = initialised(hostObjectOf(object), "__getstate__", "()");
  quorix::SavedObject saved =
      callHeld(objectLocks(self), [&] { return ObjectSystem::save(*self.array); });
  py::dict state;
  for (quorix::SavedProperty& property : saved.properties) {
    state[py::str(property.name)] = toPython(std::move(property.value));
  }
  return state;
}

HostObject restoreState(const py::dict& state) {
  const ClassDefinition& definition = wrappedDefinition();
  quorix::SavedObject saved;
  saved.className = kWrappedClass;
  for (const auto& property : definition.properties()) {
    const py::str key(property->name());
    if (state.contains(key)) {
      saved.properties.push_back({property->name(), toHostArray(state[key])});
    }
  }
  // Held: restoring sets a few properties of a new object, nothing long.
  HostArrayPtr object = callHeld(ObjectLocks{}, [&] { return ObjectSystem::restore(saved); });
  return HostObject(object->object(0));
}

// Makes `object` the digest restored from `state`: fills an instance made by
// __new__ (unpickling, copy), or replaces the digest an initialised instance
// wraps (other wrappers of the old digest keep it).
void setState(py::handle object, const py::dict& state) {
  HostObject restored = restoreState(state);
  if (HostObject* existing = hostObjectOf(object)) {
    *existing = std::move(restored);
    return;
  }
  static const py::detail::type_info* const record =
      py::detail::get_type_info(typeid(HostObject), true);
  if (PyObject_TypeCheck(object.ptr(), record->type) == 0) {
    throw py::type_error("zotdigest: __setstate__ needs a zotdigest.TDigest");
  }
  // What pybind11 does after a constructor: store the value, then make the
  // holder and register the instance.
  auto* const instance = reinterpret_cast<py::detail::instance*>(object.ptr());
  py::detail::value_and_holder slot = instance->get_value_and_holder(record);
  slot.value_ptr() = new HostObject(std::move(restored));
  slot.type->init_instance(instance, nullptr);
}

py::dict describeClass(const ClassDefinition& definition) {
  py::list properties;
  for (const auto& p : definition.properties()) {
    py::dict d;
    d["name"] = p->name();
    d["type"] = p->type()->text();
    d["get_access"] = p->getAccess();
    d["set_access"] = p->setAccess();
    d["attributes"] = p->attributes();
    d["description"] = p->description();
    d["has_setter"] = p->hasSetter();
    properties.append(d);
  }
  py::list methods;
  for (const auto& m : definition.methods()) {
    py::dict d;
    d["name"] = m->name();
    d["access"] = m->access();
    py::list inputs;
    for (const quorix::Type* type : m->signature().inputs()) {
      inputs.append(type->text());
    }
    py::list outputs;
    for (const quorix::Type* type : m->signature().outputs()) {
      outputs.append(type->text());
    }
    d["inputs"] = py::tuple(inputs);
    d["outputs"] = py::tuple(outputs);
    d["open_ended"] = m->signature().openEnded();
    methods.append(d);
  }
  py::dict description;
  description["name"] = definition.name();
  description["properties"] = properties;
  description["methods"] = methods;
  return description;
}

}  // namespace

void register_tdigest(py::module_& m) {
  zotdigestModule();
  const ClassDefinition& definition = wrappedDefinition();

  py::class_<HostObject> cls(m, kWrappedClass,
                             "A t-digest: a small ordered set of weighted centroids summarising\n"
                             "a large collection of numbers, from which quantiles, the cumulative\n"
                             "distribution and trimmed means are estimated.");
  cls.def(py::init(&construct), py::arg("data") = py::none(), py::arg("delta") = py::none(),
          py::arg("stream") = py::none(),
          "Builds a digest of compression `delta` (default 100) from `data`.\n"
          "TDigest() is empty; TDigest(x) and TDigest(x, delta) add x in parallel;\n"
          "TDigest(x, delta, stream) and TDigest(x, None, stream) add x serially with\n"
          "the given RandomStream, reproducibly. None stands for an omitted argument.");

  const py::object property = py::module_::import("builtins").attr("property");
  for (const auto& p : definition.properties()) {
    const std::string name = p->name();
    const bool scalar = p->type()->shape() == quorix::Type::Shape::Scalar;
    const py::cpp_function getter(
        [name, scalar](py::handle self) { return getProperty(self, name, scalar); });
    const py::cpp_function setter(
        [name](py::handle self, const py::handle& value) { setProperty(self, name, value); });
    cls.attr(name.c_str()) = property(getter, setter, py::none(), p->description());
  }

  for (const MethodGroup& group : methodGroups(definition)) {
    cls.attr(group.name.c_str()) = makeMethod(
        cls, MethodTarget{quorix::MethodHandle(kWrappedClass, group.name), group.outputs, &invoke},
        methodDoc(group));
  }

  // The state is what the runtime saves, and __setstate__ restores a new
  // object from it. Pickles and copies take the compact form instead (the
  // package's __reduce__).
  cls.def("__getstate__", &saveState,
          "The digest's state as the runtime saves it: a dict of NumPy arrays, one per\n"
          "property in registration order (AVLTreeSummary, Delta, NumCentroids,\n"
          "NumDataPoints).");
  // pybind11 treats a function it makes under the name __setstate__ as a
  // constructor and skips it on an initialised instance; made under another
  // name, it runs on both.
  {
    py::options options;
    options.disable_function_signatures();
    cls.def("_setstate", &setState, py::arg("state"),
            "__setstate__(state)\n\n"
            "Makes this object the digest the runtime restores from `state` (a dict\n"
            "made by __getstate__): every property with a setter is set, in\n"
            "registration order.");
  }
  cls.attr("__setstate__") = cls.attr("_setstate");
  py::delattr(cls, "_setstate");

  m.def(
      "class_definition",
      [](const std::string& name) { return describeClass(ObjectSystem::classDefinition(name)); },
      py::arg("name"),
      "The members a class registered with the runtime, in registration order: its\n"
      "properties (name, type, access codes, attribute word, description, setter)\n"
      "and methods (name, access code, input and output types).");
  m.attr("PUBLIC_ACCESS") = quorix::kPublicAccess;
  // Users meet the class as zotdigest.TDigest.
  cls.attr("__module__") = "zotdigest";
}

}  // namespace zotdigest::python
