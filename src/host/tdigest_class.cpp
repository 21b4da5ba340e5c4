// Class "TDigest": its members as the object system sees them.
//
// Properties. The four properties are registered through one template over
// the native value type that the accessors of summary/properties.h
// exchange: the int64 summary matrix, double (Delta) and uint64
// (NumDataPoints, NumCentroids). A property value arriving from the host is
// converted at this edge, so the accessors only ever see native values:
//   - "double scalar": any real numeric scalar, converted to double;
//     anything else raises "stats:tdigest:DeltaInvalidType" (Delta is the
//     class's one double property, and that identifier already says "not a
//     real double scalar"). The value test (> 0) stays in setDelta.
//   - "uint64 scalar": a real numeric scalar holding a whole number in
//     [0, 2^64); anything else raises "QUORIX:class:RequireClass" naming the
//     type "uint64 scalar".
//   - "int64 matrix": handed to the decoder as it stands; the decoder
//     refuses anything but a real 4-row int64 matrix with
//     "stats:tdigest:DataMalformed".
// Access codes and attribute words are passed to the object system as they
// are: methods and reading at level 0, the summary and every setter at the
// restricted level 2.
//
// Methods. Every overload is a MethodWithAnswer or MethodNoAnswer around
// one plain work function; "add" has a typed pair per element type, in the
// element-type order below, so that dispatch by the data's class reaches
// the instantiation for that class.
#include "host/tdigest_class.h"

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>

#include "host/errors.h"
#include "host/merge_routines.h"
#include "host/method_adapters.h"
#include "host/method_routines.h"
#include "summary/properties.h"

namespace zotdigest {

namespace {

using quorix::ClassDefinition;
using quorix::HostArray;
using quorix::HostArrayPtr;

// --- property values -------------------------------------------------------

// Conversion between a host value and the native value of one property
// kind. Native: what the getter returns; Arg: what the setter takes.
template <class Native>
struct PropertyValue;

template <>
struct PropertyValue<HostArrayPtr> {
  using Arg = const HostArray&;
  static HostArrayPtr toHost(HostArrayPtr matrix) { return matrix; }
  // The decoder makes the format's checks itself.
  static const HostArray& fromHost(const HostArray& value) { return value; }
};

template <>
struct PropertyValue<double> {
  using Arg = double;
  static HostArrayPtr toHost(double value) { return HostArray::createDoubleScalar(value); }
  static double fromHost(const HostArray& value) {
    if (!value.isNumeric() || value.isComplex() || !value.isScalar()) {
      raiseError<stats::tdigest::DeltaInvalidType>(DeltaInvalidType());
    }
    return value.elementAsDouble(0);
  }
};

template <>
struct PropertyValue<std::uint64_t> {
  using Arg = std::uint64_t;
  static HostArrayPtr toHost(std::uint64_t value) { return HostArray::createUInt64Scalar(value); }
  static std::uint64_t fromHost(const HostArray& value) {
    if (!value.isNumeric() || value.isComplex() || !value.isScalar()) {
      refuse();
    }
    // Read in the value's own class: a uint64 or int64 above 2^53 must not
    // pass through double.
    switch (value.classID()) {
      case quorix::ClassID::UInt64:
        return value.data<std::uint64_t>()[0];
      case quorix::ClassID::Int64: {
        const std::int64_t v = value.data<std::int64_t>()[0];
        if (v < 0) {
          refuse();
        }
        return static_cast<std::uint64_t>(v);
      }
      default:
        break;
    }
    const double v = value.elementAsDouble(0);
    // 2^64 itself is out of range; NaN fails the first test.
    if (!(v >= 0.0) || v >= 18446744073709551616.0 || std::floor(v) != v) {
      refuse();
    }
    return static_cast<std::uint64_t>(v);
  }

 private:
  [[noreturn]] static void refuse() {
    raiseError<component_QUORIX::catalog_class::key_RequireClass>(RequireClass("uint64 scalar"));
  }
};

struct PropertyRow {
  const char* name;
  const char* type;
  int getAccess;
  int setAccess;
  std::uint32_t attributes;
  const char* description;
};

// Registers one property whose accessors exchange Native values; a null
// setter makes the property read-only.
template <class Native>
void registerProperty(ClassDefinition& definition, const PropertyRow& row,
                      Native (*getter)(const TDigest&),
                      void (*setter)(TDigest&, typename PropertyValue<Native>::Arg)) {
  using Value = PropertyValue<Native>;
  quorix::PropertyGetter get = [getter](void* instance) {
    return Value::toHost(getter(*static_cast<const TDigest*>(instance)));
  };
  quorix::PropertySetter set;
  if (setter != nullptr) {
    set = [setter](void* instance, const HostArray& value) {
      setter(*static_cast<TDigest*>(instance), Value::fromHost(value));
    };
  }
  definition.addProperty(std::make_unique<quorix::PropertyInfo>(
      row.name, quorix::TypeRepository::lookup(row.type), row.getAccess, row.setAccess,
      row.attributes, row.description, std::move(get), std::move(set)));
}

constexpr int kPublic = quorix::kPublicAccess;
constexpr int kRestricted = quorix::kRestrictedAccess;

void defineProperties(ClassDefinition& definition) {
  registerProperty<HostArrayPtr>(definition,
                                 {"AVLTreeSummary", "int64 matrix", kRestricted, kRestricted, 0x3C4,
                                  "AVL tree summary structure"},
                                 getSummary, setSummary);
  registerProperty<double>(
      definition,
      {"Delta", "double scalar", kPublic, kRestricted, 0xBC4, "Delta compression parameter"},
      getDelta, setDelta);
  registerProperty<std::uint64_t>(definition,
                                  {"NumCentroids", "uint64 scalar", kPublic, kRestricted, 0x2BC4,
                                   "Number of centroids in summary structure"},
                                  getNumCentroids, nullptr);
  registerProperty<std::uint64_t>(definition,
                                  {"NumDataPoints", "uint64 scalar", kPublic, kRestricted, 0xBC4,
                                   "Total weight of summary structure"},
                                  getNumDataPoints, setNumDataPoints);
}

// --- methods ---------------------------------------------------------------

template <class Method>
void addMethod(ClassDefinition& definition, const char* name,
               std::initializer_list<std::string_view> outputs,
               std::initializer_list<std::string_view> furtherInputs, MethodFunction work) {
  definition.addMethod(std::make_unique<Method>(
      name, methodSignature(definition.name(), outputs, furtherInputs), work));
}

template <class T>
void addAddOverloads(ClassDefinition& definition, std::string_view elementType) {
  addMethod<MethodNoAnswer>(definition, "add", {}, {elementType}, addData<T>);
  addMethod<MethodNoAnswer>(definition, "add", {}, {elementType, "any"}, addDataWithStream<T>);
}

void defineMethods(ClassDefinition& definition) {
  addAddOverloads<float>(definition, "single");
  addAddOverloads<double>(definition, "double");
  addAddOverloads<std::int8_t>(definition, "int8");
  addAddOverloads<std::int16_t>(definition, "int16");
  addAddOverloads<std::int32_t>(definition, "int32");
  addAddOverloads<std::int64_t>(definition, "int64");
  addAddOverloads<std::uint8_t>(definition, "uint8");
  addAddOverloads<std::uint16_t>(definition, "uint16");
  addAddOverloads<std::uint32_t>(definition, "uint32");
  addAddOverloads<std::uint64_t>(definition, "uint64");

  addMethod<MethodWithAnswer>(definition, "cdf", {"double matrix"}, {"double matrix"}, cdfMethod);
  addMethod<MethodWithAnswer>(definition, "icdf", {"double matrix"}, {"double matrix"}, icdfMethod);
  addMethod<MethodWithAnswer>(definition, "trimmedMean", {"double matrix"}, {"double matrix"},
                              trimmedMeanMethod);
  addMethod<MethodNoAnswer>(definition, "merge", {}, {kClassName}, mergeDigest);
  addMethod<MethodNoAnswer>(definition, "merge", {}, {kClassName, "any"}, mergeDigestWithStream);
  addMethod<MethodWithAnswer>(definition, "centroids", {"double matrix", "uint64 matrix"}, {},
                              centroidsMethod);
}

}  // namespace

TDigestClassInfo::~TDigestClassInfo() = default;

std::string TDigestClassInfo::name() const { return kClassName; }

void TDigestClassInfo::defineMembers(ClassDefinition& definition) {
  defineProperties(definition);
  definition.addMethod(std::make_unique<TDigest_Constructor>(definition.name()));
  defineMethods(definition);
}

void* TDigestClassInfo::createInstance() { return new TDigest(); }

void TDigestClassInfo::destroyInstance(void* instance) noexcept {
  // Deleting the digest releases its centroid tree first (the tree's
  // destructor); a null instance is a no-op.
  delete static_cast<TDigest*>(instance);
}

bool TDigestClassInfo::savesByProperties() const { return true; }

bool TDigestClassInfo::allowsObjectArrays() const { return true; }

void registerTDigestClass() {
  registerMessageTexts();
  quorix::ObjectSystem::registerClass(new TDigestClassInfo());
}

}  // namespace zotdigest
