// Type strings and their one resolved object each.
//
// A type string is "any", "<class>", "<class> scalar" or "<class> matrix",
// with exactly one blank before the shape. A class name is a letter followed
// by letters, digits, '_' or '.'; the ten numeric class names make element
// types, every other name an object class. Types are created once, on first
// look-up, and never freed, so the pointers handed out stay valid for the
// life of the process (modules keep them in their member descriptors).
#include <map>
#include <mutex>
#include <string>

#include "class_errors.h"
#include "quorix/object_system.h"

namespace quorix {

Type::Type(std::string text, Kind kind, Shape shape, ClassID element, std::string objectClass)
    : text_(std::move(text)),
      kind_(kind),
      shape_(shape),
      element_(element),
      objectClass_(std::move(objectClass)) {}

namespace {

bool isClassName(std::string_view name) noexcept {
  if (name.empty()) {
    return false;
  }
  const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto digit = [](char c) { return c >= '0' && c <= '9'; };
  if (!letter(name.front())) {
    return false;
  }
  for (const char c : name) {
    if (!letter(c) && !digit(c) && c != '_' && c != '.') {
      return false;
    }
  }
  return true;
}

struct TypeTable {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<Type>, std::less<>> types;
};

// Never destroyed: member descriptors of classes that outlive ordinary
// statics (objects released at exit) still point at these types.
TypeTable& typeTable() {
  static TypeTable* const table = new TypeTable;
  return *table;
}

}  // namespace

const Type* TypeRepository::lookup(std::string_view text) {
  TypeTable& table = typeTable();
  std::lock_guard lock(table.mutex);
  if (const auto it = table.types.find(text); it != table.types.end()) {
    return it->second.get();
  }

  Type::Kind kind = Type::Kind::Any;
  Type::Shape shape = Type::Shape::Any;
  ClassID element = ClassID::Unknown;
  std::string objectClass;
  if (text != "any") {
    std::string_view name = text;
    if (const std::size_t blank = text.find(' '); blank != std::string_view::npos) {
      name = text.substr(0, blank);
      const std::string_view shapeWord = text.substr(blank + 1);
      if (shapeWord == "scalar") {
        shape = Type::Shape::Scalar;
      } else if (shapeWord == "matrix") {
        shape = Type::Shape::Matrix;
      } else {
        detail::raiseClassError("InvalidType", std::string(text));
      }
    }
    // "any" takes no shape: "any scalar" is refused rather than read as a
    // class named "any".
    if (!isClassName(name) || name == "any") {
      detail::raiseClassError("InvalidType", std::string(text));
    }
    const ClassID id = classFromName(name);
    if (isNumericClass(id)) {
      kind = Type::Kind::Element;
      element = id;
    } else {
      kind = Type::Kind::Object;
      element = ClassID::Object;
      objectClass = std::string(name);
    }
  }
  std::unique_ptr<Type> type(
      new Type(std::string(text), kind, shape, element, std::move(objectClass)));
  const Type* const resolved = type.get();
  table.types.emplace(std::string(text), std::move(type));
  return resolved;
}

}  // namespace quorix
