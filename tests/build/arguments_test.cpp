// The constructor's argument forms and errors.
#include "build/arguments.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "build_test_support.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;
using quorix::ClassID;
using quorix::HostArray;

class ConstructorArgs : public ::testing::Test {
 protected:
  static void construct(TDigest& d, std::vector<const HostArray*> in) {
    constructDigest(d, static_cast<int>(in.size()), in.data());
  }

  // A digest built value by value from `stream` in its current state, then
  // compressed: what the serial path must give.
  static TDigest serialReference(const std::vector<double>& values, double delta,
                                 quorix::RandomStream& stream) {
    TDigest d;
    setDelta(d, delta);
    d.stream = &stream;
    for (const double v : values) d.add(v);
    d.compress();
    return d;
  }

  const std::vector<double> values_ = sampleValues<double>(12000, 21);
  const quorix::HostArrayPtr x_ = makeRow(values_);
  const quorix::HostArrayPtr empty_ = HostArray::createNumeric({0, 0}, ClassID::Double);
  quorix::RandomStream& default_ = quorix::RandomStream::defaultStream();
};

TEST_F(ConstructorArgs, no_inputs_give_an_empty_digest_on_the_default_stream) {
  TDigest d;
  construct(d, {});
  EXPECT_EQ(d.stream, &default_);
  EXPECT_EQ(d.delta, 100.0);
  EXPECT_EQ(d.totalWeight, 0u);
  EXPECT_EQ(d.tree.size(), 0u);
}

TEST_F(ConstructorArgs, data_alone_and_data_with_empty_delta_add_everything_with_delta_100) {
  TDigest one;
  construct(one, {x_.get()});
  EXPECT_EQ(one.totalWeight, values_.size());
  EXPECT_EQ(one.stream, &default_);
  TDigest two;
  construct(two, {x_.get(), empty_.get()});
  EXPECT_EQ(two.totalWeight, values_.size());
  EXPECT_EQ(two.delta, 100.0);
}

TEST_F(ConstructorArgs, empty_data_keeps_the_digest_empty_whatever_its_class) {
  const auto delta = HostArray::createDoubleScalar(50.0);
  TDigest d;
  construct(d, {empty_.get(), delta.get()});
  EXPECT_EQ(d.delta, 50.0);
  EXPECT_EQ(d.totalWeight, 0u);
  const auto emptyChar = HostArray::createChar("");
  const auto emptyCell = HostArray::createCell({0, 0});
  for (const HostArray* data : {emptyChar.get(), emptyCell.get()}) {
    TDigest e;
    construct(e, {data});
    EXPECT_EQ(e.totalWeight, 0u);
  }
}

TEST_F(ConstructorArgs, delta_must_be_a_real_double_scalar) {
  const auto single = makeArray<float>({50.0f}, {1, 1});
  const auto pair = makeArray<double>({50.0, 60.0}, {1, 2});
  const auto integer = makeArray<std::int32_t>({50}, {1, 1});
  auto complex = HostArray::createNumeric({1, 1}, ClassID::Double, true);
  complex->data<double>()[0] = 50.0;
  const auto logicalData = HostArray::createLogical({1, 2});
  const std::vector<const HostArray*> refused = {single.get(), pair.get(), integer.get(),
                                                 complex.get()};
  for (const HostArray* delta : refused) {
    TDigest d;
    expectKeyedError<stats::tdigest::DeltaInvalidType>(
        [&] { construct(d, {x_.get(), delta}); }, "stats:tdigest:DeltaInvalidType");
    EXPECT_EQ(d.totalWeight, 0u);
    EXPECT_EQ(d.delta, 100.0);
  }
  // The delta is checked before the data.
  TDigest d;
  expectKeyedError<stats::tdigest::DeltaInvalidType>(
      [&] { construct(d, {logicalData.get(), single.get()}); }, "stats:tdigest:DeltaInvalidType");
}

TEST_F(ConstructorArgs, delta_not_above_zero_is_refused_with_its_value_as_text) {
  const std::vector<std::pair<double, std::string>> cases = {
      {0.0, "0.000000"}, {-1.0, "-1.000000"}, {-2.5, "-2.500000"}};
  for (const auto& [value, text] : cases) {
    const auto delta = HostArray::createDoubleScalar(value);
    TDigest d;
    const auto id = expectKeyedError<stats::tdigest::DeltaInvalidValue>(
        [&] { construct(d, {x_.get(), delta.get()}); }, "stats:tdigest:DeltaInvalidValue");
    EXPECT_EQ(id.args(), std::vector<std::string>{text});
    EXPECT_EQ(d.delta, 100.0);
    EXPECT_EQ(d.totalWeight, 0u);
  }
  const auto nan = HostArray::createDoubleScalar(std::numeric_limits<double>::quiet_NaN());
  TDigest d;
  expectKeyedError<stats::tdigest::DeltaInvalidValue>(
      [&] { construct(d, {x_.get(), nan.get()}); }, "stats:tdigest:DeltaInvalidValue");
}

TEST_F(ConstructorArgs, bad_data_is_refused_after_the_other_inputs_are_taken) {
  const auto logical = HostArray::createLogical({1, 3});
  const auto delta = HostArray::createDoubleScalar(40.0);
  TDigest d;
  expectKeyedError<component_QUORIX::catalog_class::key_RequireReal>(
      [&] { construct(d, {logical.get(), delta.get()}); }, "QUORIX:class:RequireReal");
  EXPECT_EQ(d.delta, 40.0);
  EXPECT_EQ(d.totalWeight, 0u);
}

TEST_F(ConstructorArgs, three_inputs_with_empty_stream_add_serially_on_the_default_stream) {
  const auto delta = HostArray::createDoubleScalar(50.0);
  default_.reset(31);
  TDigest d;
  construct(d, {x_.get(), delta.get(), empty_.get()});
  EXPECT_EQ(d.stream, &default_);
  EXPECT_EQ(d.delta, 50.0);
  default_.reset(31);
  expectSameCentroids(d, serialReference(values_, 50.0, default_));
}

TEST_F(ConstructorArgs, three_inputs_with_a_stream_add_serially_on_that_stream) {
  std::shared_ptr<quorix::RandomStream> s = quorix::RandomStream::create("mrg32k3a", 1000000, 12);
  const auto streamValue = quorix::RandomStream::toHostValue(s);
  TDigest d;
  construct(d, {x_.get(), empty_.get(), streamValue.get()});
  EXPECT_EQ(d.stream, s.get());
  EXPECT_EQ(d.delta, 100.0);
  auto twin = quorix::RandomStream::create("mrg32k3a", 1000000, 12);
  expectSameCentroids(d, serialReference(values_, 100.0, *twin));
}

TEST_F(ConstructorArgs, a_stream_input_that_is_not_a_stream_is_a_host_error) {
  const auto notAStream = HostArray::createDoubleScalar(3.0);
  TDigest d;
  expectHostError([&] { construct(d, {x_.get(), empty_.get(), notAStream.get()}); },
                  "QUORIX:random:InvalidStream");
  EXPECT_EQ(d.totalWeight, 0u);
}

TEST_F(ConstructorArgs, more_than_three_inputs_are_refused) {
  TDigest d;
  expectKeyedError<component_QUORIX::catalog_class::key_WrongNumberOfConstructorArgs>(
      [&] { construct(d, {x_.get(), empty_.get(), empty_.get(), empty_.get()}); },
      "QUORIX:class:WrongNumberOfConstructorArgs");
  EXPECT_EQ(d.totalWeight, 0u);
  EXPECT_EQ(d.stream, &default_);
}

}  // namespace
}  // namespace zotdigest
