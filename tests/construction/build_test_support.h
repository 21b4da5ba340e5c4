// Shared helpers of the bulk-construction tests: host arrays of each element
// type, seeded sample data and a warning recorder. Digests on seeded streams
// and their comparison come from the core suite's helpers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "core/core_checks.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"

namespace zotdigest::testing {

using ElementTypes =
    ::testing::Types<double, float, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t,
                     std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;

template <class T>
constexpr quorix::ClassID classOf() {
  using quorix::ClassID;
  using std::is_same_v;
  return is_same_v<T, double>          ? ClassID::Double
         : is_same_v<T, float>         ? ClassID::Single
         : is_same_v<T, std::int8_t>   ? ClassID::Int8
         : is_same_v<T, std::uint8_t>  ? ClassID::UInt8
         : is_same_v<T, std::int16_t>  ? ClassID::Int16
         : is_same_v<T, std::uint16_t> ? ClassID::UInt16
         : is_same_v<T, std::int32_t>  ? ClassID::Int32
         : is_same_v<T, std::uint32_t> ? ClassID::UInt32
         : is_same_v<T, std::int64_t>  ? ClassID::Int64
                                       : ClassID::UInt64;
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

// n values from a fixed seed: normal with fractions for the floating types,
// uniform whole numbers in the type's range within +-10^6 for the others.
template <class T>
std::vector<T> sampleValues(std::size_t n, std::uint64_t seed = 42) {
  std::mt19937_64 rng(seed);
  std::vector<T> v(n);
  if constexpr (std::is_floating_point_v<T>) {
    std::normal_distribution<double> dist(5.0, 3.0);
    for (auto& x : v) x = static_cast<T>(dist(rng));
  } else {
    std::uniform_int_distribution<std::int64_t> dist(
        std::max<std::int64_t>(std::numeric_limits<T>::min(), -1000000),
        static_cast<std::int64_t>(std::min<std::uint64_t>(std::numeric_limits<T>::max(), 1000000)));
    for (auto& x : v) x = static_cast<T>(dist(rng));
  }
  return v;
}

// Records the identifiers of warnings issued while it lives.
class WarningRecorder {
 public:
  WarningRecorder()
      : previous_(
            quorix::setWarningSink([this](const std::string& id, auto&) { ids_.push_back(id); })) {}
  ~WarningRecorder() { quorix::setWarningSink(previous_); }
  const std::vector<std::string>& ids() const { return ids_; }

 private:
  std::vector<std::string> ids_;
  quorix::WarningSink previous_;
};

}  // namespace zotdigest::testing
