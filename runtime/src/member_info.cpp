// Member descriptors: signatures, properties and methods.
#include "class_errors.h"
#include "quorix/object_system.h"

namespace quorix {

// --- Signature ---------------------------------------------------------------

Signature& Signature::addInput(const Type* type) {
  inputs_.push_back(type);
  return *this;
}

Signature& Signature::addOutput(const Type* type) {
  outputs_.push_back(type);
  return *this;
}

Signature& Signature::setOpenEnded(bool openEnded) {
  openEnded_ = openEnded;
  return *this;
}

// --- PropertyInfo ------------------------------------------------------------

PropertyInfo::PropertyInfo(std::string name, const Type* type, int getAccess, int setAccess,
                           std::uint32_t attributes, std::string description, PropertyGetter getter,
                           PropertySetter setter)
    : name_(std::move(name)),
      type_(type),
      getAccess_(getAccess),
      setAccess_(setAccess),
      attributes_(attributes),
      description_(std::move(description)),
      getter_(std::move(getter)),
      setter_(std::move(setter)) {}

HostArrayPtr PropertyInfo::get(void* instance) const { return getter_(instance); }

void PropertyInfo::set(void* instance, const HostArray& value) const {
  if (!setter_) {
    detail::raiseClassError("ReadOnly", name_);
  }
  setter_(instance, value);
}

// --- MethodInfo --------------------------------------------------------------

MethodInfo::MethodInfo(std::string name, int access, Signature signature)
    : name_(std::move(name)), access_(access), signature_(std::move(signature)) {}

MethodInfo::~MethodInfo() = default;

}  // namespace quorix
