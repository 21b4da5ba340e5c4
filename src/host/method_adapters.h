// The method descriptors of class "TDigest": they connect a host method
// call to one plain work function of a digest, and the constructor to the
// constructor's argument handling.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/object_system.h"

namespace zotdigest {

// The work behind one method overload. `digest` is the object's digest;
// `in` holds the method's arguments after the object (nIn of them); results
// go to out[0 .. nOut-1] as arrays allocated with new (the host takes them).
using MethodFunction = void (*)(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                                const quorix::HostArray* const* in);

// The signature of a method of the class: first input "<className> scalar"
// (the object), then the outputs and the further inputs in the order given.
// Raises "QUORIX:class:InvalidType" for a malformed type string.
quorix::Signature methodSignature(std::string_view className,
                                  std::initializer_list<std::string_view> outputs,
                                  std::initializer_list<std::string_view> furtherInputs);

// A method that always answers: a call that requested no output is raised
// to one output (written back to the caller) before the work runs, so a
// call whose result is discarded still produces it.
class MethodWithAnswer final : public quorix::MethodInfo {
 public:
  MethodWithAnswer(std::string name, quorix::Signature signature, MethodFunction work);
  // Raises "QUORIX:class:RequireScalarObject" when in[0] is not a scalar
  // TDigest object; the work function's own errors pass through unchanged.
  void invoke(int& nOut, quorix::HostArray** out, int nIn,
              const quorix::HostArray* const* in) override;

 private:
  MethodFunction work_;
};

// A method that changes the digest and answers nothing; the output count is
// passed on as the caller gave it.
class MethodNoAnswer final : public quorix::MethodInfo {
 public:
  MethodNoAnswer(std::string name, quorix::Signature signature, MethodFunction work);
  // Raises as MethodWithAnswer::invoke.
  void invoke(int& nOut, quorix::HostArray** out, int nIn,
              const quorix::HostArray* const* in) override;

 private:
  MethodFunction work_;
};

// The constructor. The object system has already created the new scalar
// object in out[0] and passes only the user's inputs (data, Delta, stream;
// the count is checked here, not by the signature: input "any",
// open-ended, output "<className>").
class TDigest_Constructor final : public quorix::MethodInfo {
 public:
  explicit TDigest_Constructor(std::string_view className);
  // Raises "QUORIX:class:WrongNumberOfConstructorArgs",
  // "stats:tdigest:DeltaInvalidType", "stats:tdigest:DeltaInvalidValue",
  // "QUORIX:class:RequireReal" and the random service's
  // "QUORIX:random:InvalidStream".
  void invoke(int& nOut, quorix::HostArray** out, int nIn,
              const quorix::HostArray* const* in) override;
};

}  // namespace zotdigest
