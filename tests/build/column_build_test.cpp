// buildColumnDigests and its argument handling: shapes, column contents,
// streams and errors.
#include "build/column_build.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "build/arguments.h"
#include "build_test_support.h"
#include "host/tdigest_class.h"
#include "quorix/interrupt.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;
using quorix::ClassID;
using quorix::Dims;
using quorix::HostArray;

const TDigest& digestAt(const HostArray& objects, std::size_t i) {
  const auto element = HostArray::createScalarObject(objects.object(i));
  return quorix::ObjectSystem::scalarInstanceAs<TDigest>(*element, kClassName);
}

// Column i of an M-row matrix holds M * i + 1 .. M * i + M.
template <class T>
quorix::HostArrayPtr countingArray(const Dims& dims) {
  std::size_t n = 1;
  for (const auto d : dims) n *= d;
  std::vector<T> v(n);
  for (std::size_t k = 0; k < n; ++k) v[k] = static_cast<T>(k + 1);
  return makeArray(v, dims);
}

// Every element of `objects` holds exactly the rows values of its column.
void expectColumnContents(const HostArray& objects, std::size_t rows, double delta,
                          const quorix::RandomStream* stream) {
  for (std::size_t i = 0; i < objects.numel(); ++i) {
    SCOPED_TRACE("column " + std::to_string(i));
    const TDigest& d = digestAt(objects, i);
    EXPECT_EQ(d.totalWeight, rows);
    EXPECT_EQ(d.delta, delta);
    EXPECT_EQ(d.stream, stream);
    const auto c = centroidsOf(d);
    ASSERT_FALSE(c.empty());
    const double first = static_cast<double>(rows * i + 1);
    const double last = static_cast<double>(rows * i + rows);
    EXPECT_EQ(c.front().mean, first);
    EXPECT_EQ(c.back().mean, last);
    EXPECT_DOUBLE_EQ(weightedSum(d), (first + last) * static_cast<double>(rows) / 2.0);
  }
}

template <class T>
class ColumnBuildTypedTest : public ::testing::Test {};
TYPED_TEST_SUITE(ColumnBuildTypedTest, ElementTypes);

TYPED_TEST(ColumnBuildTypedTest, matrix_gives_one_digest_per_column_holding_its_values) {
  auto seed = quorix::RandomStream::create("mrg32k3a", 1000000, 8);
  const auto result = buildColumnDigests(*countingArray<TypeParam>({3, 4}), 100.0, *seed);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->classID(), ClassID::Object);
  EXPECT_EQ(result->objectClassName(), kClassName);
  EXPECT_EQ(result->dims(), (Dims{1, 4}));
  expectColumnContents(*result, 3, 100.0, seed.get());
}

TEST(ColumnBuild, higher_dimensional_array_keeps_every_dimension_after_the_first) {
  auto seed = quorix::RandomStream::create("mrg32k3a", 1000000, 9);
  const auto result = buildColumnDigests(*countingArray<double>({3, 4, 2}), 25.0, *seed);
  EXPECT_EQ(result->dims(), (Dims{1, 4, 2}));
  ASSERT_EQ(result->numel(), 8u);
  expectColumnContents(*result, 3, 25.0, seed.get());
}

TEST(ColumnBuild, row_vector_and_column_vector_shapes) {
  auto& def = quorix::RandomStream::defaultStream();
  const auto row = buildColumnDigests(*countingArray<std::int16_t>({1, 5}), 100.0, def);
  EXPECT_EQ(row->dims(), (Dims{1, 5}));
  expectColumnContents(*row, 1, 100.0, &def);
  const auto column = buildColumnDigests(*countingArray<float>({6, 1}), 100.0, def);
  EXPECT_EQ(column->dims(), (Dims{1, 1}));
  expectColumnContents(*column, 6, 100.0, &def);
}

TEST(ColumnBuild, empty_data_gives_an_empty_object_array_of_the_right_shape) {
  auto& def = quorix::RandomStream::defaultStream();
  const std::vector<std::pair<Dims, Dims>> cases = {
      {{0, 0}, {0, 0}}, {{0, 5}, {0, 5}}, {{5, 0}, {1, 0}}, {{5, 0, 3}, {1, 0, 3}},
      {{0, 2, 3}, {0, 2, 3}}};
  for (const auto& [in, out] : cases) {
    const auto result = buildColumnDigests(*HostArray::createNumeric(in, ClassID::UInt8), 100.0, def);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->classID(), ClassID::Object);
    EXPECT_EQ(result->objectClassName(), kClassName);
    EXPECT_EQ(result->dims(), out);
    EXPECT_EQ(result->numel(), 0u);
  }
}

TEST(ColumnBuild, seeds_its_generator_with_one_draw_from_the_seed_stream) {
  auto seed = quorix::RandomStream::create("mrg32k3a", 1000000, 4);
  auto twin = quorix::RandomStream::create("mrg32k3a", 1000000, 4);
  buildColumnDigests(*countingArray<double>({50, 3}), 100.0, *seed);
  twin->uniform();
  EXPECT_EQ(seed->uniform(), twin->uniform());
}

TEST(ColumnBuild, makes_no_interrupt_check) {
  quorix::clearInterrupt();
  quorix::requestInterrupt();
  const auto result =
      buildColumnDigests(*countingArray<double>({20000, 2}), 100.0,
                         quorix::RandomStream::defaultStream());
  EXPECT_EQ(result->numel(), 2u);
  EXPECT_TRUE(quorix::interruptPending());
  quorix::clearInterrupt();
}

// --- arguments -------------------------------------------------------------------

quorix::HostArrayPtr columnArgs(std::vector<const HostArray*> in) {
  return buildColumnDigestsFromArgs(static_cast<int>(in.size()), in.data());
}

TEST(ColumnBuildArgs, no_inputs_return_nothing_and_more_than_three_are_refused) {
  EXPECT_EQ(buildColumnDigestsFromArgs(0, nullptr), nullptr);
  const auto x = countingArray<double>({2, 2});
  expectKeyedError<component_QUORIX::catalog_class::key_WrongNumberOfConstructorArgs>(
      [&] { columnArgs({x.get(), x.get(), x.get(), x.get()}); },
      "QUORIX:class:WrongNumberOfConstructorArgs");
}

TEST(ColumnBuildArgs, data_is_checked_also_when_empty) {
  const auto emptyChar = HostArray::createChar("");
  const auto emptyLogical = HostArray::createLogical({0, 3});
  const auto complex = HostArray::createNumeric({2, 2}, ClassID::Double, true);
  for (const HostArray* bad : {emptyChar.get(), emptyLogical.get(), complex.get()}) {
    expectKeyedError<component_QUORIX::catalog_class::key_RequireReal>(
        [&] { columnArgs({bad}); }, "QUORIX:class:RequireReal");
  }
}

TEST(ColumnBuildArgs, delta_is_the_first_element_of_any_class_or_100_when_empty) {
  const auto x = countingArray<double>({3, 2});
  const auto none = HostArray::createNumeric({0, 0}, ClassID::Double);
  const auto fromSingle = makeArray<float>({50.0f, 7.0f}, {1, 2});
  auto result = columnArgs({x.get(), fromSingle.get()});
  expectColumnContents(*result, 3, 50.0, &quorix::RandomStream::defaultStream());
  result = columnArgs({x.get(), none.get()});
  expectColumnContents(*result, 3, 100.0, &quorix::RandomStream::defaultStream());
}

TEST(ColumnBuildArgs, delta_not_above_zero_is_refused_by_the_column_digests) {
  const auto x = countingArray<double>({3, 2});
  const auto zero = HostArray::createDoubleScalar(0.0);
  const auto id = expectKeyedError<stats::tdigest::DeltaInvalidValue>(
      [&] { columnArgs({x.get(), zero.get()}); }, "stats:tdigest:DeltaInvalidValue");
  EXPECT_EQ(id.args(), std::vector<std::string>{"0.000000"});
}

TEST(ColumnBuildArgs, results_keep_the_given_stream) {
  std::shared_ptr<quorix::RandomStream> s = quorix::RandomStream::create("mrg32k3a", 1000000, 6);
  const auto streamValue = quorix::RandomStream::toHostValue(s);
  const auto x = countingArray<std::uint32_t>({4, 3});
  const auto none = HostArray::createNumeric({0, 0}, ClassID::Double);
  const auto result = columnArgs({x.get(), none.get(), streamValue.get()});
  EXPECT_EQ(result->dims(), (Dims{1, 3}));
  expectColumnContents(*result, 4, 100.0, s.get());

  const auto emptyStream = columnArgs({x.get(), none.get(), none.get()});
  expectColumnContents(*emptyStream, 4, 100.0, &quorix::RandomStream::defaultStream());

  const auto notAStream = HostArray::createDoubleScalar(1.0);
  expectHostError([&] { columnArgs({x.get(), none.get(), notAStream.get()}); },
                  "QUORIX:random:InvalidStream");
}

}  // namespace
}  // namespace zotdigest
