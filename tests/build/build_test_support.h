// Shared helpers of the bulk-construction tests: host arrays of each element
// type, expected-error checks, a warning recorder and digest comparisons.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "core/tdigest.h"
#include "host/errors.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"

namespace zotdigest::testing {

using ElementTypes = ::testing::Types<double, float, std::int8_t, std::uint8_t, std::int16_t,
                                      std::uint16_t, std::int32_t, std::uint32_t, std::int64_t,
                                      std::uint64_t>;

template <class T>
constexpr quorix::ClassID classOf() {
  using quorix::ClassID;
  if constexpr (std::is_same_v<T, double>) return ClassID::Double;
  else if constexpr (std::is_same_v<T, float>) return ClassID::Single;
  else if constexpr (std::is_same_v<T, std::int8_t>) return ClassID::Int8;
  else if constexpr (std::is_same_v<T, std::uint8_t>) return ClassID::UInt8;
  else if constexpr (std::is_same_v<T, std::int16_t>) return ClassID::Int16;
  else if constexpr (std::is_same_v<T, std::uint16_t>) return ClassID::UInt16;
  else if constexpr (std::is_same_v<T, std::int32_t>) return ClassID::Int32;
  else if constexpr (std::is_same_v<T, std::uint32_t>) return ClassID::UInt32;
  else if constexpr (std::is_same_v<T, std::int64_t>) return ClassID::Int64;
  else return ClassID::UInt64;
}

template <class T>
quorix::HostArrayPtr makeArray(const std::vector<T>& values, quorix::Dims dims) {
  auto a = quorix::HostArray::createNumeric(std::move(dims), classOf<T>());
  std::copy(values.begin(), values.end(), a->template data<T>());
  return a;
}

template <class T>
quorix::HostArrayPtr makeRow(const std::vector<T>& values) {
  return makeArray(values, {1, values.size()});
}

// n values spread over a range every element type can hold, from a fixed
// seed; floating types get fractional values.
template <class T>
std::vector<T> sampleValues(std::size_t n, std::uint64_t seed = 42) {
  std::mt19937_64 rng(seed);
  std::vector<T> v(n);
  if constexpr (std::is_floating_point_v<T>) {
    std::normal_distribution<double> dist(5.0, 3.0);
    for (auto& x : v) x = static_cast<T>(dist(rng));
  } else {
    const auto lo = static_cast<std::int64_t>(std::max<long double>(
        std::numeric_limits<T>::min(), -1000000.0L));
    const auto hi = static_cast<std::int64_t>(std::min<long double>(
        std::numeric_limits<T>::max(), 1000000.0L));
    std::uniform_int_distribution<std::int64_t> dist(lo, hi);
    for (auto& x : v) x = static_cast<T>(dist(rng));
  }
  return v;
}

// Runs f and expects it to raise the KeyedException of Tag with identifier
// `id`; returns the message ID for further checks of its arguments.
template <class Tag, class F>
quorix::MessageID expectKeyedError(F&& f, const std::string& id) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    EXPECT_EQ(e.identifier(), id);
    EXPECT_EQ(typeid(e), typeid(KeyedException<Tag>)) << "caught " << typeid(e).name();
    return e.messageID();
  }
  ADD_FAILURE() << "no error raised, expected " << id;
  return {};
}

// Runs f and expects a host error with identifier `id` of any type.
template <class F>
void expectHostError(F&& f, const std::string& id) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    EXPECT_EQ(e.identifier(), id);
    return;
  }
  ADD_FAILURE() << "no error raised, expected " << id;
}

// Records the identifiers of warnings issued while it lives.
class WarningRecorder {
 public:
  WarningRecorder()
      : previous_(quorix::setWarningSink(
            [this](const std::string& id, const std::string&) { ids_.push_back(id); })) {}
  ~WarningRecorder() { quorix::setWarningSink(previous_); }
  WarningRecorder(const WarningRecorder&) = delete;
  WarningRecorder& operator=(const WarningRecorder&) = delete;

  const std::vector<std::string>& ids() const { return ids_; }

 private:
  std::vector<std::string> ids_;
  quorix::WarningSink previous_;
};

inline std::vector<Centroid> centroidsOf(const TDigest& d) {
  std::vector<Centroid> out;
  d.tree.listCentroids(out);
  return out;
}

inline void expectSameCentroids(const TDigest& a, const TDigest& b) {
  const auto ca = centroidsOf(a);
  const auto cb = centroidsOf(b);
  ASSERT_EQ(ca.size(), cb.size());
  for (std::size_t i = 0; i < ca.size(); ++i) {
    EXPECT_EQ(ca[i].mean, cb[i].mean) << "centroid " << i;
    EXPECT_EQ(ca[i].count, cb[i].count) << "centroid " << i;
  }
  EXPECT_EQ(a.totalWeight, b.totalWeight);
}

// Sum of mean * count over the centroids: the sum of the values added when
// no centroid merged two values (or exactly the weighted sum when they did).
inline double weightedSum(const TDigest& d) {
  double s = 0.0;
  for (const auto& c : centroidsOf(d)) s += c.mean * toDouble(c.count);
  return s;
}

}  // namespace zotdigest::testing
