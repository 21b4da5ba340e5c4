// Host arrays: the dimension rule, column-major storage in owned arrays and
// views, and misuse by identifier. Conversion of each element class to
// double is exercised by construction_test and by the Python conversion
// tests (every method with every element type).
#include "quorix/host_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::raisedIdentifier;

TEST(HostDims, trailing_singletons_past_the_second_are_dropped) {
  EXPECT_EQ(normalizeDims({5}), (Dims{5, 1}));
  EXPECT_EQ(normalizeDims({}), (Dims{1, 1}));
  auto a = HostArray::createNumeric({3, 1, 1, 2, 1}, ClassID::Double);
  EXPECT_EQ(a->dims(), (Dims{3, 1, 1, 2}));
  EXPECT_EQ(a->columns(), 2u);
  EXPECT_EQ(raisedIdentifier([] {
              HostArray::createNumeric({std::size_t{1} << 62, 1}, ClassID::Double);
            }),
            "QUORIX:array:TooLarge");  // the element count fits, the bytes do not
}

TEST(HostDims, storage_is_column_major_and_reshaping_keeps_it) {
  auto buffer = std::make_shared<std::vector<double>>(std::vector<double>{1, 2, 3, 4, 5, 6});
  std::weak_ptr<std::vector<double>> watch = buffer;
  double* memory = buffer->data();
  auto view = HostArray::createView({2, 3}, ClassID::Double, memory, nullptr, std::move(buffer));
  EXPECT_FALSE(watch.expired()) << "the view keeps its owner alive";
  EXPECT_EQ(view->columns(), 3u);
  memory[3] = -4;  // row 1 of column 1
  EXPECT_EQ(view->elementAsDouble(1 + 2 * 1), -4.0);
  EXPECT_TRUE(view->setDims({3, 2, 1}));
  EXPECT_EQ(view->dims(), (Dims{3, 2}));
  EXPECT_FALSE(view->setDims({5, 2}));  // another element count: refused, no change
  EXPECT_EQ(view->dims(), (Dims{3, 2}));
  EXPECT_EQ(view->realData(), memory);

  auto copy = view->clone();
  view.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(copy->elementAsDouble(5), 6.0);
}

TEST(HostArray, text_round_trips_and_misuse_is_refused_by_identifier) {
  EXPECT_EQ(HostArray::createChar("x\xe9y")->dims(), (Dims{1, 3}));
  EXPECT_EQ(HostArray::createChar("x\xe9y")->clone()->text(), "x\xe9y");
  auto c = HostArray::createCell({1, 3});
  auto s = HostArray::createStruct({1, 2}, {"a"});
  const auto number = HostArray::createDoubleScalar(1);
  for (const auto& [id, call] : std::vector<std::pair<std::string, std::function<void()>>>{
           {"QUORIX:array:BadIndex", [&] { c->cell(3); }},
           {"QUORIX:array:NullValue", [&] { c->setCell(0, nullptr); }},
           {"QUORIX:array:NoSuchField", [&] { s->field(0, "zz"); }},
           {"QUORIX:array:WrongClass", [&] { number->text(); }},
           {"QUORIX:array:NotNumeric",
            [] {
              HostArray::createLogical({1, 1})->toDouble();
            }},
           {"QUORIX:array:BadView", [] {
              HostArray::createView({1, 1}, ClassID::Double, nullptr, nullptr, nullptr);
            }}}) {
    EXPECT_EQ(raisedIdentifier(call), id);
  }
}

// A recycled array comes back as a fresh one: zeroed, with the class,
// sizes and complexity asked for, never carrying the old array's values.
TEST(HostArray, recycled_small_arrays_come_back_as_fresh_ones) {
  auto complex = HostArray::createNumericMatrix(1, 1, ClassID::Single, true);
  *complex->data<float>() = 1.5f;
  *static_cast<float*>(complex->imagData()) = 2.5f;
  const HostArray* const kept = complex.get();
  HostArray::recycle(std::move(complex));
  HostArray::recycle(nullptr);
  // Arrays with heap storage or views are destroyed, not kept.
  HostArray::recycle(HostArray::createNumericMatrix(100, 3, ClassID::Double));
  double outside = 4.0;
  HostArray::recycle(HostArray::createView({1, 1}, ClassID::Double, &outside, nullptr, nullptr));

  const auto reused = HostArray::createNumericMatrix(2, 1, ClassID::UInt16);
  EXPECT_EQ(reused.get(), kept);
  EXPECT_EQ(reused->classID(), ClassID::UInt16);
  EXPECT_EQ(reused->dims(), (Dims{2, 1}));
  EXPECT_FALSE(reused->isComplex());
  EXPECT_EQ(reused->data<std::uint16_t>()[0], 0);
  EXPECT_EQ(reused->data<std::uint16_t>()[1], 0);
  EXPECT_EQ(outside, 4.0);
}

}  // namespace
}  // namespace quorix
