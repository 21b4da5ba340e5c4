// Loading modules by name: the search path, binding the six symbols, the
// function table, the life cycle, and the errors naming what was searched.
// The test modules come from tests/support; ctest puts them on the path.
#include "quorix/module.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/raised_identifier.h"

namespace quorix {
namespace {

MessageID loadError(const char* name) {
  try {
    Module::load(name);
  } catch (const MsgIDException& e) {
    return e.messageID();
  }
  ADD_FAILURE() << "loading " << name << " raised nothing";
  return MessageID();
}

// The test module's routine 0: how often it was initialised and terminated.
std::pair<double, double> lifecycleCounts(const Module& module) {
  HostArray* out[1] = {};
  module.call(0, 1, out, 0, nullptr);
  const HostArrayPtr counts(out[0]);
  return {counts->elementAsDouble(0), counts->elementAsDouble(1)};
}

TEST(ModuleLoad, finds_the_module_on_the_path_initialises_it_once_and_calls_its_table) {
  if (std::getenv("QUORIX_MODULE_PATH") == nullptr) {
    const char* ci = std::getenv("CI");
    if (ci != nullptr && std::string_view(ci) == "true") {
      FAIL() << "QUORIX_MODULE_PATH is not set (ctest sets it)";
    }
    GTEST_SKIP() << "run through ctest, which puts the test modules on QUORIX_MODULE_PATH";
  }
  Module& module = Module::load("qxtestmod");
  EXPECT_EQ(&Module::load("qxtestmod"), &module);
  EXPECT_EQ(module.path(), Module::searchPath().front() + "/libqxtestmod.so");
  EXPECT_STREQ(module.version(), "1.2.3.4");
  EXPECT_STREQ(module.relativePath(), "bin/libqxtestmod.so");
  EXPECT_EQ(module.table().identification, 0x1234u);
  EXPECT_EQ(lifecycleCounts(module).first, 1.0);

  const auto a = HostArray::createDoubleScalar(1.5);
  const auto b = HostArray::createNumericMatrix(1, 2, ClassID::Int16);
  b->data<std::int16_t>()[0] = 2;
  b->data<std::int16_t>()[1] = -7;
  const HostArray* in[] = {a.get(), b.get()};
  HostArray* out[1] = {};
  module.call(1, 1, out, 2, in);
  EXPECT_EQ(HostArrayPtr(out[0])->elementAsDouble(0), -3.5);
  EXPECT_EQ(test::raisedIdentifier([&] { module.call(2, 1, out, 0, nullptr); }),
            "QUORIX:module:NoSuchRoutine");

  Module::shutdownAll();
  Module::shutdownAll();
  EXPECT_EQ(lifecycleCounts(module), std::make_pair(1.0, 1.0));
  EXPECT_EQ(&Module::load("qxtestmod"), &module) << "a terminated module is not loaded again";
}

TEST(ModuleLoad, errors_name_the_paths_searched_and_the_missing_symbol) {
  for (int attempt = 0; attempt < 2; ++attempt) {  // a refused module is not half-registered
    const MessageID error = loadError("qxbrokenmod");
    EXPECT_EQ(error.identifier(), "QUORIX:module:MissingSymbol");
    EXPECT_EQ(error.args().at(0), "qxbrokenmod_relative_path");
    EXPECT_NE(error.args().at(1).find("/libqxbrokenmod.so"), std::string::npos);
  }
  // Its initialiser aborts the process: getting here shows it never ran.
  const MessageID badTable = loadError("qxbadtablemod");
  EXPECT_EQ(badTable.identifier(), "QUORIX:module:BadTable");
  EXPECT_NE(badTable.args().at(0).find("/libqxbadtablemod.so"), std::string::npos);

  const MessageID notFound = loadError("qxnosuchmod");
  EXPECT_EQ(notFound.identifier(), "QUORIX:module:NotFound");
  for (const std::string& directory : Module::searchPath()) {
    EXPECT_NE(notFound.args().at(0).find(directory + "/libqxnosuchmod.so"), std::string::npos)
        << notFound.args()[0];
  }
}

}  // namespace
}  // namespace quorix
