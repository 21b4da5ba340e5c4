// Checks shared by the object system's member access paths.
#pragma once

#include <string_view>

#include "class_registry.h"
#include "quorix/host_array.h"

namespace quorix::detail {

// The registered class of an object array; a value that is not an object
// has no members, so asking it for `member` raises UnknownMember. An object
// array of an unregistered class raises UnknownClass.
ClassEntry& classOfObject(const HostArray& object, std::string_view member);

// Raises AccessDenied naming `member` when its access code is above the
// caller's level.
void checkAccess(int memberAccess, int callerAccess, std::string_view member);

}  // namespace quorix::detail
