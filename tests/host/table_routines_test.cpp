// The module's function table: array merge, column build and column merge,
// called through the runtime as a host calls them.
#include "module_fixture.h"

namespace zotdigest::hosttest {
namespace {

using TableRoutines = ModuleTest;

HostArrayPtr digestOf(double first, std::size_t n, double delta) {
  std::vector<double> values = ramp(n);
  for (double& v : values) {
    v += first;
  }
  const HostArrayPtr data = doubles(values);
  const HostArrayPtr d = doubles({delta});
  return construct({data.get(), d.get()});
}

// An object array of the given shape holding the scalar objects in order.
HostArrayPtr objectArray(const quorix::Dims& dims, const std::vector<HostArrayPtr>& digests) {
  HostArrayPtr array = HostArray::createObjectArray("TDigest", dims);
  for (std::size_t i = 0; i < digests.size(); ++i) {
    array->setObject(i, digests[i]->object(0));
  }
  return array;
}

// The scalar object of element i of an object array.
HostArrayPtr element(const HostArray& array, std::size_t i) {
  return HostArray::createScalarObject(array.object(i));
}

TEST_F(TableRoutines, array_merge_combines_every_element_under_their_delta) {
  std::vector<HostArrayPtr> parts;
  for (std::size_t i = 0; i < 6; ++i) {
    parts.push_back(digestOf(100.0 * static_cast<double>(i), 10 + i, 50.0));
  }
  const HostArrayPtr array = objectArray({2, 3}, parts);
  const HostArrayPtr merged = routine(kArrayMerge, {array.get()});
  ASSERT_NE(merged, nullptr);
  EXPECT_EQ(merged->objectClassName(), "TDigest");
  EXPECT_EQ(merged->dims(), (quorix::Dims{1, 1}));
  EXPECT_EQ(countProperty(*merged, "NumDataPoints"), 10u + 11 + 12 + 13 + 14 + 15);
  EXPECT_EQ(doubleProperty(*merged, "Delta"), 50.0);
  EXPECT_EQ(countProperty(*parts[0], "NumDataPoints"), 10u);

  // With a stream the result is reproducible.
  const HostArrayPtr s1 = streamOf(9);
  const HostArrayPtr s2 = streamOf(9);
  EXPECT_EQ(centroidsOf(*routine(kArrayMerge, {array.get(), s1.get()})),
            centroidsOf(*routine(kArrayMerge, {array.get(), s2.get()})));
}

TEST_F(TableRoutines, array_merge_refuses_what_is_not_an_array_of_digests) {
  const HostArrayPtr a = digestOf(0.0, 5, 100.0);
  const HostArrayPtr b = digestOf(0.0, 5, 60.0);
  const HostArrayPtr plain = doubles({1.0, 2.0});
  const HostArrayPtr mixed = objectArray({1, 2}, {});
  mixed->setObject(0, a->object(0));  // element 1 stays a null handle
  const HostArrayPtr stream = streamOf(1);
  const HostArrayPtr emptyObjects = HostArray::createObjectArray("TDigest", {0, 0});
  const HostArrayPtr deltas = objectArray({1, 2}, {});
  deltas->setObject(0, a->object(0));
  deltas->setObject(1, b->object(0));

  for (const HostArray* bad : {plain.get(), emptyObjects.get(), mixed.get(), stream.get()}) {
    try {
      routine(kArrayMerge, {bad});
      ADD_FAILURE() << "no error";
    } catch (const quorix::MsgIDException& e) {
      EXPECT_EQ(e.identifier(), "QUORIX:class:RequireClass");
      EXPECT_EQ(e.messageID().args(), std::vector<std::string>{"TDigest"});
    }
  }
  EXPECT_EQ(errorOf([&] { routine(kArrayMerge, {deltas.get()}); }),
            "stats:tdigest:MergeDeltaMismatch");
  EXPECT_EQ(errorOf([&] { routine(kArrayMerge, {}); }), "stats:tdigest:InvalidNumInputs");
  EXPECT_EQ(errorOf([&] {
              routine(kArrayMerge, {a.get(), a.get(), a.get()});
            }),
            "stats:tdigest:InvalidNumInputs");
}

TEST_F(TableRoutines, column_build_gives_one_digest_per_column) {
  HostArrayPtr data = HostArray::createNumeric({3, 4, 2}, ClassID::Double);
  for (std::size_t i = 0; i < data->numel(); ++i) {
    data->data<double>()[i] = static_cast<double>(i);
  }
  const HostArrayPtr delta = doubles({40.0});
  const HostArrayPtr built = routine(kColumnBuild, {data.get(), delta.get()});
  ASSERT_NE(built, nullptr);
  EXPECT_EQ(built->dims(), (quorix::Dims{1, 4, 2}));
  for (std::size_t i = 0; i < 8; ++i) {
    const HostArrayPtr column = element(*built, i);
    EXPECT_EQ(countProperty(*column, "NumDataPoints"), 3u);
    EXPECT_EQ(doubleProperty(*column, "Delta"), 40.0);
    EXPECT_EQ(centroidsOf(*column).first.front(), static_cast<double>(3 * i));
  }

  for (const auto& [in, out] : {std::pair{quorix::Dims{0, 0}, quorix::Dims{0, 0}},
                                std::pair{quorix::Dims{0, 5}, quorix::Dims{0, 5}},
                                std::pair{quorix::Dims{5, 0}, quorix::Dims{1, 0}}}) {
    const HostArrayPtr empty = HostArray::createNumeric(in, ClassID::Double);
    EXPECT_EQ(routine(kColumnBuild, {empty.get()})->dims(), out);
  }
  EXPECT_EQ(routine(kColumnBuild, {}), nullptr);
  const HostArrayPtr logical = HostArray::createLogical({0, 0});
  EXPECT_EQ(errorOf([&] { routine(kColumnBuild, {logical.get()}); }), "QUORIX:class:RequireReal");
  EXPECT_EQ(errorOf([&] {
              routine(kColumnBuild, {data.get(), data.get(), data.get(), data.get()});
            }),
            "QUORIX:class:WrongNumberOfConstructorArgs");
}

TEST_F(TableRoutines, column_merge_folds_each_column_and_takes_the_last_delta) {
  // Column 1 mixes Deltas: the result takes each one in turn, so no error,
  // and ends with the last.
  std::vector<HostArrayPtr> parts;
  const double deltas[] = {100.0, 100.0, 30.0, 70.0, 100.0, 100.0};
  for (std::size_t i = 0; i < 6; ++i) {
    parts.push_back(digestOf(10.0 * static_cast<double>(i), 4 + i, deltas[i]));
  }
  const HostArrayPtr array = objectArray({2, 3}, parts);
  const HostArrayPtr merged = routine(kColumnMerge, {array.get()});
  ASSERT_NE(merged, nullptr);
  EXPECT_EQ(merged->dims(), (quorix::Dims{1, 3}));
  for (std::size_t i = 0; i < 3; ++i) {
    const HostArrayPtr column = element(*merged, i);
    EXPECT_EQ(countProperty(*column, "NumDataPoints"), (4 + 2 * i) + (5 + 2 * i));
    EXPECT_EQ(doubleProperty(*column, "Delta"), deltas[2 * i + 1]);
  }

  for (const auto& [in, out] : {std::pair{quorix::Dims{0, 0}, quorix::Dims{0, 0}},
                                std::pair{quorix::Dims{0, 5}, quorix::Dims{0, 5}},
                                std::pair{quorix::Dims{5, 0, 2}, quorix::Dims{1, 0, 2}}}) {
    const HostArrayPtr empty = HostArray::createObjectArray("TDigest", in);
    const HostArrayPtr result = routine(kColumnMerge, {empty.get()});
    EXPECT_EQ(result->dims(), out);
    EXPECT_EQ(result->objectClassName(), "TDigest");
  }
  EXPECT_EQ(errorOf([&] { routine(kColumnMerge, {}); }),
            "QUORIX:class:WrongNumberOfConstructorArgs");
  EXPECT_EQ(errorOf([&] {
              routine(kColumnMerge, {array.get(), array.get(), array.get()});
            }),
            "QUORIX:class:WrongNumberOfConstructorArgs");
}

TEST_F(TableRoutines, column_merge_draws_one_number_before_anything_else) {
  // With nothing to merge, the one draw is the stream's only movement.
  auto used =
      std::shared_ptr<quorix::RandomStream>(quorix::RandomStream::create("mrg32k3a", 1000000, 4));
  auto fresh = quorix::RandomStream::create("mrg32k3a", 1000000, 4);
  const HostArrayPtr stream = quorix::RandomStream::toHostValue(used);
  const HostArrayPtr empty = HostArray::createObjectArray("TDigest", {0, 3});
  routine(kColumnMerge, {empty.get(), stream.get()});
  fresh->uniform();
  EXPECT_EQ(used->uniform(), fresh->uniform());
}

}  // namespace
}  // namespace zotdigest::hosttest
