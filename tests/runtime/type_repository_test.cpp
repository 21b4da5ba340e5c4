#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "quorix/object_system.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::raisedIdentifier;

TEST(TypeRepository, returns_the_same_object_for_the_same_string) {
  const Type* first = TypeRepository::lookup("int16 matrix");
  EXPECT_EQ(first, TypeRepository::lookup("int16 matrix"));
  EXPECT_EQ(first->text(), "int16 matrix");
  EXPECT_NE(first, TypeRepository::lookup("int16 scalar"));
  EXPECT_NE(first, TypeRepository::lookup("int16"));
}

TEST(TypeRepository, racing_first_lookups_agree_on_one_object) {
  std::vector<const Type*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = TypeRepository::lookup("RaceClass matrix"); });
  }
  for (auto& t : threads) {
    t.join();
  }
  for (const Type* type : seen) {
    EXPECT_EQ(type, seen.front());
  }
}

class ElementTypes : public ::testing::TestWithParam<ClassID> {};

TEST_P(ElementTypes, read_as_element_types_of_each_shape) {
  const std::string name(className(GetParam()));
  const std::pair<std::string, Type::Shape> cases[] = {{name, Type::Shape::Any},
                                                       {name + " scalar", Type::Shape::Scalar},
                                                       {name + " matrix", Type::Shape::Matrix}};
  for (const auto& [text, shape] : cases) {
    const Type* type = TypeRepository::lookup(text);
    EXPECT_EQ(type->kind(), Type::Kind::Element) << text;
    EXPECT_EQ(type->shape(), shape) << text;
    EXPECT_EQ(type->elementClass(), GetParam()) << text;
    // Only "double matrix" converts other numeric classes.
    EXPECT_EQ(type->convertsToDouble(),
              GetParam() == ClassID::Double && shape == Type::Shape::Matrix)
        << text;
  }
}

TEST_P(ElementTypes, accept_exactly_arrays_of_their_class_whatever_the_shape) {
  const Type* type = TypeRepository::lookup(std::string(className(GetParam())) + " scalar");
  for (int id = static_cast<int>(ClassID::Double); id <= static_cast<int>(ClassID::UInt64); ++id) {
    const auto other = static_cast<ClassID>(id);
    EXPECT_EQ(type->accepts(*HostArray::createNumericMatrix(3, 2, other)), other == GetParam())
        << className(other);
  }
  EXPECT_FALSE(type->accepts(*HostArray::createChar("x")));
  EXPECT_FALSE(type->accepts(*HostArray::createObjectArray("Anything", {1, 1})));
}

INSTANTIATE_TEST_SUITE_P(AllNumeric, ElementTypes,
                         ::testing::Values(ClassID::Double, ClassID::Single, ClassID::Int8,
                                           ClassID::UInt8, ClassID::Int16, ClassID::UInt16,
                                           ClassID::Int32, ClassID::UInt32, ClassID::Int64,
                                           ClassID::UInt64),
                         [](const auto& info) { return std::string(className(info.param)); });

TEST(TypeRepository, reads_other_names_as_object_classes) {
  for (const char* text : {"Widget", "Widget scalar", "pkg.Widget matrix", "char"}) {
    const Type* type = TypeRepository::lookup(text);
    EXPECT_EQ(type->kind(), Type::Kind::Object) << text;
    EXPECT_FALSE(type->convertsToDouble()) << text;
  }
  EXPECT_EQ(TypeRepository::lookup("Widget scalar")->objectClass(), "Widget");
  EXPECT_EQ(TypeRepository::lookup("pkg.Widget matrix")->objectClass(), "pkg.Widget");
}

TEST(TypeRepository, object_types_accept_object_arrays_of_their_class_only) {
  const Type* type = TypeRepository::lookup("Widget");
  EXPECT_TRUE(type->accepts(*HostArray::createObjectArray("Widget", {2, 2})));
  EXPECT_TRUE(type->accepts(*HostArray::createObjectArray("Widget", {0, 0})));
  EXPECT_FALSE(type->accepts(*HostArray::createObjectArray("Gadget", {1, 1})));
  EXPECT_FALSE(type->accepts(*HostArray::createDoubleScalar(1.0)));
}

TEST(TypeRepository, any_accepts_everything) {
  const Type* type = TypeRepository::lookup("any");
  EXPECT_EQ(type->kind(), Type::Kind::Any);
  EXPECT_TRUE(type->accepts(*HostArray::createDoubleScalar(1.0)));
  EXPECT_TRUE(type->accepts(*HostArray::createChar("")));
  EXPECT_TRUE(type->accepts(*HostArray::createCell({1, 2})));
  EXPECT_TRUE(type->accepts(*HostArray::createObjectArray("Widget", {1, 1})));
}

class MalformedTypes : public ::testing::TestWithParam<const char*> {};

TEST_P(MalformedTypes, raise_invalid_type) {
  EXPECT_EQ(raisedIdentifier([] { TypeRepository::lookup(GetParam()); }),
            "QUORIX:class:InvalidType");
}

INSTANTIATE_TEST_SUITE_P(Strings, MalformedTypes,
                         ::testing::Values("", " ", "double ", " double", "double  matrix",
                                           "double vector", "double matrix scalar", "scalar x",
                                           "any scalar", "1abc", "a-b", "double\tmatrix"));

}  // namespace
}  // namespace quorix
