#include "cli/csv_reader.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "cli/cli_errors.h"

namespace zotdigest::cli {
namespace {

constexpr std::size_t kChunkSize = std::size_t{1} << 20;
// A record longer than this is not a table row but a damaged file (an
// unbalanced quote, say); refusing it keeps memory bounded.
constexpr std::size_t kMaxRecord = std::size_t{1} << 28;

const char* find(const char* from, const char* to, char c) {
  return static_cast<const char*>(std::memchr(from, c, static_cast<std::size_t>(to - from)));
}

std::uint64_t countLines(const char* from, const char* to) {
  return static_cast<std::uint64_t>(std::count(from, to, '\n'));
}

}  // namespace

CsvReader::CsvReader(std::unique_ptr<ByteSource> source, CsvDialect dialect)
    : stream_(std::move(source)), dialect_(dialect), buffer_(kChunkSize) {
  if (dialect_.delimiter == '"' || dialect_.delimiter == '\n' || dialect_.delimiter == '\r') {
    throw InputError("the delimiter cannot be a quote or a line end");
  }
  if (dialect_.header) {
    if (!nextRecord({}, &header_)) {
      throw InputError(name() + " is empty: it has no header line");
    }
  }
}

CsvReader::~CsvReader() = default;

std::size_t CsvReader::column(std::string_view given) const {
  for (std::size_t i = 0; i < header_.size(); ++i) {
    if (header_[i] == given) {
      return i;
    }
  }
  std::size_t number = 0;
  const auto [ptr, ec] = std::from_chars(given.data(), given.data() + given.size(), number);
  if (ec == std::errc() && ptr == given.data() + given.size() && number > 0 &&
      (!dialect_.header || number <= header_.size())) {
    return number - 1;
  }
  std::string message = name() + ": no column '" + std::string(given) + "'";
  if (!dialect_.header) {
    message += " (without a header, columns are given by number, from 1)";
  } else {
    message += "; the header has:";
    for (std::size_t i = 0; i < header_.size(); ++i) {
      message += (i == 0 ? " '" : ", '") + header_[i] + "'";
    }
  }
  throw InputError(message);
}

std::string CsvReader::columnName(std::size_t index) const {
  return index < header_.size() ? "column '" + header_[index] + "'"
                                : "column " + std::to_string(index + 1);
}

void CsvReader::select(std::vector<std::size_t> columns) {
  slotOf_.assign(*std::max_element(columns.begin(), columns.end()) + 1, -1);
  for (std::size_t i = 0; i < columns.size(); ++i) {
    slotOf_[columns[i]] = static_cast<int>(i);
  }
  lastSelected_ = slotOf_.size() - 1;
  scratch_.assign(columns.size(), std::string());
}

bool CsvReader::next(std::span<std::string_view> cells) { return nextRecord(cells, nullptr); }

bool CsvReader::fill() {
  if (eof_) {
    return false;
  }
  if (pos_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
  }
  if (end_ == buffer_.size()) {
    if (buffer_.size() >= kMaxRecord) {
      throw InputError(name() + ", line " + std::to_string(line_) + ": a record longer than " +
                       std::to_string(kMaxRecord >> 20) + " MiB (an unbalanced quote?)");
    }
    buffer_.resize(buffer_.size() * 2);
  }
  const std::size_t room = buffer_.size() - end_;
  const std::size_t got = stream_.read(buffer_.data() + end_, room);
  eof_ = got < room;
  end_ += got;
  quoteKnown_ = false;
  return got > 0;
}

bool CsvReader::nextRecord(std::span<std::string_view> cells, std::vector<std::string>* all) {
  if (!bomChecked_) {
    while (end_ - pos_ < 3 && fill()) {
    }
    if (end_ - pos_ >= 3 && std::memcmp(buffer_.data() + pos_, "\xef\xbb\xbf", 3) == 0) {
      pos_ += 3;
    }
    bomChecked_ = true;
  }
  for (;;) {
    if (pos_ == end_ && !fill()) {
      return false;
    }
    const char* base = buffer_.data();
    const char* start = base + pos_;
    const char* stop = base + end_;
    // Blank lines are no records.
    if (*start == '\n') {
      ++pos_;
      ++line_;
      continue;
    }
    if (*start == '\r' && (start + 1 < stop || eof_)) {
      if (start + 1 == stop || start[1] == '\n') {
        pos_ += start + 1 == stop ? 1 : 2;
        line_ += start + 1 == stop ? 0 : 1;
        continue;
      }
    }
    const char* newline = find(start, stop, '\n');
    if (newline == nullptr && !eof_) {
      fill();
      continue;
    }
    const char* lineEnd = newline != nullptr ? newline : stop;
    recordLine_ = line_;
    if (all == nullptr) {
      if (!quoteKnown_ || nextQuote_ < pos_) {
        const char* q = find(start, stop, '"');
        nextQuote_ = q != nullptr ? static_cast<std::size_t>(q - base) : end_;
        quoteKnown_ = true;
      }
      if (nextQuote_ >= static_cast<std::size_t>(lineEnd - base)) {
        parseFast(start, lineEnd, cells);
        pos_ = newline != nullptr ? static_cast<std::size_t>(newline - base) + 1 : end_;
        line_ += newline != nullptr ? 1 : 0;
        return true;
      }
    }
    if (parseQuoted(cells, all) == Parse::Done) {
      return true;
    }
    fill();
  }
}

CsvReader::Parse CsvReader::parseFast(const char* start, const char* lineEnd,
                                      std::span<std::string_view> cells) {
  const char* end = lineEnd;
  if (end > start && end[-1] == '\r') {
    --end;
  }
  const char* p = start;
  for (std::size_t field = 0;; ++field) {
    const char* delimiter = find(p, end, dialect_.delimiter);
    const char* fieldEnd = delimiter != nullptr ? delimiter : end;
    if (slotOf_[field] >= 0) {
      cells[static_cast<std::size_t>(slotOf_[field])] =
          std::string_view(p, static_cast<std::size_t>(fieldEnd - p));
    }
    if (field == lastSelected_) {
      return Parse::Done;
    }
    if (delimiter == nullptr) {
      missingColumn(field + 1);
    }
    p = delimiter + 1;
  }
}

CsvReader::Parse CsvReader::parseQuoted(std::span<std::string_view> cells,
                                        std::vector<std::string>* all) {
  const char* base = buffer_.data();
  const char* p = base + pos_;
  const char* const stop = base + end_;
  const char delimiter = dialect_.delimiter;
  std::uint64_t lines = 0;
  std::size_t field = 0;
  if (all != nullptr) {
    all->clear();
  }
  for (;;) {
    std::string* out = nullptr;
    int slot = -1;
    if (all != nullptr) {
      out = &all->emplace_back();
    } else if (field < slotOf_.size() && (slot = slotOf_[field]) >= 0) {
      out = &scratch_[static_cast<std::size_t>(slot)];
      out->clear();
    }
    bool quoted = false;
    if (p < stop && *p == '"') {
      quoted = true;
      ++p;
      for (;;) {
        const char* q = find(p, stop, '"');
        if (q == nullptr || (q + 1 == stop && !eof_)) {
          if (!eof_) {
            return Parse::NeedMore;
          }
          throw InputError(name() + ", line " + std::to_string(recordLine_) +
                           ": a quoted field never ends");
        }
        lines += countLines(p, q);
        if (out != nullptr) {
          out->append(p, q);
        }
        if (q + 1 < stop && q[1] == '"') {
          if (out != nullptr) {
            out->push_back('"');
          }
          p = q + 2;
          continue;
        }
        p = q + 1;
        break;
      }
    }
    const char* text = p;
    while (p < stop && *p != delimiter && *p != '\n') {
      ++p;
    }
    if (p == stop && !eof_) {
      return Parse::NeedMore;
    }
    const char* textEnd = p;
    if (textEnd > text && (p == stop || *p == '\n') && textEnd[-1] == '\r') {
      --textEnd;
    }
    if (quoted && out != nullptr) {
      out->append(text, textEnd);
    }
    if (slot >= 0) {
      cells[static_cast<std::size_t>(slot)] =
          quoted ? std::string_view(*out)
                 : std::string_view(text, static_cast<std::size_t>(textEnd - text));
    }
    if (all != nullptr && !quoted) {
      out->assign(text, textEnd);
    }
    if (p < stop && *p == delimiter) {
      ++p;
      ++field;
      continue;
    }
    if (p < stop) {
      ++p;  // the line end
      ++lines;
    }
    break;
  }
  if (all == nullptr && field < lastSelected_) {
    missingColumn(field + 1);
  }
  pos_ = static_cast<std::size_t>(p - base);
  line_ += lines;
  return Parse::Done;
}

void CsvReader::missingColumn(std::size_t fields) const {
  std::size_t wanted = fields;  // the first selected column the record lacks
  while (slotOf_[wanted] < 0) {
    ++wanted;
  }
  throw InputError(name() + ", line " + std::to_string(recordLine_) + ": the record has " +
                   std::to_string(fields) + " field" + (fields == 1 ? "" : "s") + ", but " +
                   columnName(wanted) + " is field " + std::to_string(wanted + 1));
}

}  // namespace zotdigest::cli
