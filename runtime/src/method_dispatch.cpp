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
#include <vector>

#include "class_errors.h"
#include "class_registry.h"
#include "object_access.h"
#include "quorix/object_system.h"

namespace quorix {

using detail::raiseClassError;

namespace {

bool acceptsAll(const Signature& signature, int nIn, const HostArray* const* in) noexcept {
  const std::vector<const Type*>& types = signature.inputs();
  for (std::size_t i = 0; i < static_cast<std::size_t>(nIn) && i < types.size(); ++i) {
    if (!types[i]->accepts(*in[i])) {
      return false;
    }
  }
  return true;
}

MethodInfo* chooseOverload(const ClassDefinition& definition, std::string_view name, int nIn,
                           const HostArray* const* in) {
  bool known = false;
  MethodInfo* firstFitting = nullptr;
  for (const auto& method : definition.methods()) {
    if (method->name() != name) {
      continue;
    }
    known = true;
    if (!method->signature().fitsInputCount(static_cast<std::size_t>(nIn))) {
      continue;
    }
    if (acceptsAll(method->signature(), nIn, in)) {
      return method.get();
    }
    if (firstFitting == nullptr) {
      firstFitting = method.get();
    }
  }
  if (!known) {
    raiseClassError("UnknownMember", std::string(name));
  }
  if (firstFitting == nullptr) {
    raiseClassError("NoMatchingSignature", std::string(name));
  }
  return firstFitting;
}

}  // namespace

int ObjectSystem::callMethod(std::string_view methodName, int nOut, HostArray** out, int nIn,
                             const HostArray* const* in, int callerAccess) {
  if (nIn < 1) {
    raiseClassError("UnknownMember", std::string(methodName));
  }
  detail::ClassEntry& entry = detail::classOfObject(*in[0], methodName);
  const ClassDefinition& definition = detail::ClassRegistry::definition(entry);
  MethodInfo* const method = chooseOverload(definition, methodName, nIn, in);
  detail::checkAccess(method->access(), callerAccess, methodName);

  // Converted arguments live here for the duration of the call.
  std::vector<HostArrayPtr> converted;
  std::vector<const HostArray*> args(in, in + nIn);
  const std::vector<const Type*>& types = method->signature().inputs();
  for (std::size_t i = 0; i < args.size() && i < types.size(); ++i) {
    if (types[i]->convertsToDouble() && args[i]->isNumeric() &&
        args[i]->classID() != ClassID::Double) {
      converted.push_back(args[i]->toDouble());
      args[i] = converted.back().get();
    }
  }

  // Every slot the caller may receive starts null, so a slot the method
  // leaves unset is recognisable.
  const int slots = nOut > 0 ? nOut : 1;
  for (int i = 0; i < slots; ++i) {
    out[i] = nullptr;
  }
  method->invoke(nOut, out, nIn, args.data());
  return nOut;
}

}  // namespace quorix
