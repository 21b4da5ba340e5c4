// Records of delimited text (CSV, TSV) read a buffer at a time.
//
// The dialect: fields separated by one delimiter byte, records ended by LF
// or CRLF (the CR is dropped), blank lines skipped, an optional UTF-8
// byte-order mark at the start. A field that starts with a double quote is
// quoted: it runs to the next lone quote, may hold delimiters, line ends
// and doubled quotes (each read as one quote), and any text between its
// closing quote and the next delimiter is kept after it. A quote inside an
// unquoted field is an ordinary character. Gzip-compressed input is
// inflated on the fly (cli/text_stream.h).
//
// Only the columns asked for are handed on, as views into the read buffer
// (or, for quoted fields with doubled quotes, into the reader's own
// scratch): no copy per cell. Memory is the read buffer, which grows only
// when one record is longer than it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/byte_source.h"
#include "cli/text_stream.h"

namespace zotdigest::cli {

struct CsvDialect {
  char delimiter = ',';
  bool header = true;  // the first record names the columns
};

class CsvReader {
 public:
  // Reads the header record when the dialect has one.
  CsvReader(std::unique_ptr<ByteSource> source, CsvDialect dialect);
  ~CsvReader();

  const std::string& name() const noexcept { return stream_.name(); }
  // The header's names (empty without a header).
  const std::vector<std::string>& header() const noexcept { return header_; }
  // The 0-based index of a column given by its header name or, when no
  // column has that name (or the input has no header), its 1-based number.
  // InputError listing the header when there is no such column.
  std::size_t column(std::string_view given) const;
  // How a column is named in messages: its header name, or "column N".
  std::string columnName(std::size_t index) const;

  // The columns next() hands on, in this order (0-based, distinct).
  void select(std::vector<std::size_t> columns);
  // Reads the next record: cells[i] is the field of selected column i.
  // False at the end of the input. InputError naming the file and line
  // when a record lacks a selected column or a quoted field never ends.
  bool next(std::span<std::string_view> cells);
  // The line on which the last record returned starts (1-based).
  std::uint64_t line() const noexcept { return recordLine_; }

 private:
  enum class Parse { Done, NeedMore };
  bool fill();
  Parse parseFast(const char* start, const char* lineEnd, std::span<std::string_view> cells);
  Parse parseQuoted(std::span<std::string_view> cells, std::vector<std::string>* all);
  bool nextRecord(std::span<std::string_view> cells, std::vector<std::string>* all);
  [[noreturn]] void missingColumn(std::size_t fields) const;

  TextStream stream_;
  CsvDialect dialect_;
  std::vector<std::string> header_;
  std::vector<char> buffer_;
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  std::size_t nextQuote_ = 0;  // the first quote at or after pos_, or end_
  bool quoteKnown_ = false;    // nextQuote_ is up to date with the buffer
  bool eof_ = false;
  bool bomChecked_ = false;
  std::uint64_t line_ = 1;  // the line at pos_
  std::uint64_t recordLine_ = 0;
  // slotOf_[c]: the position of column c among the selected, or -1.
  std::vector<int> slotOf_;
  std::size_t lastSelected_ = 0;      // the highest selected column
  std::vector<std::string> scratch_;  // unescaped quoted fields, per slot
};

}  // namespace zotdigest::cli
