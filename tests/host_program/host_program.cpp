// A host in miniature. It knows the module only by name and by the class
// and routines it offers: it loads libzotdigest and calls every method of
// "TDigest" and every routine of the function table once, as a smoke test
// of loading and linking. What the answers are is the host suite's concern;
// here a call must succeed and give its outputs. Exits non-zero otherwise.
#include <cstddef>
#include <cstdio>
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

// Calls a method and checks that it produced nOut outputs.
void callMethod(const char* method, int nOut, std::vector<const HostArray*> in) {
  HostArray* out[2] = {nullptr, nullptr};
  const int produced =
      ObjectSystem::callMethod(method, nOut, out, static_cast<int>(in.size()), in.data());
  const HostArrayPtr first(out[0]), second(out[1]);  // released
  if (produced != nOut) {
    std::fprintf(stderr, "host_program: %s gave %d outputs, not %d\n", method, produced, nOut);
    ++failures;
  }
}

HostArrayPtr callRoutine(const quorix::Module& module, std::size_t i,
                         std::vector<const HostArray*> in) {
  HostArray* out[1] = {nullptr};
  module.call(i, 1, out, static_cast<int>(in.size()), in.data());
  if (out[0] == nullptr) {
    std::fprintf(stderr, "host_program: routine %zu gave no output\n", i);
    ++failures;
  }
  return HostArrayPtr(out[0]);
}

void run() {
  const quorix::Module& module = quorix::Module::load("libzotdigest");
  HostArrayPtr data = HostArray::createNumericMatrix(3, 4, ClassID::Double);
  for (std::size_t i = 0; i < 12; ++i) data->data<double>()[i] = static_cast<double>(i);
  const HostArrayPtr half = HostArray::createDoubleScalar(0.5);
  const HostArrayPtr trim = HostArray::createDoubleScalar(0.1);
  const HostArray* ctorArgs[] = {data.get()};
  const HostArrayPtr digest = ObjectSystem::construct("TDigest", 1, ctorArgs);
  const HostArrayPtr other = ObjectSystem::construct("TDigest", 1, ctorArgs);

  callMethod("add", 0, {digest.get(), data.get()});
  callMethod("cdf", 1, {digest.get(), half.get()});
  callMethod("icdf", 1, {digest.get(), half.get()});
  callMethod("trimmedMean", 1, {digest.get(), trim.get()});
  callMethod("merge", 0, {digest.get(), other.get()});
  callMethod("centroids", 2, {digest.get()});
  (void)ObjectSystem::getProperty(*digest, "NumDataPoints");

  HostArrayPtr pair = HostArray::createObjectArray("TDigest", {1, 2});
  pair->setObject(0, digest->object(0));
  pair->setObject(1, other->object(0));
  callRoutine(module, 0, {pair.get()});
  const HostArrayPtr columns = callRoutine(module, 1, {data.get()});
  if (columns) callRoutine(module, 2, {columns.get()});
}

}  // namespace

int main() {
  try {
    run();
  } catch (const quorix::MsgIDException& e) {
    std::fprintf(stderr, "host_program: error %s: %s\n", e.identifier().c_str(), e.what());
    return 1;
  }
  if (failures == 0) std::printf("host_program: every method and routine answered\n");
  return failures == 0 ? 0 : 1;
}
