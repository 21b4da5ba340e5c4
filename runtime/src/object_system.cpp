// ObjectSystem: registration, object creation, properties, the scalar-object
// accessor, and save and restore. Method dispatch is in method_dispatch.cpp.
#include "quorix/object_system.h"

#include "class_errors.h"
#include "class_registry.h"
#include "object_access.h"

namespace quorix {

using detail::ClassEntry;
using detail::ClassRegistry;
using detail::raiseClassError;

// --- shared by this file and the dispatcher ----------------------------------

ClassEntry& detail::classOfObject(const HostArray& object, std::string_view member) {
  if (object.classID() != ClassID::Object) {
    raiseClassError("UnknownMember", std::string(member));
  }
  return ClassRegistry::instance().get(object.objectClassName());
}

void detail::checkAccess(int memberAccess, int callerAccess, std::string_view member) {
  if (memberAccess > callerAccess) {
    raiseClassError("AccessDenied", std::string(member));
  }
}

// --- registry ----------------------------------------------------------------

void ObjectSystem::registerClass(ClassInfo* info) {
  if (info == nullptr) {
    return;
  }
  ClassRegistry::instance().add(std::unique_ptr<ClassInfo>(info));
}

bool ObjectSystem::isRegistered(std::string_view className) {
  return ClassRegistry::instance().find(className) != nullptr;
}

const ClassDefinition& ObjectSystem::classDefinition(std::string_view className) {
  return ClassRegistry::definition(ClassRegistry::instance().get(className));
}

// --- creation ----------------------------------------------------------------

ObjectHandle ObjectSystem::createInstance(std::string_view className) {
  ClassEntry& entry = ClassRegistry::instance().get(className);
  ClassRegistry::definition(entry);
  ClassInfo& info = *entry.info;
  void* const instance = info.createInstance();
  try {
    return std::make_shared<Object>(info, instance);
  } catch (...) {
    // The handle could not be made: nobody else will release the instance.
    if (instance != nullptr) {
      info.destroyInstance(instance);
    }
    throw;
  }
}

HostArrayPtr ObjectSystem::createObjectArray(std::string_view className, Dims dims) {
  ClassEntry& entry = ClassRegistry::instance().get(className);
  HostArrayPtr array = HostArray::createObjectArray(entry.name, std::move(dims));
  if (array->numel() > 1 && !entry.info->allowsObjectArrays()) {
    raiseClassError("NoObjectArrays", entry.name);
  }
  for (std::size_t i = 0; i < array->numel(); ++i) {
    array->setObject(i, createInstance(entry.name));
  }
  return array;
}

HostArrayPtr ObjectSystem::construct(std::string_view className, int nIn,
                                     const HostArray* const* in, int callerAccess) {
  const ClassDefinition& definition = classDefinition(className);
  HostArrayPtr object = createObjectArray(definition.name(), Dims{1, 1});
  MethodInfo* const constructor = definition.constructor();
  if (constructor == nullptr) {
    return object;
  }
  detail::checkAccess(constructor->access(), callerAccess, constructor->name());
  if (!constructor->signature().fitsInputCount(static_cast<std::size_t>(nIn))) {
    raiseClassError("NoMatchingSignature", constructor->name());
  }
  // The constructor finds the object in out[0] and normally leaves it
  // there; if it stores another array instead, that one is the result and
  // ours is released.
  HostArray* out[1] = {object.get()};
  int nOut = 1;
  constructor->invoke(nOut, out, nIn, in);
  if (out[0] != object.get()) {
    return HostArrayPtr(out[0]);
  }
  return object;
}

// --- properties --------------------------------------------------------------

HostArrayPtr ObjectSystem::getProperty(const HostArray& object, std::string_view name,
                                       int callerAccess) {
  ClassEntry& entry = detail::classOfObject(object, name);
  const PropertyInfo* const property = ClassRegistry::definition(entry).findProperty(name);
  if (property == nullptr) {
    raiseClassError("UnknownMember", std::string(name));
  }
  detail::checkAccess(property->getAccess(), callerAccess, name);
  return property->get(scalarInstance(object, entry.name));
}

void ObjectSystem::setProperty(const HostArray& object, std::string_view name,
                               const HostArray& value, int callerAccess) {
  ClassEntry& entry = detail::classOfObject(object, name);
  const PropertyInfo* const property = ClassRegistry::definition(entry).findProperty(name);
  if (property == nullptr) {
    raiseClassError("UnknownMember", std::string(name));
  }
  // A property without a setter is read-only whatever the caller's level.
  if (!property->hasSetter()) {
    raiseClassError("ReadOnly", std::string(name));
  }
  detail::checkAccess(property->setAccess(), callerAccess, name);
  property->set(scalarInstance(object, entry.name), value);
}

void* ObjectSystem::scalarInstance(const HostArray& value, std::string_view className) {
  if (value.classID() != ClassID::Object || value.objectClassName() != className ||
      value.numel() != 1 || !value.object(0)) {
    raiseClassError("RequireScalarObject", std::string(className));
  }
  return value.object(0)->instance();
}

// --- save and restore --------------------------------------------------------

SavedObject ObjectSystem::save(const HostArray& object) {
  if (object.classID() != ClassID::Object) {
    raiseClassError("NotSavable", std::string(className(object.classID())));
  }
  ClassEntry& entry = ClassRegistry::instance().get(object.objectClassName());
  if (!entry.info->savesByProperties()) {
    raiseClassError("NotSavable", entry.name);
  }
  const ClassDefinition& definition = ClassRegistry::definition(entry);
  void* const instance = scalarInstance(object, entry.name);
  SavedObject saved;
  saved.className = entry.name;
  saved.properties.reserve(definition.properties().size());
  for (const auto& property : definition.properties()) {
    detail::checkAccess(property->getAccess(), kRestrictedAccess, property->name());
    saved.properties.push_back(SavedProperty{property->name(), property->get(instance)});
  }
  return saved;
}

HostArrayPtr ObjectSystem::restore(const SavedObject& saved) {
  ClassEntry& entry = ClassRegistry::instance().get(saved.className);
  if (!entry.info->savesByProperties()) {
    raiseClassError("NotSavable", entry.name);
  }
  const ClassDefinition& definition = ClassRegistry::definition(entry);
  HostArrayPtr object = HostArray::createScalarObject(createInstance(entry.name));
  void* const instance = object->object(0)->instance();
  // Properties are set in the class's registration order, not the saved
  // order: a class may rely on one property being in place before the next.
  // A property missing from the saved form keeps the value a new instance
  // has.
  for (const auto& property : definition.properties()) {
    if (!property->hasSetter()) {
      continue;
    }
    for (const SavedProperty& value : saved.properties) {
      if (value.name == property->name() && value.value) {
        detail::checkAccess(property->setAccess(), kRestrictedAccess, property->name());
        property->set(instance, *value.value);
        break;
      }
    }
  }
  entry.info->updateInstance(instance);
  return object;
}

}  // namespace quorix
