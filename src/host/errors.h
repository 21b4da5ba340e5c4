// The module's message identifiers, the exception family that carries them,
// and the two warnings.
//
// Each error key has its own exception type, KeyedException<Tag>, so a host
// that catches a MsgIDException can rethrow the exact type. Errors leave
// through raiseError<Tag>, which hands the exception to the runtime's
// raiseHostError; nothing in the module catches them.
#pragma once

#include <cstdint>
#include <string>

#include "quorix/messages.h"

namespace stats::tdigest {
struct DataMalformed {};
struct CdfNoData {};
struct IcdfInvalidQuantile {};
struct TrimmedMeanInvalidTrim {};
struct TrimmedMeanNoData {};
struct MergeDeltaMismatch {};
struct DeltaInvalidValue {};
struct DeltaInvalidType {};
struct InvalidNumInputs {};
struct General {};
}  // namespace stats::tdigest

namespace component_QUORIX::catalog_class {
struct key_RequireClass {};
struct key_RequireNumeric {};
struct key_RequireReal {};
struct key_WrongNumberOfConstructorArgs {};
}  // namespace component_QUORIX::catalog_class

namespace zotdigest {

// --- MessageID factories -------------------------------------------------
quorix::MessageID DataMalformed();
quorix::MessageID CdfNoData();
quorix::MessageID IcdfInvalidQuantile();
quorix::MessageID TrimmedMeanInvalidTrim();
quorix::MessageID TrimmedMeanNoData();
quorix::MessageID MergeDeltaMismatch();
quorix::MessageID PreMaxData();
quorix::MessageID PostMaxData();
quorix::MessageID DeltaInvalidValue(const std::string& value);
quorix::MessageID DeltaInvalidType();
quorix::MessageID InvalidNumInputs();
quorix::MessageID General(const std::string& what);
quorix::MessageID RequireClass(const char* className);
quorix::MessageID RequireNumeric();
quorix::MessageID RequireReal();
quorix::MessageID WrongNumberOfConstructorArgs();

// One exception type per error key.
template <class Tag>
class KeyedException : public quorix::MsgIDException, public virtual std::exception {
 public:
  explicit KeyedException(const quorix::MessageID& id) : quorix::MsgIDException(id) {}

  KeyedException* clone() const override { return new KeyedException(*this); }
  [[noreturn]] void rethrow() const override { throw *this; }
  const char* what() const noexcept override { return quorix::MsgIDException::what(); }
};

// Raises the key's error; never returns.
template <class Tag>
[[noreturn]] void raiseError(const quorix::MessageID& id) {
  KeyedException<Tag> e(id);
  quorix::raiseHostError(e);
  throw e;  // only if the runtime's conversion ever returns
}

// Warns PreMaxData (incomingWeight != 0) or PostMaxData (incomingWeight == 0)
// when totalWeight + incomingWeight wraps or passes 8e15, or centroidCount
// passes either centroid limit. At most one warning; always returns.
void checkCapacity(std::uint64_t totalWeight, std::uint64_t centroidCount,
                   std::uint64_t incomingWeight);

// The value as the C library prints it with "%f".
std::string formatDouble(double value);

// Raises General with "NaN encountered." or "Inf encountered.".
void checkFiniteScalar(double value);

// Registers the catalogue texts of the "stats:tdigest" identifiers with the
// runtime (idempotent).
void registerMessageTexts();

}  // namespace zotdigest
