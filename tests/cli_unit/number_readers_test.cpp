// The number readers: the .npy header dictionary, text read in chunks, and
// the per-column blocks of both memory orders. Whole files of every format
// and dtype, and the refusals of bad numbers, are read end to end by the
// CLI's own tests (tests/cli).
#include "cli/number_readers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <numeric>

#include "cli/cli_errors.h"

namespace zotdigest::cli {
namespace {

using quorix::ClassID;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const InputError& e) {
    return e.what();
  }
  return "no error";
}

// A file under the test's temporary directory, removed with the object.
struct TempFile {
  TempFile(const std::string& name, const std::string& content)
      : path(::testing::TempDir() + "zotdigest-cli-unit-" + name) {
    std::ofstream(path, std::ios::binary) << content;
  }
  ~TempFile() { std::remove(path.c_str()); }
  const std::string path;
};

TEST(NpyDictionary, reads_what_numpy_writes_and_what_it_may_write) {
  const struct {
    const char* text;
    ClassID elementClass;
    bool fortran;
    std::vector<std::uint64_t> shape;
  } cases[] = {
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (3, 4), }  \n",
       ClassID::Double,
       false,
       {3, 4}},
      {"{'shape': (5,), \"fortran_order\": True, 'descr': '|u1'}", ClassID::UInt8, true, {5}},
      {"{'descr': '<i2', 'fortran_order': False, 'shape': ()}", ClassID::Int16, false, {}},
      {"{'descr': '<u8', 'fortran_order': False, 'shape': (2L, 7L), 'x': [1, (2,)]}",
       ClassID::UInt64,
       false,
       {2, 7}},
      {"{'descr': '>i1', 'fortran_order': False, 'shape': (1,)}", ClassID::Int8, false, {1}},
      {"{'descr': '=f4', 'fortran_order': False, 'shape': (1,)}", ClassID::Single, false, {1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const NpyHeader h = parseNpyDictionary(c.text, "x");
    EXPECT_EQ(h.elementClass, c.elementClass);
    EXPECT_EQ(h.fortranOrder, c.fortran);
    EXPECT_EQ(h.shape, c.shape);
    EXPECT_EQ(h.elementCount(), std::accumulate(c.shape.begin(), c.shape.end(), std::uint64_t{1},
                                                std::multiplies<>()));
  }
}

TEST(NpyDictionary, refuses_with_the_file_name_and_the_reason) {
  const std::pair<const char*, const char*> cases[] = {
      {"{'descr': '>f8', 'fortran_order': False, 'shape': (1,)}", "big-endian"},
      {"{'descr': '<c16', 'fortran_order': False, 'shape': (1,)}", "'<c16' is not supported"},
      {"{'descr': '|b1', 'fortran_order': False, 'shape': (1,)}", "'|b1' is not supported"},
      {"{'descr': '<f2', 'fortran_order': False, 'shape': (1,)}", "'<f2' is not supported"},
      {"{'descr': [('a', '<f8')], 'fortran_order': False, 'shape': (1,)}", "structured dtypes"},
      {"{'descr': '<f8', 'shape': (1,)}", "lacks one of"},
      {"{'descr': '<f8', 'fortran_order': 0, 'shape': (1,)}", "True or False"},
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (-1,)}", "whole numbers"},
      {"{'descr': '<f8", "unterminated"},
      {"", "expected '{'"},
  };
  for (const auto& c : cases) {
    const std::string e = errorOf([&] { parseNpyDictionary(c.first, "f.npy"); });
    EXPECT_NE(e.find(c.second), std::string::npos) << e;
    EXPECT_EQ(e.rfind("f.npy: ", 0), 0u) << e;
  }
}

std::vector<double> readText(const std::string& path, std::size_t chunk) {
  auto reader = openNumbers(std::make_unique<ByteSource>(path), InputFormat::Text, "");
  std::vector<double> all, buf(chunk);
  while (const std::size_t n = reader->next(buf.data(), chunk)) {
    all.insert(all.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(n));
  }
  return all;
}

TEST(TextReader, reads_numbers_across_chunks_comments_and_blank_lines) {
  const TempFile f("a.txt", "# head\n1 2\t3\n\n  +4e0 -5.5 # six\n7\r\n.5 nan -inf");
  for (const std::size_t chunk : {1u, 2u, 3u, 100u}) {
    const std::vector<double> v = readText(f.path, chunk);
    ASSERT_EQ(v.size(), 9u) << chunk;
    EXPECT_EQ(std::vector<double>(v.begin(), v.begin() + 7),
              (std::vector<double>{1, 2, 3, 4, -5.5, 7, 0.5}));
    EXPECT_TRUE(std::isnan(v[7]));
    EXPECT_EQ(v[8], -INFINITY);
  }
}

// A .npy file of doubles, shape (37, 3), in either memory order.
std::string npyFile(bool fortran, const std::vector<double>& data) {
  std::string header = std::string("{'descr': '<f8', 'fortran_order': ") +
                       (fortran ? "True" : "False") + ", 'shape': (37, 3), }";
  header.resize(128 - 10 - 1, ' ');  // data aligned to 64 bytes
  std::string out = std::string("\x93NUMPY\x01\x00", 8) + char(header.size() + 1) + '\0';
  out += header + '\n';
  return out.append(reinterpret_cast<const char*>(data.data()), data.size() * sizeof(double));
}

TEST(ColumnBlockReader, both_memory_orders_give_the_same_columns_in_the_same_pieces) {
  const std::size_t rows = 37, cols = 3;
  std::vector<double> cOrder(rows * cols), fOrder(rows * cols);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t c = 0; c < cols; ++c) {
      cOrder[r * cols + c] = fOrder[c * rows + r] = static_cast<double>(100 * c + r);
    }
  }
  const TempFile cFile("c.npy", npyFile(false, cOrder)), fFile("f.npy", npyFile(true, fOrder));
  // Each column's values and the rows where its pieces start.
  const auto read = [](const std::string& path, std::size_t budget) {
    ColumnBlockReader reader(std::make_unique<ByteSource>(path), budget);
    std::vector<std::vector<double>> values(reader.columns());
    std::vector<std::vector<std::size_t>> cuts(reader.columns());
    std::vector<double> buf(reader.capacity());
    for (ColumnBlock b; reader.next(b, buf.data());) {
      EXPECT_LE(b.rows * b.columns, reader.capacity());
      for (std::size_t k = 0; k < b.columns; ++k) {
        auto& col = values[b.firstColumn + k];
        EXPECT_EQ(col.size(), b.firstRow);
        const auto from = buf.begin() + static_cast<std::ptrdiff_t>(k * b.rows);
        col.insert(col.end(), from, from + static_cast<std::ptrdiff_t>(b.rows));
        for (std::size_t r = b.firstRow; r < b.firstRow + b.rows; r += reader.rowsPerPiece()) {
          cuts[b.firstColumn + k].push_back(r);
        }
      }
    }
    return std::make_pair(values, cuts);
  };
  for (const std::size_t budget : {1u, 5u, 10u, 111u, 1000u}) {
    SCOPED_TRACE(budget);
    const auto [cValues, cCuts] = read(cFile.path, budget);
    const auto [fValues, fCuts] = read(fFile.path, budget);
    ASSERT_EQ(cValues.size(), cols);
    for (std::size_t c = 0; c < cols; ++c) {
      std::vector<double> want(rows);
      std::iota(want.begin(), want.end(), static_cast<double>(100 * c));
      EXPECT_EQ(cValues[c], want);
      EXPECT_EQ(fValues[c], want);
    }
    EXPECT_EQ(cCuts, fCuts);
  }
}

}  // namespace
}  // namespace zotdigest::cli
