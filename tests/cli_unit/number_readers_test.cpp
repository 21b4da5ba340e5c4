// The number readers: the .npy header dictionary and text read in chunks of
// every size. Whole files of every format and dtype, both memory orders
// read by column, and the refusals of bad numbers are read end to end by
// the CLI's own tests (tests/cli).
#include "cli/number_readers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include "cli/cli_errors.h"

namespace zotdigest::cli {
namespace {

using quorix::ClassID;

TEST(NpyDictionary, reads_keys_in_any_order_and_quoting_with_extra_keys_and_long_suffixes) {
  NpyHeader h = parseNpyDictionary("{'shape': (5,), \"fortran_order\": True, 'descr': '|u1'}", "x");
  EXPECT_EQ(h.elementClass, ClassID::UInt8);
  EXPECT_TRUE(h.fortranOrder);
  EXPECT_EQ(h.shape, (std::vector<std::uint64_t>{5}));
  h = parseNpyDictionary(
      "{'descr': '<u8', 'fortran_order': False, 'shape': (2L, 7L), 'x': [1, (2,)]}", "x");
  EXPECT_EQ(h.elementClass, ClassID::UInt64);
  EXPECT_EQ(h.elementCount(), 14u);
  h = parseNpyDictionary("{'descr': '<i2', 'fortran_order': False, 'shape': ()}", "x");
  EXPECT_TRUE(h.shape.empty());
  EXPECT_EQ(h.elementCount(), 1u);  // a 0-d array holds one element
}

TEST(NpyDictionary, refuses_with_the_file_name_and_the_reason) {
  const std::pair<const char*, const char*> cases[] = {
      {"{'descr': '>f8', 'fortran_order': False, 'shape': (1,)}", "big-endian"},
      {"{'descr': '<c16', 'fortran_order': False, 'shape': (1,)}", "'<c16' is not supported"},
      {"{'descr': '|b1', 'fortran_order': False, 'shape': (1,)}", "'|b1' is not supported"},
      {"{'descr': [('a', '<f8')], 'fortran_order': False, 'shape': (1,)}", "structured dtypes"},
      {"{'descr': '<f8', 'shape': (1,)}", "lacks one of"},
      {"{'descr': '<f8', 'fortran_order': 0, 'shape': (1,)}", "True or False"},
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (-1,)}", "whole numbers"},
      {"{'descr': '<f8", "unterminated"},
      {"", "expected '{'"},
  };
  for (const auto& [text, reason] : cases) {
    std::string e = "no error";
    try {
      parseNpyDictionary(text, "f.npy");
    } catch (const InputError& error) {
      e = error.what();
    }
    EXPECT_NE(e.find(reason), std::string::npos) << e;
    EXPECT_EQ(e.rfind("f.npy: ", 0), 0u) << e;
  }
}

TEST(TextReader, reads_numbers_across_chunks_comments_and_blank_lines) {
  const std::string path = ::testing::TempDir() + "zotdigest-cli-unit-a.txt";
  std::ofstream(path, std::ios::binary) << "# head\n1 2\t3\n\n  +4e0 -5.5 # six\n7\r\n.5 nan -inf";
  for (const std::size_t chunk : {1u, 2u, 3u, 100u}) {
    auto reader = openNumbers(std::make_unique<ByteSource>(path), InputFormat::Text, "");
    std::vector<double> v, buf(chunk);
    while (const std::size_t n = reader->next(buf.data(), chunk))
      v.insert(v.end(), buf.data(), buf.data() + n);
    ASSERT_EQ(v.size(), 9u) << chunk;
    EXPECT_EQ(std::vector<double>(v.begin(), v.begin() + 7),
              (std::vector<double>{1, 2, 3, 4, -5.5, 7, 0.5}));
    EXPECT_TRUE(std::isnan(v[7]));
    EXPECT_EQ(v[8], -INFINITY);
  }
  std::remove(path.c_str());
}

}  // namespace
}  // namespace zotdigest::cli
