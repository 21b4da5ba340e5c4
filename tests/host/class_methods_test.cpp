// Class "TDigest" through the object system: constructor forms, typed "add"
// dispatch, the queries, merge, properties at both access levels, and save
// and restore.
#include <cmath>
#include <limits>

#include "module_fixture.h"

namespace zotdigest::hosttest {
namespace {

using quorix::kRestrictedAccess;

using TDigestClass = ModuleTest;

HostArrayPtr digestOf(const std::vector<double>& values, double delta = 100.0) {
  HostArrayPtr data = doubles(values);
  HostArrayPtr d = doubles({delta});
  HostArrayPtr s = streamOf(7);
  return construct({data.get(), d.get(), s.get()});
}

HostArrayPtr summaryOf(const HostArray& digest) {
  return property(digest, "AVLTreeSummary", kRestrictedAccess);
}

bool sameInt64(const HostArray& a, const HostArray& b) {
  return a.dims() == b.dims() &&
         std::equal(a.data<std::int64_t>(), a.data<std::int64_t>() + a.numel(),
                    b.data<std::int64_t>());
}

TEST_F(TDigestClass, constructor_forms_set_delta_stream_and_data) {
  const HostArrayPtr x = doubles(ramp(1000));
  const HostArrayPtr fifty = doubles({50.0});
  const HostArrayPtr none = emptyDouble();

  const HostArrayPtr empty = construct({});
  EXPECT_EQ(doubleProperty(*empty, "Delta"), 100.0);
  EXPECT_EQ(countProperty(*empty, "NumDataPoints"), 0u);

  EXPECT_EQ(countProperty(*construct({x.get()}), "NumDataPoints"), 1000u);
  const HostArrayPtr withDelta = construct({x.get(), fifty.get()});
  EXPECT_EQ(doubleProperty(*withDelta, "Delta"), 50.0);
  EXPECT_EQ(countProperty(*withDelta, "NumDataPoints"), 1000u);
  EXPECT_EQ(doubleProperty(*construct({none.get(), fifty.get()}), "Delta"), 50.0);
  EXPECT_EQ(doubleProperty(*construct({x.get(), none.get()}), "Delta"), 100.0);
  EXPECT_EQ(countProperty(*construct({x.get(), fifty.get(), none.get()}), "NumDataPoints"), 1000u);

  // With a stream the build is serial, so equal seeds give equal digests.
  const HostArrayPtr s1 = streamOf(3);
  const HostArrayPtr s2 = streamOf(3);
  EXPECT_TRUE(sameInt64(*summaryOf(*construct({x.get(), none.get(), s1.get()})),
                        *summaryOf(*construct({x.get(), none.get(), s2.get()}))));
}

TEST_F(TDigestClass, constructor_refuses_bad_arguments_with_their_identifiers) {
  const HostArrayPtr x = doubles(ramp(10));
  const HostArrayPtr single50 = numbers(ClassID::Single, {50.0});
  const HostArrayPtr pair = doubles({50.0, 60.0});
  const HostArrayPtr zero = doubles({0.0});
  const HostArrayPtr logical = HostArray::createLogical({1, 3});
  const HostArrayPtr text = HostArray::createChar("abc");
  EXPECT_EQ(errorOf([&] {
              construct({x.get(), x.get(), x.get(), x.get()});
            }),
            "QUORIX:class:WrongNumberOfConstructorArgs");
  EXPECT_EQ(errorOf([&] {
              construct({x.get(), single50.get()});
            }),
            "stats:tdigest:DeltaInvalidType");
  EXPECT_EQ(errorOf([&] { construct({x.get(), pair.get()}); }), "stats:tdigest:DeltaInvalidType");
  EXPECT_EQ(errorOf([&] { construct({x.get(), zero.get()}); }), "stats:tdigest:DeltaInvalidValue");
  EXPECT_EQ(errorOf([&] { construct({logical.get()}); }), "QUORIX:class:RequireReal");
  EXPECT_EQ(errorOf([&] {
              construct({x.get(), zero.get(), text.get()});
            }),
            "QUORIX:random:InvalidStream");
}

// add dispatches on the data's class; each typed overload must read its own
// element type, so equal values give the digest a double array gives.
// The parameter is the element type's host name.
class TypedAdd : public ModuleTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(TypedAdd, add_reads_every_element_type_like_double) {
  const ClassID type = quorix::classFromName(GetParam());
  // Negative values where the type has them, so that a signed type read as
  // its unsigned twin (or the reverse) shows.
  const bool isUnsigned = GetParam()[0] == 'u';
  std::vector<double> values = ramp(120);
  for (double& v : values) {
    v -= isUnsigned ? 0.0 : 60.0;
  }
  const HostArrayPtr data = numbers(type, values);
  const HostArrayPtr reference = doubles(values);

  const HostArrayPtr a = construct({});
  const HostArrayPtr b = construct({});
  const HostArrayPtr s1 = streamOf(11);
  const HostArrayPtr s2 = streamOf(11);
  call("add", 0, {a.get(), data.get(), s1.get()});
  call("add", 0, {b.get(), reference.get(), s2.get()});
  EXPECT_TRUE(sameInt64(*summaryOf(*a), *summaryOf(*b)));
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 120u);

  // The parallel form adds the same weight.
  call("add", 0, {a.get(), data.get()});
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 240u);

  const HostArrayPtr complex = HostArray::createNumericMatrix(1, 2, type, true);
  EXPECT_EQ(errorOf([&] { call("add", 0, {a.get(), complex.get()}); }), "QUORIX:class:RequireReal");
}

INSTANTIATE_TEST_SUITE_P(ElementTypes, TypedAdd,
                         ::testing::Values("single", "double", "int8", "int16", "int32", "int64",
                                           "uint8", "uint16", "uint32", "uint64"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(TDigestClass, add_refuses_non_numeric_data_even_when_empty) {
  const HostArrayPtr digest = construct({});
  const HostArrayPtr logical = HostArray::createLogical({0, 0});
  const HostArrayPtr x = doubles({1.0});
  const HostArrayPtr text = HostArray::createChar("s");
  EXPECT_EQ(errorOf([&] {
              call("add", 0, {digest.get(), logical.get()});
            }),
            "QUORIX:class:RequireReal");
  EXPECT_EQ(errorOf([&] {
              call("add", 0, {digest.get(), x.get(), text.get()});
            }),
            "QUORIX:random:InvalidStream");
  EXPECT_EQ(countProperty(*digest, "NumDataPoints"), 0u);
}

TEST_F(TDigestClass, queries_answer_elementwise_even_when_no_output_is_requested) {
  const HostArrayPtr digest = digestOf(ramp(1000));
  const HostArrayPtr half = doubles({0.5});

  HostArray* out[1] = {nullptr};
  const HostArray* in[2] = {digest.get(), half.get()};
  EXPECT_EQ(ObjectSystem::callMethod("cdf", 0, out, 2, in), 1);
  ASSERT_NE(out[0], nullptr);
  delete out[0];

  // cdf and icdf are near-inverses in the body of the data.
  const HostArrayPtr q = answer("cdf", {digest.get(), doubles({250.0}).get()});
  EXPECT_NEAR(q->data<double>()[0], 0.25, 0.01);
  const HostArrayPtr x = answer("icdf", {digest.get(), q.get()});
  EXPECT_NEAR(x->data<double>()[0], 250.0, 1.0);
  // Integer arguments are converted to double by dispatch.
  const HostArrayPtr qInt = answer("cdf", {digest.get(), numbers(ClassID::Int32, {250}).get()});
  EXPECT_EQ(qInt->data<double>()[0], q->data<double>()[0]);

  // trimmedMean(0) is the weighted mean of the centroids; symmetric data keep
  // their middle under any trim.
  const HostArrayPtr means = answer("trimmedMean", {digest.get(), doubles({0.0, 0.25}).get()});
  EXPECT_NEAR(means->data<double>()[0], 500.5, 1e-9);
  EXPECT_NEAR(means->data<double>()[1], 500.5, 1.0);

  // A 2 x 3 x 4 argument answers as 2 x 12.
  HostArrayPtr cube = HostArray::createNumeric({2, 3, 4}, ClassID::Double);
  EXPECT_EQ(call("icdf", 1, {digest.get(), cube.get()}).at(0)->dims(), (quorix::Dims{2, 12}));
}

TEST_F(TDigestClass, query_errors_keep_their_identifiers) {
  const HostArrayPtr empty = construct({});
  const HostArrayPtr digest = digestOf(ramp(10));
  const HostArrayPtr text = HostArray::createChar("x");
  const HostArrayPtr complex = HostArray::createNumericMatrix(1, 1, ClassID::Double, true);
  EXPECT_EQ(errorOf([&] {
              call("cdf", 1, {empty.get(), doubles({1.0}).get()});
            }),
            "stats:tdigest:CdfNoData");
  EXPECT_EQ(errorOf([&] {
              call("icdf", 1, {digest.get(), doubles({1.5}).get()});
            }),
            "stats:tdigest:IcdfInvalidQuantile");
  EXPECT_EQ(errorOf([&] {
              call("trimmedMean", 1, {digest.get(), doubles({0.5}).get()});
            }),
            "stats:tdigest:TrimmedMeanInvalidTrim");
  EXPECT_EQ(errorOf([&] {
              call("cdf", 1, {digest.get(), text.get()});
            }),
            "QUORIX:class:RequireNumeric");
  EXPECT_EQ(errorOf([&] {
              call("icdf", 1, {digest.get(), complex.get()});
            }),
            "QUORIX:class:RequireReal");
  // The listing needs both outputs; too few raise the merge identifier.
  EXPECT_EQ(errorOf([&] { call("centroids", 0, {digest.get()}); }),
            "stats:tdigest:MergeDeltaMismatch");
}

TEST_F(TDigestClass, centroids_list_the_whole_weight_in_ascending_order) {
  const HostArrayPtr digest = digestOf(ramp(5000), 20.0);
  std::vector<HostArrayPtr> out = call("centroids", 2, {digest.get()});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0]->classID(), ClassID::Double);
  EXPECT_EQ(out[1]->classID(), ClassID::UInt64);
  const std::size_t n = countProperty(*digest, "NumCentroids");
  EXPECT_EQ(out[0]->dims(), (quorix::Dims{n, 1}));
  EXPECT_EQ(out[1]->dims(), (quorix::Dims{n, 1}));
  const auto [means, counts] = centroidsOf(*digest);
  EXPECT_TRUE(std::is_sorted(means.begin(), means.end()));
  std::uint64_t total = 0;
  for (std::uint64_t c : counts) {
    total += c;
  }
  EXPECT_EQ(total, 5000u);

  const auto [noMeans, noCounts] = centroidsOf(*construct({}));
  EXPECT_TRUE(noMeans.empty());
  EXPECT_EQ(call("centroids", 2, {construct({}).get()}).at(1)->dims(), (quorix::Dims{0, 1}));
}

TEST_F(TDigestClass, merge_adds_the_other_weight_and_uses_the_given_stream) {
  const HostArrayPtr a = digestOf(ramp(300));
  const HostArrayPtr b = digestOf(ramp(200));
  call("merge", 0, {a.get(), b.get()});
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 500u);
  EXPECT_EQ(countProperty(*b, "NumDataPoints"), 200u);
  call("merge", 0, {a.get(), a.get()});
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 1000u);

  // Equal streams give equal merges.
  const HostArrayPtr c1 = digestOf(ramp(3000));
  const HostArrayPtr c2 = digestOf(ramp(3000));
  const HostArrayPtr s1 = streamOf(5);
  const HostArrayPtr s2 = streamOf(5);
  call("merge", 0, {c1.get(), b.get(), s1.get()});
  call("merge", 0, {c2.get(), b.get(), s2.get()});
  EXPECT_TRUE(sameInt64(*summaryOf(*c1), *summaryOf(*c2)));
}

TEST_F(TDigestClass, merge_refuses_other_deltas_and_other_values) {
  const HostArrayPtr a = digestOf(ramp(30), 100.0);
  const HostArrayPtr b = digestOf(ramp(30), std::nextafter(100.0, 200.0));
  const HostArrayPtr before = summaryOf(*a);
  EXPECT_EQ(errorOf([&] {
              call("merge", 0, {a.get(), b.get()});
            }),
            "stats:tdigest:MergeDeltaMismatch");
  EXPECT_TRUE(sameInt64(*summaryOf(*a), *before));
  EXPECT_EQ(errorOf([&] {
              call("merge", 0, {a.get(), doubles({1.0}).get()});
            }),
            "QUORIX:class:RequireScalarObject");
}

TEST_F(TDigestClass, merge_past_the_weight_limit_warns_and_still_merges) {
  const HostArrayPtr a = digestOf(ramp(10));
  const HostArrayPtr b = digestOf({42.0});
  ObjectSystem::setProperty(*a, "NumDataPoints",
                            *HostArray::createUInt64Scalar(8000000000000000ull), kRestrictedAccess);
  WarningCapture warnings;
  call("merge", 0, {a.get(), b.get()});
  EXPECT_EQ(warnings.ids(), std::vector<std::string>{"stats:tdigest:PreMaxData"});
  // The merge rebuilds the weight from the centroids of both digests.
  EXPECT_EQ(countProperty(*a, "NumDataPoints"), 11u);
}

TEST_F(TDigestClass, properties_keep_their_access_levels_and_value_checks) {
  const HostArrayPtr d = digestOf(ramp(100));
  const auto setPublic = [&](const char* name, const HostArray& value) {
    return errorOf([&] { ObjectSystem::setProperty(*d, name, value); });
  };
  const auto setRestricted = [&](const char* name, const HostArray& value) {
    return errorOf([&] { ObjectSystem::setProperty(*d, name, value, kRestrictedAccess); });
  };

  EXPECT_EQ(errorOf([&] { property(*d, "AVLTreeSummary"); }), "QUORIX:class:AccessDenied");
  const HostArrayPtr summary = summaryOf(*d);
  EXPECT_EQ(summary->classID(), ClassID::Int64);
  EXPECT_EQ(summary->rows(), 4u);
  EXPECT_EQ(setPublic("AVLTreeSummary", *summary), "QUORIX:class:AccessDenied");
  EXPECT_EQ(setRestricted("AVLTreeSummary", *HostArray::createNumericMatrix(4, 1, ClassID::Double)),
            "stats:tdigest:DataMalformed");
  EXPECT_TRUE(sameInt64(*summaryOf(*d), *summary));

  EXPECT_EQ(setPublic("Delta", *doubles({50.0})), "QUORIX:class:AccessDenied");
  EXPECT_EQ(setRestricted("Delta", *numbers(ClassID::Int32, {25})), "");
  EXPECT_EQ(doubleProperty(*d, "Delta"), 25.0);
  EXPECT_EQ(setRestricted("Delta", *doubles({1.0, 2.0})), "stats:tdigest:DeltaInvalidType");
  EXPECT_EQ(setRestricted("Delta", *HostArray::createChar("a")), "stats:tdigest:DeltaInvalidType");
  EXPECT_EQ(setRestricted("Delta", *doubles({0.0})), "stats:tdigest:DeltaInvalidValue");
  EXPECT_EQ(doubleProperty(*d, "Delta"), 25.0);

  EXPECT_EQ(setRestricted("NumCentroids", *HostArray::createUInt64Scalar(1)),
            "QUORIX:class:ReadOnly");
  EXPECT_EQ(setPublic("NumDataPoints", *HostArray::createUInt64Scalar(1)),
            "QUORIX:class:AccessDenied");
  EXPECT_EQ(setRestricted("NumDataPoints", *doubles({7.0})), "");
  EXPECT_EQ(countProperty(*d, "NumDataPoints"), 7u);
  EXPECT_EQ(setRestricted("NumDataPoints", *numbers(ClassID::UInt64, {0})), "");
  HostArrayPtr big = HostArray::createUInt64Scalar(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(setRestricted("NumDataPoints", *big), "");
  EXPECT_EQ(countProperty(*d, "NumDataPoints"), std::numeric_limits<std::uint64_t>::max());
  for (const HostArrayPtr& bad :
       {doubles({-1.0}), doubles({2.5}), doubles({std::nan("")}), doubles({1.0, 2.0}),
        numbers(ClassID::Int64, {-3}), doubles({18446744073709551616.0})}) {
    EXPECT_EQ(setRestricted("NumDataPoints", *bad), "QUORIX:class:RequireClass");
  }
}

TEST_F(TDigestClass, save_and_restore_give_identical_answers) {
  const HostArrayPtr original = digestOf(ramp(20000), 30.0);
  const quorix::SavedObject saved = ObjectSystem::save(*original);
  const HostArrayPtr copy = ObjectSystem::restore(saved);

  for (const char* name : {"Delta", "NumCentroids", "NumDataPoints"}) {
    EXPECT_EQ(doubleProperty(*copy, name), doubleProperty(*original, name)) << name;
  }
  EXPECT_TRUE(sameInt64(*summaryOf(*copy), *summaryOf(*original)));
  const HostArrayPtr points = doubles({-5.0, 1.0, 77.7, 10000.5, 20001.0});
  const HostArrayPtr quantiles = doubles({0.0, 0.01, 0.5, 0.99, 1.0});
  const HostArrayPtr trims = doubles({0.0, 0.1, 0.45});
  for (const auto& [method, arg] :
       {std::pair{"cdf", points.get()}, std::pair{"icdf", quantiles.get()},
        std::pair{"trimmedMean", trims.get()}}) {
    const HostArrayPtr a = answer(method, {original.get(), arg});
    const HostArrayPtr b = answer(method, {copy.get(), arg});
    EXPECT_TRUE(std::equal(a->data<double>(), a->data<double>() + a->numel(), b->data<double>()))
        << method;
  }
  EXPECT_EQ(centroidsOf(*copy), centroidsOf(*original));
}

}  // namespace
}  // namespace zotdigest::hosttest
