#include "cli/number_readers.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>

#include "cli/cli_errors.h"

namespace zotdigest::cli {
namespace {

using quorix::ClassID;

struct DtypeName {
  std::string_view name;
  ClassID id;
};

// NumPy names first: dtypeName() returns the first match.
constexpr std::array<DtypeName, 26> kDtypeNames = {{
    {"float64", ClassID::Double}, {"float32", ClassID::Single}, {"int8", ClassID::Int8},
    {"uint8", ClassID::UInt8},    {"int16", ClassID::Int16},    {"uint16", ClassID::UInt16},
    {"int32", ClassID::Int32},    {"uint32", ClassID::UInt32},  {"int64", ClassID::Int64},
    {"uint64", ClassID::UInt64},  {"f8", ClassID::Double},      {"f4", ClassID::Single},
    {"i1", ClassID::Int8},        {"u1", ClassID::UInt8},       {"i2", ClassID::Int16},
    {"u2", ClassID::UInt16},      {"i4", ClassID::Int32},       {"u4", ClassID::UInt32},
    {"i8", ClassID::Int64},       {"u8", ClassID::UInt64},      {"double", ClassID::Double},
    {"single", ClassID::Single},  {"float", ClassID::Single},   {"int", ClassID::Int64},
    {"b", ClassID::Int8},         {"B", ClassID::UInt8},
}};

constexpr const char* kDtypeList =
    "float64, float32, int8, uint8, int16, uint16, int32, uint32, int64, uint64";

// --- text ----------------------------------------------------------------------

class TextReader final : public NumberReader {
 public:
  explicit TextReader(std::unique_ptr<ByteSource> source)
      : source_(std::move(source)), buffer_(kBufferSize) {}

  ClassID elementClass() const noexcept override { return ClassID::Double; }

  std::size_t next(void* out, std::size_t maxCount) override {
    auto* values = static_cast<double*>(out);
    std::size_t n = 0;
    while (n < maxCount) {
      if (pos_ == end_ && !refill()) {
        break;
      }
      const char c = buffer_[pos_];
      if (c == '\n') {
        ++line_;
        ++pos_;
        inComment_ = false;
      } else if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
        ++pos_;
      } else if (c == '#') {
        inComment_ = true;
        skipComment();
      } else if (inComment_) {
        skipComment();
      } else {
        std::optional<std::string_view> token = takeToken();
        if (!token) {
          continue;  // the token runs past the buffer: refilled, try again
        }
        values[n++] = parse(*token);
      }
    }
    return n;
  }

 private:
  static constexpr std::size_t kBufferSize = std::size_t{1} << 20;
  static constexpr std::size_t kMaxToken = 4096;

  static bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
  }

  void skipComment() {
    while (pos_ < end_ && buffer_[pos_] != '\n') {
      ++pos_;
    }
    if (pos_ < end_) {
      inComment_ = false;  // the line end itself is counted by the caller
    }
  }

  // The token starting at pos_, or nothing when it may continue beyond the
  // buffer (then the buffer has been refilled with the token's start
  // moved to its front).
  std::optional<std::string_view> takeToken() {
    std::size_t stop = pos_;
    while (stop < end_ && !isSpace(buffer_[stop]) && buffer_[stop] != '#') {
      ++stop;
    }
    if (stop == end_ && !atEof_) {
      if (stop - pos_ > kMaxToken) {
        fail(std::string_view(&buffer_[pos_], 40), "is too long to be a number");
      }
      // Keep the partial token and read more behind it.
      std::memmove(buffer_.data(), buffer_.data() + pos_, stop - pos_);
      end_ = stop - pos_;
      pos_ = 0;
      const std::size_t got = source_->read(buffer_.data() + end_, buffer_.size() - end_);
      atEof_ = got < buffer_.size() - end_;
      end_ += got;
      return std::nullopt;
    }
    const std::string_view token(&buffer_[pos_], stop - pos_);
    pos_ = stop;
    return token;
  }

  bool refill() {
    if (atEof_) {
      return false;
    }
    const std::size_t got = source_->read(buffer_.data(), buffer_.size());
    atEof_ = got < buffer_.size();
    pos_ = 0;
    end_ = got;
    return got > 0;
  }

  double parse(std::string_view token) const {
    std::string_view digits = token;
    if (digits.size() > 1 && digits.front() == '+' && digits[1] != '-' && digits[1] != '+') {
      digits.remove_prefix(1);
    }
    double value = 0.0;
    const auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec == std::errc::result_out_of_range) {
      fail(token, "is out of the range of a double");
    }
    if (ec != std::errc() || ptr != digits.data() + digits.size()) {
      fail(token, "is not a number");
    }
    return value;
  }

  [[noreturn]] void fail(std::string_view token, const char* why) const {
    // Binary junk is shown escaped, so the message stays one readable line.
    std::string shown;
    for (const char c : token.substr(0, 40)) {
      const auto u = static_cast<unsigned char>(c);
      if (u >= 0x20 && u < 0x7f) {
        shown += c;
      } else {
        static constexpr char kHex[] = "0123456789abcdef";
        shown += {'\\', 'x', kHex[u >> 4], kHex[u & 15]};
      }
    }
    if (token.size() > 40) {
      shown += "...";
    }
    throw InputError(source_->name() + ", line " + std::to_string(line_) + ": '" + shown + "' " +
                     why);
  }

  std::unique_ptr<ByteSource> source_;
  std::vector<char> buffer_;
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  bool atEof_ = false;
  bool inComment_ = false;
  std::uint64_t line_ = 1;
};

// --- binary (raw and .npy data) -------------------------------------------------

class BinaryReader final : public NumberReader {
 public:
  // `remaining`: the number of elements to read, or nothing for "until the
  // end of the input" (raw data).
  BinaryReader(std::unique_ptr<ByteSource> source, ClassID id,
               std::optional<std::uint64_t> remaining)
      : source_(std::move(source)),
        id_(id),
        size_(quorix::elementSize(id)),
        remaining_(remaining) {}

  ClassID elementClass() const noexcept override { return id_; }

  std::size_t next(void* out, std::size_t maxCount) override {
    std::size_t want = maxCount;
    if (remaining_) {
      want = static_cast<std::size_t>(std::min<std::uint64_t>(want, *remaining_));
    }
    if (want == 0) {
      return 0;
    }
    const std::size_t bytes = source_->read(out, want * size_);
    const std::size_t n = bytes / size_;
    if (remaining_) {
      if (n < want) {
        throw InputError(source_->name() + ": the .npy data end early, " +
                         std::to_string(*remaining_ - n) + " elements are missing");
      }
      *remaining_ -= n;
    } else if (bytes % size_ != 0) {
      throw InputError(source_->name() + ": raw " + std::string(dtypeName(id_)) +
                       " input ends with a partial element (" + std::to_string(bytes % size_) +
                       " stray bytes)");
    }
    return n;
  }

 private:
  std::unique_ptr<ByteSource> source_;
  ClassID id_;
  std::size_t size_;
  std::optional<std::uint64_t> remaining_;
};

// --- .npy header ----------------------------------------------------------------

constexpr std::array<std::uint8_t, 6> kNpyMagic = {0x93, 'N', 'U', 'M', 'P', 'Y'};
constexpr std::size_t kMaxNpyHeader = std::size_t{1} << 20;

// A tiny reader of the Python literal NumPy writes as its header.
class DictParser {
 public:
  DictParser(std::string_view text, const std::string& where) : s_(text), where_(where) {}

  NpyHeader parse() {
    bool haveDescr = false;
    bool haveOrder = false;
    bool haveShape = false;
    NpyHeader h;
    expect('{');
    while (!tryTake('}')) {
      const std::string key = string();
      expect(':');
      if (key == "descr") {
        if (peek() == '[') {
          fail("structured dtypes (a list in 'descr') are not supported");
        }
        h.elementClass = dtype(string());
        haveDescr = true;
      } else if (key == "fortran_order") {
        h.fortranOrder = boolean();
        haveOrder = true;
      } else if (key == "shape") {
        h.shape = tuple();
        haveShape = true;
      } else {
        skipValue();
      }
      if (!tryTake(',')) {
        expect('}');
        break;
      }
    }
    if (!haveDescr || !haveOrder || !haveShape) {
      fail("the header lacks one of 'descr', 'fortran_order', 'shape'");
    }
    return h;
  }

 private:
  [[noreturn]] void fail(const std::string& why) const {
    throw InputError(where_ + ": not a readable .npy file: " + why);
  }
  void skipBlanks() {
    while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n')) {
      ++i_;
    }
  }
  char peek() {
    skipBlanks();
    return i_ < s_.size() ? s_[i_] : '\0';
  }
  bool tryTake(char c) {
    if (peek() == c) {
      ++i_;
      return true;
    }
    return false;
  }
  void expect(char c) {
    if (!tryTake(c)) {
      fail(std::string("expected '") + c + "' in the header dictionary");
    }
  }
  std::string string() {
    const char quote = peek();
    if (quote != '\'' && quote != '"') {
      fail("expected a quoted string in the header dictionary");
    }
    const std::size_t start = ++i_;
    while (i_ < s_.size() && s_[i_] != quote) {
      ++i_;
    }
    if (i_ == s_.size()) {
      fail("unterminated string in the header dictionary");
    }
    return std::string(s_.substr(start, i_++ - start));
  }
  bool boolean() {
    skipBlanks();
    for (const auto& [word, value] : {std::pair{"True", true}, std::pair{"False", false}}) {
      const std::string_view w(word);
      if (s_.substr(i_, w.size()) == w) {
        i_ += w.size();
        return value;
      }
    }
    fail("'fortran_order' is not True or False");
  }
  std::vector<std::uint64_t> tuple() {
    std::vector<std::uint64_t> dims;
    expect('(');
    while (!tryTake(')')) {
      skipBlanks();
      std::uint64_t v = 0;
      const auto [ptr, ec] = std::from_chars(s_.data() + i_, s_.data() + s_.size(), v);
      if (ec != std::errc()) {
        fail("the shape holds something other than non-negative whole numbers");
      }
      i_ = static_cast<std::size_t>(ptr - s_.data());
      tryTake('L');  // written by NumPy under Python 2
      dims.push_back(v);
      if (dims.size() > 32) {
        fail("the shape has more than 32 dimensions");
      }
      if (!tryTake(',')) {
        expect(')');
        break;
      }
    }
    return dims;
  }
  void skipValue() {
    int depth = 0;
    while (i_ < s_.size()) {
      const char c = s_[i_];
      if (c == '\'' || c == '"') {
        string();
        continue;
      }
      if (c == '(' || c == '[' || c == '{') {
        ++depth;
      } else if (c == ')' || c == ']' || c == '}') {
        if (depth == 0) {
          return;
        }
        --depth;
      } else if (c == ',' && depth == 0) {
        return;
      }
      ++i_;
    }
  }
  ClassID dtype(const std::string& descr) const {
    if (descr.size() >= 3) {
      const char order = descr[0];
      const std::string code = descr.substr(1);
      const ClassID id = parseDtypeCode(code);
      if (id != ClassID::Unknown && order != '|' && order != '<' && order != '>' && order != '=') {
        fail("dtype '" + descr + "' has an unknown byte-order mark");
      }
      if (id != ClassID::Unknown) {
        if (order == '>' && quorix::elementSize(id) > 1) {
          throw InputError(where_ + ": big-endian data (dtype '" + descr +
                           "') are not supported; convert with arr.astype('<" + code + "')");
        }
        return id;
      }
    }
    throw InputError(where_ + ": dtype '" + descr + "' is not supported; the .npy file must hold " +
                     kDtypeList + " (little-endian)");
  }
  static ClassID parseDtypeCode(const std::string& code) {
    for (std::size_t k = 10; k < 20; ++k) {  // the short codes
      if (kDtypeNames[k].name == code) {
        return kDtypeNames[k].id;
      }
    }
    return ClassID::Unknown;
  }

  std::string_view s_;
  std::size_t i_ = 0;
  const std::string& where_;
};

}  // namespace

NumberReader::~NumberReader() = default;

InputFormat parseInputFormat(std::string_view name) {
  if (name == "auto") return InputFormat::Auto;
  if (name == "text") return InputFormat::Text;
  if (name == "npy") return InputFormat::Npy;
  if (name == "raw") return InputFormat::Raw;
  if (name == "csv") return InputFormat::Csv;
  if (name == "tsv") return InputFormat::Tsv;
  throw InputError("unknown input format '" + std::string(name) +
                   "' (use text, npy, raw, csv, tsv or auto)");
}

quorix::ClassID parseDtype(std::string_view name) {
  std::string_view bare = name;
  if (bare.size() == 3 && (bare[0] == '<' || bare[0] == '|' || bare[0] == '=')) {
    bare.remove_prefix(1);
  }
  for (const DtypeName& d : kDtypeNames) {
    if (d.name == bare) {
      return d.id;
    }
  }
  throw InputError("unknown dtype '" + std::string(name) + "' (use one of " + kDtypeList + ")");
}

std::string_view dtypeName(quorix::ClassID id) noexcept {
  for (const DtypeName& d : kDtypeNames) {
    if (d.id == id) {
      return d.name;
    }
  }
  return "?";
}

std::uint64_t NpyHeader::elementCount() const {
  std::uint64_t n = 1;
  for (const std::uint64_t d : shape) {
    if (d != 0 && n > std::numeric_limits<std::uint64_t>::max() / d) {
      throw InputError(".npy shape is too large");
    }
    n *= d;
  }
  return n;
}

NpyHeader parseNpyDictionary(std::string_view text, const std::string& where) {
  return DictParser(text, where).parse();
}

NpyHeader readNpyHeader(ByteSource& source) {
  std::array<std::uint8_t, 8> lead{};
  if (source.read(lead.data(), lead.size()) != lead.size() ||
      !std::equal(kNpyMagic.begin(), kNpyMagic.end(), lead.begin())) {
    throw InputError(source.name() + ": not a .npy file (wrong magic string)");
  }
  const unsigned major = lead[6];
  if (major < 1 || major > 3) {
    throw InputError(source.name() + ": .npy format version " + std::to_string(major) + "." +
                     std::to_string(lead[7]) + " is not supported (1.0, 2.0 and 3.0 are)");
  }
  const std::size_t lengthBytes = major == 1 ? 2 : 4;
  std::array<std::uint8_t, 4> len{};
  if (source.read(len.data(), lengthBytes) != lengthBytes) {
    throw InputError(source.name() + ": the .npy header is truncated");
  }
  std::size_t headerLength = 0;
  for (std::size_t i = 0; i < lengthBytes; ++i) {
    headerLength |= std::size_t{len[i]} << (8 * i);
  }
  if (headerLength > kMaxNpyHeader) {
    throw InputError(source.name() + ": the .npy header is implausibly long");
  }
  std::string text(headerLength, '\0');
  if (source.read(text.data(), headerLength) != headerLength) {
    throw InputError(source.name() + ": the .npy header is truncated");
  }
  NpyHeader h = parseNpyDictionary(text, source.name());
  const std::uint64_t count = h.elementCount();
  const std::uint64_t itemSize = quorix::elementSize(h.elementClass);
  if (const auto size = source.regularFileSize()) {
    const std::uint64_t dataStart = 8 + lengthBytes + headerLength;
    const std::uint64_t available = *size - std::min(*size, dataStart);
    if (count > available / itemSize) {
      throw InputError(source.name() + ": the .npy file is truncated: its shape needs " +
                       std::to_string(count) + " elements, " +
                       std::to_string(available / itemSize) + " are present");
    }
  }
  return h;
}

std::unique_ptr<NumberReader> makeTextReader(std::unique_ptr<ByteSource> source) {
  return std::make_unique<TextReader>(std::move(source));
}

std::unique_ptr<NumberReader> makeRawReader(std::unique_ptr<ByteSource> source,
                                            quorix::ClassID elementClass) {
  if (const auto size = source->regularFileSize()) {
    const std::size_t item = quorix::elementSize(elementClass);
    if (*size % item != 0) {
      throw InputError(source->name() + ": raw " + std::string(dtypeName(elementClass)) +
                       " input of " + std::to_string(*size) +
                       " bytes is not a whole number of elements");
    }
  }
  return std::make_unique<BinaryReader>(std::move(source), elementClass, std::nullopt);
}

std::unique_ptr<NumberReader> makeNpyReader(std::unique_ptr<ByteSource> source) {
  const NpyHeader h = readNpyHeader(*source);
  return std::make_unique<BinaryReader>(std::move(source), h.elementClass, h.elementCount());
}

std::unique_ptr<NumberReader> openNumbers(std::unique_ptr<ByteSource> source, InputFormat format,
                                          const std::string& dtype) {
  if (format == InputFormat::Auto) {
    const std::span<const std::byte> lead = source->peek(kNpyMagic.size());
    const bool npy = lead.size() == kNpyMagic.size() &&
                     std::equal(kNpyMagic.begin(), kNpyMagic.end(), lead.begin(),
                                [](std::uint8_t a, std::byte b) { return std::byte{a} == b; });
    if (npy && !dtype.empty()) {
      throw InputError("--dtype is for raw input, but " + source->name() +
                       " is a .npy file, which names its own dtype");
    }
    format = npy ? InputFormat::Npy : dtype.empty() ? InputFormat::Text : InputFormat::Raw;
  }
  switch (format) {
    case InputFormat::Npy:
      return makeNpyReader(std::move(source));
    case InputFormat::Raw:
      if (dtype.empty()) {
        throw InputError("raw input needs --dtype (one of " + std::string(kDtypeList) + ")");
      }
      return makeRawReader(std::move(source), parseDtype(dtype));
    default:
      return makeTextReader(std::move(source));
  }
}

// --- per-column blocks -----------------------------------------------------------

namespace {

// Row-major band (rows x columns) to column-major, one element width.
template <class Word>
void transpose(const std::byte* in, std::byte* out, std::size_t rows, std::size_t columns) {
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t c = 0; c < columns; ++c) {
      Word w;
      std::memcpy(&w, in + (r * columns + c) * sizeof(Word), sizeof(Word));
      std::memcpy(out + (c * rows + r) * sizeof(Word), &w, sizeof(Word));
    }
  }
}

void transposeBand(const std::byte* in, std::byte* out, std::size_t rows, std::size_t columns,
                   std::size_t elementSize) {
  switch (elementSize) {
    case 1:
      transpose<std::uint8_t>(in, out, rows, columns);
      break;
    case 2:
      transpose<std::uint16_t>(in, out, rows, columns);
      break;
    case 4:
      transpose<std::uint32_t>(in, out, rows, columns);
      break;
    default:
      transpose<std::uint64_t>(in, out, rows, columns);
      break;
  }
}

}  // namespace

ColumnBlockReader::ColumnBlockReader(std::unique_ptr<ByteSource> source, std::size_t budget)
    : source_(std::move(source)), capacity_(std::max<std::size_t>(budget, 1)) {
  header_ = readNpyHeader(*source_);
  if (header_.shape.size() > 2) {
    throw InputError(source_->name() + ": per-column digests need a 1-D or 2-D array, not " +
                     std::to_string(header_.shape.size()) + "-D");
  }
  const std::uint64_t count = header_.elementCount();
  if (count > std::numeric_limits<std::size_t>::max() / 16) {
    throw InputError(source_->name() + ": the array is too large");
  }
  rows_ = header_.shape.empty() ? 1 : static_cast<std::size_t>(header_.shape[0]);
  columns_ = header_.shape.size() == 2 ? static_cast<std::size_t>(header_.shape[1]) : 1;
  elementSize_ = quorix::elementSize(header_.elementClass);
  rowsPerPiece_ = std::max<std::size_t>(1, capacity_ / std::max<std::size_t>(columns_, 1));
  if (!header_.fortranOrder && columns_ > 1) {
    // One band of rowsPerPiece rows must fit: widen to one whole row.
    capacity_ = std::max(capacity_, columns_);
    scratch_.resize(rowsPerPiece_ * columns_ * elementSize_);
  }
}

ColumnBlockReader::~ColumnBlockReader() = default;

bool ColumnBlockReader::next(ColumnBlock& block, void* buffer) {
  if (rows_ == 0 || columns_ == 0 || nextColumn_ >= columns_) {
    return false;
  }
  auto* out = static_cast<std::byte*>(buffer);
  const bool bands = !header_.fortranOrder && columns_ > 1;
  if (bands) {
    block.firstColumn = 0;
    block.columns = columns_;
    block.firstRow = nextRow_;
    block.rows = std::min(rowsPerPiece_, rows_ - nextRow_);
    const std::size_t bytes = block.rows * columns_ * elementSize_;
    if (source_->read(scratch_.data(), bytes) != bytes) {
      throw InputError(source_->name() + ": the .npy data end early");
    }
    transposeBand(scratch_.data(), out, block.rows, columns_, elementSize_);
    nextRow_ += block.rows;
    if (nextRow_ == rows_) {
      nextColumn_ = columns_;
    }
    return true;
  }
  // Column-major storage (or a single column): whole columns while they
  // fit, else pieces of one column in multiples of rowsPerPiece rows.
  block.firstColumn = nextColumn_;
  block.firstRow = nextRow_;
  if (nextRow_ == 0 && rows_ <= capacity_) {
    block.columns = std::min(columns_ - nextColumn_, capacity_ / rows_);
    block.rows = rows_;
    nextColumn_ += block.columns;
  } else {
    const std::size_t piece = (capacity_ / rowsPerPiece_) * rowsPerPiece_;
    block.columns = 1;
    block.rows = std::min(piece, rows_ - nextRow_);
    nextRow_ += block.rows;
    if (nextRow_ == rows_) {
      nextRow_ = 0;
      ++nextColumn_;
    }
  }
  const std::size_t bytes = block.rows * block.columns * elementSize_;
  if (source_->read(out, bytes) != bytes) {
    throw InputError(source_->name() + ": the .npy data end early");
  }
  return true;
}

}  // namespace zotdigest::cli
