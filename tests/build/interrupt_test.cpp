// User interrupts during addArray: where each path polls, what reaches the
// caller, and what the target digest keeps.
#include "quorix/interrupt.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <typeinfo>
#include <vector>

#include "build/element_types.h"
#include "build_test_support.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;

class Interrupt : public ::testing::Test {
 protected:
  void SetUp() override { quorix::clearInterrupt(); }
  void TearDown() override { quorix::clearInterrupt(); }

  // Runs addArray<double> with an interrupt requested before the call, or
  // by another thread delayMs into it. True when the build stopped by the
  // interrupt, which must be the runtime's own exception with its identifier.
  static bool interrupted(const quorix::HostArray& data, TDigest& d, bool serial, int delayMs = 0) {
    if (delayMs == 0) quorix::requestInterrupt();
    std::thread interrupter([delayMs] {
      if (delayMs == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
      quorix::requestInterrupt();
    });
    bool stopped = false;
    try {
      addArray<double>(data, d, serial);
    } catch (const quorix::MsgIDException& e) {
      EXPECT_EQ(e.identifier(), "QUORIX:interrupt:Interrupted");
      EXPECT_EQ(typeid(e), typeid(quorix::MsgIDException));
      stopped = true;
    }
    interrupter.join();
    if (delayMs != 0) quorix::clearInterrupt();  // in case the build won the race
    return stopped;
  }

  // A serially interrupted digest holds exactly its first values, added
  // from an equally seeded stream and not compressed.
  static void expectFirstValuesAdded(const TDigest& d, const std::vector<double>& values) {
    auto stream = seededStream(3);
    TDigest expected;
    expected.stream = stream.get();
    for (std::uint64_t i = 0; i < d.totalWeight; ++i) expected.add(values[i]);
    expectSameCentroids(d, expected);
  }
};

TEST_F(Interrupt, serial_path_polls_after_each_full_block_only) {
  for (const std::size_t n : {25000u, 10000u, 9999u}) {
    SCOPED_TRACE(n);
    const auto values = sampleValues<double>(n);
    auto stream = seededStream(3);
    TDigest d;
    d.stream = stream.get();
    EXPECT_EQ(interrupted(*makeRow(values), d, true), n >= 10000);
    EXPECT_EQ(d.totalWeight, n >= 10000 ? 10000u : n);
    EXPECT_EQ(quorix::interruptPending(), n < 10000);  // the remainder is not followed by a poll
    if (n >= 10000) expectFirstValuesAdded(d, values);
    quorix::clearInterrupt();
  }
}

// A serial build keeps the whole blocks it added; a parallel one leaves the
// target as it was, and the calling thread can build again.
TEST_F(Interrupt, a_long_build_interrupted_from_another_thread_keeps_what_it_should) {
  for (const bool serial : {true, false}) {
    bool seen = false;
    for (std::size_t n = 5000000; n <= 20000000 && !seen; n *= 2) {
      const auto values = sampleValues<double>(n, 13);
      auto stream = seededStream(3);
      TDigest d;
      d.stream = stream.get();
      if (!serial) d.add(1.5);
      seen = interrupted(*makeRow(values), d, serial, 20);
      if (seen && serial) {
        EXPECT_EQ(d.totalWeight % 10000, 0u);
        EXPECT_GT(d.totalWeight, 0u);
        EXPECT_LT(d.totalWeight, n);
        expectFirstValuesAdded(d, values);
      } else if (seen) {
        EXPECT_EQ(d.totalWeight, 1u);
        EXPECT_EQ(d.tree.size(), 1u);
        addArray<double>(*makeRow(sampleValues<double>(1000)), d, false);
        EXPECT_EQ(d.totalWeight, 1001u);
      }
    }
    EXPECT_TRUE(seen) << (serial ? "serial" : "parallel")
                      << ": every build finished before the interrupt was observed";
  }
}

}  // namespace
}  // namespace zotdigest
