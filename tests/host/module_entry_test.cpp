// The module as the runtime binds it: exported surface, texts, function
// table, initialisation and the class description it registers.
#include <dlfcn.h>

#include <cstdio>
#include <ctime>
#include <regex>
#include <set>

#include "module_fixture.h"

namespace zotdigest::hosttest {
namespace {

using ModuleEntry = ModuleTest;

TEST_F(ModuleEntry, exports_exactly_the_six_entry_points) {
  const std::string command = "nm -D --defined-only '" + loadModule().path() + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string text(line);
    text.erase(text.find_last_not_of("\r\n") + 1);
    names.insert(text.substr(text.find_last_of(' ') + 1));
  }
  ASSERT_EQ(::pclose(pipe), 0);
  const std::set<std::string> expected{
      "QXInitialize_libzotdigest", "QXTerminate_libzotdigest", "QueryQXFcnTable_libzotdigest",
      "libzotdigest_version",      "libzotdigest_build_date",  "libzotdigest_relative_path"};
  EXPECT_EQ(names, expected);
}

TEST_F(ModuleEntry, texts_have_their_formats_and_the_date_matches_the_build_time) {
  quorix::Module& module = loadModule();
  EXPECT_TRUE(std::regex_match(module.version(), std::regex(R"(\d+\.\d+\.\d+\.\d+)")))
      << module.version();
  EXPECT_TRUE(std::regex_match(
      module.buildDate(),
      std::regex(
          R"((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) ( [1-9]|[12]\d|3[01]) \d{4})")))
      << '"' << module.buildDate() << '"';
  EXPECT_STREQ(module.relativePath(), "bin\\win64\\libzotdigest.dll");

  // Both stamps come from one configure-time clock reading (or from
  // SOURCE_DATE_EPOCH), so the date is the build time's UTC day.
  const auto seconds = static_cast<std::time_t>(module.table().buildTime);
  std::tm utc{};
  ASSERT_NE(::gmtime_r(&seconds, &utc), nullptr);
  char expected[32];
  std::strftime(expected, sizeof expected, "%b %e %Y", &utc);
  EXPECT_STREQ(module.buildDate(), expected);
  EXPECT_LE(seconds, std::time(nullptr));
}

TEST_F(ModuleEntry, function_table_describes_three_routines) {
  const quorix::FunctionTable& table = loadModule().table();
  EXPECT_EQ(table.count, 3u);
  EXPECT_EQ(table.identification, 0x5A445447u);
  EXPECT_EQ(table.protocol, quorix::kFunctionTableProtocol);
  EXPECT_EQ(table.descriptorSize, sizeof(quorix::FunctionTable));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(table.routines[i], nullptr);
  }
  EXPECT_EQ(table.routines[3], nullptr);
}

TEST_F(ModuleEntry, initialising_again_registers_nothing) {
  void* handle = ::dlopen(loadModule().path().c_str(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr);
  auto initialise = reinterpret_cast<void (*)()>(::dlsym(handle, "QXInitialize_libzotdigest"));
  auto terminate = reinterpret_cast<void (*)()>(::dlsym(handle, "QXTerminate_libzotdigest"));
  ASSERT_NE(initialise, nullptr);
  ASSERT_NE(terminate, nullptr);
  // A second registration would raise QUORIX:class:DuplicateClass.
  EXPECT_EQ(errorOf([&] {
              initialise();
              initialise();
              terminate();
              initialise();
            }),
            "");
  EXPECT_TRUE(ObjectSystem::isRegistered("TDigest"));
  EXPECT_EQ(doubleProperty(*construct({}), "Delta"), 100.0);
  ::dlclose(handle);
}

TEST_F(ModuleEntry, class_lists_properties_and_methods_in_registration_order) {
  const quorix::ClassDefinition& definition = ObjectSystem::classDefinition("TDigest");
  struct Row {
    const char* name;
    const char* type;
    int get;
    int set;
    std::uint32_t attributes;
    const char* description;
    bool settable;
  };
  const Row rows[] = {
      {"AVLTreeSummary", "int64 matrix", 2, 2, 964, "AVL tree summary structure", true},
      {"Delta", "double scalar", 0, 2, 3012, "Delta compression parameter", true},
      {"NumCentroids", "uint64 scalar", 0, 2, 11204, "Number of centroids in summary structure",
       false},
      {"NumDataPoints", "uint64 scalar", 0, 2, 3012, "Total weight of summary structure", true},
  };
  ASSERT_EQ(definition.properties().size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    const quorix::PropertyInfo& p = *definition.properties()[i];
    EXPECT_EQ(p.name(), rows[i].name);
    EXPECT_EQ(p.type()->text(), rows[i].type);
    EXPECT_EQ(p.getAccess(), rows[i].get);
    EXPECT_EQ(p.setAccess(), rows[i].set);
    EXPECT_EQ(p.attributes(), rows[i].attributes) << p.name();
    EXPECT_EQ(p.description(), rows[i].description);
    EXPECT_EQ(p.hasSetter(), rows[i].settable);
  }

  // name: inputs / outputs, as type texts joined by blanks and commas.
  std::vector<std::string> expected{"TDigest: any... / TDigest"};
  for (const char* type : {"single", "double", "int8", "int16", "int32", "int64", "uint8", "uint16",
                           "uint32", "uint64"}) {
    expected.push_back(std::string("add: TDigest scalar,") + type + " / ");
    expected.push_back(std::string("add: TDigest scalar,") + type + ",any / ");
  }
  for (const char* query : {"cdf", "icdf", "trimmedMean"}) {
    expected.push_back(std::string(query) + ": TDigest scalar,double matrix / double matrix");
  }
  expected.push_back("merge: TDigest scalar,TDigest / ");
  expected.push_back("merge: TDigest scalar,TDigest,any / ");
  expected.push_back("centroids: TDigest scalar / double matrix,uint64 matrix");

  std::vector<std::string> actual;
  for (const auto& method : definition.methods()) {
    EXPECT_EQ(method->access(), 0);
    const quorix::Signature& s = method->signature();
    std::string text = method->name() + ": ";
    for (std::size_t i = 0; i < s.inputs().size(); ++i) {
      text += (i ? "," : "") + s.inputs()[i]->text();
    }
    text += s.openEnded() ? "... / " : " / ";
    for (std::size_t i = 0; i < s.outputs().size(); ++i) {
      text += (i ? "," : "") + s.outputs()[i]->text();
    }
    actual.push_back(text);
  }
  EXPECT_EQ(actual, expected);
  EXPECT_TRUE(definition.info().savesByProperties());
  EXPECT_TRUE(definition.info().allowsObjectArrays());
  EXPECT_EQ(definition.info().name(), "TDigest");
}

}  // namespace
}  // namespace zotdigest::hosttest
