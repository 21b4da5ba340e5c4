// The element-wise apply and the sorted sweep behind it: every answer, and
// the error raised first, as the scalar calls in storage order give them, bit
// for bit, on well-formed and on malformed trees.
#include "core/elementwise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/queries.h"
#include "core_checks.h"
#include "quorix/host_array.h"

namespace zotdigest {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using testing::bitsOf;

constexpr std::uint64_t kElementNaNBits = 0xFFF8000000000000;
constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::nan("");

// Inserted: as insertion builds it, the total their sum. Chain: nodes linked
// by hand as a right-leaning chain and adopted with the given size and
// total, as a decoder may hand them over. Sampled: `size` log-uniform values
// (half of them on a grid of duplicates when total != 0). Grown: inserted,
// then `adds` added at Delta 0.5 on the stream seeded with `size`.
enum class Kind { Inserted, Chain, Sampled, Grown };

struct DigestCase {
  std::string name;
  Kind kind;
  std::vector<Centroid> centroids;
  std::uint64_t size;
  std::uint64_t total;
  std::vector<double> adds = {};
};

TDigest make(const DigestCase& c) {
  if (c.kind == Kind::Inserted) return testing::digestOf(c.centroids);
  if (c.kind == Kind::Grown) {
    TDigest digest = testing::digestOf(c.centroids);
    const auto stream = testing::seededStream(c.size);
    digest.delta = 0.5;
    digest.stream = stream.get();
    for (const double x : c.adds) digest.add(x);
    digest.stream = nullptr;
    return digest;
  }
  if (c.kind == Kind::Sampled) {
    testing::SeededDigest s(c.size);
    for (std::uint64_t i = 0; i < c.size; ++i) {
      const double u = s.stream->uniform();
      s.digest.add(c.total != 0 && u < 0.5 ? std::floor(u * 20.0) : std::log(u));
    }
    s.digest.stream = nullptr;
    return std::move(s.digest);
  }
  TDigest digest;
  CentroidNode* root = nullptr;
  CentroidNode* tail = nullptr;
  for (const Centroid& x : c.centroids) {
    auto* node = new CentroidNode(x.mean, x.count);
    (tail == nullptr ? root : tail->right) = node;
    node->parent = tail;
    tail = node;
  }
  digest.tree.adopt(root, c.size);
  digest.totalWeight = c.total;
  return digest;
}

std::vector<DigestCase> digestLadder() {
  using K = Kind;
  return {
      {"empty", K::Inserted, {}, 0, 0},
      {"one", K::Inserted, {{2.5, 3}}, 0, 0},
      {"lone_nan_mean", K::Inserted, {{kNaN, 3}}, 0, 0},
      {"three", K::Inserted, {{1, 4}, {3, 4}, {5, 2}}, 0, 0},
      {"equal_means", K::Inserted, {{1, 2}, {2, 3}, {2, 3}, {2, 1}, {4, 2}}, 0, 0},
      {"all_equal", K::Inserted, {{7, 2}, {7, 3}, {7, 1}}, 0, 0},
      {"infinite_means", K::Inserted, {{-kInf, 1}, {0, 2}, {1, 2}, {kInf, 1}}, 0, 0},
      // Running counts past 2^53, which convert to double with rounding
      // (the second and third half way between two doubles, one rounding
      // up, one down), yet do not wrap; a total of 2^62 keeps the
      // thresholds' quantiles exact.
      {"heavy_counts",
       K::Inserted,
       {{1, (1ULL << 60) + 256},
        {2, 128},
        {3, (1ULL << 60) - 128},
        {4, (1ULL << 61) - 257},
        {5, 1}},
       0,
       0},
      {"large", K::Sampled, {}, 200000, 0},
      {"large_duplicates", K::Sampled, {}, 100000, 1},
      {"unsorted_means", K::Chain, {{5, 2}, {1, 3}, {9, 1}, {-4, 5}, {2, 2}}, 5, 13},
      {"nan_means", K::Chain, {{1, 2}, {kNaN, 3}, {3, 1}, {kNaN, 5}, {2, 2}}, 5, 13},
      {"nan_first_and_last", K::Chain, {{kNaN, 2}, {1, 3}, {2, 1}, {kNaN, 4}}, 4, 10},
      {"junk_counts", K::Chain, {{1, kHuge}, {2, 0}, {3, kHuge / 2}, {4, 7}}, 4, 9},
      {"total_zero", K::Chain, {{1, 2}, {2, 3}, {3, 1}}, 3, 0},
      {"size_says_one", K::Chain, {{1, 2}, {2, 3}, {3, 1}}, 1, 6},
      {"size_says_zero", K::Chain, {{1, 2}, {2, 3}, {3, 1}}, 0, 6},
      {"unsorted_chain", K::Chain, {{3, 2}, {-1, 4}, {8, 1}, {0.5, 9}, {kNaN, 2}, {2, 3}}, 2, 21},
      // Trees of their own that break what a descent needs: running counts
      // that wrap, a NaN mean between finite ones, and a mean grown past
      // its neighbour (x = -1 is equally far from 1e-20 and 2e-20, and the
      // second grows).
      {"wrapping_counts",
       K::Inserted,
       {{1, 1}, {2, kHuge / 2 + 1}, {3, kHuge / 2 + 1}, {4, 1}, {5, 1}, {6, 1}},
       0,
       0},
      {"inserted_nan_mean",
       K::Inserted,
       {{1, 2}, {2, 2}, {3, 1}, {kNaN, 3}, {5, 2}, {6, 1}, {7, 1}},
       0,
       0},
      {"grown_out_of_order",
       K::Grown,
       {{-5, 1000}, {1e-20, 1000}, {2e-20, 1000}, {3, 1000}, {4, 1000}, {5, 1000}, {6, 1000}},
       4,
       0,
       {-1.0}},
  };
}

// Arguments on and next to every threshold a walk compares with (for cdf
// means and midpoints, for icdf running-count quantiles), special values,
// random ones and repeats, shuffled.
std::vector<double> arguments(const TDigest& digest, ScalarQuery fn, std::mt19937_64& rng) {
  std::vector<double> v = {0.0, -0.0, kNaN, 0.5, 1.0, std::nextafter(1.0, 0.0), 5e-324};
  if (fn == &cdf) v.insert(v.end(), {kInf, -kInf, 1e300, -1e300});
  const std::vector<Centroid> cs = testing::listOf(digest);
  std::uint64_t cum = 0;
  for (std::size_t i = 0; i < cs.size(); ++i) {
    const double m = cs[i].mean;
    const double mid = i + 1 < cs.size() ? m + (cs[i + 1].mean - m) * 0.5 : m;
    const double q = toDouble(cum += cs[i].count) / toDouble(digest.totalWeight);
    for (const double a : fn == &cdf ? std::vector<double>{m, mid} : std::vector<double>{q}) {
      for (const double b : {a, std::nextafter(a, kInf), std::nextafter(a, -kInf)}) {
        if (fn == &cdf || (b >= 0.0 && b <= 1.0)) v.push_back(b);
      }
    }
  }
  std::uniform_real_distribution<double> range(fn == &cdf ? -30.0 : 0.0, fn == &cdf ? 30.0 : 1.0);
  for (int i = 0; i < 300; ++i) v.push_back(range(rng));
  const std::size_t distinct = v.size();
  for (int i = 0; i < 100; ++i) v.push_back(v[rng() % distinct]);
  std::shuffle(v.begin(), v.end(), rng);
  return v;
}

HostArrayPtr rowOf(const std::vector<double>& values) {
  HostArrayPtr a = HostArray::createNumericMatrix(1, values.size(), ClassID::Double);
  std::copy(values.begin(), values.end(), a->data<double>());
  return a;
}

// The per-element loop the sweep must reproduce.
std::vector<double> perElement(const std::vector<double>& values, const TDigest& digest,
                               ScalarQuery fn) {
  std::vector<double> out(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    out[i] = std::isnan(values[i]) ? std::bit_cast<double>(kElementNaNBits) : fn(digest, values[i]);
  }
  return out;
}

void expectSameBits(const std::vector<double>& values, const TDigest& digest, ScalarQuery fn) {
  using testing::raisedIdentifier;
  const std::string raised = raisedIdentifier([&] { (void)perElement(values, digest, fn); });
  ASSERT_EQ(raisedIdentifier([&] { (void)applyElementwise(*rowOf(values), digest, fn); }), raised);
  if (!raised.empty()) return;
  const std::vector<double> expected = perElement(values, digest, fn);
  const HostArrayPtr out = applyElementwise(*rowOf(values), digest, fn);
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(bitsOf(out->data<double>()[i]), bitsOf(expected[i])) << "element " << values[i];
  }
}

class Sweep : public ::testing::TestWithParam<DigestCase> {};

TEST_P(Sweep, cdf_and_icdf_equal_the_scalar_calls_bit_for_bit) {
  const TDigest digest = make(GetParam());
  std::mt19937_64 rng(1);
  for (const ScalarQuery fn : {&cdf, &icdf}) {
    std::vector<double> values = arguments(digest, fn, rng);
    expectSameBits(values, digest, fn);
    // NaN last: `<` alone is no strict weak order over NaN.
    std::sort(values.begin(), values.end(),
              [](double a, double b) { return !std::isnan(a) && (std::isnan(b) || a < b); });
    expectSameBits(values, digest, fn);  // already ascending: no sort
    // The error the loop raises first: any invalid quantile, wherever it is
    // (on an empty digest too); cdf's on an empty digest unless every
    // element is NaN.
    values[rng() % values.size()] = rng() % 2 ? 1.5 : -kInf;
    expectSameBits(values, digest, fn);
    expectSameBits(std::vector<double>(40, kNaN), digest, fn);
  }
}

INSTANTIATE_TEST_SUITE_P(Digests, Sweep, ::testing::ValuesIn(digestLadder()),
                         [](const auto& info) { return info.param.name; });

TEST(ElementwiseApply, empty_input_gives_an_empty_matrix) {
  const HostArrayPtr none = HostArray::createNumericMatrix(0, 3, ClassID::Double);
  EXPECT_EQ(applyElementwise(*none, TDigest(), &cdf)->dims(), (quorix::Dims{0, 3}));
}

}  // namespace
}  // namespace zotdigest
