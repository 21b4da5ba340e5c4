// Input arrays: which host arrays may serve as data and how each element
// becomes a double. The ten element types have one instantiation each of the
// construction templates; addArrayDispatch selects it by class identifier.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// One element as the value handed to add: exact for every element type but
// the 64-bit integers, which round to the nearest double (uint64 as an
// unsigned magnitude, never negative).
template <class T>
inline double elementValue(T element) noexcept {
  return static_cast<double>(element);
}

// Calls f(std::type_identity<T>{}) with the element type T of a data class
// (double, single, int8 .. uint64); does nothing for any other class. The
// one place a class identifier selects an element type.
template <class F>
void visitElementType(quorix::ClassID id, F&& f) {
  using quorix::ClassID;
  switch (id) {
    case ClassID::Double: return f(std::type_identity<double>{});
    case ClassID::Single: return f(std::type_identity<float>{});
    case ClassID::Int8: return f(std::type_identity<std::int8_t>{});
    case ClassID::UInt8: return f(std::type_identity<std::uint8_t>{});
    case ClassID::Int16: return f(std::type_identity<std::int16_t>{});
    case ClassID::UInt16: return f(std::type_identity<std::uint16_t>{});
    case ClassID::Int32: return f(std::type_identity<std::int32_t>{});
    case ClassID::UInt32: return f(std::type_identity<std::uint32_t>{});
    case ClassID::Int64: return f(std::type_identity<std::int64_t>{});
    case ClassID::UInt64: return f(std::type_identity<std::uint64_t>{});
    default: return;
  }
}

// Raises "QUORIX:class:RequireReal" unless the array is numeric and real
// (one identifier for non-numeric and complex data).
void checkData(const quorix::HostArray& data);

// Adds every element of a validated real numeric array of element type T to
// the digest: serially in blocks of 10000 with an interrupt check after each
// full block, or in parallel on TBB workers. Compresses afterwards and runs
// the capacity checks before and after. NaN elements are dropped by add.
template <class T>
void addArray(const quorix::HostArray& data, TDigest& digest, bool serial);

// addArray for the array's own element type; other classes add nothing.
void addArrayDispatch(const quorix::HostArray& data, TDigest& digest, bool serial);

}  // namespace zotdigest
