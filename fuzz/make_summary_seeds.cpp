// Writes the seed corpus of summary_fuzz into the directory given as the
// only argument: encodings of real digests of several sizes, the smallest
// matrices, and a few hand-made trees no digest would produce. The files
// committed under fuzz/corpus/summary/ were made by this program; each stays
// within the target's 4096-byte input limit.
#include <bit>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"
#include "summary/summary_matrix.h"
#include "summary_fuzz_input.h"

namespace zotdigest::fuzz {
namespace {

using Column = std::vector<std::int64_t>;  // four rows

std::int64_t bits(double x) { return std::bit_cast<std::int64_t>(x); }

void write(const std::string& dir, const std::string& name, const Control& control,
           const std::vector<Column>& columns) {
  std::vector<std::uint8_t> bytes = encodeControl(control);
  for (const Column& c : columns) {
    for (const std::int64_t w : c) putLittleEndian(bytes, static_cast<std::uint64_t>(w), 8);
  }
  std::ofstream out(dir + "/" + name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::vector<Column> columnsOf(const quorix::HostArray& m) {
  std::vector<Column> cols;
  const std::int64_t* d = m.data<std::int64_t>();
  for (std::size_t j = 0; j < m.columns(); ++j) {
    cols.push_back({d[4 * j], d[4 * j + 1], d[4 * j + 2], d[4 * j + 3]});
  }
  return cols;
}

// The encoding of a digest of `values` skewed values with the given delta.
std::vector<Column> digestColumns(double delta, int values, std::uint64_t seed) {
  const auto stream = quorix::RandomStream::create("mrg32k3a", 1000000, seed);
  TDigest d;
  d.stream = stream.get();
  d.delta = delta;
  for (int i = 0; i < values; ++i) {
    const double u = stream->uniform();
    d.add(u * u * 100.0 - 20.0);
  }
  return columnsOf(*encodeSummary(d.tree));
}

// NumDataPoints given as 1000 where the mode takes it from the control block.
Control control(std::uint8_t steps, std::uint8_t deltaIndex, std::uint8_t adds,
                std::uint8_t totalMode, std::uint32_t seed) {
  return Control{steps, deltaIndex, adds, totalMode, 1000, seed};
}

}  // namespace
}  // namespace zotdigest::fuzz

int main(int argc, char** argv) {
  using namespace zotdigest::fuzz;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  const std::uint8_t all = 0xFF;
  const std::int64_t maxH = std::numeric_limits<std::int32_t>::max();

  write(dir, "empty_4x0", control(all, 0, 20, kTotalFromTree, 1), {});
  write(dir, "one_4x1", control(all, 0, 20, kTotalFromTree, 2), {{bits(1.5), 7, 0, 7}});
  write(dir, "root_only_4x2", control(all, 1, 10, kTotalFromTree, 3),
        {{bits(1.5), 7, 1, 9}, {bits(0.5), 2, 0, 2}});
  write(dir, "two_4x3", control(all, 4, 30, kTotalFromTree, 4),
        {{bits(1.0), 5, 1, 12}, {0, 0, 0, 0}, {bits(2.0), 7, 0, 7}});
  write(dir, "three_4x3", control(all, 2, 30, kTotalGiven, 5),
        {{bits(2.0), 1, 1, 3}, {bits(1.0), 1, 0, 1}, {bits(3.0), 1, 0, 1}});
  write(dir, "zero_count_root", control(all, 0, 5, kTotalZero, 6),
        {{bits(2.0), 0, 1, 3}, {bits(1.0), 1, 0, 1}, {bits(3.0), 1, 0, 1}});
  write(dir, "max_heights", control(all, 1, 50, kTotalFromTree, 7),
        {{bits(2.0), 1, maxH, 3}, {bits(1.0), 1, maxH, 1}, {bits(3.0), 1, -maxH - 1, 1}});
  write(dir, "unsorted_nan_means", control(all, 3, 60, kTotalKeep, 8),
        {{bits(5.0), 3, 1, 3},
         {bits(std::numeric_limits<double>::quiet_NaN()), 1, 0, 1},
         {bits(-5.0), UINT64_C(1) << 62, -3, 0}});
  const std::int64_t huge = std::int64_t{1} << 62;
  write(dir, "wrapping_counts", control(all, 1, 20, kTotalFromTree, 13),
        {{bits(1.0), huge, 1, huge}, {bits(0.0), huge, 0, huge}, {bits(2.0), -1, 0, -1}});
  write(dir, "junk_subtree_counts", control(all, 1, 20, kTotalGiven, 14),
        {{bits(2.0), 1, 1, 0}, {bits(1.0), 1, 0, -1}, {bits(3.0), 1, 0, std::int64_t{1} << 40}});
  write(dir, "infinite_and_nan_means", control(all, 1, 20, kTotalFromTree, 15),
        {{bits(std::numeric_limits<double>::quiet_NaN()), 3, 1, 9},
         {bits(std::numeric_limits<double>::infinity()), 3, 0, 3},
         {bits(-std::numeric_limits<double>::quiet_NaN()), 3, 0, 3}});
  // A right-leaning chain of six nodes with consistent heights, in the
  // slots 0, 2, 6, 14, 30, 62 of a 63-slot level-order array.
  std::vector<Column> chain(63, Column{0, 0, 0, 0});
  for (int i = 0, slot = 0; i < 6; ++i, slot = 2 * slot + 2) {
    chain[static_cast<std::size_t>(slot)] = {bits(i), 2, 5 - i, 12 - 2 * i};
  }
  write(dir, "right_chain", control(all, 1, 20, kTotalFromTree, 16), chain);
  write(dir, "digest_10", control(all, 0, 40, kTotalFromTree, 9), digestColumns(100.0, 10, 1));
  write(dir, "digest_small_delta", control(all, 1, 80, kTotalFromTree, 10),
        digestColumns(1.0, 500, 2));
  write(dir, "digest_30", control(all, 5, 100, kTotalFromTree, 11), digestColumns(1.5, 3000, 3));
  write(dir, "digest_60", control(all, 4, 32, kTotalFromTree, 12), digestColumns(100.0, 60, 4));
  return 0;
}
