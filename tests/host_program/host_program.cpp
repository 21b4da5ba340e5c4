// A host in miniature. It knows the module only by name and by the class
// and routines it offers: it loads libzotdigest, builds and queries digests
// through the object system, calls the three routines of the function table,
// and exits non-zero at the first unexpected answer.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/module.h"
#include "quorix/object_system.h"

namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

int failures = 0;

void expect(bool ok, const std::string& what) {
  if (!ok) {
    std::fprintf(stderr, "host_program: FAILED: %s\n", what.c_str());
    ++failures;
  }
}

// first, first + 1, ..., first + n - 1 as a 1 x n double array.
HostArrayPtr ramp(double first, std::size_t n) {
  HostArrayPtr a = HostArray::createNumericMatrix(1, n, ClassID::Double);
  for (std::size_t i = 0; i < n; ++i) {
    a->data<double>()[i] = first + static_cast<double>(i);
  }
  return a;
}

HostArrayPtr callOne(const char* method, std::vector<const HostArray*> in) {
  HostArray* out[2] = {nullptr, nullptr};
  ObjectSystem::callMethod(method, 1, out, static_cast<int>(in.size()), in.data());
  return HostArrayPtr(out[0]);
}

double firstOf(const HostArrayPtr& a) { return a->elementAsDouble(0); }

std::uint64_t weightOf(const HostArray& digest) {
  return ObjectSystem::getProperty(digest, "NumDataPoints")->data<std::uint64_t>()[0];
}

HostArrayPtr routine(const quorix::Module& module, std::size_t i,
                     std::vector<const HostArray*> in) {
  HostArray* out[1] = {nullptr};
  module.call(i, 1, out, static_cast<int>(in.size()), in.data());
  return HostArrayPtr(out[0]);
}

void run() {
  const quorix::Module& module = quorix::Module::load("libzotdigest");
  expect(module.routineCount() == 3, "three table routines");

  // Construct from data with a Delta, add more, query.
  const HostArrayPtr first = ramp(1.0, 10000);
  const HostArrayPtr delta = HostArray::createDoubleScalar(100.0);
  const HostArray* ctorArgs[] = {first.get(), delta.get()};
  const HostArrayPtr digest = ObjectSystem::construct("TDigest", 2, ctorArgs);
  expect(weightOf(*digest) == 10000, "constructed weight");
  expect(firstOf(ObjectSystem::getProperty(*digest, "Delta")) == 100.0, "Delta");

  const HostArrayPtr second = ramp(10001.0, 10000);
  HostArray* none[1] = {nullptr};
  const HostArray* addArgs[] = {digest.get(), second.get()};
  ObjectSystem::callMethod("add", 0, none, 2, addArgs);
  expect(weightOf(*digest) == 20000, "weight after add");

  const HostArrayPtr middle = HostArray::createDoubleScalar(10000.0);
  const HostArrayPtr half = HostArray::createDoubleScalar(0.5);
  const HostArrayPtr noTrim = HostArray::createDoubleScalar(0.0);
  expect(std::fabs(firstOf(callOne("cdf", {digest.get(), middle.get()})) - 0.5) < 0.01, "cdf");
  expect(std::fabs(firstOf(callOne("icdf", {digest.get(), half.get()})) - 10000.0) < 100.0, "icdf");
  expect(std::fabs(firstOf(callOne("trimmedMean", {digest.get(), noTrim.get()})) - 10000.5) < 1e-6,
         "trimmedMean");

  // Merge another digest in, then list the centroids.
  const HostArrayPtr more = ramp(-4999.0, 5000);
  const HostArray* moreArgs[] = {more.get(), delta.get()};
  const HostArrayPtr other = ObjectSystem::construct("TDigest", 2, moreArgs);
  const HostArray* mergeArgs[] = {digest.get(), other.get()};
  ObjectSystem::callMethod("merge", 0, none, 2, mergeArgs);
  expect(weightOf(*digest) == 25000, "weight after merge");

  HostArray* listing[2] = {nullptr, nullptr};
  const HostArray* listArgs[] = {digest.get()};
  const int produced = ObjectSystem::callMethod("centroids", 2, listing, 1, listArgs);
  const HostArrayPtr means(listing[0]);
  const HostArrayPtr counts(listing[1]);
  expect(produced == 2 && means && counts, "centroids gives two outputs");
  if (means && counts) {
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < counts->numel(); ++i) {
      total += counts->data<std::uint64_t>()[i];
    }
    expect(total == 25000, "centroid counts add up to the weight");
    const auto centroidCount =
        ObjectSystem::getProperty(*digest, "NumCentroids")->data<std::uint64_t>()[0];
    expect(means->numel() == centroidCount, "one mean per centroid");
  }

  // The function table: array merge, column build, column merge.
  HostArrayPtr pair = HostArray::createObjectArray("TDigest", {1, 2});
  pair->setObject(0, digest->object(0));
  pair->setObject(1, other->object(0));
  const HostArrayPtr merged = routine(module, 0, {pair.get()});
  expect(merged && weightOf(*merged) == 30000, "array merge");

  HostArrayPtr matrix = HostArray::createNumericMatrix(3, 4, ClassID::Double);
  for (std::size_t i = 0; i < 12; ++i) {
    matrix->data<double>()[i] = static_cast<double>(i);
  }
  const HostArrayPtr columns = routine(module, 1, {matrix.get()});
  expect(columns && columns->dims() == quorix::Dims{1, 4}, "column build shape");
  if (columns) {
    const HostArrayPtr combined = routine(module, 2, {columns.get()});
    expect(combined && combined->dims() == quorix::Dims{1, 4}, "column merge shape");
    if (combined) {
      for (std::size_t i = 0; i < 4; ++i) {
        const HostArrayPtr one = HostArray::createScalarObject(combined->object(i));
        expect(weightOf(*one) == 3, "column weight");
      }
    }
  }
}

}  // namespace

int main() {
  try {
    run();
  } catch (const quorix::MsgIDException& e) {
    std::fprintf(stderr, "host_program: error %s: %s\n", e.identifier().c_str(), e.what());
    return 1;
  }
  if (failures == 0) {
    std::printf("host_program: all checks passed\n");
  }
  return failures == 0 ? 0 : 1;
}
