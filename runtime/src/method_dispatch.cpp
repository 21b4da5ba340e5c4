// Method dispatch by name.
//
// The object in in[0] names the class; it is input 0 of every signature.
// Among the overloads of the name whose input count fits, the first whose
// every listed input type accepts its argument is called (inputs beyond the
// listed ones of an open-ended signature accept anything). When none
// accepts, the first overload with a fitting count is called anyway, so the
// member's own checks report the problem under the member's own message
// identifier. Only afterwards, for whichever overload was chosen, is a
// numeric argument of a "double matrix" input converted to double (complex
// stays complex); every other argument is passed as the caller gave it, the
// caller's own array, not a copy.
//
// A MethodHandle keeps the overload list of its name, which the class's
// definition builds once, so repeated calls skip the registry and the
// member look-up; both paths share the dispatch below.
#include <algorithm>
#include <array>
#include <vector>

#include "class_errors.h"
#include "class_registry.h"
#include "object_access.h"
#include "quorix/object_system.h"

namespace quorix {

using detail::raiseClassError;

namespace {

// Argument lists up to this long are converted without the heap.
constexpr int kInlineArguments = 8;

bool acceptsAll(const Signature& signature, int nIn, const HostArray* const* in) noexcept {
  const std::vector<const Type*>& types = signature.inputs();
  for (std::size_t i = 0; i < static_cast<std::size_t>(nIn) && i < types.size(); ++i) {
    if (!types[i]->accepts(*in[i])) {
      return false;
    }
  }
  return true;
}

MethodInfo* chooseOverload(const std::vector<MethodInfo*>& overloads, std::string_view name,
                           int nIn, const HostArray* const* in) {
  MethodInfo* firstFitting = nullptr;
  for (MethodInfo* const method : overloads) {
    if (!method->signature().fitsInputCount(static_cast<std::size_t>(nIn))) {
      continue;
    }
    if (acceptsAll(method->signature(), nIn, in)) {
      return method;
    }
    if (firstFitting == nullptr) {
      firstFitting = method;
    }
  }
  if (firstFitting == nullptr) {
    raiseClassError("NoMatchingSignature", std::string(name));
  }
  return firstFitting;
}

bool convertsArgument(const Type& type, const HostArray& argument) noexcept {
  return type.convertsToDouble() && argument.isNumeric() && argument.classID() != ClassID::Double;
}

// Chooses among the overloads of one name and calls the chosen one.
int dispatch(const std::vector<MethodInfo*>& overloads, std::string_view name, int nOut,
             HostArray** out, int nIn, const HostArray* const* in, int callerAccess) {
  MethodInfo* const method = chooseOverload(overloads, name, nIn, in);
  detail::checkAccess(method->access(), callerAccess, name);

  // The caller's own list is passed on unless an argument is converted;
  // converted arguments live here for the duration of the call.
  const std::vector<const Type*>& types = method->signature().inputs();
  const std::size_t listed = std::min(static_cast<std::size_t>(nIn), types.size());
  std::size_t firstConverted = 0;
  while (firstConverted < listed &&
         !convertsArgument(*types[firstConverted], *in[firstConverted])) {
    ++firstConverted;
  }
  std::vector<HostArrayPtr> converted;
  std::array<const HostArray*, kInlineArguments> inlineArgs{};
  std::vector<const HostArray*> heapArgs;
  const HostArray* const* args = in;
  if (firstConverted < listed) {
    const HostArray** list = inlineArgs.data();
    if (nIn > kInlineArguments) {
      heapArgs.resize(static_cast<std::size_t>(nIn));
      list = heapArgs.data();
    }
    std::copy(in, in + nIn, list);
    for (std::size_t i = firstConverted; i < listed; ++i) {
      if (convertsArgument(*types[i], *list[i])) {
        converted.push_back(list[i]->toDouble());
        list[i] = converted.back().get();
      }
    }
    args = list;
  }

  // Every slot the caller may receive starts null, so a slot the method
  // leaves unset is recognisable.
  const int slots = nOut > 0 ? nOut : 1;
  for (int i = 0; i < slots; ++i) {
    out[i] = nullptr;
  }
  method->invoke(nOut, out, nIn, args);
  return nOut;
}

}  // namespace

int ObjectSystem::callMethod(std::string_view methodName, int nOut, HostArray** out, int nIn,
                             const HostArray* const* in, int callerAccess) {
  if (nIn < 1) {
    raiseClassError("UnknownMember", std::string(methodName));
  }
  detail::ClassEntry& entry = detail::classOfObject(*in[0], methodName);
  const ClassDefinition& definition = detail::ClassRegistry::definition(entry);
  const std::vector<MethodInfo*>* const overloads = definition.overloads(methodName);
  if (overloads == nullptr) {
    raiseClassError("UnknownMember", std::string(methodName));
  }
  return dispatch(*overloads, methodName, nOut, out, nIn, in, callerAccess);
}

MethodHandle::MethodHandle(std::string_view className, std::string_view methodName)
    : className_(className),
      name_(methodName),
      overloads_(ObjectSystem::classDefinition(className).overloads(methodName)) {
  if (overloads_ == nullptr) {
    raiseClassError("UnknownMember", name_);
  }
}

int MethodHandle::call(int nOut, HostArray** out, int nIn, const HostArray* const* in,
                       int callerAccess) const {
  if (nIn >= 1 && in[0]->classID() == ClassID::Object && in[0]->objectClassName() == className_) {
    return dispatch(*overloads_, name_, nOut, out, nIn, in, callerAccess);
  }
  return ObjectSystem::callMethod(name_, nOut, out, nIn, in, callerAccess);
}

}  // namespace quorix
