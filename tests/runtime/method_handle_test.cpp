// Method handles: a call through a handle resolved once must behave exactly
// as the same call by name, for objects of the handle's class and others.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "quorix/object_system.h"
#include "support/counter_fixture.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::kCounterClass;
using test::raisedIdentifier;
using MethodHandleTest = test::CounterTest;

// Which overload runs for which class is pinned by the dispatch tests; a
// handle must make the same choice, converting as the call by name does.
TEST_F(MethodHandleTest, chooses_and_converts_as_the_call_by_name) {
  const MethodHandle take(kCounterClass, "take");
  EXPECT_EQ(take.overloads().size(), 4u);
  // int16 fits no overload's type: "double matrix" takes it, converted.
  for (const auto& [argClass, nIn, overload] : {std::tuple{ClassID::Single, 2, "single"},
                                                {ClassID::Int8, 3, "int8+any"},
                                                {ClassID::Int16, 2, "double matrix"}}) {
    const HostArrayPtr arg = HostArray::createNumericMatrix(1, 1, argClass);
    const HostArray* in[] = {object_.get(), arg.get(), arg.get()};
    HostArray* out[1];
    take.call(0, out, nIn, in);
    EXPECT_EQ(counter().lastOverload, overload);
    EXPECT_EQ(counter().lastArgClass, argClass == ClassID::Int16 ? ClassID::Double : argClass);
  }
}

TEST_F(MethodHandleTest, answers_refuses_and_resolves_like_the_call_by_name) {
  HostArray* out[2] = {nullptr, nullptr};
  const HostArray* self[] = {object_.get()};
  counter().value = 7.5;
  EXPECT_EQ(MethodHandle(kCounterClass, "answer").call(0, out, 1, self), 1);
  const HostArrayPtr answer(out[0]);
  EXPECT_EQ(*answer->data<double>(), 7.5);

  EXPECT_EQ(raisedIdentifier([&] { MethodHandle(kCounterClass, "reset").call(0, out, 1, self); }),
            "QUORIX:class:AccessDenied");
  MethodHandle(kCounterClass, "reset").call(0, out, 1, self, kRestrictedAccess);
  EXPECT_EQ(counter().value, 0.0);

  EXPECT_EQ(raisedIdentifier([] { MethodHandle(kCounterClass, "missing"); }),
            "QUORIX:class:UnknownMember");
  EXPECT_EQ(raisedIdentifier([] { MethodHandle("NoSuchClass", "take"); }),
            "QUORIX:class:UnknownClass");
  // Another class's object goes by name, as callMethod would send it.
  const HostArrayPtr plain = ObjectSystem::createObjectArray(test::kPlainClass, {1, 1});
  const HostArray* other[] = {plain.get()};
  EXPECT_EQ(raisedIdentifier([&] { MethodHandle(kCounterClass, "answer").call(0, out, 1, other); }),
            raisedIdentifier([&] { ObjectSystem::callMethod("answer", 0, out, 1, other); }));
}

}  // namespace
}  // namespace quorix
