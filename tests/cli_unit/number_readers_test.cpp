// The number readers: the .npy header dictionary, dtype names, text
// parsing with line numbers, and the per-column blocks of both memory
// orders.
#include "cli/number_readers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>

#include "cli/cli_errors.h"

namespace zotdigest::cli {
namespace {

using quorix::ClassID;

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/zotdigest-cli-unit-XXXXXX";
    path_ = ::mkdtemp(name);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name, const std::string& content) const {
    const std::string p = (path_ / name).string();
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  std::filesystem::path path_;
};

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const InputError& e) {
    return e.what();
  }
  return "no error";
}

// --- .npy header dictionary ------------------------------------------------------

TEST(NpyDictionary, reads_what_numpy_writes) {
  const NpyHeader h =
      parseNpyDictionary("{'descr': '<f8', 'fortran_order': False, 'shape': (3, 4), }    \n", "x");
  EXPECT_EQ(h.elementClass, ClassID::Double);
  EXPECT_FALSE(h.fortranOrder);
  EXPECT_EQ(h.shape, (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(h.elementCount(), 12u);

  const NpyHeader v =
      parseNpyDictionary("{'shape': (5,), \"fortran_order\": True, 'descr': '|u1'}", "x");
  EXPECT_EQ(v.elementClass, ClassID::UInt8);
  EXPECT_TRUE(v.fortranOrder);
  EXPECT_EQ(v.shape, (std::vector<std::uint64_t>{5}));

  const NpyHeader s =
      parseNpyDictionary("{'descr': '<i2', 'fortran_order': False, 'shape': ()}", "x");
  EXPECT_TRUE(s.shape.empty());
  EXPECT_EQ(s.elementCount(), 1u);

  const NpyHeader py2 = parseNpyDictionary(
      "{'descr': '<u8', 'fortran_order': False, 'shape': (2L, 7L), 'x': [1, (2,)]}", "x");
  EXPECT_EQ(py2.shape, (std::vector<std::uint64_t>{2, 7}));
}

TEST(NpyDictionary, maps_the_ten_dtypes) {
  const std::pair<const char*, ClassID> cases[] = {
      {"<f8", ClassID::Double}, {"<f4", ClassID::Single}, {"|i1", ClassID::Int8},
      {"|u1", ClassID::UInt8},  {"<i2", ClassID::Int16},  {"<u2", ClassID::UInt16},
      {"<i4", ClassID::Int32},  {"<u4", ClassID::UInt32}, {"<i8", ClassID::Int64},
      {"<u8", ClassID::UInt64}, {">i1", ClassID::Int8},   {"=f8", ClassID::Double}};
  for (const auto& [descr, id] : cases) {
    const std::string text =
        std::string("{'descr': '") + descr + "', 'fortran_order': False, 'shape': (1,)}";
    EXPECT_EQ(parseNpyDictionary(text, "x").elementClass, id) << descr;
  }
}

TEST(NpyDictionary, refuses_clearly) {
  const auto refuse = [](const std::string& dict) {
    return errorOf([&] { parseNpyDictionary(dict, "f.npy"); });
  };
  EXPECT_NE(refuse("{'descr': '>f8', 'fortran_order': False, 'shape': (1,)}").find("big-endian"),
            std::string::npos);
  EXPECT_NE(refuse("{'descr': '<c16', 'fortran_order': False, 'shape': (1,)}")
                .find("'<c16' is not supported"),
            std::string::npos);
  EXPECT_NE(
      refuse("{'descr': [('a', '<f8')], 'fortran_order': False, 'shape': (1,)}").find("structured"),
      std::string::npos);
  EXPECT_NE(refuse("{'descr': '<f8', 'shape': (1,)}").find("lacks one of"), std::string::npos);
  EXPECT_NE(refuse("{'descr': '<f8', 'fortran_order': 0, 'shape': (1,)}").find("True or False"),
            std::string::npos);
  EXPECT_NE(
      refuse("{'descr': '<f8', 'fortran_order': False, 'shape': (-1,)}").find("whole numbers"),
      std::string::npos);
  EXPECT_NE(refuse("{'descr': '<f8").find("unterminated"), std::string::npos);
  EXPECT_NE(refuse("").find("expected '{'"), std::string::npos);
  EXPECT_EQ(refuse("").rfind("f.npy: ", 0), 0u) << "names the file first";
}

TEST(Dtype, names_and_codes) {
  EXPECT_EQ(parseDtype("float64"), ClassID::Double);
  EXPECT_EQ(parseDtype("<f4"), ClassID::Single);
  EXPECT_EQ(parseDtype("double"), ClassID::Double);
  EXPECT_EQ(parseDtype("uint16"), ClassID::UInt16);
  EXPECT_EQ(dtypeName(ClassID::Int32), "int32");
  EXPECT_NE(errorOf([] { parseDtype("float16"); }).find("unknown dtype 'float16'"),
            std::string::npos);
}

// --- text ---------------------------------------------------------------------------

std::vector<double> readAllText(const std::string& path, std::size_t chunk) {
  auto reader = openNumbers(std::make_unique<ByteSource>(path), InputFormat::Text, "");
  std::vector<double> all;
  std::vector<double> buf(chunk);
  while (const std::size_t n = reader->next(buf.data(), chunk)) {
    all.insert(all.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(n));
  }
  return all;
}

TEST(TextReader, reads_numbers_across_chunks_comments_and_blank_lines) {
  TempDir dir;
  const std::string p = dir.file("a.txt", "# head\n1 2\t3\n\n  +4e0 -5.5 # six\n7\r\n.5 nan -inf");
  for (const std::size_t chunk : {1u, 2u, 3u, 100u}) {
    const std::vector<double> v = readAllText(p, chunk);
    ASSERT_EQ(v.size(), 9u) << chunk;
    EXPECT_EQ(v[3], 4.0);
    EXPECT_EQ(v[4], -5.5);
    EXPECT_EQ(v[5], 7.0);
    EXPECT_EQ(v[6], 0.5);
    EXPECT_TRUE(std::isnan(v[7]));
    EXPECT_EQ(v[8], -INFINITY);
  }
}

TEST(TextReader, names_the_line_of_a_bad_token) {
  TempDir dir;
  const std::pair<std::string, std::string> cases[] = {
      {"1\n2\n3x\n", "line 3: '3x' is not a number"},
      {"# 1\n# 2\n\n\n++1", "line 5: '++1' is not a number"},
      {"1e400", "line 1: '1e400' is out of the range of a double"},
      {"\n\n1 \x01\x02", "line 3: '\\x01\\x02' is not a number"},
  };
  for (const auto& [text, message] : cases) {
    const std::string p = dir.file("bad.txt", text);
    const std::string e = errorOf([&] { readAllText(p, 7); });
    EXPECT_NE(e.find(message), std::string::npos) << e;
    EXPECT_EQ(e.rfind(p, 0), 0u) << "starts with the file name: " << e;
  }
}

// --- per-column blocks -----------------------------------------------------------------

std::string npyFile(const std::string& dict, const std::vector<double>& data) {
  std::string header = dict;
  while ((10 + header.size() + 1) % 64 != 0) {
    header += ' ';
  }
  header += '\n';
  std::string out = "\x93NUMPY\x01";
  out += '\0';
  out += static_cast<char>(header.size() & 0xFF);
  out += static_cast<char>(header.size() >> 8);
  out += header;
  out.append(reinterpret_cast<const char*>(data.data()), data.size() * sizeof(double));
  return out;
}

// Column c as the blocks deliver it, with the piece boundaries seen.
struct Columns {
  std::vector<std::vector<double>> values;
  std::vector<std::vector<std::size_t>> cuts;  // firstRow of each block, per column
};

Columns readColumns(const std::string& path, std::size_t budget) {
  ColumnBlockReader reader(std::make_unique<ByteSource>(path), budget);
  Columns c;
  c.values.resize(reader.columns());
  c.cuts.resize(reader.columns());
  std::vector<double> buf(reader.capacity());
  ColumnBlock b;
  while (reader.next(b, buf.data())) {
    EXPECT_LE(b.rows * b.columns, reader.capacity());
    for (std::size_t k = 0; k < b.columns; ++k) {
      auto& col = c.values[b.firstColumn + k];
      EXPECT_EQ(col.size(), b.firstRow);
      col.insert(col.end(), buf.begin() + static_cast<std::ptrdiff_t>(k * b.rows),
                 buf.begin() + static_cast<std::ptrdiff_t>((k + 1) * b.rows));
      // Pieces of rowsPerPiece rows start where the blocks say.
      for (std::size_t r = b.firstRow; r < b.firstRow + b.rows; r += reader.rowsPerPiece()) {
        c.cuts[b.firstColumn + k].push_back(r);
      }
    }
  }
  return c;
}

TEST(ColumnBlockReader, both_memory_orders_give_the_same_columns_and_pieces) {
  TempDir dir;
  const std::size_t rows = 37;
  const std::size_t cols = 3;
  std::vector<double> cOrder(rows * cols);
  std::vector<double> fOrder(rows * cols);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t c = 0; c < cols; ++c) {
      const double v = static_cast<double>(100 * c + r);
      cOrder[r * cols + c] = v;
      fOrder[c * rows + r] = v;
    }
  }
  const std::string shape = "'shape': (37, 3), }";
  const std::string cp =
      dir.file("c.npy", npyFile("{'descr': '<f8', 'fortran_order': False, " + shape, cOrder));
  const std::string fp =
      dir.file("f.npy", npyFile("{'descr': '<f8', 'fortran_order': True, " + shape, fOrder));
  for (const std::size_t budget : {1u, 5u, 10u, 111u, 1000u}) {
    const Columns a = readColumns(cp, budget);
    const Columns b = readColumns(fp, budget);
    ASSERT_EQ(a.values.size(), cols);
    for (std::size_t c = 0; c < cols; ++c) {
      std::vector<double> want(rows);
      std::iota(want.begin(), want.end(), static_cast<double>(100 * c));
      EXPECT_EQ(a.values[c], want) << budget;
      EXPECT_EQ(b.values[c], want) << budget;
      EXPECT_EQ(a.cuts[c], b.cuts[c]) << "budget " << budget << " column " << c;
    }
  }
}

TEST(ColumnBlockReader, refuses_three_dimensions) {
  TempDir dir;
  const std::string p = dir.file(
      "cube.npy",
      npyFile("{'descr': '<f8', 'fortran_order': False, 'shape': (1, 1, 2), }", {1.0, 2.0}));
  EXPECT_NE(
      errorOf([&] { ColumnBlockReader(std::make_unique<ByteSource>(p), 10); }).find("1-D or 2-D"),
      std::string::npos);
}

}  // namespace
}  // namespace zotdigest::cli
