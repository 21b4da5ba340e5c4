// Test classes for the object system.
//
// "Counter": a savable class that may form arrays. Properties, in order:
//   "Value"  double scalar, get 0, set 0
//   "Steps"  uint64 scalar, get 0, no setter
//   "Secret" double scalar, get 2, set 2
// Methods, in order (every signature starts with "Counter scalar"):
//   "Counter" constructor: "any", open-ended; output "Counter". Sets Value
//             from its first input when given.
//   "take"    overloads ("double matrix"), ("single"), ("int8"), ("int8", "any"):
//             each records which overload ran and what it received.
//   "absorb"  overloads ("double"), ("Counter"), recording as "take" does.
//   "reset"   access 2, no further inputs: Value = 0.
//   "answer"  output "double matrix": Value; raises a request of 0 outputs to 1.
//   "pair"    outputs "double scalar", "uint64 scalar": Value and Steps, as
//             many as requested.
// "Plain": not savable, no object arrays, no constructor, no members.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "quorix/object_system.h"

namespace quorix::test {

inline constexpr const char* kCounterClass = "Counter";
inline constexpr const char* kPlainClass = "Plain";

struct CounterInstance {
  double value = 0.0;
  double secret = 0.0;
  std::uint64_t steps = 0;
  bool constructed = false;            // the constructor found this object in out[0]
  std::string lastOverload;            // the overload of the last method call
  const HostArray* lastArg = nullptr;  // its second input, as received
  ClassID lastArgClass = ClassID::Unknown;
  bool lastArgComplex = false;
  int lastNIn = 0;  // inputs the constructor saw
};

struct ClassStats {
  std::atomic<int> created{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> defined{0};  // defineMembers calls
};

ClassStats& counterStats();

// Register the classes once per process; later calls do nothing.
void registerCounterClass();
void registerPlainClass();

// A method that calls a function.
class FunctionMethod final : public MethodInfo {
 public:
  using Body = std::function<void(int& nOut, HostArray** out, int nIn, const HostArray* const* in)>;
  FunctionMethod(std::string name, int access, Signature signature, Body body);
  void invoke(int& nOut, HostArray** out, int nIn, const HostArray* const* in) override;

 private:
  Body body_;
};

// A signature from type strings.
Signature makeSignature(std::initializer_list<const char*> inputs,
                        std::initializer_list<const char*> outputs = {}, bool openEnded = false);

}  // namespace quorix::test
