// The sorted sweep behind the element-wise cdf and icdf: every answer equals
// the scalar call on the same element bit for bit, on well-formed and on
// malformed trees, and errors are the ones the per-element loop raises.
#include "core/elementwise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core_checks.h"
#include "host/errors.h"
#include "quorix/host_array.h"

namespace zotdigest {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using testing::bits;
using testing::expectRaises;

constexpr std::uint64_t kElementNaNBits = 0xFFF8000000000000;
constexpr double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::nan("");

TDigest digestOf(const std::vector<Centroid>& centroids) {
  TDigest digest;
  for (const Centroid& c : centroids) {
    digest.tree.insert(c.mean, c.count);
    digest.totalWeight += c.count;
  }
  return digest;
}

// A tree built sorted, then given means and counts in place, in order: the
// kind of tree a decoder accepts from a hand-made summary.
TDigest overwritten(const std::vector<Centroid>& inOrder, std::uint64_t totalWeight) {
  TDigest digest;
  for (std::size_t i = 0; i < inOrder.size(); ++i) digest.tree.insert(static_cast<double>(i), 1);
  CentroidNode* node = digest.tree.first();
  for (const Centroid& c : inOrder) {
    node->mean = c.mean;
    node->count = c.count;
    node = CentroidTree::next(node);
  }
  digest.totalWeight = totalWeight;
  return digest;
}

// The decoder's way in: nodes linked by hand (here a right-leaning chain)
// and adopted with whatever size and total the summary claimed.
TDigest adoptedChain(const std::vector<Centroid>& inOrder, std::uint64_t size,
                     std::uint64_t totalWeight) {
  CentroidNode* root = nullptr;
  CentroidNode* tail = nullptr;
  for (const Centroid& c : inOrder) {
    auto* node = new CentroidNode(c.mean, c.count);
    if (tail == nullptr) {
      root = node;
    } else {
      tail->right = node;
      node->parent = tail;
    }
    tail = node;
  }
  TDigest digest;
  digest.tree.adopt(root, size);
  digest.totalWeight = totalWeight;
  return digest;
}

TDigest sampled(int n, std::uint64_t seed, bool duplicates) {
  auto stream = testing::seededStream(seed);
  TDigest digest;
  digest.stream = stream.get();
  for (int i = 0; i < n; ++i) {
    const double u = stream->uniform();
    digest.add(duplicates && u < 0.5 ? std::floor(u * 20.0) : std::log(u));
  }
  digest.stream = nullptr;
  return digest;
}

struct DigestCase {
  std::string name;
  std::function<TDigest()> make;
};

void PrintTo(const DigestCase& c, std::ostream* os) { *os << c.name; }

std::vector<DigestCase> digestLadder() {
  constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();
  return {
      {"empty", [] { return TDigest(); }},
      {"one",
       [] {
         return digestOf({{2.5, 3}});
       }},
      {"lone_nan_mean",
       [] {
         return digestOf({{kNaN, 3}});
       }},
      {"two",
       [] {
         return digestOf({{-1.0, 2}, {4.0, 5}});
       }},
      {"three",
       [] {
         return digestOf({{1.0, 4}, {3.0, 4}, {5.0, 2}});
       }},
      {"equal_means",
       [] {
         return digestOf({{1.0, 2}, {2.0, 3}, {2.0, 3}, {2.0, 1}, {4.0, 2}});
       }},
      {"all_equal",
       [] {
         return digestOf({{7.0, 2}, {7.0, 3}, {7.0, 1}});
       }},
      {"infinite_means",
       [] {
         return digestOf({{-kInf, 1}, {0.0, 2}, {1.0, 2}, {kInf, 1}});
       }},
      {"large", [] { return sampled(200000, 11, false); }},
      {"large_duplicates", [] { return sampled(100000, 12, true); }},
      {"unsorted_means",
       [] {
         return overwritten({{5.0, 2}, {1.0, 3}, {9.0, 1}, {-4.0, 5}, {2.0, 2}}, 13);
       }},
      {"nan_means",
       [] {
         return overwritten({{1.0, 2}, {kNaN, 3}, {3.0, 1}, {kNaN, 5}, {2.0, 2}}, 13);
       }},
      {"nan_first_and_last",
       [] {
         return overwritten({{kNaN, 2}, {1.0, 3}, {2.0, 1}, {kNaN, 4}}, 10);
       }},
      {"junk_counts",
       [] {
         return overwritten({{1.0, kHuge}, {2.0, 0}, {3.0, kHuge / 2}, {4.0, 7}}, 9);
       }},
      {"total_zero",
       [] {
         return overwritten({{1.0, 2}, {2.0, 3}, {3.0, 1}}, 0);
       }},
      {"size_says_one",
       [] {
         return adoptedChain({{1.0, 2}, {2.0, 3}, {3.0, 1}}, 1, 6);
       }},
      {"size_says_zero",
       [] {
         return adoptedChain({{1.0, 2}, {2.0, 3}, {3.0, 1}}, 0, 6);
       }},
      {"adopted_unsorted_chain",
       [] {
         return adoptedChain({{3.0, 2}, {-1.0, 4}, {8.0, 1}, {0.5, 9}, {kNaN, 2}, {2.0, 3}}, 2, 21);
       }},
  };
}

// Arguments that sit on and next to every threshold a walk compares with,
// plus signed zeros, infinities, NaN, far values and repeats, shuffled.
std::vector<double> cdfArguments(const TDigest& digest, std::mt19937_64& rng) {
  std::vector<double> v = {0.0, -0.0, kInf, -kInf, kNaN, 1e300, -1e300};
  const std::vector<Centroid> cs = testing::listOf(digest);
  for (std::size_t i = 0; i < cs.size(); ++i) {
    const double m = cs[i].mean;
    v.insert(v.end(), {m, std::nextafter(m, kInf), std::nextafter(m, -kInf)});
    if (i + 1 < cs.size()) {
      const double mid = m + (cs[i + 1].mean - m) * 0.5;
      v.insert(v.end(), {mid, std::nextafter(mid, kInf), std::nextafter(mid, -kInf)});
    }
  }
  std::uniform_real_distribution<double> wide(-30.0, 30.0);
  for (int i = 0; i < 300; ++i) v.push_back(wide(rng));
  const std::size_t distinct = v.size();
  for (int i = 0; i < 100; ++i) v.push_back(v[rng() % distinct]);
  std::shuffle(v.begin(), v.end(), rng);
  return v;
}

// Valid quantiles on and next to every running-count threshold.
std::vector<double> icdfArguments(const TDigest& digest, std::mt19937_64& rng) {
  std::vector<double> v = {0.0,
                           -0.0,
                           1.0,
                           kNaN,
                           0.5,
                           std::nextafter(1.0, 0.0),
                           std::numeric_limits<double>::denorm_min()};
  const double total = toDouble(digest.totalWeight);
  std::uint64_t cum = 0;
  for (const Centroid& c : testing::listOf(digest)) {
    cum += c.count;
    const double q = toDouble(cum) / total;
    if (q >= 0.0 && q <= 1.0) {
      v.insert(v.end(), {q, std::nextafter(q, 0.0), std::min(1.0, std::nextafter(q, 1.0))});
    }
  }
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int i = 0; i < 300; ++i) v.push_back(unit(rng));
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

// The identifier the per-element loop raises first, or none.
std::optional<std::string> loopError(const std::vector<double>& values, const TDigest& digest,
                                     ScalarQuery fn) {
  try {
    (void)perElement(values, digest, fn);
  } catch (const quorix::MsgIDException& e) {
    return e.identifier();
  }
  return std::nullopt;
}

std::optional<std::string> applyError(const std::vector<double>& values, const TDigest& digest,
                                      ScalarQuery fn) {
  try {
    (void)applyElementwise(*rowOf(values), digest, fn);
  } catch (const quorix::MsgIDException& e) {
    return e.identifier();
  }
  return std::nullopt;
}

void expectSameBits(const std::vector<double>& values, const TDigest& digest, ScalarQuery fn) {
  const std::optional<std::string> raised = loopError(values, digest, fn);
  if (raised.has_value()) {
    EXPECT_EQ(applyError(values, digest, fn), raised);
    return;
  }
  const std::vector<double> expected = perElement(values, digest, fn);
  const HostArrayPtr out = applyElementwise(*rowOf(values), digest, fn);
  ASSERT_EQ(out->numel(), values.size());
  const double* got = out->data<double>();
  if (std::memcmp(got, expected.data(), values.size() * sizeof(double)) == 0) return;
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(bits(got[i]), bits(expected[i])) << "element " << i << " = " << values[i];
  }
}

class Sweep : public ::testing::TestWithParam<DigestCase> {};

TEST_P(Sweep, cdf_equals_the_scalar_call_bit_for_bit) {
  const TDigest digest = GetParam().make();
  std::mt19937_64 rng(1);
  std::vector<double> values = cdfArguments(digest, rng);
  expectSameBits(values, digest, &cdf);
  std::sort(values.begin(), values.end(), [](double a, double b) { return a < b; });
  expectSameBits(values, digest, &cdf);  // already ascending: no sort
  std::reverse(values.begin(), values.end());
  expectSameBits(values, digest, &cdf);
}

TEST_P(Sweep, icdf_equals_the_scalar_call_bit_for_bit) {
  const TDigest digest = GetParam().make();
  std::mt19937_64 rng(2);
  std::vector<double> values = icdfArguments(digest, rng);
  expectSameBits(values, digest, &icdf);
  std::sort(values.begin(), values.end(), [](double a, double b) { return a < b; });
  expectSameBits(values, digest, &icdf);
  std::reverse(values.begin(), values.end());
  expectSameBits(values, digest, &icdf);
}

// A cursor fed any sequence (restarts included) answers as fresh calls do.
TEST_P(Sweep, cursors_match_fresh_calls_in_any_order) {
  const TDigest digest = GetParam().make();
  std::mt19937_64 rng(3);
  const std::vector<double> xs = cdfArguments(digest, rng);
  const std::vector<double> qs = icdfArguments(digest, rng);
  IcdfCursor icdfCursor(digest);
  if (digest.tree.size() != 0) {
    CdfCursor cdfCursor(digest);
    for (const double x : xs) ASSERT_EQ(bits(cdfCursor(x)), bits(cdf(digest, x))) << "x = " << x;
  }
  for (const double q : qs) ASSERT_EQ(bits(icdfCursor(q)), bits(icdf(digest, q))) << "q = " << q;
}

INSTANTIATE_TEST_SUITE_P(Digests, Sweep, ::testing::ValuesIn(digestLadder()),
                         [](const auto& info) { return info.param.name; });

TEST(SweepErrors, raise_what_the_per_element_loop_raises) {
  const TDigest empty;
  const TDigest three = digestOf({{1.0, 4}, {3.0, 4}, {5.0, 2}});
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int round = 0; round < 200; ++round) {
    std::vector<double> values(16 + rng() % 40);
    for (double& v : values) {
      const double u = unit(rng);
      v = u < 0.3 ? kNaN : u < 0.35 ? 1.0 + u : u < 0.4 ? -u : unit(rng);
    }
    if (round % 4 == 0) std::fill(values.begin(), values.end(), kNaN);
    for (const TDigest* d : {&empty, &three}) {
      for (const ScalarQuery fn : {&cdf, &icdf}) {
        ASSERT_EQ(applyError(values, *d, fn), loopError(values, *d, fn)) << "round " << round;
      }
    }
  }
}

TEST(SweepErrors, empty_digest_and_out_of_range_quantiles) {
  const TDigest empty;
  std::vector<double> values(40, kNaN);
  const HostArrayPtr nans = applyElementwise(*rowOf(values), empty, &cdf);
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(bits(nans->data<double>()[i]), kElementNaNBits);
  }
  values.back() = 0.25;
  expectRaises<stats::tdigest::CdfNoData>(
      [&] { (void)applyElementwise(*rowOf(values), empty, &cdf); }, "stats:tdigest:CdfNoData");
  const HostArrayPtr hostNaNs = applyElementwise(*rowOf(values), empty, &icdf);
  EXPECT_EQ(bits(hostNaNs->data<double>()[0]), kElementNaNBits);
  EXPECT_EQ(bits(hostNaNs->data<double>()[39]), bits(quorix::hostNaN()));

  // An invalid quantile anywhere, even after the valid ones, even on an
  // empty digest; -0.0 is valid.
  const TDigest two = digestOf({{1.0, 4}, {3.0, 4}});
  std::vector<double> qs(40, 0.5);
  qs[0] = -0.0;
  for (const double bad : {2.0, -1e-300, kInf, -kInf}) {
    qs[33] = bad;
    for (const TDigest* d : {&empty, &two}) {
      expectRaises<stats::tdigest::IcdfInvalidQuantile>(
          [&] { (void)applyElementwise(*rowOf(qs), *d, &icdf); },
          "stats:tdigest:IcdfInvalidQuantile");
    }
  }
}

// Every numeric class reaches the sweep as the doubles it holds.
template <class T>
class SweepTyped : public ::testing::Test {};

template <class T, ClassID Id>
struct Element {
  using Type = T;
  static constexpr ClassID id = Id;
};
using NumericElements =
    ::testing::Types<Element<double, ClassID::Double>, Element<float, ClassID::Single>,
                     Element<std::int8_t, ClassID::Int8>, Element<std::uint8_t, ClassID::UInt8>,
                     Element<std::int16_t, ClassID::Int16>, Element<std::uint16_t, ClassID::UInt16>,
                     Element<std::int32_t, ClassID::Int32>, Element<std::uint32_t, ClassID::UInt32>,
                     Element<std::int64_t, ClassID::Int64>,
                     Element<std::uint64_t, ClassID::UInt64>>;
TYPED_TEST_SUITE(SweepTyped, NumericElements);

TYPED_TEST(SweepTyped, reads_each_element_as_a_double) {
  using T = typename TypeParam::Type;
  const TDigest d = digestOf({{2.0, 4}, {9.0, 4}, {20.0, 6}, {41.0, 2}, {60.0, 1}});
  constexpr std::size_t kN = 64;
  const HostArrayPtr in = HostArray::createNumericMatrix(4, kN / 4, TypeParam::id);
  std::vector<double> asDouble(kN);
  for (std::size_t i = 0; i < kN; ++i) {
    in->template data<T>()[i] = static_cast<T>((i * 37) % kN);  // a shuffled 0..63
    asDouble[i] = static_cast<double>(in->template data<T>()[i]);
  }
  const HostArrayPtr out = applyElementwise(*in, d, &cdf);
  ASSERT_EQ(out->dims(), (quorix::Dims{4, kN / 4}));
  const std::vector<double> expected = perElement(asDouble, d, &cdf);
  EXPECT_EQ(std::memcmp(out->data<double>(), expected.data(), kN * sizeof(double)), 0);
}

}  // namespace
}  // namespace zotdigest
