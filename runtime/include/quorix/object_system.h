// The object system: class registry, type repository, member descriptors,
// method dispatch, shared object handles, save and restore.
//
// A module hands a ClassInfo to registerClass; the registry owns it and asks
// it to define its members the first time the class is needed, once. Objects
// are native instances created and destroyed by their ClassInfo, held by
// shared handles inside object arrays; the last handle destroys the instance.
//
// Dispatch of a method call by name: among the overloads whose input count
// fits, the first whose every input type accepts its argument wins; if none
// accepts, the first overload with a fitting count receives the arguments
// unconverted, so the member's own checks report the problem. A "double
// matrix" input receives other numeric classes converted to double.
//
// Access levels: a member whose access code is above the caller's level
// refuses the call ("QUORIX:class:AccessDenied"). Users call at level 0;
// the runtime's own save and restore read and write at level 2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorix/config.h"
#include "quorix/host_array.h"

namespace quorix {

inline constexpr int kPublicAccess = 0;
inline constexpr int kRestrictedAccess = 2;

// A resolved type string: "<class> scalar", "<class> matrix", "<class>" for
// numeric and object classes, and "any".
class QUORIX_API Type {
 public:
  enum class Kind { Any, Element, Object };
  enum class Shape { Any, Scalar, Matrix };

  const std::string& text() const noexcept { return text_; }
  Kind kind() const noexcept { return kind_; }
  Shape shape() const noexcept { return shape_; }
  // The element class of an Element type.
  ClassID elementClass() const noexcept { return element_; }
  // The class name of an Object type.
  const std::string& objectClass() const noexcept { return objectClass_; }

  // Whether dispatch may choose an overload with this input type for `value`
  // (shape is not checked).
  bool accepts(const HostArray& value) const noexcept {
    switch (kind_) {
      case Kind::Any:
        return true;
      case Kind::Element:
        return value.classID() == element_;
      case Kind::Object:
        return value.classID() == ClassID::Object && value.objectClassName() == objectClass_;
    }
    return false;
  }
  // True for "double matrix": numeric inputs of other classes are converted.
  bool convertsToDouble() const noexcept {
    return kind_ == Kind::Element && element_ == ClassID::Double && shape_ == Shape::Matrix;
  }

 private:
  friend class TypeRepository;
  Type(std::string text, Kind kind, Shape shape, ClassID element, std::string objectClass);

  std::string text_;
  Kind kind_;
  Shape shape_;
  ClassID element_;
  std::string objectClass_;
};

class QUORIX_API TypeRepository {
 public:
  // Resolves a type string once; later look-ups return the same object.
  // Any class name not numeric is taken as an object class. Raises
  // "QUORIX:class:InvalidType" for malformed strings.
  static const Type* lookup(std::string_view text);
};

class QUORIX_API Signature {
 public:
  Signature& addInput(const Type* type);
  Signature& addOutput(const Type* type);
  // Inputs beyond the listed ones are accepted in any number (and fewer
  // than listed too).
  Signature& setOpenEnded(bool openEnded = true);

  const std::vector<const Type*>& inputs() const noexcept { return inputs_; }
  const std::vector<const Type*>& outputs() const noexcept { return outputs_; }
  bool openEnded() const noexcept { return openEnded_; }
  bool fitsInputCount(std::size_t n) const noexcept { return openEnded_ || n == inputs_.size(); }

 private:
  std::vector<const Type*> inputs_;
  std::vector<const Type*> outputs_;
  bool openEnded_ = false;
};

using PropertyGetter = std::function<HostArrayPtr(void* instance)>;
using PropertySetter = std::function<void(void* instance, const HostArray& value)>;

class QUORIX_API PropertyInfo {
 public:
  PropertyInfo(std::string name, const Type* type, int getAccess, int setAccess,
               std::uint32_t attributes, std::string description, PropertyGetter getter,
               PropertySetter setter = {});

  const std::string& name() const noexcept { return name_; }
  const Type* type() const noexcept { return type_; }
  int getAccess() const noexcept { return getAccess_; }
  int setAccess() const noexcept { return setAccess_; }
  std::uint32_t attributes() const noexcept { return attributes_; }
  const std::string& description() const noexcept { return description_; }
  bool hasSetter() const noexcept { return static_cast<bool>(setter_); }

  HostArrayPtr get(void* instance) const;
  void set(void* instance, const HostArray& value) const;

 private:
  std::string name_;
  const Type* type_;
  int getAccess_;
  int setAccess_;
  std::uint32_t attributes_;
  std::string description_;
  PropertyGetter getter_;
  PropertySetter setter_;
};

// A method overload. invoke receives the requested output count by
// reference (a method may raise it), the output slots (the method stores
// arrays allocated with new; the caller takes ownership), and the inputs,
// the object first for ordinary methods. A constructor (a method named after
// its class) finds the new scalar object array already in out[0] and
// receives only the user's inputs.
class QUORIX_API MethodInfo {
 public:
  MethodInfo(std::string name, int access, Signature signature);
  virtual ~MethodInfo();
  virtual void invoke(int& nOut, HostArray** out, int nIn, const HostArray* const* in) = 0;

  const std::string& name() const noexcept { return name_; }
  int access() const noexcept { return access_; }
  const Signature& signature() const noexcept { return signature_; }

 private:
  std::string name_;
  int access_;
  Signature signature_;
};

class ClassInfo;

// A class's members, as the class defined them, in registration order.
class QUORIX_API ClassDefinition {
 public:
  explicit ClassDefinition(ClassInfo& info);
  ~ClassDefinition();
  ClassDefinition(const ClassDefinition&) = delete;
  ClassDefinition& operator=(const ClassDefinition&) = delete;

  const std::string& name() const noexcept { return name_; }
  ClassInfo& info() const noexcept { return info_; }

  void addProperty(std::unique_ptr<PropertyInfo> property);
  void addMethod(std::unique_ptr<MethodInfo> method);

  const std::vector<std::unique_ptr<PropertyInfo>>& properties() const noexcept {
    return properties_;
  }
  const std::vector<std::unique_ptr<MethodInfo>>& methods() const noexcept { return methods_; }
  const PropertyInfo* findProperty(std::string_view name) const noexcept;
  // The constructor: the method named after the class, or null.
  MethodInfo* constructor() const noexcept;
  // Every overload registered under `name`, in registration order; null when
  // there is none.
  const std::vector<MethodInfo*>* overloads(std::string_view name) const noexcept;

 private:
  ClassInfo& info_;
  std::string name_;
  std::vector<std::unique_ptr<PropertyInfo>> properties_;
  std::vector<std::unique_ptr<MethodInfo>> methods_;
  std::map<std::string, std::vector<MethodInfo*>, std::less<>> overloads_;
};

// What a module implements to describe one class. Slot order matters to
// modules built against this header: add new virtuals only at the end.
class QUORIX_API ClassInfo {
 public:
  ClassInfo();
  virtual ~ClassInfo();
  virtual std::string name() const = 0;
  virtual void defineMembers(ClassDefinition& definition) = 0;
  virtual void* createInstance() = 0;
  virtual void destroyInstance(void* instance) noexcept = 0;
  // Called after a restore has set every property.
  virtual void updateInstance(void* instance);
  // Whether the runtime may save and restore objects by their properties.
  virtual bool savesByProperties() const;
  virtual bool hidden() const;
  virtual bool sealed() const;
  virtual bool abstract() const;
  virtual std::string description() const;
  virtual std::string detailedDescription() const;
  virtual int classAccess() const;
  // Containment queries: whether instances hold handles to other objects or
  // callable values.
  virtual bool containsHandles() const;
  virtual bool containsFunctions() const;
  // Whether object arrays of more than one element may be made of the class.
  virtual bool allowsObjectArrays() const;
  virtual bool handleCompatible() const;
  virtual bool isEnumeration() const;
  virtual bool hasCustomSave() const;
  virtual bool hasCustomLoad() const;

  ClassInfo(const ClassInfo&) = delete;
  ClassInfo& operator=(const ClassInfo&) = delete;
};

// One native instance with its class; destroyed through the class when the
// last handle goes.
class QUORIX_API Object {
 public:
  Object(ClassInfo& info, void* instance) noexcept;
  ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  ClassInfo& classInfo() const noexcept { return info_; }
  const std::string& className() const noexcept { return className_; }
  void* instance() const noexcept { return instance_; }

 private:
  ClassInfo& info_;
  std::string className_;
  void* instance_;
};

// A method of one class resolved by name once, for callers that make the
// same call many times (a front end binding the class's methods). A call
// through the handle dispatches exactly as ObjectSystem::callMethod with the
// handle's name, but an object of the handle's class skips the look-ups of
// its class and of the name. The handle stays valid for the life of the
// process, since classes are never unregistered.
class QUORIX_API MethodHandle {
 public:
  // Defines the class's members if that has not happened yet. Raises
  // "QUORIX:class:UnknownClass", or "QUORIX:class:UnknownMember" when the
  // class has no method of that name.
  MethodHandle(std::string_view className, std::string_view methodName);

  const std::string& name() const noexcept { return name_; }
  const std::string& className() const noexcept { return className_; }
  // The overloads of the name, in registration order.
  const std::vector<MethodInfo*>& overloads() const noexcept { return *overloads_; }

  // As ObjectSystem::callMethod(name(), ...). An object of another class in
  // in[0] is dispatched by name, as callMethod would.
  int call(int nOut, HostArray** out, int nIn, const HostArray* const* in,
           int callerAccess = kPublicAccess) const;

 private:
  std::string className_;
  std::string name_;
  const std::vector<MethodInfo*>* overloads_;
};

struct SavedProperty {
  std::string name;
  HostArrayPtr value;
};

struct QUORIX_API SavedObject {
  std::string className;
  std::vector<SavedProperty> properties;
};

class QUORIX_API ObjectSystem {
 public:
  // Takes ownership of `info`; a null pointer is ignored. Registering a
  // second class of the same name raises "QUORIX:class:DuplicateClass".
  static void registerClass(ClassInfo* info);
  static bool isRegistered(std::string_view className);
  // The class's members, defined on first use; raises
  // "QUORIX:class:UnknownClass".
  static const ClassDefinition& classDefinition(std::string_view className);

  // A new object of the class without running its constructor.
  static ObjectHandle createInstance(std::string_view className);
  // An object array of the class; every element a fresh instance. Arrays of
  // more than one element need ClassInfo::allowsObjectArrays.
  static HostArrayPtr createObjectArray(std::string_view className, Dims dims);
  // Creates a scalar object and runs the class's constructor with the
  // inputs; returns the object array.
  static HostArrayPtr construct(std::string_view className, int nIn, const HostArray* const* in,
                                int callerAccess = kPublicAccess);
  // Calls a method of the object in in[0]. Returns the output count the
  // method finally used; the caller owns out[0 .. count-1]. `out` must have
  // room for max(nOut, 1) arrays (a method may raise a request of 0 to 1);
  // those slots are set to null before the method runs, so a slot the
  // method leaves unset stays null.
  static int callMethod(std::string_view methodName, int nOut, HostArray** out, int nIn,
                        const HostArray* const* in, int callerAccess = kPublicAccess);
  static HostArrayPtr getProperty(const HostArray& object, std::string_view name,
                                  int callerAccess = kPublicAccess);
  static void setProperty(const HostArray& object, std::string_view name, const HostArray& value,
                          int callerAccess = kPublicAccess);

  // The native instance of a scalar object array of the class; raises
  // "QUORIX:class:RequireScalarObject" otherwise.
  static void* scalarInstance(const HostArray& value, std::string_view className);
  template <class T>
  static T& scalarInstanceAs(const HostArray& value, std::string_view className) {
    return *static_cast<T*>(scalarInstance(value, className));
  }

  // Reads every property at the restricted level, in registration order.
  static SavedObject save(const HostArray& object);
  // Creates an instance and sets every property with a setter, in
  // registration order, at the restricted level; returns a scalar object.
  static HostArrayPtr restore(const SavedObject& saved);
};

}  // namespace quorix
