// The "TDigest" class and the module's message texts, registered once for
// every test of this executable.
#include <gtest/gtest.h>

#include "host/errors.h"
#include "host/tdigest_class.h"

namespace {

class BuildEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    zotdigest::registerMessageTexts();
    zotdigest::registerTDigestClass();
  }
};

[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new BuildEnvironment);

}  // namespace
