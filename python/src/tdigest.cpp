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

const ClassDefinition& wrappedDefinition() {
  return *callHeld([] { return &ObjectSystem::classDefinition(kWrappedClass); });
}

HostObject construct(const py::object& data, const py::object& delta, const py::object& stream) {
  const HostInputs inputs = optionalInputs({data, delta, stream});
  HostArrayPtr object = callReleased([&] {
    // Released: the constructor adds all of the data, which may take seconds.
    return ObjectSystem::construct(kWrappedClass, inputs.count(), inputs.data());
  });
  return HostObject{object->object(0), streamOf(stream)};
}

py::object invoke(HostObject& self, const std::string& name, std::size_t outputs,
                  const py::args& args) {
  HostInputs inputs;
  inputs.add(self.asArray());
  for (const py::handle arg : args) {
    inputs.add(toHostArray(arg));
    if (auto stream = streamOf(arg)) {
      self.lastStream = std::move(stream);
    }
  }
  HostOutputs out(outputs);
  int requested = static_cast<int>(outputs);
  const int used = callReleased([&] {
    // Released: a method may run long (add, merge) and must let Ctrl-C through.
    return ObjectSystem::callMethod(name, requested, out.data(), inputs.count(), inputs.data());
  });
  if (used <= 0) {
    return py::none();
  }
  if (used == 1) {
    return toPython(out.release(0));
  }
  py::tuple answers(static_cast<std::size_t>(used));
  for (int i = 0; i < used; ++i) {
    answers[static_cast<std::size_t>(i)] = toPython(out.release(static_cast<std::size_t>(i)));
  }
  return answers;
}

py::object getProperty(const HostObject& self, const std::string& name, bool scalar) {
  HostArrayPtr value = callHeld(
      [&] { return ObjectSystem::getProperty(*self.asArray(), name, quorix::kPublicAccess); });
  py::object result = toPython(std::move(value));
  // A property registered as a scalar reads as a Python number.
  if (scalar && py::isinstance<py::array>(result) && result.attr("size").cast<std::size_t>() == 1) {
    return result.attr("item")();
  }
  return result;
}

void setProperty(const HostObject& self, const std::string& name, const py::handle& value) {
  const HostArrayPtr converted = toHostArray(value);
  callHeld([&] {
    ObjectSystem::setProperty(*self.asArray(), name, *converted, quorix::kPublicAccess);
    return true;
  });
}

py::dict saveState(const HostObject& self) {
  quorix::SavedObject saved = callHeld([&] { return ObjectSystem::save(*self.asArray()); });
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
  HostArrayPtr object = callHeld([&] { return ObjectSystem::restore(saved); });
  return HostObject{object->object(0), nullptr};
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
        [name, scalar](const HostObject& self) { return getProperty(self, name, scalar); });
    const py::cpp_function setter([name](const HostObject& self, const py::handle& value) {
      setProperty(self, name, value);
    });
    cls.attr(name.c_str()) = property(getter, setter, py::none(), p->description());
  }

  {
    // The generated methods take *args: their docstrings list the registered
    // overloads instead of pybind11's generic signature line.
    py::options options;
    options.disable_function_signatures();
    for (const MethodGroup& group : methodGroups(definition)) {
      const std::string name = group.name;
      const std::size_t outputs = group.outputs;
      const std::string doc = methodDoc(group);
      cls.attr(name.c_str()) = py::cpp_function(
          [name, outputs](HostObject& self, const py::args& args) {
            return invoke(self, name, outputs, args);
          },
          py::name(name.c_str()), py::is_method(cls), py::doc(doc.c_str()));
    }
  }

  cls.def("_save", &saveState,
          "The object's state as saved by the runtime: property name -> NumPy array.");
  cls.def_static("_restore", &restoreState, py::arg("state"),
                 "A new object restored by the runtime from a state made by _save().");

  m.def(
      "class_definition",
      [](const std::string& name) {
        return describeClass(*callHeld([&] { return &ObjectSystem::classDefinition(name); }));
      },
      py::arg("name"),
      "The members a class registered with the runtime, in registration order: its\n"
      "properties (name, type, access codes, attribute word, description, setter)\n"
      "and methods (name, access code, input and output types).");
  m.attr("PUBLIC_ACCESS") = quorix::kPublicAccess;
  // Users meet the class as zotdigest.TDigest.
  cls.attr("__module__") = "zotdigest";
}

}  // namespace zotdigest::python
