// HostArray: storage, shapes and conversions.
//
// Numeric, logical and char arrays keep their elements in one contiguous
// column-major block (plus a second block for the imaginary part of a
// complex array), either owned here or viewed and kept alive through
// `viewOwner_`. Owned blocks are never empty allocations: a complex array
// with no elements still has a non-null imaginary pointer, because the
// complex flag is that pointer. Cell and struct arrays keep one child array
// per element (struct: per element and field, element-major); object arrays
// keep shared handles.
//
// Element types: double, float, int8..uint64 for the numeric classes; one
// byte (0 or 1) per logical; one 16-bit unit per char.
#include "quorix/host_array.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "quorix/messages.h"
#include "quorix/object_system.h"

namespace quorix {

namespace {

[[noreturn]] void raiseArrayError(const char* key, std::vector<std::string> args = {}) {
  const int count = static_cast<int>(args.size());
  raiseHostError(MessageID("QUORIX:array", key, count, std::move(args)));
}

[[noreturn]] void raiseWrongClass(ClassID id) {
  raiseArrayError("WrongClass", {std::string(className(id))});
}

void checkIndex(std::size_t i, std::size_t numel) {
  if (i >= numel) {
    raiseArrayError("BadIndex", {std::to_string(i), std::to_string(numel)});
  }
}

std::size_t checkedProduct(const Dims& dims) {
  std::size_t n = 1;
  for (const std::size_t d : dims) {
    if (__builtin_mul_overflow(n, d, &n)) {
      raiseArrayError("TooLarge");
    }
  }
  return n;
}

// Calls f(std::type_identity<T>{}) with the element type of a numeric class.
template <class F>
decltype(auto) visitNumeric(ClassID id, F&& f) {
  switch (id) {
    case ClassID::Double:
      return f(std::type_identity<double>{});
    case ClassID::Single:
      return f(std::type_identity<float>{});
    case ClassID::Int8:
      return f(std::type_identity<std::int8_t>{});
    case ClassID::UInt8:
      return f(std::type_identity<std::uint8_t>{});
    case ClassID::Int16:
      return f(std::type_identity<std::int16_t>{});
    case ClassID::UInt16:
      return f(std::type_identity<std::uint16_t>{});
    case ClassID::Int32:
      return f(std::type_identity<std::int32_t>{});
    case ClassID::UInt32:
      return f(std::type_identity<std::uint32_t>{});
    case ClassID::Int64:
      return f(std::type_identity<std::int64_t>{});
    case ClassID::UInt64:
      return f(std::type_identity<std::uint64_t>{});
    default:
      raiseWrongClass(id);
  }
}

bool hasElementStorage(ClassID id) noexcept {
  return isNumericClass(id) || id == ClassID::Logical || id == ClassID::Char;
}

}  // namespace

// --- classes and values --------------------------------------------------------

std::string_view className(ClassID id) noexcept {
  switch (id) {
    case ClassID::Cell:
      return "cell";
    case ClassID::Struct:
      return "struct";
    case ClassID::Logical:
      return "logical";
    case ClassID::Char:
      return "char";
    case ClassID::Void:
      return "void";
    case ClassID::Double:
      return "double";
    case ClassID::Single:
      return "single";
    case ClassID::Int8:
      return "int8";
    case ClassID::UInt8:
      return "uint8";
    case ClassID::Int16:
      return "int16";
    case ClassID::UInt16:
      return "uint16";
    case ClassID::Int32:
      return "int32";
    case ClassID::UInt32:
      return "uint32";
    case ClassID::Int64:
      return "int64";
    case ClassID::UInt64:
      return "uint64";
    case ClassID::Function:
      return "function_handle";
    case ClassID::Object:
      return "object";
    case ClassID::Unknown:
      break;
  }
  return "unknown";
}

ClassID classFromName(std::string_view name) noexcept {
  for (int v = static_cast<int>(ClassID::Logical); v <= static_cast<int>(ClassID::UInt64); ++v) {
    const auto id = static_cast<ClassID>(v);
    if (id != ClassID::Void && className(id) == name) {
      return id;
    }
  }
  return ClassID::Unknown;
}

double hostNaN() noexcept { return std::bit_cast<double>(std::uint64_t{0x7FF8000000000000ull}); }

Dims normalizeDims(Dims dims) {
  // Missing sizes are ones, so the element count is kept: {} is 1x1, {n}
  // is n x 1.
  while (dims.size() < 2) {
    dims.push_back(1);
  }
  while (dims.size() > 2 && dims.back() == 1) {
    dims.pop_back();
  }
  return dims;
}

// --- construction ------------------------------------------------------------

HostArray::HostArray() = default;
HostArray::~HostArray() = default;

void HostArray::allocate(bool complex) {
  const std::size_t size = elementSize(classId_);
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(numel_, size, &bytes)) {
    raiseArrayError("TooLarge");
  }
  // At least one byte, so that the pointers (and so the complex flag) are
  // set even for an empty array.
  bytes = std::max<std::size_t>(bytes, 1);
  if (bytes <= sizeof(small_) / 2) {
    std::memset(small_, 0, sizeof(small_));
    real_ = small_;
    if (complex) {
      imag_ = small_ + sizeof(small_) / 2;
    }
  } else {
    ownedReal_.reset(new std::byte[bytes]());
    real_ = ownedReal_.get();
    if (complex) {
      ownedImag_.reset(new std::byte[bytes]());
      imag_ = ownedImag_.get();
    }
  }
  ownsData_ = true;
}

std::unique_ptr<HostArray> HostArray::createNumeric(Dims dims, ClassID id, bool complex) {
  if (!isNumericClass(id)) {
    raiseWrongClass(id);
  }
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = id;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->allocate(complex);
  return a;
}

namespace {

// Recycled small numeric arrays of one thread: plain numeric arrays whose
// elements live inside the array, so that reuse needs no allocation at all.
// Plain data, so that reaching it costs one thread-local look-up and no
// initialisation check; a separate object empties it at thread exit.
struct RecycledArrays {
  static constexpr std::size_t kCapacity = 8;
  HostArray* arrays[kCapacity];
  std::size_t count;
  bool cleanupRegistered;
  // Set at thread exit: arrays freed later (by destructors running at thread
  // or process exit) are simply deleted.
  bool gone;
};

thread_local RecycledArrays recycled{};

struct RecycledArraysCleanup {
  ~RecycledArraysCleanup() {
    recycled.gone = true;
    while (recycled.count > 0) {
      delete recycled.arrays[--recycled.count];
    }
  }
};

HostArray* takeRecycled() noexcept {
  RecycledArrays& pool = recycled;
  return pool.count == 0 ? nullptr : pool.arrays[--pool.count];
}

bool keepRecycled(HostArray* array) noexcept {
  RecycledArrays& pool = recycled;
  if (pool.gone || pool.count == RecycledArrays::kCapacity) {
    return false;
  }
  if (!pool.cleanupRegistered) {
    pool.cleanupRegistered = true;
    thread_local RecycledArraysCleanup cleanup;
    static_cast<void>(cleanup);
  }
  pool.arrays[pool.count++] = array;
  return true;
}

}  // namespace

std::unique_ptr<HostArray> HostArray::createNumericMatrix(std::size_t rows, std::size_t cols,
                                                          ClassID id, bool complex) {
  if (!isNumericClass(id)) {
    raiseWrongClass(id);
  }
  // Two sizes are already in normal form; answers to scalar calls come this
  // way, so the general path's passes over the sizes are skipped.
  std::size_t numel = 0;
  if (__builtin_mul_overflow(rows, cols, &numel)) {
    raiseArrayError("TooLarge");
  }
  std::unique_ptr<HostArray> a;
  // Arrays whose elements fit inside them (see allocate) come from the pool.
  if (numel <= sizeof(small_) / 2 && numel * elementSize(id) <= sizeof(small_) / 2) {
    a.reset(takeRecycled());
  }
  if (a) {
    a->dims_.resize(2);  // within the capacity it had
    a->dims_[0] = rows;
    a->dims_[1] = cols;
    a->imag_ = nullptr;
  } else {
    a.reset(new HostArray);
    a->dims_ = Dims{rows, cols};
  }
  a->classId_ = id;
  a->numel_ = numel;
  a->allocate(complex);
  return a;
}

void HostArray::recycle(std::unique_ptr<HostArray> array) noexcept {
  // Only arrays that are nothing but small numeric storage: every other
  // member is then in its initial state, as a reused array must be.
  if (!array || !isNumericClass(array->classId_) || array->real_ != array->small_ ||
      array->dims_.capacity() < 2) {
    return;
  }
  if (keepRecycled(array.get())) {
    array.release();
  }
}

std::unique_ptr<HostArray> HostArray::createDoubleScalar(double value) {
  auto a = createNumericMatrix(1, 1, ClassID::Double);
  *a->data<double>() = value;
  return a;
}

std::unique_ptr<HostArray> HostArray::createUInt64Scalar(std::uint64_t value) {
  auto a = createNumericMatrix(1, 1, ClassID::UInt64);
  *a->data<std::uint64_t>() = value;
  return a;
}

std::unique_ptr<HostArray> HostArray::createView(Dims dims, ClassID id, void* real, void* imag,
                                                 std::shared_ptr<const void> owner) {
  if (!hasElementStorage(id) || real == nullptr || (imag != nullptr && !isNumericClass(id))) {
    raiseArrayError("BadView");
  }
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = id;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->real_ = real;
  a->imag_ = imag;
  a->ownsData_ = false;
  a->viewOwner_ = std::move(owner);
  return a;
}

std::unique_ptr<HostArray> HostArray::createLogical(Dims dims) {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = ClassID::Logical;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->allocate(false);
  return a;
}

std::unique_ptr<HostArray> HostArray::createChar(std::string_view text) {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = ClassID::Char;
  a->dims_ = Dims{1, text.size()};
  a->numel_ = text.size();
  a->allocate(false);
  char16_t* units = a->data<char16_t>();
  for (std::size_t i = 0; i < text.size(); ++i) {
    units[i] = static_cast<char16_t>(static_cast<unsigned char>(text[i]));
  }
  return a;
}

std::unique_ptr<HostArray> HostArray::createCell(Dims dims) {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = ClassID::Cell;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->cells_.reserve(a->numel_);
  for (std::size_t i = 0; i < a->numel_; ++i) {
    a->cells_.push_back(createNumericMatrix(0, 0, ClassID::Double));
  }
  return a;
}

std::unique_ptr<HostArray> HostArray::createStruct(Dims dims, std::vector<std::string> fields) {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = ClassID::Struct;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->fields_ = std::move(fields);
  std::size_t slots = 0;
  if (__builtin_mul_overflow(a->numel_, a->fields_.size(), &slots)) {
    raiseArrayError("TooLarge");
  }
  a->cells_.reserve(slots);
  for (std::size_t i = 0; i < slots; ++i) {
    a->cells_.push_back(createNumericMatrix(0, 0, ClassID::Double));
  }
  return a;
}

std::unique_ptr<HostArray> HostArray::createObjectArray(std::string className, Dims dims) {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = ClassID::Object;
  a->dims_ = normalizeDims(std::move(dims));
  a->numel_ = checkedProduct(a->dims_);
  a->objectClass_ = std::move(className);
  a->objects_.resize(a->numel_);
  return a;
}

std::unique_ptr<HostArray> HostArray::createScalarObject(ObjectHandle handle) {
  if (!handle) {
    raiseArrayError("NullValue");
  }
  auto a = createObjectArray(handle->className(), Dims{1, 1});
  a->objects_[0] = std::move(handle);
  return a;
}

std::unique_ptr<HostArray> HostArray::clone() const {
  std::unique_ptr<HostArray> a(new HostArray);
  a->classId_ = classId_;
  a->dims_ = dims_;
  a->numel_ = numel_;
  if (hasElementStorage(classId_)) {
    // A clone owns its copy, whether this array owns or views its data.
    a->allocate(isComplex());
    const std::size_t bytes = numel_ * elementSize(classId_);
    if (bytes != 0) {
      std::memcpy(a->real_, real_, bytes);
      if (isComplex()) {
        std::memcpy(a->imag_, imag_, bytes);
      }
    }
  }
  a->cells_.reserve(cells_.size());
  for (const auto& c : cells_) {
    a->cells_.push_back(c->clone());
  }
  a->fields_ = fields_;
  a->objectClass_ = objectClass_;
  a->objects_ = objects_;
  return a;
}

std::unique_ptr<HostArray> HostArray::toDouble() const {
  if (!isNumeric()) {
    raiseArrayError("NotNumeric", {std::string(className(classId_))});
  }
  auto out = createNumeric(dims_, ClassID::Double, isComplex());
  visitNumeric(classId_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const auto convert = [this](const void* from, double* to) {
      const T* src = static_cast<const T*>(from);
      for (std::size_t i = 0; i < numel_; ++i) {
        to[i] = static_cast<double>(src[i]);
      }
    };
    convert(real_, out->data<double>());
    if (isComplex()) {
      convert(imag_, static_cast<double*>(out->imagData()));
    }
  });
  return out;
}

// --- shape ---------------------------------------------------------------------

bool HostArray::setDims(Dims dims) {
  Dims normalized = normalizeDims(std::move(dims));
  std::size_t n = 1;
  for (const std::size_t d : normalized) {
    if (__builtin_mul_overflow(n, d, &n)) {
      return false;
    }
  }
  if (n != numel_) {
    return false;
  }
  dims_ = std::move(normalized);
  return true;
}

// --- element access --------------------------------------------------------------

double HostArray::elementAsDouble(std::size_t i) const {
  if (classId_ == ClassID::Logical) {
    checkIndex(i, numel_);
    return static_cast<const std::uint8_t*>(real_)[i] != 0 ? 1.0 : 0.0;
  }
  if (!isNumeric()) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  return visitNumeric(classId_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    return static_cast<double>(static_cast<const T*>(real_)[i]);
  });
}

std::string HostArray::text() const {
  if (classId_ != ClassID::Char) {
    raiseWrongClass(classId_);
  }
  std::string out(numel_, '\0');
  const char16_t* units = data<char16_t>();
  for (std::size_t i = 0; i < numel_; ++i) {
    // Text enters as one unit per byte; anything wider is cut to its low byte.
    out[i] = static_cast<char>(units[i] & 0xFF);
  }
  return out;
}

HostArray& HostArray::cell(std::size_t i) {
  return const_cast<HostArray&>(static_cast<const HostArray&>(*this).cell(i));
}

const HostArray& HostArray::cell(std::size_t i) const {
  if (classId_ != ClassID::Cell) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  return *cells_[i];
}

void HostArray::setCell(std::size_t i, std::unique_ptr<HostArray> value) {
  if (classId_ != ClassID::Cell) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  if (!value) {
    raiseArrayError("NullValue");
  }
  cells_[i] = std::move(value);
}

const HostArray& HostArray::field(std::size_t i, std::string_view name) const {
  if (classId_ != ClassID::Struct) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  const auto it = std::find(fields_.begin(), fields_.end(), name);
  if (it == fields_.end()) {
    raiseArrayError("NoSuchField", {std::string(name)});
  }
  const auto f = static_cast<std::size_t>(it - fields_.begin());
  return *cells_[i * fields_.size() + f];
}

void HostArray::setField(std::size_t i, std::string_view name, std::unique_ptr<HostArray> value) {
  if (classId_ != ClassID::Struct) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  if (!value) {
    raiseArrayError("NullValue");
  }
  auto it = std::find(fields_.begin(), fields_.end(), name);
  if (it == fields_.end()) {
    // A new field: every element gets it, as an empty double, then this
    // element's value is set below.
    // Everything that can fail is allocated before the old layout is
    // touched.
    const std::size_t oldCount = fields_.size();
    std::vector<std::unique_ptr<HostArray>> grown(numel_ * (oldCount + 1));
    for (std::size_t e = 0; e < numel_; ++e) {
      grown[e * (oldCount + 1) + oldCount] = createNumericMatrix(0, 0, ClassID::Double);
    }
    fields_.reserve(oldCount + 1);
    for (std::size_t e = 0; e < numel_; ++e) {
      for (std::size_t f = 0; f < oldCount; ++f) {
        grown[e * (oldCount + 1) + f] = std::move(cells_[e * oldCount + f]);
      }
    }
    cells_ = std::move(grown);
    fields_.emplace_back(name);
    it = fields_.end() - 1;
  }
  const auto f = static_cast<std::size_t>(it - fields_.begin());
  cells_[i * fields_.size() + f] = std::move(value);
}

const ObjectHandle& HostArray::object(std::size_t i) const {
  if (classId_ != ClassID::Object) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  return objects_[i];
}

void HostArray::setObject(std::size_t i, ObjectHandle handle) {
  if (classId_ != ClassID::Object) {
    raiseWrongClass(classId_);
  }
  checkIndex(i, numel_);
  // Every element of an object array is of the array's class.
  if (handle && handle->className() != objectClass_) {
    raiseArrayError("MixedClasses", {handle->className(), objectClass_});
  }
  objects_[i] = std::move(handle);
}

}  // namespace quorix
