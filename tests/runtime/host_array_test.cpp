#include "quorix/host_array.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "quorix/messages.h"
#include "quorix/object_system.h"

namespace {

using quorix::ClassID;
using quorix::Dims;
using quorix::HostArray;
using quorix::MsgIDException;

template <class F>
std::string identifierOf(F&& f) {
  try {
    f();
  } catch (const MsgIDException& e) {
    return e.identifier();
  }
  return "(nothing raised)";
}

// --- classes and values ----------------------------------------------------------

TEST(HostClasses, exactly_double_to_uint64_are_numeric) {
  for (int v = 0; v <= 17; ++v) {
    EXPECT_EQ(quorix::isNumericClass(static_cast<ClassID>(v)), v >= 6 && v <= 15) << v;
  }
}

TEST(HostClasses, names_round_trip_for_element_classes) {
  for (int v = 3; v <= 15; ++v) {
    const auto id = static_cast<ClassID>(v);
    if (id == ClassID::Void) {
      continue;
    }
    EXPECT_EQ(quorix::classFromName(quorix::className(id)), id) << v;
    EXPECT_GT(quorix::elementSize(id), 0u) << v;
  }
  EXPECT_EQ(quorix::className(ClassID::UInt16), "uint16");
  EXPECT_EQ(quorix::className(ClassID::Single), "single");
  EXPECT_EQ(quorix::classFromName("cell"), ClassID::Unknown);
  EXPECT_EQ(quorix::classFromName("float"), ClassID::Unknown);
  EXPECT_EQ(quorix::elementSize(ClassID::Cell), 0u);
  EXPECT_EQ(quorix::elementSize(ClassID::Char), 2u);
}

TEST(HostValues, nan_has_the_quiet_pattern_and_tests_follow_ieee) {
  EXPECT_EQ(std::bit_cast<std::uint64_t>(quorix::hostNaN()), 0x7FF8000000000000ull);
  EXPECT_TRUE(quorix::isNaN(quorix::hostNaN()));
  EXPECT_TRUE(quorix::isNaN(-std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(quorix::isNaN(HUGE_VAL));
  EXPECT_TRUE(quorix::isInf(HUGE_VAL));
  EXPECT_TRUE(quorix::isInf(-HUGE_VAL));
  EXPECT_FALSE(quorix::isInf(quorix::hostNaN()));
  EXPECT_FALSE(quorix::isInf(std::numeric_limits<double>::max()));
}

// --- dimensions ------------------------------------------------------------------

TEST(HostDims, trailing_singletons_past_the_second_are_dropped) {
  EXPECT_EQ(quorix::normalizeDims({3, 4, 1}), (Dims{3, 4}));
  EXPECT_EQ(quorix::normalizeDims({3, 1, 1, 2}), (Dims{3, 1, 1, 2}));
  EXPECT_EQ(quorix::normalizeDims({3, 1, 1, 2, 1, 1}), (Dims{3, 1, 1, 2}));
  EXPECT_EQ(quorix::normalizeDims({1, 1, 1}), (Dims{1, 1}));
  EXPECT_EQ(quorix::normalizeDims({0, 3, 1}), (Dims{0, 3}));
  EXPECT_EQ(quorix::normalizeDims({5}), (Dims{5, 1}));
  EXPECT_EQ(quorix::normalizeDims({}), (Dims{1, 1}));
}

TEST(HostDims, element_count_columns_and_emptiness_follow_the_dims) {
  auto a = HostArray::createNumeric({3, 4, 1}, ClassID::Double);
  EXPECT_EQ(a->dims(), (Dims{3, 4}));
  EXPECT_EQ(a->numel(), 12u);
  EXPECT_EQ(a->rows(), 3u);
  EXPECT_EQ(a->columns(), 4u);

  auto b = HostArray::createNumeric({3, 1, 1, 2}, ClassID::Int8);
  EXPECT_EQ(b->dims(), (Dims{3, 1, 1, 2}));
  EXPECT_EQ(b->numel(), 6u);
  EXPECT_EQ(b->columns(), 2u);

  auto e = HostArray::createNumeric({0, 5}, ClassID::Double);
  EXPECT_TRUE(e->isEmpty());
  EXPECT_EQ(e->columns(), 5u);
  EXPECT_FALSE(e->isScalar());
}

TEST(HostDims, set_dims_keeps_the_element_count) {
  auto a = HostArray::createNumericMatrix(2, 6, ClassID::Double);
  a->data<double>()[7] = 7.5;
  EXPECT_TRUE(a->setDims({3, 4, 1}));
  EXPECT_EQ(a->dims(), (Dims{3, 4}));
  EXPECT_TRUE(a->setDims({2, 1, 3, 2}));
  EXPECT_EQ(a->columns(), 6u);
  EXPECT_EQ(a->elementAsDouble(7), 7.5);  // data untouched
  EXPECT_FALSE(a->setDims({5, 2}));
  EXPECT_EQ(a->dims(), (Dims{2, 1, 3, 2}));  // refused: no change
  EXPECT_FALSE(a->setDims({std::numeric_limits<std::size_t>::max(), 2}));
}

TEST(HostDims, impossible_sizes_are_refused) {
  const std::size_t huge = std::numeric_limits<std::size_t>::max() / 2;
  EXPECT_EQ(identifierOf([&] {
              HostArray::createNumeric({huge, 3}, ClassID::Double);
            }),
            "QUORIX:array:TooLarge");
  // Element count fits, bytes do not.
  EXPECT_EQ(identifierOf([&] {
              HostArray::createNumeric({huge, 1}, ClassID::Double);
            }),
            "QUORIX:array:TooLarge");
}

// --- numeric arrays over the ten element types --------------------------------------

template <class T>
struct ClassOf;
#define QUORIX_CLASS_OF(T, id)                    \
  template <>                                     \
  struct ClassOf<T> {                             \
    static constexpr ClassID value = ClassID::id; \
  }
QUORIX_CLASS_OF(double, Double);
QUORIX_CLASS_OF(float, Single);
QUORIX_CLASS_OF(std::int8_t, Int8);
QUORIX_CLASS_OF(std::uint8_t, UInt8);
QUORIX_CLASS_OF(std::int16_t, Int16);
QUORIX_CLASS_OF(std::uint16_t, UInt16);
QUORIX_CLASS_OF(std::int32_t, Int32);
QUORIX_CLASS_OF(std::uint32_t, UInt32);
QUORIX_CLASS_OF(std::int64_t, Int64);
QUORIX_CLASS_OF(std::uint64_t, UInt64);
#undef QUORIX_CLASS_OF

template <class T>
class NumericArray : public testing::Test {
 protected:
  static constexpr ClassID kId = ClassOf<T>::value;
  // Values that stress the conversion: extremes, zero, a mid value.
  static std::vector<T> samples() {
    return {std::numeric_limits<T>::lowest(), T(0), T(1), T(100), std::numeric_limits<T>::max()};
  }
};

using ElementTypes =
    testing::Types<double, float, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t,
                   std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;
TYPED_TEST_SUITE(NumericArray, ElementTypes);

TYPED_TEST(NumericArray, is_zero_filled_real_and_owned) {
  auto a = HostArray::createNumericMatrix(3, 2, TestFixture::kId);
  EXPECT_EQ(a->classID(), TestFixture::kId);
  EXPECT_TRUE(a->isNumeric());
  EXPECT_FALSE(a->isComplex());
  EXPECT_TRUE(a->ownsData());
  for (std::size_t i = 0; i < a->numel(); ++i) {
    EXPECT_EQ(a->template data<TypeParam>()[i], TypeParam(0));
  }
}

TYPED_TEST(NumericArray, elements_read_as_double_and_convert_to_double) {
  const auto values = TestFixture::samples();
  auto a = HostArray::createNumericMatrix(1, values.size(), TestFixture::kId);
  std::memcpy(a->realData(), values.data(), values.size() * sizeof(TypeParam));
  auto d = a->toDouble();
  EXPECT_EQ(d->classID(), ClassID::Double);
  EXPECT_EQ(d->dims(), a->dims());
  EXPECT_FALSE(d->isComplex());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(a->elementAsDouble(i), static_cast<double>(values[i])) << i;
    EXPECT_EQ(d->template data<double>()[i], static_cast<double>(values[i])) << i;
  }
  EXPECT_EQ(identifierOf([&] { a->elementAsDouble(values.size()); }), "QUORIX:array:BadIndex");
}

TYPED_TEST(NumericArray, complex_stays_complex_through_to_double) {
  auto a = HostArray::createNumeric({2, 1, 2}, TestFixture::kId, true);
  ASSERT_TRUE(a->isComplex());
  auto* re = a->template data<TypeParam>();
  auto* im = static_cast<TypeParam*>(a->imagData());
  for (std::size_t i = 0; i < a->numel(); ++i) {
    EXPECT_EQ(im[i], TypeParam(0));
    re[i] = static_cast<TypeParam>(i + 1);
    im[i] = static_cast<TypeParam>(10 * i);
  }
  auto d = a->toDouble();
  ASSERT_TRUE(d->isComplex());
  EXPECT_EQ(d->dims(), (Dims{2, 1, 2}));
  for (std::size_t i = 0; i < a->numel(); ++i) {
    EXPECT_EQ(d->template data<double>()[i], static_cast<double>(i + 1));
    EXPECT_EQ(static_cast<const double*>(d->imagData())[i], static_cast<double>(10 * i));
  }
}

TYPED_TEST(NumericArray, empty_complex_array_keeps_its_complex_flag) {
  auto a = HostArray::createNumericMatrix(0, 3, TestFixture::kId, true);
  EXPECT_TRUE(a->isEmpty());
  EXPECT_TRUE(a->isComplex());
  EXPECT_TRUE(a->clone()->isComplex());
  EXPECT_TRUE(a->toDouble()->isComplex());
}

TYPED_TEST(NumericArray, clone_is_a_deep_owned_copy) {
  auto a = HostArray::createNumericMatrix(2, 2, TestFixture::kId, true);
  a->template data<TypeParam>()[3] = TypeParam(9);
  auto c = a->clone();
  EXPECT_NE(c->realData(), a->realData());
  EXPECT_NE(c->imagData(), a->imagData());
  EXPECT_EQ(c->template data<TypeParam>()[3], TypeParam(9));
  c->template data<TypeParam>()[3] = TypeParam(2);
  EXPECT_EQ(a->template data<TypeParam>()[3], TypeParam(9));
}

TEST(NumericScalars, double_and_uint64_conveniences) {
  auto d = HostArray::createDoubleScalar(-2.5);
  EXPECT_TRUE(d->isScalar());
  EXPECT_EQ(d->dims(), (Dims{1, 1}));
  EXPECT_EQ(d->elementAsDouble(0), -2.5);
  auto u = HostArray::createUInt64Scalar(std::uint64_t{1} << 60);
  EXPECT_EQ(u->classID(), ClassID::UInt64);
  EXPECT_EQ(*u->data<std::uint64_t>(), std::uint64_t{1} << 60);
}

TEST(NumericScalars, non_numeric_classes_are_refused) {
  EXPECT_EQ(identifierOf([] { HostArray::createNumericMatrix(1, 1, ClassID::Cell); }),
            "QUORIX:array:WrongClass");
  EXPECT_EQ(identifierOf([] { HostArray::createChar("ab")->toDouble(); }),
            "QUORIX:array:NotNumeric");
  EXPECT_EQ(identifierOf([] {
              HostArray::createCell({1, 1})->elementAsDouble(0);
            }),
            "QUORIX:array:WrongClass");
}

// --- views ------------------------------------------------------------------------------

TEST(HostView, shares_memory_and_keeps_its_owner_alive) {
  auto buffer = std::make_shared<std::vector<double>>(std::vector<double>{1, 2, 3, 4, 5, 6});
  std::weak_ptr<std::vector<double>> watch = buffer;
  double* memory = buffer->data();
  auto view = HostArray::createView({2, 3}, ClassID::Double, memory, nullptr, buffer);
  buffer.reset();
  EXPECT_FALSE(watch.expired());
  EXPECT_FALSE(view->ownsData());
  EXPECT_EQ(view->realData(), memory);
  EXPECT_EQ(view->elementAsDouble(5), 6.0);
  view->data<double>()[0] = -1;
  EXPECT_EQ(memory[0], -1.0);

  auto copy = view->clone();
  EXPECT_TRUE(copy->ownsData());
  EXPECT_NE(copy->realData(), memory);
  EXPECT_EQ(copy->elementAsDouble(0), -1.0);

  view.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(copy->elementAsDouble(5), 6.0);  // the clone does not depend on the owner
}

TEST(HostView, complex_and_logical_views) {
  std::vector<float> re{1, 2}, im{3, 4};
  auto c = HostArray::createView({1, 2}, ClassID::Single, re.data(), im.data(), nullptr);
  EXPECT_TRUE(c->isComplex());
  EXPECT_EQ(static_cast<const double*>(c->toDouble()->imagData())[1], 4.0);

  std::vector<std::uint8_t> flags{0, 1, 1};
  auto l = HostArray::createView({3}, ClassID::Logical, flags.data(), nullptr, nullptr);
  EXPECT_EQ(l->dims(), (Dims{3, 1}));
  EXPECT_EQ(l->elementAsDouble(0), 0.0);
  EXPECT_EQ(l->elementAsDouble(2), 1.0);
}

TEST(HostView, needs_element_storage_and_data) {
  double x = 0;
  EXPECT_EQ(identifierOf([&] {
              HostArray::createView({1, 1}, ClassID::Cell, &x, nullptr, nullptr);
            }),
            "QUORIX:array:BadView");
  EXPECT_EQ(identifierOf([&] {
              HostArray::createView({1, 1}, ClassID::Double, nullptr, nullptr, nullptr);
            }),
            "QUORIX:array:BadView");
  EXPECT_EQ(identifierOf([&] {
              HostArray::createView({1, 1}, ClassID::Char, &x, &x, nullptr);
            }),
            "QUORIX:array:BadView");
}

// --- logical and char ------------------------------------------------------------------

TEST(HostLogical, zero_filled_and_readable_as_double) {
  auto l = HostArray::createLogical({2, 2});
  EXPECT_EQ(l->classID(), ClassID::Logical);
  EXPECT_FALSE(l->isNumeric());
  l->data<std::uint8_t>()[3] = 1;
  EXPECT_EQ(l->elementAsDouble(0), 0.0);
  EXPECT_EQ(l->elementAsDouble(3), 1.0);
  EXPECT_EQ(identifierOf([&] { l->toDouble(); }), "QUORIX:array:NotNumeric");
}

TEST(HostChar, holds_text_as_a_row) {
  auto c = HostArray::createChar("median");
  EXPECT_EQ(c->classID(), ClassID::Char);
  EXPECT_EQ(c->dims(), (Dims{1, 6}));
  EXPECT_EQ(c->text(), "median");
  EXPECT_EQ(c->data<char16_t>()[0], u'm');
  EXPECT_EQ(HostArray::createChar("")->dims(), (Dims{1, 0}));
  EXPECT_EQ(HostArray::createChar("\xe9")->data<char16_t>()[0], char16_t{0xE9});
  EXPECT_EQ(HostArray::createChar("x\xe9y")->clone()->text(), "x\xe9y");
  EXPECT_EQ(identifierOf([] { HostArray::createDoubleScalar(1)->text(); }),
            "QUORIX:array:WrongClass");
}

// --- cell and struct ----------------------------------------------------------------------

TEST(HostCell, holds_arrays_and_clones_them_deeply) {
  auto c = HostArray::createCell({1, 3});
  EXPECT_EQ(c->classID(), ClassID::Cell);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(c->cell(i).classID(), ClassID::Double);
    EXPECT_TRUE(c->cell(i).isEmpty());
  }
  c->setCell(1, HostArray::createDoubleScalar(4));
  auto copy = c->clone();
  c->cell(1).data<double>()[0] = 5;
  EXPECT_EQ(copy->cell(1).elementAsDouble(0), 4.0);
  EXPECT_EQ(identifierOf([&] { c->cell(3); }), "QUORIX:array:BadIndex");
  EXPECT_EQ(identifierOf([&] { c->setCell(0, nullptr); }), "QUORIX:array:NullValue");
  EXPECT_EQ(identifierOf([] { HostArray::createDoubleScalar(1)->cell(0); }),
            "QUORIX:array:WrongClass");
}

TEST(HostStruct, fields_per_element_and_new_fields_on_assignment) {
  auto s = HostArray::createStruct({1, 2}, {"a", "b"});
  EXPECT_EQ(s->fieldNames(), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(s->field(1, "b").isEmpty());
  s->setField(0, "b", HostArray::createDoubleScalar(1));
  s->setField(1, "a", HostArray::createDoubleScalar(2));
  s->setField(1, "c", HostArray::createChar("new"));
  EXPECT_EQ(s->fieldNames(), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(s->field(0, "b").elementAsDouble(0), 1.0);
  EXPECT_EQ(s->field(1, "a").elementAsDouble(0), 2.0);
  EXPECT_TRUE(s->field(1, "b").isEmpty());
  EXPECT_TRUE(s->field(0, "c").isEmpty());
  EXPECT_EQ(s->field(1, "c").text(), "new");
  EXPECT_EQ(s->clone()->field(1, "c").text(), "new");

  EXPECT_EQ(identifierOf([&] { s->field(0, "zz"); }), "QUORIX:array:NoSuchField");
  EXPECT_EQ(identifierOf([&] { s->field(2, "a"); }), "QUORIX:array:BadIndex");
}

// --- objects --------------------------------------------------------------------------------

class CountingClass : public quorix::ClassInfo {
 public:
  explicit CountingClass(std::string name) : name_(std::move(name)) {}
  std::string name() const override { return name_; }
  void defineMembers(quorix::ClassDefinition&) override {}
  void* createInstance() override { return new int(0); }
  void destroyInstance(void* instance) noexcept override {
    delete static_cast<int*>(instance);
    ++destroyed;
  }
  int destroyed = 0;

 private:
  std::string name_;
};

TEST(HostObjects, arrays_share_handles_and_carry_the_class_name) {
  CountingClass info("Counter");
  auto handle = std::make_shared<quorix::Object>(info, info.createInstance());

  auto array = HostArray::createObjectArray("Counter", {2, 2});
  EXPECT_EQ(array->classID(), ClassID::Object);
  EXPECT_EQ(array->objectClassName(), "Counter");
  EXPECT_EQ(array->object(3), nullptr);
  array->setObject(3, handle);

  auto scalar = HostArray::createScalarObject(handle);
  EXPECT_TRUE(scalar->isScalar());
  EXPECT_EQ(scalar->objectClassName(), "Counter");
  EXPECT_EQ(scalar->object(0), handle);

  auto copy = array->clone();
  EXPECT_EQ(copy->object(3), handle);  // the handle, not the object, is copied
  EXPECT_EQ(handle.use_count(), 4);

  array.reset();
  scalar.reset();
  copy.reset();
  EXPECT_EQ(info.destroyed, 0);
  handle.reset();
  EXPECT_EQ(info.destroyed, 1);  // the last handle destroyed the instance
}

TEST(HostObjects, misuse_is_refused) {
  CountingClass info("Counter");
  CountingClass otherInfo("Other");
  auto other = std::make_shared<quorix::Object>(otherInfo, otherInfo.createInstance());
  auto array = HostArray::createObjectArray("Counter", {1, 2});
  EXPECT_EQ(identifierOf([&] { array->setObject(0, other); }), "QUORIX:array:MixedClasses");
  EXPECT_EQ(identifierOf([&] { array->object(2); }), "QUORIX:array:BadIndex");
  EXPECT_EQ(identifierOf([] { HostArray::createScalarObject(nullptr); }), "QUORIX:array:NullValue");
  EXPECT_EQ(identifierOf([] { HostArray::createDoubleScalar(0)->object(0); }),
            "QUORIX:array:WrongClass");
  EXPECT_EQ(HostArray::createDoubleScalar(0)->objectClassName(), "");
}

}  // namespace
