#include "quorix/random_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

#include "../../runtime/src/mrg32k3a.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"

namespace {

namespace mrg = quorix::detail::mrg32k3a;
using quorix::MsgIDException;
using quorix::RandomStream;

std::unique_ptr<RandomStream> makeStream(std::uint64_t seed = 0) {
  return RandomStream::create("mrg32k3a", 1000000, seed);
}

std::vector<double> draws(RandomStream& s, std::size_t n) {
  std::vector<double> out(n);
  for (double& u : out) {
    u = s.uniform();
  }
  return out;
}

std::vector<double> draws(mrg::State s, std::size_t n) {
  std::vector<double> out(n);
  for (double& u : out) {
    u = mrg::step(s);
  }
  return out;
}

template <class F>
std::string identifierOf(F&& f) {
  try {
    f();
  } catch (const MsgIDException& e) {
    return e.identifier();
  }
  return "(nothing raised)";
}

// --- the generator's arithmetic ------------------------------------------------

TEST(Mrg32k3a, seed_zero_starts_with_the_published_draws) {
  auto s = makeStream(0);
  EXPECT_NEAR(s->uniform(), 0.127011122046577, 1e-15);
  EXPECT_NEAR(s->uniform(), 0.318527565396794, 1e-15);
  EXPECT_NEAR(s->uniform(), 0.309186015583270, 1e-15);
}

TEST(Mrg32k3a, matrix_jump_equals_stepping) {
  const mrg::State start = mrg::baseState();
  mrg::State stepped = start;
  std::uint64_t taken = 0;
  for (const std::uint64_t target : {1u, 2u, 3u, 7u, 1000u, 4097u}) {
    for (; taken < target; ++taken) {
      mrg::step(stepped);
    }
    EXPECT_EQ(mrg::jump(start, target), stepped) << target << " steps";
  }
  // From an arbitrary state as well, not only from the symmetric base.
  mrg::State other = mrg::streamStart(12345);
  const mrg::State jumped = mrg::jump(other, 2500);
  for (int i = 0; i < 2500; ++i) {
    mrg::step(other);
  }
  EXPECT_EQ(jumped, other);
}

TEST(Mrg32k3a, squaring_agrees_with_binary_powers) {
  for (const unsigned e : {1u, 5u, 33u, 63u}) {
    const std::uint64_t n = std::uint64_t{1} << e;
    EXPECT_EQ(mrg::powerOfTwo(mrg::transition1(), e, mrg::kM1),
              mrg::power(mrg::transition1(), n, mrg::kM1));
    EXPECT_EQ(mrg::powerOfTwo(mrg::transition2(), e, mrg::kM2),
              mrg::power(mrg::transition2(), n, mrg::kM2));
  }
  // 2^127 = (2^76)^(2^51): the stream jump is a power of the substream jump.
  EXPECT_EQ(mrg::powerOfTwo(mrg::substreamJump().a1, 51, mrg::kM1), mrg::streamJump().a1);
  EXPECT_EQ(mrg::powerOfTwo(mrg::substreamJump().a2, 51, mrg::kM2), mrg::streamJump().a2);
}

TEST(Mrg32k3a, each_substream_starts_2_to_76_steps_after_the_previous) {
  const auto& j = mrg::substreamJump();
  for (const std::uint64_t seed : {0u, 3u}) {
    const mrg::State begin = mrg::streamStart(seed);
    EXPECT_EQ(mrg::substreamStart(begin, 1), begin);
    for (const std::uint64_t k : {1u, 2u, 3u, 10u, 999u}) {
      EXPECT_EQ(mrg::apply(j.a1, j.a2, mrg::substreamStart(begin, k)),
                mrg::substreamStart(begin, k + 1))
          << "seed " << seed << ", substream " << k;
    }
  }
}

TEST(Mrg32k3a, each_stream_starts_2_to_127_steps_after_the_previous) {
  const auto& j = mrg::streamJump();
  EXPECT_EQ(mrg::streamStart(0), mrg::baseState());
  for (const std::uint64_t s : {0u, 1u, 6u, 1000u, 4294967294u}) {
    EXPECT_EQ(mrg::apply(j.a1, j.a2, mrg::streamStart(s)), mrg::streamStart(s + 1)) << s;
  }
}

TEST(Mrg32k3a, states_stay_below_their_moduli) {
  for (const std::uint64_t s : {1u, 77u, 4294967295u}) {
    const mrg::State st = mrg::substreamStart(mrg::streamStart(s), 123456789);
    for (int i = 0; i < 3; ++i) {
      EXPECT_LT(st[i], mrg::kM1);
      EXPECT_LT(st[3 + i], mrg::kM2);
    }
  }
}

// --- streams ---------------------------------------------------------------------

TEST(RandomStream, seed_selects_the_stream_start) {
  for (const std::uint64_t seed : {0u, 1u, 42u, 4294967295u}) {
    auto s = makeStream(seed);
    EXPECT_EQ(s->seed(), seed);
    EXPECT_EQ(draws(*s, 5), draws(mrg::streamStart(seed), 5)) << seed;
  }
}

TEST(RandomStream, substream_selection_moves_to_the_substream_start) {
  auto s = makeStream(7);
  const mrg::State begin = mrg::streamStart(7);
  for (const std::uint64_t k : {3u, 1u, 2u, 1000000u}) {
    draws(*s, 11);  // anywhere: selection does not depend on the position
    s->selectSubstream(k);
    EXPECT_EQ(draws(*s, 4), draws(mrg::substreamStart(begin, k), 4)) << k;
  }
}

TEST(RandomStream, reset_moves_to_another_stream_and_rejects_bad_seeds) {
  auto s = makeStream(0);
  draws(*s, 3);
  s->reset(9);
  EXPECT_EQ(s->seed(), 9u);
  auto twin = makeStream(9);
  EXPECT_EQ(draws(*s, 6), draws(*twin, 6));
  // Substreams are then those of the new stream.
  s->selectSubstream(2);
  twin->selectSubstream(2);
  EXPECT_EQ(draws(*s, 3), draws(*twin, 3));

  EXPECT_EQ(identifierOf([&] { s->reset(std::uint64_t{1} << 32); }), "QUORIX:random:InvalidSeed");
  EXPECT_EQ(s->seed(), 9u);
  EXPECT_EQ(draws(*s, 3), draws(*twin, 3));  // unchanged by the refused reset
}

TEST(RandomStream, bulk_draws_equal_single_draws_and_lie_in_the_open_interval) {
  auto a = makeStream(5);
  auto b = makeStream(5);
  std::vector<double> bulk(10000);
  a->uniform(bulk.data(), bulk.size());
  EXPECT_EQ(bulk, draws(*b, bulk.size()));
  for (const double u : bulk) {
    ASSERT_GT(u, 0.0);
    ASSERT_LT(u, 1.0);
  }
  a->uniform(bulk.data(), 0);  // nothing drawn
  EXPECT_EQ(a->uniform(), b->uniform());
}

TEST(RandomStream, whole_numbers_cover_their_bounds_with_one_draw_each) {
  struct Case {
    double lo, hi;
  };
  for (const Case c : {Case{1, 6}, Case{-3, 3}, Case{10, 10}, Case{0, 1}}) {
    auto s = makeStream(11);
    auto twin = makeStream(11);
    std::vector<double> w(2000);
    s->wholeNumbers(w.data(), w.size(), c.lo, c.hi);
    const std::vector<double> u = draws(*twin, w.size());
    std::set<double> seen;
    for (std::size_t i = 0; i < w.size(); ++i) {
      ASSERT_GE(w[i], c.lo);
      ASSERT_LE(w[i], c.hi);
      ASSERT_EQ(w[i], std::floor(w[i]));
      ASSERT_EQ(w[i], c.lo + std::floor(u[i] * (c.hi - c.lo + 1)));
      seen.insert(w[i]);
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(c.hi - c.lo + 1));
    EXPECT_EQ(s->uniform(), twin->uniform());
  }
}

// The permutation as described: P = 1..n, swap P[i] with P[i + floor(u (n-i))]
// for i = 0 .. k-1, the last position of a full permutation skipped.
std::vector<double> referencePermutation(RandomStream& s, std::size_t k, std::size_t n) {
  std::vector<double> p(n);
  for (std::size_t i = 0; i < n; ++i) {
    p[i] = static_cast<double>(i + 1);
  }
  const std::size_t swaps = k == n ? (n == 0 ? 0 : n - 1) : k;
  for (std::size_t i = 0; i < swaps; ++i) {
    const double u = s.uniform();
    const auto j = i + static_cast<std::size_t>(
                           std::floor(u * (static_cast<double>(n) - static_cast<double>(i))));
    std::swap(p[i], p[j]);
  }
  p.resize(k);
  return p;
}

TEST(RandomStream, full_permutation_is_a_permutation_made_with_n_minus_1_draws) {
  for (const std::size_t n : {2u, 3u, 10u, 1000u}) {
    auto s = makeStream(3);
    auto twin = makeStream(3);
    std::vector<double> p(n);
    s->randomPermutation(p.data(), n, static_cast<double>(n));
    std::vector<double> sorted = p;
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i < n; ++i) {
      ASSERT_EQ(sorted[i], static_cast<double>(i + 1)) << "n = " << n;
    }
    draws(*twin, n - 1);
    EXPECT_EQ(s->uniform(), twin->uniform()) << "n = " << n;
  }
}

TEST(RandomStream, permutation_follows_the_swap_rule_for_dense_and_sparse_ranges) {
  struct Case {
    std::size_t k, n;
  };
  // Small k out of a large n takes a different path inside; both must give
  // the values of the rule.
  for (const Case c :
       {Case{10, 10}, Case{3, 10}, Case{0, 10}, Case{5, 1000000}, Case{40, 100000}}) {
    auto s = makeStream(8);
    auto twin = makeStream(8);
    std::vector<double> p(c.k);
    s->randomPermutation(p.data(), c.k, static_cast<double>(c.n));
    EXPECT_EQ(p, referencePermutation(*twin, c.k, c.n)) << c.k << " of " << c.n;
    EXPECT_EQ(s->uniform(), twin->uniform()) << c.k << " of " << c.n;
    std::set<double> distinct(p.begin(), p.end());
    EXPECT_EQ(distinct.size(), c.k);
  }
}

TEST(RandomStream, permutation_edge_sizes_draw_nothing) {
  auto s = makeStream(4);
  auto twin = makeStream(4);
  double one = 0;
  s->randomPermutation(&one, 1, 1.0);
  EXPECT_EQ(one, 1.0);
  s->randomPermutation(nullptr, 0, 0.0);
  EXPECT_EQ(s->uniform(), twin->uniform());
}

TEST(RandomStream, permutation_rejects_impossible_requests) {
  auto s = makeStream();
  std::vector<double> out(4);
  for (const double n : {3.0, 2.5, -1.0, std::nan(""), HUGE_VAL}) {
    EXPECT_EQ(identifierOf([&] { s->randomPermutation(out.data(), 4, n); }),
              "QUORIX:random:InvalidPermutation")
        << n;
  }
}

TEST(RandomStream, create_validates_generator_seed_and_stream_count) {
  EXPECT_EQ(identifierOf([] { RandomStream::create("mt19937", 1000000, 0); }),
            "QUORIX:random:UnknownGenerator");
  EXPECT_EQ(identifierOf([] { RandomStream::create("mrg32k3a", 1000000, std::uint64_t{1} << 32); }),
            "QUORIX:random:InvalidSeed");
  EXPECT_EQ(identifierOf([] { RandomStream::create("mrg32k3a", 999999, 0); }),
            "QUORIX:random:InvalidStreamCount");
  auto s = RandomStream::create("mrg32k3a", 1u << 30, 4294967295u);
  EXPECT_EQ(s->numStreams(), 1u << 30);
  EXPECT_EQ(s->generatorName(), "mrg32k3a");
}

TEST(RandomStream, unknown_generator_message_names_the_generator) {
  try {
    RandomStream::create("lcg", 1000000, 0);
    FAIL() << "nothing raised";
  } catch (const MsgIDException& e) {
    EXPECT_NE(std::string(e.what()).find("'lcg'"), std::string::npos) << e.what();
  }
}

TEST(RandomStream, default_stream_is_one_process_wide_seed_zero_stream) {
  RandomStream* seen[2] = {nullptr, nullptr};
  std::thread t0([&] { seen[0] = &RandomStream::defaultStream(); });
  std::thread t1([&] { seen[1] = &RandomStream::defaultStream(); });
  t0.join();
  t1.join();
  EXPECT_EQ(seen[0], seen[1]);
  EXPECT_EQ(seen[0], &RandomStream::defaultStream());
  EXPECT_EQ(RandomStream::defaultStream().seed(), 0u);
  EXPECT_EQ(RandomStream::defaultStream().numStreams(), 1000000u);
}

// Runs clean under ThreadSanitizer: the state words are relaxed atomics.
TEST(RandomStream, concurrent_draws_and_repositioning_are_race_free) {
  auto s = makeStream(1);
  std::thread drawer([&] {
    double buffer[16];
    for (int i = 0; i < 20000; ++i) {
      const double u = s->uniform();
      ASSERT_GT(u, 0.0);
      ASSERT_LT(u, 1.0);
      if (i % 100 == 0) {
        s->uniform(buffer, 16);
        s->wholeNumbers(buffer, 16, 1, 6);
      }
    }
  });
  std::thread mover([&] {
    for (std::uint64_t i = 0; i < 2000; ++i) {
      s->selectSubstream(1 + i % 5);
      if (i % 50 == 0) {
        s->reset(i % 7);
      }
      s->uniform();
    }
  });
  drawer.join();
  mover.join();
  EXPECT_LT(s->seed(), 7u);
}

// --- streams as host values ----------------------------------------------------------

TEST(RandomStreamValue, round_trips_and_shares_ownership) {
  std::shared_ptr<RandomStream> stream = makeStream(21);
  auto value = RandomStream::toHostValue(stream);
  EXPECT_EQ(value->classID(), quorix::ClassID::Object);
  EXPECT_EQ(value->objectClassName(), "RandomStream");
  EXPECT_TRUE(value->isScalar());
  EXPECT_EQ(&RandomStream::fromHostValue(*value), stream.get());
  EXPECT_EQ(stream.use_count(), 2);

  std::weak_ptr<RandomStream> watch = stream;
  stream.reset();
  EXPECT_FALSE(watch.expired());  // the object keeps it
  EXPECT_EQ(RandomStream::fromHostValue(*value).seed(), 21u);
  value.reset();
  EXPECT_TRUE(watch.expired());  // the last handle released it
}

TEST(RandomStreamValue, default_stream_travels_without_ownership) {
  RandomStream& def = RandomStream::defaultStream();
  auto value = RandomStream::toHostValue(std::shared_ptr<RandomStream>(&def, [](RandomStream*) {}));
  EXPECT_EQ(&RandomStream::fromHostValue(*value), &def);
}

TEST(RandomStreamValue, other_values_are_not_streams) {
  auto number = quorix::HostArray::createDoubleScalar(1);
  EXPECT_EQ(identifierOf([&] { RandomStream::fromHostValue(*number); }),
            "QUORIX:random:InvalidStream");
  auto empty = quorix::HostArray::createObjectArray("RandomStream", {1, 1});
  EXPECT_EQ(identifierOf([&] { RandomStream::fromHostValue(*empty); }),
            "QUORIX:random:InvalidStream");
  auto none = quorix::HostArray::createObjectArray("RandomStream", {0, 0});
  EXPECT_EQ(identifierOf([&] { RandomStream::fromHostValue(*none); }),
            "QUORIX:random:InvalidStream");
  auto other = quorix::HostArray::createObjectArray("Other", {1, 1});
  EXPECT_EQ(identifierOf([&] { RandomStream::fromHostValue(*other); }),
            "QUORIX:random:InvalidStream");
  EXPECT_EQ(identifierOf([] { RandomStream::toHostValue(nullptr); }),
            "QUORIX:random:InvalidStream");
}

TEST(RandomStreamValue, a_new_object_holds_a_fresh_seed_zero_stream) {
  auto value = quorix::ObjectSystem::createObjectArray("RandomStream", {1, 1});
  RandomStream& s = RandomStream::fromHostValue(*value);
  EXPECT_EQ(s.seed(), 0u);
  EXPECT_NEAR(s.uniform(), 0.127011122046577, 1e-15);
}

TEST(RandomStreamValue, seed_is_a_read_only_property) {
  auto value = RandomStream::toHostValue(makeStream(13));
  EXPECT_EQ(quorix::ObjectSystem::getProperty(*value, "Seed")->elementAsDouble(0), 13.0);
  auto two = quorix::HostArray::createDoubleScalar(2);
  EXPECT_EQ(identifierOf([&] { quorix::ObjectSystem::setProperty(*value, "Seed", *two); }),
            "QUORIX:class:ReadOnly");
}

}  // namespace
