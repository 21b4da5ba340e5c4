#include "host/method_adapters.h"

#include <utility>

#include "construction/arguments.h"
#include "host/tdigest_class.h"

namespace zotdigest {

namespace {

using quorix::HostArray;
using quorix::ObjectSystem;
using quorix::TypeRepository;

TDigest& objectDigest(const HostArray& object) {
  return ObjectSystem::scalarInstanceAs<TDigest>(object, kClassName);
}

}  // namespace

quorix::Signature methodSignature(std::string_view className,
                                  std::initializer_list<std::string_view> outputs,
                                  std::initializer_list<std::string_view> furtherInputs) {
  quorix::Signature signature;
  signature.addInput(TypeRepository::lookup(std::string(className) + " scalar"));
  for (std::string_view output : outputs) {
    signature.addOutput(TypeRepository::lookup(output));
  }
  for (std::string_view input : furtherInputs) {
    signature.addInput(TypeRepository::lookup(input));
  }
  return signature;
}

MethodWithAnswer::MethodWithAnswer(std::string name, quorix::Signature signature,
                                   MethodFunction work)
    : MethodInfo(std::move(name), quorix::kPublicAccess, std::move(signature)), work_(work) {}

void MethodWithAnswer::invoke(int& nOut, HostArray** out, int nIn, const HostArray* const* in) {
  TDigest& digest = objectDigest(*in[0]);
  if (nOut == 0) {
    nOut = 1;
  }
  work_(digest, nOut, out, nIn - 1, in + 1);
}

MethodNoAnswer::MethodNoAnswer(std::string name, quorix::Signature signature, MethodFunction work)
    : MethodInfo(std::move(name), quorix::kPublicAccess, std::move(signature)), work_(work) {}

void MethodNoAnswer::invoke(int& nOut, HostArray** out, int nIn, const HostArray* const* in) {
  TDigest& digest = objectDigest(*in[0]);
  work_(digest, nOut, out, nIn - 1, in + 1);
}

namespace {

quorix::Signature constructorSignature(std::string_view className) {
  quorix::Signature signature;
  signature.addInput(TypeRepository::lookup("any"));
  signature.setOpenEnded();
  signature.addOutput(TypeRepository::lookup(className));
  return signature;
}

}  // namespace

TDigest_Constructor::TDigest_Constructor(std::string_view className)
    : MethodInfo(std::string(className), quorix::kPublicAccess, constructorSignature(className)) {}

void TDigest_Constructor::invoke(int& /*nOut*/, HostArray** out, int nIn,
                                 const HostArray* const* in) {
  constructDigest(objectDigest(*out[0]), nIn, in);
}

}  // namespace zotdigest
