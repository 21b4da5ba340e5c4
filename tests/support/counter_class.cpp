#include "counter_class.h"

#include <mutex>

namespace quorix::test {

namespace {

CounterInstance& self(const HostArray& object) {
  return ObjectSystem::scalarInstanceAs<CounterInstance>(object, kCounterClass);
}

// A method body of Counter that records what it received.
FunctionMethod::Body recording(std::string overload) {
  return [overload](int&, HostArray**, int nIn, const HostArray* const* in) {
    CounterInstance& counter = self(*in[0]);
    counter.lastOverload = overload;
    counter.lastArg = nIn > 1 ? in[1] : nullptr;
    counter.lastArgClass = nIn > 1 ? in[1]->classID() : ClassID::Unknown;
    counter.lastArgComplex = nIn > 1 && in[1]->isComplex();
  };
}

class CounterClass final : public ClassInfo {
 public:
  std::string name() const override { return kCounterClass; }

  void defineMembers(ClassDefinition& d) override {
    ++counterStats().defined;
    const Type* const doubleScalar = TypeRepository::lookup("double scalar");
    d.addProperty(std::make_unique<PropertyInfo>(
        "Value", doubleScalar, kPublicAccess, kPublicAccess, 0u, "The count",
        [](void* p) { return HostArray::createDoubleScalar(as(p).value); },
        [](void* p, const HostArray& v) { as(p).value = v.elementAsDouble(0); }));
    d.addProperty(std::make_unique<PropertyInfo>(
        "Steps", TypeRepository::lookup("uint64 scalar"), kPublicAccess, kRestrictedAccess, 0u,
        "Method calls so far", [](void* p) { return HostArray::createUInt64Scalar(as(p).steps); }));
    d.addProperty(std::make_unique<PropertyInfo>(
        "Secret", doubleScalar, kRestrictedAccess, kRestrictedAccess, 0u, "Hidden state",
        [](void* p) { return HostArray::createDoubleScalar(as(p).secret); },
        [](void* p, const HostArray& v) { as(p).secret = v.elementAsDouble(0); }));

    d.addMethod(std::make_unique<FunctionMethod>(
        kCounterClass, kPublicAccess, makeSignature({"any"}, {kCounterClass}, true),
        [](int&, HostArray** out, int nIn, const HostArray* const* in) {
          CounterInstance& counter = self(*out[0]);
          counter.constructed = true;
          counter.lastNIn = nIn;
          if (nIn > 0) {
            counter.value = in[0]->elementAsDouble(0);
          }
        }));

    const auto add = [&d](const char* name, Signature signature, FunctionMethod::Body body,
                          int access = kPublicAccess) {
      d.addMethod(
          std::make_unique<FunctionMethod>(name, access, std::move(signature), std::move(body)));
    };
    add("take", makeSignature({"Counter scalar", "double matrix"}), recording("double matrix"));
    add("take", makeSignature({"Counter scalar", "single"}), recording("single"));
    add("take", makeSignature({"Counter scalar", "int8"}), recording("int8"));
    add("take", makeSignature({"Counter scalar", "int8", "any"}), recording("int8+any"));
    add("absorb", makeSignature({"Counter scalar", "double"}), recording("double"));
    add("absorb", makeSignature({"Counter scalar", kCounterClass}), recording(kCounterClass));
    add(
        "reset", makeSignature({"Counter scalar"}),
        [](int&, HostArray**, int, const HostArray* const* in) { self(*in[0]).value = 0.0; },
        kRestrictedAccess);
    add("answer", makeSignature({"Counter scalar"}, {"double matrix"}),
        [](int& nOut, HostArray** out, int, const HostArray* const* in) {
          if (nOut == 0) {
            nOut = 1;
          }
          out[0] = HostArray::createDoubleScalar(self(*in[0]).value).release();
        });
    add("pair", makeSignature({"Counter scalar"}, {"double scalar", "uint64 scalar"}),
        [](int& nOut, HostArray** out, int, const HostArray* const* in) {
          if (nOut >= 1) {
            out[0] = HostArray::createDoubleScalar(self(*in[0]).value).release();
          }
          if (nOut >= 2) {
            out[1] = HostArray::createUInt64Scalar(self(*in[0]).steps).release();
          }
        });
  }

  void* createInstance() override {
    ++counterStats().created;
    return new CounterInstance;
  }
  void destroyInstance(void* instance) noexcept override {
    ++counterStats().destroyed;
    delete static_cast<CounterInstance*>(instance);
  }
  bool savesByProperties() const override { return true; }
  bool allowsObjectArrays() const override { return true; }

 private:
  static CounterInstance& as(void* p) { return *static_cast<CounterInstance*>(p); }
};

class PlainClass final : public ClassInfo {
 public:
  std::string name() const override { return kPlainClass; }
  void defineMembers(ClassDefinition&) override {}
  void* createInstance() override { return new std::string; }
  void destroyInstance(void* instance) noexcept override {
    delete static_cast<std::string*>(instance);
  }
};

}  // namespace

FunctionMethod::FunctionMethod(std::string name, int access, Signature signature, Body body)
    : MethodInfo(std::move(name), access, std::move(signature)), body_(std::move(body)) {}

void FunctionMethod::invoke(int& nOut, HostArray** out, int nIn, const HostArray* const* in) {
  body_(nOut, out, nIn, in);
}

Signature makeSignature(std::initializer_list<const char*> inputs,
                        std::initializer_list<const char*> outputs, bool openEnded) {
  Signature signature;
  for (const char* input : inputs) {
    signature.addInput(TypeRepository::lookup(input));
  }
  for (const char* output : outputs) {
    signature.addOutput(TypeRepository::lookup(output));
  }
  return signature.setOpenEnded(openEnded);
}

ClassStats& counterStats() {
  static ClassStats stats;
  return stats;
}

void registerCounterClass() {
  static std::once_flag once;
  std::call_once(once, [] { ObjectSystem::registerClass(new CounterClass); });
}

void registerPlainClass() {
  static std::once_flag once;
  std::call_once(once, [] { ObjectSystem::registerClass(new PlainClass); });
}

}  // namespace quorix::test
