// A class's members in registration order. Registration order is kept
// because save and restore walk the properties in it, and dispatch prefers
// the earlier of two overloads that both accept a call.
#include "quorix/object_system.h"

namespace quorix {

ClassDefinition::ClassDefinition(ClassInfo& info) : info_(info), name_(info.name()) {}

ClassDefinition::~ClassDefinition() = default;

void ClassDefinition::addProperty(std::unique_ptr<PropertyInfo> property) {
  if (property) {
    properties_.push_back(std::move(property));
  }
}

void ClassDefinition::addMethod(std::unique_ptr<MethodInfo> method) {
  if (method) {
    MethodInfo* const added = method.get();
    methods_.push_back(std::move(method));
    auto group = overloads_.find(added->name());
    if (group == overloads_.end()) {
      group = overloads_.emplace(added->name(), std::vector<MethodInfo*>{}).first;
    }
    group->second.push_back(added);
  }
}

const PropertyInfo* ClassDefinition::findProperty(std::string_view name) const noexcept {
  for (const auto& property : properties_) {
    if (property->name() == name) {
      return property.get();
    }
  }
  return nullptr;
}

MethodInfo* ClassDefinition::constructor() const noexcept {
  for (const auto& method : methods_) {
    if (method->name() == name_) {
      return method.get();
    }
  }
  return nullptr;
}

const std::vector<MethodInfo*>* ClassDefinition::overloads(std::string_view name) const noexcept {
  const auto group = overloads_.find(name);
  return group == overloads_.end() ? nullptr : &group->second;
}

}  // namespace quorix
