// Readers that turn text, .npy and raw binary input into chunks of numbers
// of one element class, so that input of any size passes through a buffer
// of fixed size.
//
// Text: numbers separated by blanks, tabs or line ends; '#' starts a
// comment that runs to the end of the line. Each token is parsed with
// std::from_chars (a leading '+' is allowed; "nan" and "inf" are numbers).
// A token that is not a number is refused with its line number.
//
// .npy: format versions 1.0, 2.0 and 3.0; the header dictionary gives
// 'descr', 'fortran_order' and 'shape'. The ten little-endian numeric
// dtypes are read ('<f8' '<f4' '|i1' '|u1' '<i2' '<u2' '<i4' '<u4' '<i8'
// '<u8'; one-byte types with any byte-order mark); big-endian and every
// other dtype are refused with a message that says so. Elements are handed
// on in the class of the file, never converted here.
//
// Raw: a headerless stream of little-endian elements of a dtype the user
// names; its length must be a whole number of elements.
//
// This tool runs on little-endian machines only, so the bytes of .npy and
// raw input are the in-memory representation of their elements.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/byte_source.h"
#include "quorix/host_array.h"

static_assert(std::endian::native == std::endian::little,
              "zotdigest reads little-endian .npy and raw data in place");

namespace zotdigest::cli {

// Csv and Tsv are tables, read by cli/table_build.h, not by these readers.
enum class InputFormat { Auto, Text, Npy, Raw, Csv, Tsv };

// "text", "npy", "raw", "csv", "tsv" or "auto"; InputError otherwise.
InputFormat parseInputFormat(std::string_view name);
// The element class of a dtype name: NumPy's names ("float64", "int8",
// ...), their short codes ("f8", "<f8", "i1", ...) and the host's names
// ("double", "single"); InputError naming the accepted set otherwise.
quorix::ClassID parseDtype(std::string_view name);
// The NumPy name of a numeric class ("float64", ...).
std::string_view dtypeName(quorix::ClassID id) noexcept;

// A stream of numbers of one class, read in chunks.
class NumberReader {
 public:
  virtual ~NumberReader();
  // The class of every element this reader produces.
  virtual quorix::ClassID elementClass() const noexcept = 0;
  // Writes up to maxCount elements of elementClass() to `buffer` and
  // returns how many; 0 only at the end. Throws InputError for malformed
  // input and raises the runtime's interrupt error on Ctrl-C.
  virtual std::size_t next(void* buffer, std::size_t maxCount) = 0;
};

std::unique_ptr<NumberReader> makeTextReader(std::unique_ptr<ByteSource> source);
std::unique_ptr<NumberReader> makeRawReader(std::unique_ptr<ByteSource> source,
                                            quorix::ClassID elementClass);

// The header of a .npy file.
struct NpyHeader {
  quorix::ClassID elementClass = quorix::ClassID::Double;
  bool fortranOrder = false;
  std::vector<std::uint64_t> shape;  // empty for a 0-d array (one element)
  // Product of the shape; InputError when it overflows.
  std::uint64_t elementCount() const;
};

// Parses the dictionary text of a .npy header ("{'descr': '<f8', ...}").
// Throws InputError naming `where` for anything it does not understand.
NpyHeader parseNpyDictionary(std::string_view text, const std::string& where);
// Reads and parses the magic, version and header of a .npy stream, leaving
// the source at the first data byte; checks a regular file's length
// against the shape.
NpyHeader readNpyHeader(ByteSource& source);
// All elements of a .npy file in file order (the order does not matter to
// a single digest).
std::unique_ptr<NumberReader> makeNpyReader(std::unique_ptr<ByteSource> source);

// Reads a source as numbers in `format`. Auto picks .npy by the magic
// string, raw when a dtype is given, text otherwise; Raw needs `dtype`.
std::unique_ptr<NumberReader> openNumbers(std::unique_ptr<ByteSource> source, InputFormat format,
                                          const std::string& dtype);

// One block of a matrix for the per-column build: rows x columns elements,
// column-major, covering columns [firstColumn, firstColumn + columns) and
// rows [firstRow, firstRow + rows).
struct ColumnBlock {
  std::size_t firstColumn = 0;
  std::size_t columns = 0;
  std::size_t firstRow = 0;
  std::size_t rows = 0;
};

// Reads a 1-D or 2-D .npy array (1-D is one column) in column-major blocks
// of at most `budget` elements. A C-order file is read in bands of
// rowsPerPiece() rows across all columns and transposed; a Fortran-order
// file in whole columns, or in pieces of a column when one column exceeds
// the budget. Every block's firstRow and row count are multiples of
// rowsPerPiece() except at the end of a column, in both orders, so a
// consumer that cuts columns into pieces of rowsPerPiece() rows sees the
// same pieces whatever the file's memory order.
class ColumnBlockReader {
 public:
  // InputError for arrays of more than two dimensions.
  ColumnBlockReader(std::unique_ptr<ByteSource> source, std::size_t budget);
  ~ColumnBlockReader();

  quorix::ClassID elementClass() const noexcept { return header_.elementClass; }
  std::size_t rows() const noexcept { return rows_; }
  std::size_t columns() const noexcept { return columns_; }
  std::size_t rowsPerPiece() const noexcept { return rowsPerPiece_; }
  // Elements a block may hold: the budget, or one row when a row is wider.
  std::size_t capacity() const noexcept { return capacity_; }
  // Fills `buffer` (room for capacity() elements) with the next block;
  // false at the end.
  bool next(ColumnBlock& block, void* buffer);

 private:
  std::unique_ptr<ByteSource> source_;
  NpyHeader header_;
  std::size_t capacity_;
  std::size_t rows_ = 0;
  std::size_t columns_ = 0;
  std::size_t rowsPerPiece_ = 1;
  std::size_t elementSize_ = 8;
  std::size_t nextRow_ = 0;
  std::size_t nextColumn_ = 0;
  std::vector<std::byte> scratch_;  // C-order band before transposition
};

}  // namespace zotdigest::cli
