// Class "TDigest" through the object system: the errors each call raises and
// properties at both access levels. Arrays of every element type, and save
// and restore, are the Python suite's (test_conversion.py, test_pickling.py).
#include <cmath>

#include "module_fixture.h"

namespace zotdigest::hosttest {
namespace {

using quorix::kRestrictedAccess;
using TDigestClass = ModuleTest;

TEST_F(TDigestClass, bad_arguments_raise_their_identifiers) {
  const HostArrayPtr empty = construct({});
  const HostArrayPtr digest = construct({doubles(ramp(30)).get()});
  const HostArrayPtr other = construct({doubles(ramp(30)).get(), doubles({99.0}).get()});
  const HostArrayPtr x = doubles({1.0}), text = HostArray::createChar("x");
  const HostArrayPtr logical = HostArray::createLogical({0, 0});  // checked even when empty
  const HostArrayPtr complex = HostArray::createNumericMatrix(1, 1, ClassID::Double, true);
  using In = std::vector<const HostArray*>;
  for (const auto& [method, nOut, in, id] :
       {std::tuple{"add", 0, In{digest.get(), logical.get()}, "QUORIX:class:RequireReal"},
        {"add", 0, {digest.get(), x.get(), text.get()}, "QUORIX:random:InvalidStream"},
        {"cdf", 1, {empty.get(), x.get()}, "stats:tdigest:CdfNoData"},
        {"cdf", 1, {digest.get(), text.get()}, "QUORIX:class:RequireNumeric"},
        {"icdf", 1, {digest.get(), complex.get()}, "QUORIX:class:RequireReal"},
        {"merge", 0, {digest.get(), other.get()}, "stats:tdigest:MergeDeltaMismatch"},
        {"merge", 0, {digest.get(), x.get()}, "QUORIX:class:RequireScalarObject"},
        // The listing needs both outputs; too few raise the merge identifier.
        {"centroids", 0, {digest.get()}, "stats:tdigest:MergeDeltaMismatch"}}) {
    EXPECT_EQ(raisedIdentifier([&, m = method, n = nOut, args = in] { call(m, n, args); }), id)
        << method;
  }
}

TEST_F(TDigestClass, merge_past_the_weight_limit_warns_and_still_merges) {
  const HostArrayPtr a = construct({doubles(ramp(10)).get()});
  const HostArrayPtr b = construct({doubles({42.0}).get()});
  ObjectSystem::setProperty(*a, "NumDataPoints", *HostArray::createUInt64Scalar(8000000000000000),
                            kRestrictedAccess);
  std::vector<std::string> warnings;
  quorix::WarningSink previous = quorix::setWarningSink(
      [&](const std::string& id, const std::string&) { warnings.push_back(id); });
  call("merge", 0, {a.get(), b.get()});
  quorix::setWarningSink(std::move(previous));
  EXPECT_EQ(warnings, std::vector<std::string>{"stats:tdigest:PreMaxData"});
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 11u);  // rebuilt from both digests' centroids
}

TEST_F(TDigestClass, properties_keep_their_access_levels_and_value_checks) {
  const HostArrayPtr d = construct({doubles(ramp(100)).get()});
  const auto set = [&](const char* name, const HostArrayPtr& value, int access) {
    return raisedIdentifier([&] { ObjectSystem::setProperty(*d, name, *value, access); });
  };
  const auto uint64 = [](std::uint64_t v) {
    return HostArrayPtr(HostArray::createUInt64Scalar(v));
  };
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::getProperty(*d, "AVLTreeSummary"); }),
            "QUORIX:class:AccessDenied");
  const HostArrayPtr summary = ObjectSystem::getProperty(*d, "AVLTreeSummary", kRestrictedAccess);
  EXPECT_EQ(set("AVLTreeSummary", summary, quorix::kPublicAccess), "QUORIX:class:AccessDenied");
  EXPECT_EQ(set("AVLTreeSummary", doubles({1, 2, 3, 4}), kRestrictedAccess),
            "stats:tdigest:DataMalformed");
  EXPECT_EQ(set("Delta", doubles({50.0}), quorix::kPublicAccess), "QUORIX:class:AccessDenied");
  EXPECT_EQ(set("Delta", numbers(ClassID::Int32, {25}), kRestrictedAccess), "");
  EXPECT_EQ(doubleProperty(*d, "Delta"), 25.0);
  EXPECT_EQ(set("NumCentroids", uint64(1), kRestrictedAccess), "QUORIX:class:ReadOnly");
  // Any whole number in [0, 2^64), of any class.
  EXPECT_EQ(set("NumDataPoints", numbers(ClassID::Int8, {7}), kRestrictedAccess), "");
  EXPECT_EQ(set("NumDataPoints", uint64(~std::uint64_t{0}), kRestrictedAccess), "");
  EXPECT_EQ(countProperty(*d, "NumDataPoints"), ~std::uint64_t{0});
  for (const HostArrayPtr& bad :
       {doubles({-1.0}), doubles({2.5}), doubles({std::nan("")}), doubles({1.0, 2.0}),
        numbers(ClassID::Int64, {-3}), doubles({18446744073709551616.0})}) {
    EXPECT_EQ(set("NumDataPoints", bad, kRestrictedAccess), "QUORIX:class:RequireClass");
  }
}

}  // namespace
}  // namespace zotdigest::hosttest
