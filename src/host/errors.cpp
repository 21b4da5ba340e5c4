// Message identifiers, the capacity check and the catalogue texts.
#include "host/errors.h"

#include <cstdarg>
#include <cstdio>
#include <utility>
#include <vector>

#include "quorix/host_array.h"

namespace zotdigest {
namespace {

constexpr const char* kCatalog = "stats:tdigest";
constexpr const char* kClassCatalog = "QUORIX:class";

// Weight limit and the centroid limit's source value.
constexpr std::uint64_t kMaxWeight = UINT64_C(8000000000000000);
constexpr std::uint64_t kCentroidLimitBase = UINT64_C(2305843009213693951);

quorix::MessageID own(const char* key) { return quorix::MessageID(kCatalog, key, 0); }

quorix::MessageID own(const char* key, std::string arg) {
  return quorix::MessageID(kCatalog, key, 1, {std::move(arg)});
}

quorix::MessageID hostClass(const char* key) { return quorix::MessageID(kClassCatalog, key, 0); }

__attribute__((format(printf, 1, 2))) std::string formatText(const char* format, ...) {
  std::string text(32, '\0');
  for (;;) {
    std::va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    if (n < 0) return std::string();
    const auto needed = static_cast<std::size_t>(n);
    if (needed < text.size()) {
      text.resize(needed);
      return text;
    }
    text.resize(needed + 1);  // room for the terminator, then format again
  }
}

}  // namespace

quorix::MessageID DataMalformed() { return own("DataMalformed"); }
quorix::MessageID CdfNoData() { return own("CdfNoData"); }
quorix::MessageID IcdfInvalidQuantile() { return own("IcdfInvalidQuantile"); }
quorix::MessageID TrimmedMeanInvalidTrim() { return own("TrimmedMeanInvalidTrim"); }
quorix::MessageID TrimmedMeanNoData() { return own("TrimmedMeanNoData"); }
quorix::MessageID MergeDeltaMismatch() { return own("MergeDeltaMismatch"); }
quorix::MessageID PreMaxData() { return own("PreMaxData"); }
quorix::MessageID PostMaxData() { return own("PostMaxData"); }
quorix::MessageID DeltaInvalidValue(const std::string& value) {
  return own("DeltaInvalidValue", value);
}
quorix::MessageID DeltaInvalidType() { return own("DeltaInvalidType"); }
quorix::MessageID InvalidNumInputs() { return own("InvalidNumInputs"); }
quorix::MessageID General(const std::string& what) { return own("General", what); }
quorix::MessageID RequireClass(const char* className) {
  return quorix::MessageID(kClassCatalog, "RequireClass", 1,
                           {std::string(className != nullptr ? className : "")});
}
quorix::MessageID RequireNumeric() { return hostClass("RequireNumeric"); }
quorix::MessageID RequireReal() { return hostClass("RequireReal"); }
quorix::MessageID WrongNumberOfConstructorArgs() {
  return hostClass("WrongNumberOfConstructorArgs");
}

void checkCapacity(std::uint64_t totalWeight, std::uint64_t centroidCount,
                   std::uint64_t incomingWeight) {
  // 1844674407370955264: the product rounds to a multiple of 256 in double.
  const auto centroidLimit =
      static_cast<std::uint64_t>(static_cast<double>(kCentroidLimitBase) * 0.8);
  const std::uint64_t combined = totalWeight + incomingWeight;
  const bool wrapped = combined < totalWeight || combined < incomingWeight;
  // Both centroid limits are tested, though the second is the tighter.
  const bool fits = !wrapped && combined <= kMaxWeight && centroidCount <= centroidLimit &&
                    centroidCount <= kMaxWeight;
  if (fits) return;
  quorix::issueHostWarning(incomingWeight != 0 ? PreMaxData() : PostMaxData());
}

std::string formatDouble(double value) { return formatText("%f", value); }

void checkFiniteScalar(double value) {
  if (quorix::isNaN(value)) raiseError<stats::tdigest::General>(General("NaN encountered."));
  if (quorix::isInf(value)) raiseError<stats::tdigest::General>(General("Inf encountered."));
}

void registerMessageTexts() {
  static const std::pair<const char*, const char*> kTexts[] = {
      {"DataMalformed", "The AVL tree summary is not a well-formed digest summary matrix."},
      {"CdfNoData", "The cumulative distribution needs a digest that holds data."},
      {"IcdfInvalidQuantile", "Quantiles for the inverse distribution must lie in [0, 1]."},
      {"TrimmedMeanInvalidTrim", "The trim fraction must lie in [0, 0.5)."},
      {"TrimmedMeanNoData", "The trimmed mean needs a digest that holds data."},
      {"MergeDeltaMismatch",
       "Digests can only be combined when their Delta values are identical; centroid "
       "listings need two outputs."},
      {"PreMaxData",
       "The data to be added would take the digest past its weight or centroid capacity; "
       "counts may no longer be exact."},
      {"PostMaxData",
       "The digest has passed its weight or centroid capacity; counts may no longer be exact."},
      {"DeltaInvalidValue", "Delta must be greater than 0, but {0} was given."},
      {"DeltaInvalidType", "Delta must be a real double scalar."},
      {"InvalidNumInputs", "The digest merge takes one or two inputs."},
      {"General", "{0}"},
  };
  for (const auto& [key, text] : kTexts) {
    quorix::registerMessageText(std::string(kCatalog) + ":" + key, text);
  }
}

}  // namespace zotdigest
