// Type strings and method dispatch on the test class "Counter": which
// overload runs for which element class, what it receives, and what is
// refused.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "quorix/object_system.h"
#include "support/counter_fixture.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::kCounterClass;
using test::raisedIdentifier;

TEST(TypeRepository, parses_each_type_string_once_and_refuses_malformed_ones) {
  EXPECT_EQ(TypeRepository::lookup("int16 scalar"), TypeRepository::lookup("int16 scalar"));
  EXPECT_EQ(TypeRepository::lookup("pkg.Widget matrix")->objectClass(), "pkg.Widget");
  for (const char* bad : {"", "double  matrix", "double vector", "any scalar", "1abc"}) {
    EXPECT_EQ(raisedIdentifier([&] { TypeRepository::lookup(bad); }), "QUORIX:class:InvalidType")
        << '"' << bad << '"';
  }
}

class Dispatch : public test::CounterTest {
 protected:
  // Calls `method` on the counter with the further inputs; returns the
  // output count, the outputs in out_.
  int call(const char* method, const std::vector<const HostArray*>& further, int nOut = 0,
           int access = kPublicAccess) {
    std::vector<const HostArray*> in{object_.get()};
    in.insert(in.end(), further.begin(), further.end());
    std::array<HostArray*, 2> raw{};
    const int count = ObjectSystem::callMethod(method, nOut, raw.data(),
                                               static_cast<int>(in.size()), in.data(), access);
    for (std::size_t i = 0; i < 2; ++i) out_[i].reset(raw[i]);
    return count;
  }

  std::array<HostArrayPtr, 2> out_;
};

TEST_F(Dispatch, picks_the_first_accepting_overload_else_the_first_fitting_one_unconverted) {
  const auto single = HostArray::createNumericMatrix(2, 2, ClassID::Single);
  const auto int8 = HostArray::createNumericMatrix(1, 3, ClassID::Int8);
  const auto int32 = HostArray::createNumericMatrix(1, 1, ClassID::Int32);
  const auto text = HostArray::createChar("s");
  const auto other = ObjectSystem::construct(kCounterClass, 0, nullptr);
  const auto plain = ObjectSystem::createObjectArray(test::kPlainClass, {1, 1});
  using Args = std::vector<const HostArray*>;
  for (const auto& [method, args, overload] :
       {std::tuple{"take", Args{single.get()}, "single"},
        {"take", {int8.get()}, "int8"},
        {"take", {int8.get(), text.get()}, "int8+any"},
        {"absorb", {other.get()}, kCounterClass},
        // No overload accepts these: the first taking that many inputs runs.
        {"take", {text.get()}, "double matrix"},  // converts numeric classes only
        {"absorb", {int32.get()}, "double"},
        {"absorb", {plain.get()}, "double"},
        {"take", {int32.get(), text.get()}, "int8+any"}}) {
    call(method, args);
    EXPECT_EQ(counter().lastOverload, overload) << method << " " << overload;
    EXPECT_EQ(counter().lastArg, args.front()) << "passed as given, not copied";
  }
}

// Single and int8 have overloads of their own; every other numeric class
// reaches "double matrix" converted by toDouble (whose values host_array_test
// checks).
TEST_F(Dispatch, double_matrix_receives_other_numeric_classes_converted) {
  for (const ClassID id : {ClassID::Double, ClassID::UInt8, ClassID::Int16, ClassID::UInt16,
                           ClassID::Int32, ClassID::UInt32, ClassID::Int64, ClassID::UInt64}) {
    for (const bool complex : {false, true}) {
      SCOPED_TRACE(std::string(className(id)) + (complex ? " complex" : ""));
      const auto value = HostArray::createNumeric({3, 1}, id, complex);
      call("take", {value.get()});
      EXPECT_EQ(counter().lastOverload, "double matrix");
      EXPECT_EQ(counter().lastArgClass, ClassID::Double);
      EXPECT_EQ(counter().lastArgComplex, complex);
      EXPECT_EQ(counter().lastArg == value.get(), id == ClassID::Double);
    }
  }
}

TEST_F(Dispatch, refuses_unknown_members_counts_no_overload_takes_and_public_callers) {
  const auto x = HostArray::createDoubleScalar(1.0);
  for (const auto& [method, args, id] :
       {std::tuple{"take", std::vector<const HostArray*>{x.get(), x.get(), x.get()},
                   "QUORIX:class:NoMatchingSignature"},
        {"answer", {x.get()}, "QUORIX:class:NoMatchingSignature"},
        {"nosuch", {}, "QUORIX:class:UnknownMember"},
        {"Value", {}, "QUORIX:class:UnknownMember"},  // a property is not a method
        {"reset", {}, "QUORIX:class:AccessDenied"}}) {
    EXPECT_EQ(raisedIdentifier([&, m = method, a = &args] { call(m, *a); }), id) << method;
  }
  const HostArray* in[] = {x.get()};
  HostArray* out[1] = {};
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::callMethod("take", 0, out, 1, in); }),
            "QUORIX:class:UnknownMember");
  counter().value = 3.0;
  call("reset", {}, 0, kRestrictedAccess);
  EXPECT_EQ(counter().value, 0.0);
}

TEST_F(Dispatch, produces_the_outputs_requested_and_at_least_one_when_the_method_does) {
  counter().steps = 6;
  ASSERT_EQ(call("answer", {}, 0), 1);
  ASSERT_EQ(call("pair", {}, 2), 2);
  EXPECT_EQ(out_[1]->data<std::uint64_t>()[0], 6u);
  // Slots a method leaves unset are null, whatever they held before.
  const auto int8 = HostArray::createNumericMatrix(1, 1, ClassID::Int8);
  const HostArray* in[] = {object_.get(), int8.get()};
  int stale = 0;
  HostArray* out[2] = {reinterpret_cast<HostArray*>(&stale), reinterpret_cast<HostArray*>(&stale)};
  EXPECT_EQ(ObjectSystem::callMethod("take", 2, out, 2, in), 2);
  EXPECT_EQ(out[0], nullptr);
  EXPECT_EQ(out[1], nullptr);
}

}  // namespace
}  // namespace quorix
