// HostArray: the runtime's one value type.
//
// An array has a class (numeric, char, logical, cell, struct or object), an
// N-d dimension vector of at least two sizes (trailing singletons beyond the
// second dropped), and column-major contiguous storage. Numeric arrays may be
// complex, with the imaginary part stored separately. Storage is owned, or a
// view of memory kept alive by a caller-supplied owner (front ends hand over
// NumPy buffers this way).
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorix/config.h"

namespace quorix {

enum class ClassID : int {
  Unknown = 0,
  Cell = 1,
  Struct = 2,
  Logical = 3,
  Char = 4,
  Void = 5,
  Double = 6,
  Single = 7,
  Int8 = 8,
  UInt8 = 9,
  Int16 = 10,
  UInt16 = 11,
  Int32 = 12,
  UInt32 = 13,
  Int64 = 14,
  UInt64 = 15,
  Function = 16,
  Object = 17,
};

using Dims = std::vector<std::size_t>;

class Object;
using ObjectHandle = std::shared_ptr<Object>;

// True for exactly the ten numeric classes (double .. uint64).
// The ten numeric classes: double, single and the eight integer classes.
// Inline, like the NaN and Inf tests: they sit on every scalar call's path.
inline constexpr bool isNumericClass(ClassID id) noexcept {
  return id >= ClassID::Double && id <= ClassID::UInt64;
}
// Bytes per element of a numeric, logical or char class; 0 for the others.
// Bytes per element of the classes with element storage; 0 for the others.
inline constexpr std::size_t elementSize(ClassID id) noexcept {
  switch (id) {
    case ClassID::Double:
    case ClassID::Int64:
    case ClassID::UInt64:
      return 8;
    case ClassID::Single:
    case ClassID::Int32:
    case ClassID::UInt32:
      return 4;
    case ClassID::Int16:
    case ClassID::UInt16:
    case ClassID::Char:
      return 2;
    case ClassID::Int8:
    case ClassID::UInt8:
    case ClassID::Logical:
      return 1;
    default:
      return 0;
  }
}
// "double", "single", "int8", ... "uint64", "logical", "char", "cell",
// "struct", "object", ...; the host's class names.
QUORIX_API std::string_view className(ClassID id) noexcept;
// The inverse of className for the numeric, logical and char classes;
// ClassID::Unknown for anything else.
QUORIX_API ClassID classFromName(std::string_view name) noexcept;

// The host NaN: quiet NaN with bit pattern 0x7FF8000000000000.
QUORIX_API double hostNaN() noexcept;
inline bool isNaN(double x) noexcept { return std::isnan(x); }
inline bool isInf(double x) noexcept { return std::isinf(x); }

// Canonical dimension vector: at least two entries, trailing ones past the
// second removed.
QUORIX_API Dims normalizeDims(Dims dims);

class QUORIX_API HostArray {
 public:
  ~HostArray();
  HostArray(const HostArray&) = delete;
  HostArray& operator=(const HostArray&) = delete;

  // --- creation ------------------------------------------------------------
  // Zero-filled numeric array (ClassID must be numeric).
  static std::unique_ptr<HostArray> createNumeric(Dims dims, ClassID id, bool complex = false);
  static std::unique_ptr<HostArray> createNumericMatrix(std::size_t rows, std::size_t cols,
                                                        ClassID id, bool complex = false);
  // Real double scalar / uint64 scalar conveniences.
  static std::unique_ptr<HostArray> createDoubleScalar(double value);
  static std::unique_ptr<HostArray> createUInt64Scalar(std::uint64_t value);
  // Numeric, logical or char array viewing memory owned elsewhere. `owner`
  // is kept alive as long as the array (it may be null when the caller
  // guarantees the lifetime). `imag` is null for real data.
  static std::unique_ptr<HostArray> createView(Dims dims, ClassID id, void* real, void* imag,
                                               std::shared_ptr<const void> owner);
  // Logical array, zero-filled.
  static std::unique_ptr<HostArray> createLogical(Dims dims);
  // 1 x n char array holding the text (one 16-bit unit per byte).
  static std::unique_ptr<HostArray> createChar(std::string_view text);
  // Cell array of empty 0x0 double arrays.
  static std::unique_ptr<HostArray> createCell(Dims dims);
  // Struct array with the given fields, each field value an empty double.
  static std::unique_ptr<HostArray> createStruct(Dims dims, std::vector<std::string> fields);
  // Object array of a class; every element starts as a null handle.
  static std::unique_ptr<HostArray> createObjectArray(std::string className, Dims dims);
  // Scalar object array holding one handle.
  static std::unique_ptr<HostArray> createScalarObject(ObjectHandle handle);

  // Hands an array back for reuse by a later creation of a small numeric
  // array on this thread, or destroys it. For callers that make many scalar
  // calls: an answer read and no longer needed costs no heap traffic.
  static void recycle(std::unique_ptr<HostArray> array) noexcept;

  // Deep copy (object handles are shared, not the objects).
  std::unique_ptr<HostArray> clone() const;
  // Numeric array of another class converted to double; a complex array
  // stays complex. Throws for non-numeric arrays.
  std::unique_ptr<HostArray> toDouble() const;

  // --- shape ---------------------------------------------------------------
  ClassID classID() const noexcept { return classId_; }
  bool isNumeric() const noexcept { return isNumericClass(classId_); }
  bool isComplex() const noexcept { return imag_ != nullptr; }
  bool isEmpty() const noexcept { return numel_ == 0; }
  std::size_t numel() const noexcept { return numel_; }
  const Dims& dims() const noexcept { return dims_; }
  std::size_t rows() const noexcept { return dims_[0]; }
  // Product of every dimension after the first.
  std::size_t columns() const noexcept {
    std::size_t n = 1;
    for (std::size_t d = 1; d < dims_.size(); ++d) {
      n *= dims_[d];
    }
    return n;
  }
  bool isScalar() const noexcept { return numel_ == 1; }
  // Changes the dimensions; false (and no change) if the element count
  // would differ.
  bool setDims(Dims dims);

  // --- numeric, logical and char data --------------------------------------
  void* realData() noexcept { return real_; }
  const void* realData() const noexcept { return real_; }
  void* imagData() noexcept { return imag_; }
  const void* imagData() const noexcept { return imag_; }
  template <class T>
  T* data() noexcept {
    return static_cast<T*>(real_);
  }
  template <class T>
  const T* data() const noexcept {
    return static_cast<const T*>(real_);
  }
  // Element i of a numeric or logical array read as a double (real part).
  double elementAsDouble(std::size_t i) const;
  // Text of a char array.
  std::string text() const;
  bool ownsData() const noexcept { return ownsData_; }

  // --- cell and struct -----------------------------------------------------
  HostArray& cell(std::size_t i);
  const HostArray& cell(std::size_t i) const;
  void setCell(std::size_t i, std::unique_ptr<HostArray> value);
  const std::vector<std::string>& fieldNames() const noexcept { return fields_; }
  // Field value of element i; throws if there is no such field.
  const HostArray& field(std::size_t i, std::string_view name) const;
  void setField(std::size_t i, std::string_view name, std::unique_ptr<HostArray> value);

  // --- objects -------------------------------------------------------------
  // Class name of an object array ("" for other arrays).
  const std::string& objectClassName() const noexcept { return objectClass_; }
  const ObjectHandle& object(std::size_t i) const;
  void setObject(std::size_t i, ObjectHandle handle);

 private:
  HostArray();
  void allocate(bool complex);

  ClassID classId_ = ClassID::Double;
  // Set by every factory.
  Dims dims_;
  std::size_t numel_ = 0;
  void* real_ = nullptr;
  void* imag_ = nullptr;
  bool ownsData_ = false;
  std::unique_ptr<std::byte[]> ownedReal_;
  std::unique_ptr<std::byte[]> ownedImag_;
  std::shared_ptr<const void> viewOwner_;
  std::vector<std::unique_ptr<HostArray>> cells_;  // cell: numel; struct: numel * fields
  std::vector<std::string> fields_;
  std::string objectClass_;
  std::vector<ObjectHandle> objects_;
  // The elements of a small numeric array (a scalar, complex ones included)
  // live here instead of on the heap: a scalar call creates several.
  alignas(8) std::byte small_[16];
};

using HostArrayPtr = std::unique_ptr<HostArray>;

}  // namespace quorix
