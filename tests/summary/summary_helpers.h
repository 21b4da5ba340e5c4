// Shared helpers of the summary tests: hand-made summary matrices and
// digests of several shapes.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/tdigest.h"
#include "quorix/host_array.h"
#include "quorix/random_stream.h"
#include "support/raised_identifier.h"
#include "support/seeded_stream.h"

namespace zotdigest::testing {

using Column = std::array<std::int64_t, 4>;
using quorix::test::raisedIdentifier;

using quorix::test::bitsOf;
using quorix::test::seededStream;

// A node column: mean, count, height, subtree count.
inline Column node(double mean, std::int64_t count, std::int64_t height, std::int64_t subtree) {
  return Column{std::bit_cast<std::int64_t>(mean), count, height, subtree};
}

// A rows x n int64 matrix holding the columns (rows past 4 hold 7).
inline quorix::HostArrayPtr makeMatrix(const std::vector<Column>& columns, std::size_t rows = 4) {
  auto m = quorix::HostArray::createNumericMatrix(rows, columns.size(), quorix::ClassID::Int64);
  for (std::size_t i = 0; i < m->numel(); ++i) {
    m->data<std::int64_t>()[i] = i % rows < 4 ? columns[i / rows][i % rows] : 7;
  }
  return m;
}

inline std::vector<std::int64_t> elements(const quorix::HostArray& m) {
  return std::vector<std::int64_t>(m.data<std::int64_t>(), m.data<std::int64_t>() + m.numel());
}

// A digest of the given shape. The insert shapes put exactly n centroids in
// through CentroidTree::insert (random means and counts, ascending,
// descending with counts of 2^40, three equal means over and over) and set
// the total to their sum; Compressed adds 4 n values to a digest with delta
// n / 20 + 0.05, so its tree is whatever add and compress leave behind.
enum Shape { kRandom, kAscending, kDescending, kEqualMeans, kCompressed };

inline TDigest makeDigest(Shape shape, int n, quorix::RandomStream& stream) {
  TDigest d;
  d.stream = &stream;
  if (shape == kCompressed) d.delta = n / 20.0 + 0.05;
  const auto insert = [&d](double mean, std::uint64_t count) {
    d.tree.insert(mean, count);
    d.totalWeight += count;
  };
  for (int i = 0; i < (shape == kCompressed ? 4 * n : n); ++i) {
    const double u = stream.uniform();
    if (shape == kCompressed) d.add(u * stream.uniform());
    if (shape == kRandom) insert(u * 1000.0 - 500.0, 1 + static_cast<std::uint64_t>(u * 7e3));
    if (shape == kAscending) insert(i * 0.5, 3);
    if (shape == kDescending) insert(n - i, std::uint64_t{1} << 40);
    if (shape == kEqualMeans) insert(i % 3, 1 + (i % 5));
  }
  return d;
}

}  // namespace zotdigest::testing
