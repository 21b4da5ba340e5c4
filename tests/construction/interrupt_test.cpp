// User interrupts requested from another thread during addArray: what
// reaches the caller, and what the target digest keeps.
#include "quorix/interrupt.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <typeinfo>
#include <vector>

#include "construction/element_types.h"
#include "build_test_support.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;

// Runs addArray<double> with an interrupt requested by another thread 20 ms
// into it. True when the build stopped by the interrupt, which must be the
// runtime's own exception with its identifier.
bool interrupted(const quorix::HostArray& data, TDigest& d, bool serial) {
  quorix::clearInterrupt();
  std::thread interrupter([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
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
  quorix::clearInterrupt();  // in case the build won the race
  return stopped;
}

// A serial build keeps the whole blocks of 10000 it added, exactly the first
// values added from an equally seeded stream and not compressed; a parallel
// one leaves the target as it was, and the calling thread can build again.
TEST(Interrupt, a_long_build_interrupted_from_another_thread_keeps_what_it_should) {
  for (const bool serial : {true, false}) {
    bool seen = false;
    for (std::size_t n = 5000000; n <= 20000000 && !seen; n *= 2) {
      const auto values = sampleValues<double>(n, 13);
      SeededDigest s(3);
      if (!serial) s.digest.add(1.5);
      seen = interrupted(*makeRow(values), s.digest, serial);
      if (seen && serial) {
        EXPECT_EQ(s.digest.totalWeight % 10000, 0u);
        EXPECT_GT(s.digest.totalWeight, 0u);
        EXPECT_LT(s.digest.totalWeight, n);
        SeededDigest expected(3);
        for (std::uint64_t i = 0; i < s.digest.totalWeight; ++i) expected.digest.add(values[i]);
        expectIdentical(s.digest, expected.digest);
      } else if (seen) {
        EXPECT_EQ(s.digest.totalWeight, 1u);
        EXPECT_EQ(s.digest.tree.size(), 1u);
        addArray<double>(*makeRow(sampleValues<double>(1000)), s.digest, false);
        EXPECT_EQ(s.digest.totalWeight, 1001u);
      }
    }
    EXPECT_TRUE(seen) << (serial ? "serial" : "parallel")
                      << ": every build finished before the interrupt was observed";
  }
}

}  // namespace
}  // namespace zotdigest
