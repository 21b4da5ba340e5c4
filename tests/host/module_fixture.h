// Shared helpers of the host suite. Every test here reaches the class the
// way a host does: it loads the module by name and talks to the object
// system, never to the module's own registration (which would register the
// class a second time).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace zotdigest::hosttest {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

inline quorix::Module& loadModule() { return quorix::Module::load("libzotdigest"); }

class ModuleTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { loadModule(); }
};

// A 1 x n array of the class holding the values (converted per element).
inline HostArrayPtr numbers(ClassID id, const std::vector<double>& values) {
  HostArrayPtr a = HostArray::createNumericMatrix(1, values.size(), id);
  for (std::size_t i = 0; i < values.size(); ++i) {
    switch (id) {
#define ZOTDIGEST_FILL(ID, T)                    \
  case ClassID::ID:                              \
    a->data<T>()[i] = static_cast<T>(values[i]); \
    break;
      ZOTDIGEST_FILL(Double, double)
      ZOTDIGEST_FILL(Single, float)
      ZOTDIGEST_FILL(Int8, std::int8_t)
      ZOTDIGEST_FILL(UInt8, std::uint8_t)
      ZOTDIGEST_FILL(Int16, std::int16_t)
      ZOTDIGEST_FILL(UInt16, std::uint16_t)
      ZOTDIGEST_FILL(Int32, std::int32_t)
      ZOTDIGEST_FILL(UInt32, std::uint32_t)
      ZOTDIGEST_FILL(Int64, std::int64_t)
      ZOTDIGEST_FILL(UInt64, std::uint64_t)
#undef ZOTDIGEST_FILL
      default:
        ADD_FAILURE() << "not a numeric class";
    }
  }
  return a;
}

inline HostArrayPtr doubles(const std::vector<double>& values) {
  return numbers(ClassID::Double, values);
}

inline HostArrayPtr emptyDouble() { return HostArray::createNumericMatrix(0, 0, ClassID::Double); }

// 1, 2, ..., n
inline std::vector<double> ramp(std::size_t n) {
  std::vector<double> v(n);
  for (std::size_t i = 0; i < n; ++i) {
    v[i] = static_cast<double>(i + 1);
  }
  return v;
}

// A fresh stream object of the seed; the array shares the stream's life.
inline HostArrayPtr streamOf(std::uint64_t seed) {
  return quorix::RandomStream::toHostValue(std::shared_ptr<quorix::RandomStream>(
      quorix::RandomStream::create("mrg32k3a", 1000000, seed)));
}

inline HostArrayPtr construct(std::vector<const HostArray*> in) {
  return ObjectSystem::construct("TDigest", static_cast<int>(in.size()), in.data());
}

// Calls a method and returns the outputs it produced.
inline std::vector<HostArrayPtr> call(const char* method, int nOut,
                                      std::vector<const HostArray*> in,
                                      int access = quorix::kPublicAccess) {
  std::vector<HostArray*> out(static_cast<std::size_t>(nOut > 2 ? nOut : 2), nullptr);
  const int produced = ObjectSystem::callMethod(method, nOut, out.data(),
                                                static_cast<int>(in.size()), in.data(), access);
  std::vector<HostArrayPtr> owned;
  for (int i = 0; i < produced; ++i) {
    owned.emplace_back(out[static_cast<std::size_t>(i)]);
  }
  return owned;
}

// The first output of a method.
inline HostArrayPtr answer(const char* method, std::vector<const HostArray*> in) {
  return std::move(call(method, 1, std::move(in)).at(0));
}

// Calls routine i of the module's table; out[0] (null when not set).
inline HostArrayPtr routine(std::size_t i, std::vector<const HostArray*> in) {
  HostArray* out[1] = {nullptr};
  loadModule().call(i, 1, out, static_cast<int>(in.size()), in.data());
  return HostArrayPtr(out[0]);
}
inline constexpr std::size_t kArrayMerge = 0;
inline constexpr std::size_t kColumnBuild = 1;
inline constexpr std::size_t kColumnMerge = 2;

inline HostArrayPtr property(const HostArray& object, const char* name,
                             int access = quorix::kPublicAccess) {
  return ObjectSystem::getProperty(object, name, access);
}
inline double doubleProperty(const HostArray& object, const char* name) {
  return property(object, name)->elementAsDouble(0);
}
inline std::uint64_t countProperty(const HostArray& object, const char* name) {
  return property(object, name)->data<std::uint64_t>()[0];
}

// The message identifier the call raised, "" when it raised nothing.
inline std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    return e.identifier();
  }
  return "";
}

// The identifiers of the warnings issued while it lives.
class WarningCapture {
 public:
  WarningCapture()
      : previous_(quorix::setWarningSink(
            [this](const std::string& id, const std::string&) { ids_.push_back(id); })) {}
  ~WarningCapture() { quorix::setWarningSink(std::move(previous_)); }
  const std::vector<std::string>& ids() const { return ids_; }

 private:
  std::vector<std::string> ids_;
  quorix::WarningSink previous_;
};

// The centroids (means, counts) of a digest object, through the method.
inline std::pair<std::vector<double>, std::vector<std::uint64_t>> centroidsOf(
    const HostArray& digest) {
  std::vector<HostArrayPtr> out = call("centroids", 2, {&digest});
  const std::size_t n = out.at(0)->numel();
  return {
      std::vector<double>(out[0]->data<double>(), out[0]->data<double>() + n),
      std::vector<std::uint64_t>(out[1]->data<std::uint64_t>(), out[1]->data<std::uint64_t>() + n)};
}

}  // namespace zotdigest::hosttest
