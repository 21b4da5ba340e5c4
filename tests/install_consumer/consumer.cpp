// Builds the digest of a few values with the installed package and prints
// their median: the check that the installed headers, libraries, package
// configuration and module plug-in work together.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "engine/reproducible_build.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"

int main() {
  // A program finds the module on the module path.
  ::setenv("QUORIX_MODULE_PATH", ZOTDIGEST_MODULE_DIR, 1);
  try {
    const std::vector<double> values = {5, 1, 4, 2, 3};
    zotdigest::engine::ReproducibleBuild build({.delta = 100.0, .seed = 7});
    build.append(values.data(), values.size(), quorix::ClassID::Double);
    const quorix::HostArrayPtr digest = build.finish();

    const quorix::HostArrayPtr q = quorix::HostArray::createDoubleScalar(0.5);
    const quorix::HostArray* in[] = {digest.get(), q.get()};
    quorix::HostArray* out[1] = {nullptr};
    quorix::ObjectSystem::callMethod("icdf", 1, out, 2, in);
    const quorix::HostArrayPtr median(out[0]);
    std::printf("median of 5 values: %g\n", *static_cast<const double*>(median->realData()));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    return 1;
  }
}
