// The one raising path of the object system's errors (catalog "QUORIX:class").
#pragma once

#include <string>

#include "quorix/messages.h"

namespace quorix::detail {

// Raises "QUORIX:class:<key>" with one argument (a class, member or type
// name, as the catalogue text of the key expects).
[[noreturn]] inline void raiseClassError(const char* key, std::string argument) {
  raiseHostError(MessageID("QUORIX:class", key, 1, {std::move(argument)}));
}

}  // namespace quorix::detail
