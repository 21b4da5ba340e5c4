// The argument forms of the constructor and of the column build, and the
// errors of both by identifier.
#include "construction/arguments.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "build_test_support.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;
using quorix::ClassID;
using quorix::HostArray;
using Args = std::vector<const HostArray*>;

void construct(TDigest& d, Args in) { constructDigest(d, static_cast<int>(in.size()), in.data()); }

TEST(ConstructorArgs, forms_set_delta_and_stream_and_add_every_value) {
  const auto x = makeRow(sampleValues<double>(12000, 21));
  const auto none = HostArray::createNumeric({0, 0}, ClassID::Double);
  const auto fifty = HostArray::createDoubleScalar(50.0), noText = HostArray::createChar("");
  std::shared_ptr<quorix::RandomStream> s = seededStream(12);
  const auto stream = quorix::RandomStream::toHostValue(s);
  quorix::RandomStream* const def = &quorix::RandomStream::defaultStream();
  for (const auto& [in, delta, used, weight] :
       {std::tuple{Args{}, 100.0, def, 0u},
        {{x.get()}, 100.0, def, 12000u},
        {{noText.get()}, 100.0, def, 0u},  // empty data of any class is not checked
        {{x.get(), fifty.get(), none.get()}, 50.0, def, 12000u},
        {{x.get(), none.get(), stream.get()}, 100.0, s.get(), 12000u}}) {
    SCOPED_TRACE(std::to_string(in.size()) + " inputs");
    TDigest d;
    construct(d, in);
    EXPECT_EQ(d.delta, delta);
    EXPECT_EQ(d.stream, used);
    EXPECT_EQ(d.totalWeight, weight);
  }
  // Three inputs add serially: equal streams give equal digests.
  TDigest a, b;
  const auto twin = quorix::RandomStream::toHostValue(seededStream(12));
  s->reset(12);
  construct(a, {x.get(), none.get(), stream.get()});
  construct(b, {x.get(), none.get(), twin.get()});
  expectIdentical(a, b);
}

TEST(BuildArgs, bad_arguments_raise_their_identifiers_and_leave_the_digest_as_it_was) {
  const auto x = makeRow<double>({1, 2, 3, 4, 5, 6});
  const auto none = HostArray::createNumeric({0, 0}, ClassID::Double);
  const auto single = makeArray<float>({50.0f}, {1, 1}), pair = makeRow<double>({50, 60});
  const auto complex = HostArray::createNumeric({1, 1}, ClassID::Double, true);
  const auto zero = HostArray::createDoubleScalar(0.0);
  const auto nan = HostArray::createDoubleScalar(std::nan(""));
  const auto logical = HostArray::createLogical({1, 3}), noText = HostArray::createChar("");
  const auto three = HostArray::createDoubleScalar(3.0);
  const char* const count = "QUORIX:class:WrongNumberOfConstructorArgs";
  const char* const type = "stats:tdigest:DeltaInvalidType";
  const char* const value = "stats:tdigest:DeltaInvalidValue";
  const char* const real = "QUORIX:class:RequireReal";
  const char* const stream = "QUORIX:random:InvalidStream";
  struct Case {
    bool columns;  // buildColumnDigestsFromArgs, else constructDigest
    Args in;
    const char* id;
  };
  for (const Case& c :
       std::vector<Case>{{false, {x.get(), x.get(), x.get(), x.get()}, count},
                         {false, {x.get(), single.get()}, type},
                         {false, {x.get(), pair.get()}, type},
                         {false, {logical.get(), single.get()}, type},  // delta before data
                         {false, {x.get(), zero.get()}, value},
                         {false, {x.get(), nan.get()}, value},
                         {false, {logical.get()}, real},
                         {false, {x.get(), none.get(), three.get()}, stream},
                         {true, {noText.get()}, real},  // checked also when empty
                         {true, {complex.get()}, real},
                         {true, {x.get(), zero.get()}, value},
                         {true, {x.get(), none.get(), three.get()}, stream}}) {
    SCOPED_TRACE(std::string(c.columns ? "columns: " : "constructor: ") + c.id);
    TDigest d;
    EXPECT_EQ(raisedIdentifier([&] {
                if (c.columns)
                  buildColumnDigestsFromArgs(static_cast<int>(c.in.size()), c.in.data());
                if (!c.columns) construct(d, c.in);
              }),
              c.id);
    EXPECT_EQ(d.totalWeight, 0u);
    EXPECT_EQ(d.delta, 100.0);
  }
}

}  // namespace
}  // namespace zotdigest
