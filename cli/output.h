// Text and JSON formatting of the tool's answers.
//
// Text is for people: aligned columns, numbers with a chosen count of
// significant digits. JSON is for programs: numbers in the shortest form
// that reads back to the same double, and null for NaN and the infinities,
// which JSON cannot spell.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace zotdigest::cli {

// `precision` significant digits (1 .. 17), or the shortest round-trip form
// when 0; "NaN", "Inf" and "-Inf" for the special values.
std::string formatNumber(double value, int precision);
std::string formatCount(std::uint64_t value);

// Columns separated by two blanks; the first column left-aligned (names),
// the others right-aligned (numbers).
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header = {});
  // Left-aligns every column (for name: value listings).
  void alignLeft() { allLeft_ = true; }
  void addRow(std::vector<std::string> cells);
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
  bool hasHeader_;
  bool allLeft_ = false;
};

// A streaming writer of indented JSON; keys and values in call order.
class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out);
  ~JsonWriter();  // ends the last line

  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(std::string_view name);
  JsonWriter& value(double v);
  JsonWriter& value(std::uint64_t v);
  JsonWriter& value(std::string_view v);
  JsonWriter& value(const char* v) { return value(std::string_view(v)); }
  JsonWriter& value(bool v);
  // key(name).value(v)
  template <class T>
  JsonWriter& field(std::string_view name, const T& v) {
    return key(name).value(v);
  }

 private:
  void beforeValue();
  void newline();
  JsonWriter& close(char bracket);

  std::ostream& out_;
  std::vector<bool> first_;  // per open container: no element written yet
  bool afterKey_ = false;
};

}  // namespace zotdigest::cli
