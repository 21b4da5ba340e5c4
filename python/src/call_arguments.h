// The argument lists of one call into the runtime: inputs and output slots.
//
// Design note. A scalar query is a few hundred nanoseconds of work, so the
// lists avoid the heap in the common case: up to kInlineArguments inputs or
// outputs live inside the list itself. A Python float argument (the usual
// scalar query) is passed in a double scalar host array taken from a small
// per-thread pool instead of a new one; a pooled array is marked busy while
// a list holds it, so a call made while another one converts its arguments
// (a NumPy __array__ hook calling back into zotdigest) takes a different
// one. The runtime only reads its inputs, so reusing the array is safe.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include "conversion.h"
#include "quorix/host_array.h"

namespace zotdigest::python {

inline constexpr std::size_t kInlineArguments = 4;

// A sequence that keeps its first N elements inside itself and moves to the
// heap only beyond N. Elements are contiguous either way.
template <class T, std::size_t N>
class InlineVector {
 public:
  void push_back(T value) {
    if (size_ < N) {
      inline_[size_++] = std::move(value);
      return;
    }
    if (heap_.empty()) {
      heap_.reserve(2 * N);
      for (T& v : inline_) {
        heap_.push_back(std::move(v));
      }
    }
    heap_.push_back(std::move(value));
    ++size_;
  }
  std::size_t size() const noexcept { return size_; }
  T* data() noexcept { return heap_.empty() ? inline_.data() : heap_.data(); }
  const T* data() const noexcept { return heap_.empty() ? inline_.data() : heap_.data(); }

 private:
  std::array<T, N> inline_{};
  std::vector<T> heap_;
  std::size_t size_ = 0;
};

// The converted inputs of one call, in order, with the raw pointer list the
// runtime takes. Movable, not copyable.
class HostInputs {
 public:
  HostInputs() = default;
  HostInputs(HostInputs&& other) noexcept;
  HostInputs& operator=(HostInputs&&) = delete;
  HostInputs(const HostInputs&) = delete;
  HostInputs& operator=(const HostInputs&) = delete;
  ~HostInputs();

  void add(quorix::HostArrayPtr array);
  // An input owned elsewhere, kept alive by this list.
  void add(std::shared_ptr<const quorix::HostArray> array);
  // A Python value converted by toHostArray (a Python float through the
  // pool); `shape` as there.
  void addValue(pybind11::handle value, ArgumentShape* shape = nullptr);

  int count() const noexcept { return static_cast<int>(raw_.size()); }
  const quorix::HostArray* const* data() const noexcept { return raw_.data(); }

 private:
  void addDouble(double value);

  InlineVector<const quorix::HostArray*, kInlineArguments> raw_;
  InlineVector<quorix::HostArrayPtr, kInlineArguments> owned_;
  InlineVector<std::shared_ptr<const quorix::HostArray>, kInlineArguments> shared_;
  // This thread's scalar pool once the list has used it, and the entries it
  // holds there, one bit each.
  void* pool_ = nullptr;
  std::uint32_t pooled_ = 0;
};

// A double scalar holding `value` for the length of one call, from this
// thread's pool when an entry is free (see HostInputs).
class PooledScalar {
 public:
  explicit PooledScalar(double value);
  ~PooledScalar();
  PooledScalar(const PooledScalar&) = delete;
  PooledScalar& operator=(const PooledScalar&) = delete;

  const quorix::HostArray* get() const noexcept { return array_; }

 private:
  const quorix::HostArray* array_ = nullptr;
  quorix::HostArrayPtr owned_;  // when the pool had no free entry
  std::uint32_t* busy_ = nullptr;
  std::uint32_t bit_ = 0;
};

// The inputs of a call whose trailing arguments are optional: as many as the
// last argument that is not None requires, the None values before it passed
// as empty arrays (so f(x, None, s) passes three inputs and f(x) one).
HostInputs optionalInputs(std::initializer_list<pybind11::handle> values);

// Output slots of one call. Arrays the runtime stores in a slot belong to the
// caller; release() hands them over, the destructor frees any not taken.
class HostOutputs {
 public:
  // At least one slot: a method may raise a request for no output to one.
  explicit HostOutputs(std::size_t slots);
  ~HostOutputs();
  HostOutputs(const HostOutputs&) = delete;
  HostOutputs& operator=(const HostOutputs&) = delete;

  quorix::HostArray** data() noexcept { return slots_.data(); }
  // Takes output i (null if the runtime left it empty).
  quorix::HostArrayPtr release(std::size_t i);

 private:
  InlineVector<quorix::HostArray*, kInlineArguments> slots_;
};

}  // namespace zotdigest::python
