#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "quorix/object_system.h"
#include "support/counter_class.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::CounterInstance;
using test::kCounterClass;
using test::raisedIdentifier;

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    test::registerCounterClass();
    test::registerPlainClass();
    object_ = ObjectSystem::construct(kCounterClass, 0, nullptr);
  }

  CounterInstance& counter() {
    return ObjectSystem::scalarInstanceAs<CounterInstance>(*object_, kCounterClass);
  }

  // Calls `method` on the counter with the further inputs; returns the
  // output count, the outputs in `out`.
  int call(const char* method, std::initializer_list<const HostArray*> further, int nOut = 0,
           int access = kPublicAccess) {
    std::vector<const HostArray*> in{object_.get()};
    in.insert(in.end(), further);
    for (auto& slot : out_) {
      slot = nullptr;
    }
    const int count = ObjectSystem::callMethod(method, nOut, raw_.data(),
                                               static_cast<int>(in.size()), in.data(), access);
    for (int i = 0; i < count; ++i) {
      out_[static_cast<std::size_t>(i)].reset(raw_[static_cast<std::size_t>(i)]);
    }
    return count;
  }

  HostArrayPtr object_;
  std::array<HostArray*, 4> raw_{};
  std::array<HostArrayPtr, 4> out_;
};

TEST_F(Dispatch, picks_the_first_overload_accepting_the_element_class) {
  const auto single = HostArray::createNumericMatrix(2, 2, ClassID::Single);
  const auto int8 = HostArray::createNumericMatrix(1, 3, ClassID::Int8);
  const auto text = HostArray::createChar("s");

  call("take", {single.get()});
  EXPECT_EQ(counter().lastOverload, "single");
  EXPECT_EQ(counter().lastArg, single.get());
  call("take", {int8.get()});
  EXPECT_EQ(counter().lastOverload, "int8");
  EXPECT_EQ(counter().lastArg, int8.get());
  call("take", {int8.get(), text.get()});
  EXPECT_EQ(counter().lastOverload, "int8+any");
}

TEST_F(Dispatch, passes_an_accepted_double_array_itself_not_a_copy) {
  const auto value = HostArray::createNumericMatrix(2, 3, ClassID::Double);
  call("take", {value.get()});
  EXPECT_EQ(counter().lastOverload, "double matrix");
  EXPECT_EQ(counter().lastArg, value.get());
}

TEST_F(Dispatch, object_class_types_pick_the_overload_for_their_class) {
  const auto other = ObjectSystem::construct(kCounterClass, 0, nullptr);
  ObjectSystem::scalarInstanceAs<CounterInstance>(*other, kCounterClass).value = 4.0;
  call("absorb", {other.get()});
  EXPECT_EQ(counter().lastOverload, kCounterClass);
  EXPECT_EQ(counter().value, 4.0);

  const auto plain = ObjectSystem::createObjectArray(test::kPlainClass, {1, 1});
  call("absorb", {plain.get()});
  EXPECT_EQ(counter().lastOverload, "double") << "an object of another class is not accepted";
}

class DoubleMatrixConversion : public Dispatch, public ::testing::WithParamInterface<ClassID> {};

TEST_P(DoubleMatrixConversion, numeric_arguments_of_other_classes_arrive_as_double) {
  for (const bool complex : {false, true}) {
    auto value = HostArray::createNumericMatrix(1, 3, GetParam(), complex);
    value->setDims({3, 1});
    call("take", {value.get()});
    ASSERT_EQ(counter().lastArgClass, ClassID::Double);
    EXPECT_EQ(counter().lastOverload, "double matrix");
    EXPECT_EQ(counter().lastArgComplex, complex);
    if (GetParam() != ClassID::Double) {
      EXPECT_NE(counter().lastArg, value.get());
    }
  }
}

// Single and int8 have overloads of their own; every other numeric class
// reaches the "double matrix" overload, directly or as the fallback.
INSTANTIATE_TEST_SUITE_P(NumericClasses, DoubleMatrixConversion,
                         ::testing::Values(ClassID::Double, ClassID::UInt8, ClassID::Int16,
                                           ClassID::UInt16, ClassID::Int32, ClassID::UInt32,
                                           ClassID::Int64, ClassID::UInt64),
                         [](const auto& info) { return std::string(className(info.param)); });

TEST_F(Dispatch, converted_values_keep_their_numbers) {
  auto value = HostArray::createNumericMatrix(1, 3, ClassID::Int32, true);
  const std::int32_t real[] = {-7, 0, 2147483647};
  const std::int32_t imag[] = {1, -2, 0};
  std::copy(std::begin(real), std::end(real), value->data<std::int32_t>());
  std::copy(std::begin(imag), std::end(imag), static_cast<std::int32_t*>(value->imagData()));
  call("take", {value.get()});
  EXPECT_EQ(counter().lastReal, (std::vector<double>{-7.0, 0.0, 2147483647.0}));
  EXPECT_EQ(counter().lastImag, (std::vector<double>{1.0, -2.0, 0.0}));
}

TEST_F(Dispatch, without_an_accepting_overload_the_first_fitting_one_gets_the_arguments_as_given) {
  // "take" lists "double matrix" first: a char argument reaches it unconverted.
  const auto text = HostArray::createChar("abc");
  call("take", {text.get()});
  EXPECT_EQ(counter().lastOverload, "double matrix");
  EXPECT_EQ(counter().lastArg, text.get());

  // "absorb" lists "double" (not "double matrix") first: no conversion.
  const auto int32 = HostArray::createNumericMatrix(1, 1, ClassID::Int32);
  call("absorb", {int32.get()});
  EXPECT_EQ(counter().lastOverload, "double");
  EXPECT_EQ(counter().lastArg, int32.get());

  // Only the three-input overload fits three inputs; its "int8" refuses int32.
  call("take", {int32.get(), text.get()});
  EXPECT_EQ(counter().lastOverload, "int8+any");
  EXPECT_EQ(counter().lastArg, int32.get());
}

TEST_F(Dispatch, open_ended_signatures_take_any_number_of_inputs) {
  const auto x = HostArray::createDoubleScalar(1.0);
  for (int further = 0; further <= 4; ++further) {
    std::vector<const HostArray*> in{object_.get()};
    for (int i = 0; i < further; ++i) {
      in.push_back(x.get());
    }
    HostArray* out[1] = {};
    ObjectSystem::callMethod("collect", 0, out, static_cast<int>(in.size()), in.data());
    EXPECT_EQ(counter().lastOverload, "collect");
    EXPECT_EQ(counter().lastNIn, further + 1);
  }
}

TEST_F(Dispatch, refuses_input_counts_no_overload_takes) {
  const auto x = HostArray::createDoubleScalar(1.0);
  EXPECT_EQ(raisedIdentifier([&] {
              call("take", {x.get(), x.get(), x.get()});
            }),
            "QUORIX:class:NoMatchingSignature");
  EXPECT_EQ(raisedIdentifier([&] { call("take", {}); }), "QUORIX:class:NoMatchingSignature");
  EXPECT_EQ(raisedIdentifier([&] { call("answer", {x.get()}); }),
            "QUORIX:class:NoMatchingSignature");
}

TEST_F(Dispatch, unknown_methods_and_non_objects_have_no_members) {
  EXPECT_EQ(raisedIdentifier([&] { call("nosuch", {}); }), "QUORIX:class:UnknownMember");
  // A property is not a method.
  EXPECT_EQ(raisedIdentifier([&] { call("Value", {}); }), "QUORIX:class:UnknownMember");
  const auto number = HostArray::createDoubleScalar(1.0);
  const HostArray* in[] = {number.get()};
  HostArray* out[1] = {};
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::callMethod("take", 0, out, 1, in); }),
            "QUORIX:class:UnknownMember");
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::callMethod("take", 0, out, 0, in); }),
            "QUORIX:class:UnknownMember");
}

TEST_F(Dispatch, restricted_methods_refuse_public_callers) {
  counter().value = 3.0;
  EXPECT_EQ(raisedIdentifier([&] { call("reset", {}); }), "QUORIX:class:AccessDenied");
  EXPECT_EQ(counter().value, 3.0);
  call("reset", {}, 0, kRestrictedAccess);
  EXPECT_EQ(counter().value, 0.0);
}

TEST_F(Dispatch, a_method_may_raise_a_request_for_no_outputs_to_one) {
  counter().value = 2.5;
  ASSERT_EQ(call("answer", {}, 0), 1);
  ASSERT_NE(out_[0], nullptr);
  EXPECT_EQ(out_[0]->elementAsDouble(0), 2.5);
}

TEST_F(Dispatch, outputs_are_produced_as_requested) {
  counter().value = 1.5;
  counter().steps = 6;
  ASSERT_EQ(call("pair", {}, 1), 1);
  EXPECT_EQ(out_[0]->elementAsDouble(0), 1.5);
  EXPECT_EQ(raw_[1], nullptr);
  ASSERT_EQ(call("pair", {}, 2), 2);
  EXPECT_EQ(out_[0]->elementAsDouble(0), 1.5);
  EXPECT_EQ(out_[1]->classID(), ClassID::UInt64);
  EXPECT_EQ(out_[1]->data<std::uint64_t>()[0], 6u);
}

TEST_F(Dispatch, slots_a_method_leaves_unset_are_null) {
  const auto x = HostArray::createNumericMatrix(1, 1, ClassID::Int8);
  const HostArray* in[] = {object_.get(), x.get()};
  int stale = 0;
  HostArray* out[2] = {reinterpret_cast<HostArray*>(&stale), reinterpret_cast<HostArray*>(&stale)};
  EXPECT_EQ(ObjectSystem::callMethod("take", 2, out, 2, in), 2);
  EXPECT_EQ(out[0], nullptr);
  EXPECT_EQ(out[1], nullptr);
}

}  // namespace
}  // namespace quorix
