// The runtime's own classes in the object system.
#pragma once

namespace quorix::detail {

// Registers "RandomStream" (a scalar object whose instance is a
// std::shared_ptr<RandomStream>*). Called once, when the class registry is
// first created.
void registerBuiltinClasses();

}  // namespace quorix::detail
