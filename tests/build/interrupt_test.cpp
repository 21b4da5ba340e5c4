// User interrupts during addArray: where each path polls, what reaches the
// caller, and what the target digest keeps.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

#include "build/element_types.h"
#include "build_test_support.h"
#include "quorix/interrupt.h"
#include "quorix/random_stream.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;

constexpr const char* kInterrupted = "QUORIX:interrupt:Interrupted";

class InterruptTest : public ::testing::Test {
 protected:
  void SetUp() override { quorix::clearInterrupt(); }
  void TearDown() override { quorix::clearInterrupt(); }

  static std::unique_ptr<quorix::RandomStream> seeded(std::uint64_t seed) {
    return quorix::RandomStream::create("mrg32k3a", 1000000, seed);
  }

  // Runs addArray<double> and reports whether it stopped by an interrupt;
  // the exception must be the runtime's own, with its identifier.
  static bool addInterrupted(const quorix::HostArray& data, TDigest& d, bool serial) {
    try {
      addArray<double>(data, d, serial);
    } catch (const quorix::MsgIDException& e) {
      EXPECT_EQ(e.identifier(), kInterrupted);
      EXPECT_EQ(typeid(e), typeid(quorix::MsgIDException));
      return true;
    }
    return false;
  }

  // The same build with another thread requesting the interrupt shortly
  // after the start. False when the build won the race.
  static bool addWithLateInterrupt(const quorix::HostArray& data, TDigest& d, bool serial) {
    std::atomic<bool> started{false};
    std::thread interrupter([&started] {
      while (!started.load()) std::this_thread::yield();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      quorix::requestInterrupt();
    });
    started.store(true);
    const bool interrupted = addInterrupted(data, d, serial);
    interrupter.join();
    quorix::clearInterrupt();
    return interrupted;
  }

  // What the serial path must have left after adding the first k values:
  // exactly those, in order, from an equally seeded stream, not compressed.
  static void expectFirstValuesAdded(const TDigest& d, const std::vector<double>& values,
                                     std::uint64_t seed) {
    auto stream = seeded(seed);
    TDigest expected;
    expected.stream = stream.get();
    for (std::uint64_t i = 0; i < d.totalWeight; ++i) expected.add(values[i]);
    expectSameCentroids(d, expected);
  }
};

TEST_F(InterruptTest, serial_path_stops_after_the_first_full_block_when_already_requested) {
  const auto values = sampleValues<double>(25000);
  auto stream = seeded(1);
  TDigest d;
  d.stream = stream.get();
  quorix::requestInterrupt();
  EXPECT_TRUE(addInterrupted(*makeRow(values), d, true));
  EXPECT_EQ(d.totalWeight, 10000u);
  expectFirstValuesAdded(d, values, 1);
  EXPECT_FALSE(quorix::interruptPending());
}

TEST_F(InterruptTest, serial_path_polls_after_an_exactly_full_last_block) {
  const auto values = sampleValues<double>(10000);
  auto stream = seeded(2);
  TDigest d;
  d.stream = stream.get();
  quorix::requestInterrupt();
  EXPECT_TRUE(addInterrupted(*makeRow(values), d, true));
  EXPECT_EQ(d.totalWeight, 10000u);
  expectFirstValuesAdded(d, values, 2);  // stopped before compress
}

TEST_F(InterruptTest, serial_path_does_not_poll_after_the_remainder) {
  TDigest d;
  quorix::requestInterrupt();
  EXPECT_FALSE(addInterrupted(*makeRow(sampleValues<double>(9999)), d, true));
  EXPECT_EQ(d.totalWeight, 9999u);
  EXPECT_TRUE(quorix::interruptPending());
}

TEST_F(InterruptTest, parallel_path_stops_and_leaves_the_target_as_it_was) {
  const auto prior = sampleValues<double>(3000, 5);
  TDigest d;
  addArray<double>(*makeRow(prior), d, true);
  const TDigest before = d;
  quorix::requestInterrupt();
  EXPECT_TRUE(addInterrupted(*makeRow(sampleValues<double>(100000)), d, false));
  expectSameCentroids(d, before);
  EXPECT_FALSE(quorix::interruptPending());
}

TEST_F(InterruptTest, serial_build_stops_at_a_block_boundary_when_interrupted_from_another_thread) {
  for (std::size_t n = 5000000; n <= 20000000; n *= 2) {
    const auto values = sampleValues<double>(n, 13);
    const auto data = makeRow(values);
    auto stream = seeded(3);
    TDigest d;
    d.stream = stream.get();
    if (addWithLateInterrupt(*data, d, true)) {
      EXPECT_EQ(d.totalWeight % 10000, 0u);
      EXPECT_GT(d.totalWeight, 0u);
      EXPECT_LT(d.totalWeight, n);
      expectFirstValuesAdded(d, values, 3);
      return;
    }
  }
  ADD_FAILURE() << "every build finished before the interrupt was observed";
}

TEST_F(InterruptTest, parallel_build_interrupted_from_another_thread_adds_nothing) {
  for (std::size_t n = 5000000; n <= 20000000; n *= 2) {
    const auto data = makeRow(sampleValues<double>(n, 17));
    TDigest d;
    d.add(1.5);
    if (addWithLateInterrupt(*data, d, false)) {
      EXPECT_EQ(d.totalWeight, 1u);
      EXPECT_EQ(d.tree.size(), 1u);
      // The reduction is cancelled and the calling thread can build again.
      addArray<double>(*makeRow(sampleValues<double>(1000)), d, false);
      EXPECT_EQ(d.totalWeight, 1001u);
      return;
    }
  }
  ADD_FAILURE() << "every build finished before the interrupt was observed";
}

}  // namespace
}  // namespace zotdigest
