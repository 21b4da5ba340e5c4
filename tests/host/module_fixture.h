// Shared helpers of the host suite. Every test reaches the class as a host
// does: it loads the module by name and talks to the object system, never to
// the module's own registration (which would register the class again).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "construction/element_types.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"
#include "support/raised_identifier.h"
#include "support/seeded_stream.h"

namespace zotdigest::hosttest {

using quorix::ClassID;
using quorix::Dims;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;
using quorix::test::raisedIdentifier;

inline quorix::Module& loadModule() { return quorix::Module::load("libzotdigest"); }

class ModuleTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { loadModule(); }
};

// A 1 x n array of the numeric class holding the values (converted per element).
inline HostArrayPtr numbers(ClassID id, const std::vector<double>& values) {
  HostArrayPtr a = HostArray::createNumericMatrix(1, values.size(), id);
  zotdigest::visitElementType(id, [&]<class T>(std::type_identity<T>) {
    std::transform(values.begin(), values.end(), a->data<T>(),
                   [](double v) { return static_cast<T>(v); });
  });
  return a;
}

inline HostArrayPtr doubles(const std::vector<double>& values) {
  return numbers(ClassID::Double, values);
}

// first + 1, first + 2, ..., first + n
inline std::vector<double> ramp(std::size_t n, double first = 0.0) {
  std::vector<double> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = first + static_cast<double>(i + 1);
  return v;
}

// A fresh stream object of the seed.
inline HostArrayPtr streamOf(std::uint64_t seed) {
  return quorix::RandomStream::toHostValue(quorix::test::seededStream(seed));
}

inline HostArrayPtr construct(std::vector<const HostArray*> in) {
  return ObjectSystem::construct("TDigest", static_cast<int>(in.size()), in.data());
}

// Calls a method and returns the outputs it produced.
inline std::vector<HostArrayPtr> call(const char* method, int nOut,
                                      std::vector<const HostArray*> in) {
  std::vector<HostArray*> out(2, nullptr);
  const int produced =
      ObjectSystem::callMethod(method, nOut, out.data(), static_cast<int>(in.size()), in.data());
  return std::vector<HostArrayPtr>(out.begin(), out.begin() + produced);
}

// Calls routine i of the module's table; out[0] (null when not set).
inline HostArrayPtr routine(std::size_t i, std::vector<const HostArray*> in) {
  HostArray* out[1] = {nullptr};
  loadModule().call(i, 1, out, static_cast<int>(in.size()), in.data());
  return HostArrayPtr(out[0]);
}
enum Routine : std::size_t { kArrayMerge, kColumnBuild, kColumnMerge };

inline double doubleProperty(const HostArray& object, const char* name) {
  return ObjectSystem::getProperty(object, name)->elementAsDouble(0);
}
inline std::uint64_t countProperty(const HostArray& object, const char* name) {
  return ObjectSystem::getProperty(object, name)->data<std::uint64_t>()[0];
}

}  // namespace zotdigest::hosttest
