#include "call_arguments.h"

#include <stdexcept>
#include <string>

namespace py = pybind11;
using quorix::HostArray;
using quorix::HostArrayPtr;

namespace zotdigest::python {

namespace {

// Double scalars for Python float arguments, per thread.
struct ScalarPool {
  static constexpr std::size_t kSize = 4;
  std::array<HostArrayPtr, kSize> arrays;
  std::uint32_t busy = 0;  // one bit per entry

  ScalarPool() {
    for (HostArrayPtr& array : arrays) {
      array = HostArray::createDoubleScalar(0.0);
    }
  }
};

ScalarPool& scalarPool() {
  thread_local ScalarPool pool;
  return pool;
}

// A free entry of the pool, marked busy and holding `value`, with its bit;
// null when every entry is busy.
HostArray* takeScalar(ScalarPool& pool, double value, std::uint32_t& bit) {
  for (std::size_t i = 0; i < ScalarPool::kSize; ++i) {
    bit = std::uint32_t{1} << i;
    if ((pool.busy & bit) == 0) {
      pool.busy |= bit;
      *pool.arrays[i]->data<double>() = value;
      return pool.arrays[i].get();
    }
  }
  return nullptr;
}

}  // namespace

PooledScalar::PooledScalar(double value) {
  ScalarPool& pool = scalarPool();
  array_ = takeScalar(pool, value, bit_);
  if (array_ != nullptr) {
    busy_ = &pool.busy;
    return;
  }
  owned_ = HostArray::createDoubleScalar(value);
  array_ = owned_.get();
}

PooledScalar::~PooledScalar() {
  if (busy_ != nullptr) {
    *busy_ &= ~bit_;
  }
}

HostInputs::HostInputs(HostInputs&& other) noexcept
    : raw_(std::move(other.raw_)),
      owned_(std::move(other.owned_)),
      shared_(std::move(other.shared_)),
      pool_(std::exchange(other.pool_, nullptr)),
      pooled_(std::exchange(other.pooled_, 0)) {}

HostInputs::~HostInputs() {
  if (pool_ != nullptr) {
    static_cast<ScalarPool*>(pool_)->busy &= ~pooled_;
  }
}

void HostInputs::add(HostArrayPtr array) {
  raw_.push_back(array.get());
  owned_.push_back(std::move(array));
}

void HostInputs::add(std::shared_ptr<const HostArray> array) {
  raw_.push_back(array.get());
  shared_.push_back(std::move(array));
}

void HostInputs::addDouble(double value) {
  // The pool is reached once per list: a thread_local of a shared library
  // costs a call to look up.
  if (pool_ == nullptr) {
    pool_ = &scalarPool();
  }
  std::uint32_t bit = 0;
  if (const HostArray* const pooled = takeScalar(*static_cast<ScalarPool*>(pool_), value, bit)) {
    pooled_ |= bit;
    raw_.push_back(pooled);
    return;
  }
  add(HostArray::createDoubleScalar(value));
}

void HostInputs::addValue(py::handle value, ArgumentShape* shape) {
  PyObject* const p = value.ptr();
  if (PyFloat_CheckExact(p)) {
    if (shape != nullptr) {
      *shape = ArgumentShape{ArgumentShape::Kind::PythonNumber, 0, 1};
    }
    addDouble(PyFloat_AS_DOUBLE(p));
    return;
  }
  add(toHostArray(value, shape));
}

HostInputs optionalInputs(std::initializer_list<py::handle> values) {
  std::size_t count = 0;
  std::size_t position = 0;
  for (const py::handle value : values) {
    ++position;
    if (!value.is_none()) {
      count = position;
    }
  }
  HostInputs inputs;
  for (const py::handle value : values) {
    if (count-- == 0) {
      break;
    }
    inputs.addValue(value);
  }
  return inputs;
}

HostOutputs::HostOutputs(std::size_t slots) {
  for (std::size_t i = 0; i < (slots == 0 ? 1 : slots); ++i) {
    slots_.push_back(nullptr);
  }
}

HostOutputs::~HostOutputs() {
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    delete slots_.data()[i];
  }
}

HostArrayPtr HostOutputs::release(std::size_t i) {
  if (i >= slots_.size()) {
    throw std::out_of_range("zotdigest: no output slot " + std::to_string(i));
  }
  HostArrayPtr taken(slots_.data()[i]);
  slots_.data()[i] = nullptr;
  return taken;
}

}  // namespace zotdigest::python
