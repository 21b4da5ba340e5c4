// The message identifier a call raises, for checking errors by identifier
// rather than by exception type alone.
#pragma once

#include <string>

#include "quorix/messages.h"

namespace quorix::test {

// The identifier of the MsgIDException `call` raises, or "" when it returns.
// Any other exception propagates, failing the test that made the call.
template <class Call>
std::string raisedIdentifier(Call&& call) {
  try {
    call();
  } catch (const MsgIDException& e) {
    return e.identifier();
  }
  return "";
}

}  // namespace quorix::test
