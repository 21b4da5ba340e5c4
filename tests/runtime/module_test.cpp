#include "quorix/module.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "support/raised_identifier.h"

namespace quorix {
namespace {

// Sets QUORIX_MODULE_PATH for one scope (or unsets it, given nullopt).
class ModulePathOverride {
 public:
  explicit ModulePathOverride(const std::optional<std::string>& value) {
    if (const char* old = std::getenv(kVariable)) {
      saved_ = old;
    }
    if (value) {
      ::setenv(kVariable, value->c_str(), 1);
    } else {
      ::unsetenv(kVariable);
    }
  }
  ~ModulePathOverride() {
    if (saved_) {
      ::setenv(kVariable, saved_->c_str(), 1);
    } else {
      ::unsetenv(kVariable);
    }
  }
  ModulePathOverride(const ModulePathOverride&) = delete;
  ModulePathOverride& operator=(const ModulePathOverride&) = delete;

 private:
  static constexpr const char* kVariable = "QUORIX_MODULE_PATH";
  std::optional<std::string> saved_;
};

// The error loading `name` raises.
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

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

TEST(ModuleSearchPath, lists_the_path_variable_entries_before_the_built_in_directory) {
  std::string builtIn;
  {
    ModulePathOverride unset(std::nullopt);
    const std::vector<std::string> directories = Module::searchPath();
    ASSERT_EQ(directories.size(), 1u);
    builtIn = directories.front();
  }
  ModulePathOverride path("/x/one::/x/two:");
  EXPECT_EQ(Module::searchPath(), (std::vector<std::string>{"/x/one", "/x/two", builtIn}));
}

TEST(ModuleLoad, finds_the_module_on_the_module_path_and_binds_its_texts_and_table) {
  const char* path = std::getenv("QUORIX_MODULE_PATH");
  if (path == nullptr) {
    GTEST_SKIP() << "run through ctest, which puts the test modules on QUORIX_MODULE_PATH";
  }
  const Module& module = Module::load("qxtestmod");
  EXPECT_EQ(module.name(), "qxtestmod");
  EXPECT_EQ(module.path(), Module::searchPath().front() + "/libqxtestmod.so");
  EXPECT_STREQ(module.version(), "1.2.3.4");
  EXPECT_STREQ(module.buildDate(), "Mar  5 2024");
  EXPECT_STREQ(module.relativePath(), "bin/libqxtestmod.so");
  EXPECT_EQ(module.routineCount(), 2u);
  EXPECT_EQ(module.table().identification, 0x1234u);
  EXPECT_EQ(module.table().buildTime, 1700000000u);
}

TEST(ModuleLoad, initialises_a_module_once_however_often_it_is_loaded) {
  Module& first = Module::load("qxtestmod");
  Module& second = Module::load("qxtestmod");
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(lifecycleCounts(first).first, 1.0);
}

TEST(ModuleLoad, calls_table_routines_with_the_callers_arguments) {
  const Module& module = Module::load("qxtestmod");
  const auto a = HostArray::createDoubleScalar(1.5);
  const auto b = HostArray::createNumericMatrix(1, 2, ClassID::Int16);
  b->data<std::int16_t>()[0] = 2;
  b->data<std::int16_t>()[1] = -7;
  const HostArray* in[] = {a.get(), b.get()};
  HostArray* out[1] = {};
  module.call(1, 1, out, 2, in);
  const HostArrayPtr sum(out[0]);
  EXPECT_EQ(sum->elementAsDouble(0), -3.5);

  EXPECT_EQ(test::raisedIdentifier([&] { module.call(2, 1, out, 0, nullptr); }),
            "QUORIX:module:NoSuchRoutine");
}

TEST(ModuleLoad, a_missing_module_names_every_path_searched) {
  ModulePathOverride path("/nonexistent/a:/nonexistent/b");
  const MessageID error = loadError("qxnosuchmod");
  EXPECT_EQ(error.identifier(), "QUORIX:module:NotFound");
  ASSERT_EQ(error.args().size(), 1u);
  for (const std::string& directory : Module::searchPath()) {
    EXPECT_NE(error.args()[0].find(directory + "/libqxnosuchmod.so"), std::string::npos)
        << error.args()[0];
  }
  EXPECT_NE(formatMessage(error).find("/nonexistent/b/libqxnosuchmod.so"), std::string::npos);
}

TEST(ModuleLoad, a_module_missing_a_symbol_is_refused_naming_symbol_and_path) {
  for (int attempt = 0; attempt < 2; ++attempt) {  // a refused module is not half-registered
    const MessageID error = loadError("qxbrokenmod");
    EXPECT_EQ(error.identifier(), "QUORIX:module:MissingSymbol");
    ASSERT_EQ(error.args().size(), 2u);
    EXPECT_EQ(error.args()[0], "qxbrokenmod_relative_path");
    EXPECT_TRUE(endsWith(error.args()[1], "/libqxbrokenmod.so")) << error.args()[1];
  }
}

TEST(ModuleLoad, a_table_of_another_protocol_is_refused_before_initialising) {
  // The module's initialiser aborts the process: reaching the check shows it
  // never ran.
  const MessageID error = loadError("qxbadtablemod");
  EXPECT_EQ(error.identifier(), "QUORIX:module:BadTable");
  ASSERT_EQ(error.args().size(), 1u);
  EXPECT_NE(error.args()[0].find("libqxbadtablemod.so"), std::string::npos);
}

TEST(ModuleLoad, a_name_with_the_lib_prefix_is_also_found_as_the_bare_file) {
  // libqxtestmod.so is found under the name "libqxtestmod", and then bound
  // by that name, whose symbols it does not have.
  const MessageID error = loadError("libqxtestmod");
  EXPECT_EQ(error.identifier(), "QUORIX:module:MissingSymbol");
  ASSERT_EQ(error.args().size(), 2u);
  EXPECT_EQ(error.args()[0], "QXInitialize_libqxtestmod");
  EXPECT_TRUE(endsWith(error.args()[1], "/libqxtestmod.so")) << error.args()[1];
}

TEST(ModuleShutdown, terminates_each_module_once_and_keeps_it_loaded) {
  Module& module = Module::load("qxtestmod");
  Module::shutdownAll();
  Module::shutdownAll();
  EXPECT_EQ(lifecycleCounts(module), std::make_pair(1.0, 1.0));
  EXPECT_EQ(&Module::load("qxtestmod"), &module) << "a terminated module is not loaded again";
  EXPECT_EQ(lifecycleCounts(module).first, 1.0);
}

}  // namespace
}  // namespace quorix
