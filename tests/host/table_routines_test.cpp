// The module's surface: its six exported symbols, and the three routines of
// its function table (array merge, column build, column merge) called
// through the runtime as a host calls them. What lands in each column is
// construction_test's concern; here the routing, the shapes and the errors.
#include <cstdio>
#include <set>

#include "module_fixture.h"

namespace zotdigest::hosttest {
namespace {

using TableRoutines = ModuleTest;

// An object array of the shape; element i holds the n + i values after
// 100 i, with the deltas taken in turn.
HostArrayPtr digestArray(const Dims& dims, std::size_t n, const std::vector<double>& deltas) {
  HostArrayPtr array = HostArray::createObjectArray("TDigest", dims);
  for (std::size_t i = 0; i < array->numel(); ++i) {
    const HostArrayPtr data = doubles(ramp(n + i, 100.0 * static_cast<double>(i)));
    const HostArrayPtr delta = doubles({deltas[i % deltas.size()]});
    array->setObject(i, construct({data.get(), delta.get()})->object(0));
  }
  return array;
}

HostArrayPtr element(const HostArray& array, std::size_t i) {
  return HostArray::createScalarObject(array.object(i));
}

TEST_F(TableRoutines, only_the_six_entry_points_are_exported) {
  const std::string command = "nm -D --defined-only '" + loadModule().path() + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char name[512];  // each line: address, type, name
  while (std::fscanf(pipe, "%*s %*s %511s", name) == 1) names.insert(name);
  ASSERT_EQ(::pclose(pipe), 0);
  const std::set<std::string> expected{
      "QXInitialize_libzotdigest", "QXTerminate_libzotdigest", "QueryQXFcnTable_libzotdigest",
      "libzotdigest_version",      "libzotdigest_build_date",  "libzotdigest_relative_path"};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(loadModule().table().count, 3u);
}

TEST_F(TableRoutines, results_have_the_shapes_of_their_inputs) {
  const HostArrayPtr parts = digestArray({2, 3}, 10, {50.0});
  const HostArrayPtr merged = routine(kArrayMerge, {parts.get()});
  EXPECT_EQ(merged->dims(), (Dims{1, 1}));
  EXPECT_EQ(countProperty(*merged, "NumDataPoints"), 10u + 11 + 12 + 13 + 14 + 15);

  // Column merge folds each column taking each Delta in turn: no error, and
  // the last one stays.
  const HostArrayPtr mixed = digestArray({2, 3}, 4, {100.0, 100.0, 30.0, 70.0});
  const HostArrayPtr columns = routine(kColumnMerge, {mixed.get()});
  EXPECT_EQ(columns->dims(), (Dims{1, 3}));
  EXPECT_EQ(countProperty(*element(*columns, 1), "NumDataPoints"), 6u + 7u);
  EXPECT_EQ(doubleProperty(*element(*columns, 1), "Delta"), 70.0);

  const HostArrayPtr data = HostArray::createNumeric({3, 4, 2}, ClassID::Double);
  const HostArrayPtr delta = numbers(ClassID::Single, {40, 7});  // its first element, any class
  const HostArrayPtr built = routine(kColumnBuild, {data.get(), delta.get()});
  EXPECT_EQ(built->dims(), (Dims{1, 4, 2}));
  EXPECT_EQ(countProperty(*element(*built, 7), "NumDataPoints"), 3u);
  EXPECT_EQ(doubleProperty(*element(*built, 7), "Delta"), 40.0);
  for (const auto& [in, out] : {std::pair{Dims{0, 0}, Dims{0, 0}},
                                {Dims{0, 5}, Dims{0, 5}},
                                {Dims{5, 0}, Dims{1, 0}},
                                {Dims{5, 0, 2}, Dims{1, 0, 2}}}) {
    const HostArrayPtr noData = HostArray::createNumeric(in, ClassID::Double);
    const HostArrayPtr noDigests = HostArray::createObjectArray("TDigest", in);
    EXPECT_EQ(routine(kColumnBuild, {noData.get()})->dims(), out);
    EXPECT_EQ(routine(kColumnMerge, {noDigests.get()})->dims(), out);
  }
  EXPECT_EQ(routine(kColumnBuild, {}), nullptr);
}

TEST_F(TableRoutines, bad_inputs_raise_their_identifiers) {
  const HostArrayPtr a = digestArray({1, 1}, 5, {100.0});
  const HostArrayPtr twoDeltas = digestArray({1, 2}, 5, {100.0, 60.0});
  const HostArrayPtr halfSet = HostArray::createObjectArray("TDigest", {1, 2});
  halfSet->setObject(0, a->object(0));  // element 1 stays a null handle
  const HostArrayPtr plain = doubles({1.0, 2.0}), stream = streamOf(1);
  const HostArrayPtr logical = HostArray::createLogical({0, 0});
  using In = std::vector<const HostArray*>;
  for (const auto& [i, in, id] :
       {std::tuple{kArrayMerge, In{plain.get()}, "QUORIX:class:RequireClass"},
        {kArrayMerge, {halfSet.get()}, "QUORIX:class:RequireClass"},
        {kArrayMerge, {stream.get()}, "QUORIX:class:RequireClass"},
        {kArrayMerge, {twoDeltas.get()}, "stats:tdigest:MergeDeltaMismatch"},
        {kArrayMerge, {}, "stats:tdigest:InvalidNumInputs"},
        {kColumnBuild, {logical.get()}, "QUORIX:class:RequireReal"},
        {kColumnBuild,
         {a.get(), a.get(), a.get(), a.get()},
         "QUORIX:class:WrongNumberOfConstructorArgs"},
        {kColumnMerge, {}, "QUORIX:class:WrongNumberOfConstructorArgs"},
        {kColumnMerge, {a.get(), a.get(), a.get()}, "QUORIX:class:WrongNumberOfConstructorArgs"}}) {
    EXPECT_EQ(raisedIdentifier([&, r = i, args = in] { routine(r, args); }), id) << "routine " << i;
  }
}

}  // namespace
}  // namespace zotdigest::hosttest
