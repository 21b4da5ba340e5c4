#include "cli/output.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace zotdigest::cli {

std::string formatNumber(double value, int precision) {
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "Inf" : "-Inf";
  }
  std::array<char, 64> buf{};
  const auto [end, ec] = precision <= 0
                             ? std::to_chars(buf.data(), buf.data() + buf.size(), value)
                             : std::to_chars(buf.data(), buf.data() + buf.size(), value,
                                             std::chars_format::general, std::min(precision, 17));
  return std::string(buf.data(), ec == std::errc() ? end : buf.data());
}

std::string formatCount(std::uint64_t value) { return std::to_string(value); }

// --- text tables -------------------------------------------------------------------

TextTable::TextTable(std::vector<std::string> header) : hasHeader_(!header.empty()) {
  if (hasHeader_) {
    rows_.push_back(std::move(header));
  }
}

void TextTable::addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

void TextTable::print(std::ostream& out) const {
  std::vector<std::size_t> width;
  for (const auto& row : rows_) {
    width.resize(std::max(width.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) {
      width[i] = std::max(width[i], row[i].size());
    }
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string pad(width[i] - row[i].size(), ' ');
      if (i > 0) {
        line += "  ";
      }
      if (i == 0 || allLeft_) {
        line += row[i];
        if (i + 1 < row.size()) {
          line += pad;
        }
      } else {
        line += pad + row[i];
      }
    }
    out << line << '\n';
  }
}

// --- JSON --------------------------------------------------------------------------

JsonWriter::JsonWriter(std::ostream& out) : out_(out) {}

JsonWriter::~JsonWriter() { out_ << '\n'; }

void JsonWriter::newline() { out_ << '\n' << std::string(2 * first_.size(), ' '); }

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) {
      out_ << ',';
    }
    first_.back() = false;
    newline();
  }
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  out_ << '{';
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
  const bool empty = first_.back();
  first_.pop_back();
  if (!empty) {
    newline();
  }
  out_ << bracket;
  return *this;
}

JsonWriter& JsonWriter::endObject() { return close('}'); }

JsonWriter& JsonWriter::beginArray() {
  beforeValue();
  out_ << '[';
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endArray() { return close(']'); }

JsonWriter& JsonWriter::key(std::string_view name) {
  value(name);
  out_ << ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(double v) {
  beforeValue();
  if (std::isfinite(v)) {
    out_ << formatNumber(v, 0);
  } else {
    out_ << "null";
  }
  return *this;
}

JsonWriter& JsonWriter::value(std::uint64_t v) {
  beforeValue();
  out_ << v;
  return *this;
}

JsonWriter& JsonWriter::value(bool v) {
  beforeValue();
  out_ << (v ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view v) {
  beforeValue();
  out_ << '"';
  for (const char c : v) {
    const auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out_ << "\\\"";
        break;
      case '\\':
        out_ << "\\\\";
        break;
      case '\n':
        out_ << "\\n";
        break;
      case '\t':
        out_ << "\\t";
        break;
      case '\r':
        out_ << "\\r";
        break;
      default:
        if (u < 0x20) {
          static constexpr char kHex[] = "0123456789abcdef";
          out_ << "\\u00" << kHex[u >> 4] << kHex[u & 15];
        } else {
          out_ << c;
        }
    }
  }
  out_ << '"';
  return *this;
}

}  // namespace zotdigest::cli
