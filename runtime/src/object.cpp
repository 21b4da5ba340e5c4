// A native instance with its class. Objects are only ever held by
// std::shared_ptr, so the destructor - and with it destroyInstance - runs
// exactly once, when the last handle goes.
#include "quorix/object_system.h"

namespace quorix {

Object::Object(ClassInfo& info, void* instance) noexcept
    : info_(info), className_(info.name()), instance_(instance) {}

Object::~Object() {
  if (instance_ != nullptr) {
    info_.destroyInstance(instance_);
  }
}

}  // namespace quorix
