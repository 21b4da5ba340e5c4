#include "host/errors.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "core_checks.h"
#include "quorix/messages.h"

namespace zotdigest {
namespace {

using testing::expectRaises;

struct Expected {
  quorix::MessageID id;
  const char* identifier;
  int declared;
};

TEST(MessageIDs, every_factory_names_its_catalog_key_and_arguments) {
  const std::vector<Expected> all = {
      {DataMalformed(), "stats:tdigest:DataMalformed", 0},
      {CdfNoData(), "stats:tdigest:CdfNoData", 0},
      {IcdfInvalidQuantile(), "stats:tdigest:IcdfInvalidQuantile", 0},
      {TrimmedMeanInvalidTrim(), "stats:tdigest:TrimmedMeanInvalidTrim", 0},
      {TrimmedMeanNoData(), "stats:tdigest:TrimmedMeanNoData", 0},
      {MergeDeltaMismatch(), "stats:tdigest:MergeDeltaMismatch", 0},
      {PreMaxData(), "stats:tdigest:PreMaxData", 0},
      {PostMaxData(), "stats:tdigest:PostMaxData", 0},
      {DeltaInvalidValue("-2.500000"), "stats:tdigest:DeltaInvalidValue", 1},
      {DeltaInvalidType(), "stats:tdigest:DeltaInvalidType", 0},
      {InvalidNumInputs(), "stats:tdigest:InvalidNumInputs", 0},
      {General("NaN encountered."), "stats:tdigest:General", 1},
      {RequireClass("TDigest"), "QUORIX:class:RequireClass", 1},
      {RequireNumeric(), "QUORIX:class:RequireNumeric", 0},
      {RequireReal(), "QUORIX:class:RequireReal", 0},
      {WrongNumberOfConstructorArgs(), "QUORIX:class:WrongNumberOfConstructorArgs", 0},
  };
  for (const Expected& e : all) {
    EXPECT_EQ(e.id.identifier(), e.identifier);
    EXPECT_EQ(e.id.declaredArgs(), e.declared) << e.identifier;
    EXPECT_EQ(static_cast<int>(e.id.args().size()), e.declared) << e.identifier;
  }
  EXPECT_EQ(DeltaInvalidValue("-2.500000").args()[0], "-2.500000");
  EXPECT_EQ(RequireClass("TDigest").args()[0], "TDigest");
}

TEST(MessageIDs, catalogue_texts_cover_the_own_identifiers_and_fill_the_argument) {
  registerMessageTexts();
  registerMessageTexts();  // idempotent
  for (const char* key :
       {"DataMalformed", "CdfNoData", "IcdfInvalidQuantile", "TrimmedMeanInvalidTrim",
        "TrimmedMeanNoData", "MergeDeltaMismatch", "PreMaxData", "PostMaxData", "DeltaInvalidValue",
        "DeltaInvalidType", "InvalidNumInputs", "General"}) {
    EXPECT_TRUE(quorix::hasMessageText(std::string("stats:tdigest:") + key)) << key;
  }
  EXPECT_NE(quorix::formatMessage(DeltaInvalidValue("-2.500000")).find("-2.500000"),
            std::string::npos);
  EXPECT_EQ(quorix::formatMessage(General("Inf encountered.")), "Inf encountered.");
}

TEST(RaiseError, throws_the_keys_own_type_catchable_through_every_base) {
  try {
    raiseError<stats::tdigest::CdfNoData>(CdfNoData());
  } catch (const KeyedException<stats::tdigest::CdfNoData>& e) {
    EXPECT_EQ(e.identifier(), "stats:tdigest:CdfNoData");
    EXPECT_EQ(e.messageID().key(), "CdfNoData");
    const std::unique_ptr<quorix::ClonableException> copy(e.clone());
    EXPECT_THROW(copy->rethrow(), KeyedException<stats::tdigest::CdfNoData>);
  }
  EXPECT_THROW(raiseError<stats::tdigest::DataMalformed>(DataMalformed()), std::exception);
}

TEST(FiniteScalar, nan_then_infinity_raise_general) {
  const double inf = std::numeric_limits<double>::infinity();
  for (const double bad : {std::nan(""), inf, -inf}) {
    try {
      checkFiniteScalar(bad);
      ADD_FAILURE() << "no error for " << bad;
    } catch (const KeyedException<stats::tdigest::General>& e) {
      EXPECT_EQ(e.identifier(), "stats:tdigest:General");
      EXPECT_EQ(e.messageID().args().at(0),
                std::isnan(bad) ? "NaN encountered." : "Inf encountered.");
    }
  }
  checkFiniteScalar(0.0);
  checkFiniteScalar(-std::numeric_limits<double>::max());
}

TEST(FormatDouble, prints_six_decimals_and_grows_for_long_texts) {
  EXPECT_EQ(formatDouble(-2.5), "-2.500000");
  EXPECT_EQ(formatDouble(0.0), "0.000000");
  const std::string huge = formatDouble(1e300);
  EXPECT_EQ(huge.size(), 301u + 7u);
  EXPECT_EQ(huge.substr(0, 4), "1000");
  EXPECT_EQ(huge.substr(huge.size() - 7), ".000000");
}

// Records the identifiers sent to the warning channel while alive.
class WarningRecorder {
 public:
  WarningRecorder() {
    previous_ = quorix::setWarningSink(
        [this](const std::string& identifier, const std::string&) { seen.push_back(identifier); });
  }
  ~WarningRecorder() { quorix::setWarningSink(previous_); }
  std::vector<std::string> seen;

 private:
  quorix::WarningSink previous_;
};

TEST(CheckCapacity, warns_once_past_the_limits_pre_or_post) {
  constexpr std::uint64_t kLimit = 8000000000000000;
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  const std::string pre = "stats:tdigest:PreMaxData";
  const std::string post = "stats:tdigest:PostMaxData";
  struct Case {
    std::uint64_t total, centroids, incoming;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {kLimit - 5, 10, 5, {}},                           // exactly at the weight limit
      {kLimit - 5, 10, 6, {pre}},                        // one more unit
      {kLimit + 1, 10, 0, {post}},                       // after the operation
      {kLimit, 10, 0, {}},         {kMax, 1, 2, {pre}},  // wraps to 1: still a warning
      {2, 1, kMax, {pre}},         {0, kLimit, 0, {}},   // centroid count at the limit
      {0, kLimit + 1, 0, {post}},  {0, kLimit + 1, 1, {pre}}, {0, 1844674407370955264u, 0, {post}},
      {0, kMax, 0, {post}},
  };
  for (const Case& c : cases) {
    WarningRecorder recorder;
    checkCapacity(c.total, c.centroids, c.incoming);
    EXPECT_EQ(recorder.seen, c.expected)
        << "total " << c.total << " centroids " << c.centroids << " incoming " << c.incoming;
  }
  // The centroid limit as the check computes it.
  EXPECT_EQ(static_cast<std::uint64_t>(static_cast<double>(2305843009213693951u) * 0.8),
            1844674407370955264u);
}

}  // namespace
}  // namespace zotdigest
