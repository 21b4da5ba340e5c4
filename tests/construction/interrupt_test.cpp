// User interrupts during addArray: what reaches the caller, and what the
// target digest keeps. Ctrl-C from another thread while the work runs is
// the front ends' tests' (a real signal once the call has started).
#include "quorix/interrupt.h"

#include <gtest/gtest.h>

#include <typeinfo>
#include <vector>

#include "build_test_support.h"
#include "construction/element_types.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;

// Runs addArray<double> with an interrupt already requested, as when Ctrl-C
// comes while the call starts: the build must stop at its first check, by
// the runtime's own exception with its identifier.
void expectInterrupted(const quorix::HostArray& data, TDigest& d, bool serial) {
  quorix::requestInterrupt();
  try {
    addArray<double>(data, d, serial);
    ADD_FAILURE() << "the build ran to the end";
  } catch (const quorix::MsgIDException& e) {
    EXPECT_EQ(e.identifier(), "QUORIX:interrupt:Interrupted");
    EXPECT_EQ(typeid(e), typeid(quorix::MsgIDException));
  }
  EXPECT_FALSE(quorix::interruptPending()) << "the request was taken";
  quorix::clearInterrupt();
}

// A serial build checks after each whole block of 10000 and keeps the
// blocks it added: exactly the first values, added from an equally seeded
// stream and not compressed. A parallel one checks before any work and
// leaves the target as it was; the calling thread can build again.
TEST(Interrupt, an_interrupted_build_stops_at_its_first_check_and_keeps_what_it_should) {
  const auto values = sampleValues<double>(50000, 13);
  SeededDigest serial(3);
  expectInterrupted(*makeRow(values), serial.digest, true);
  SeededDigest expected(3);
  for (std::size_t i = 0; i < 10000; ++i) expected.digest.add(values[i]);
  expectIdentical(serial.digest, expected.digest);

  SeededDigest parallel(3);
  parallel.digest.add(1.5);
  expectInterrupted(*makeRow(values), parallel.digest, false);
  EXPECT_EQ(parallel.digest.totalWeight, 1u);
  EXPECT_EQ(parallel.digest.tree.size(), 1u);
  addArray<double>(*makeRow(sampleValues<double>(1000)), parallel.digest, false);
  EXPECT_EQ(parallel.digest.totalWeight, 1001u);
}

}  // namespace
}  // namespace zotdigest
