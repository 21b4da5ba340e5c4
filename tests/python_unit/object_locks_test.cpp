// Calls on one digest from several threads, each holding the digest's
// object locks the way the Python binding takes them (try first, else
// wait): queries while another thread adds see whole adds, and under
// ThreadSanitizer the locks leave no race inside the digest.
#include "object_locks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/module_fixture.h"

namespace zotdigest::hosttest {
namespace {

template <class Call>
void lockedCall(const HostArray& object, Call&& call) {
  python::ObjectLocks locks;
  locks.add(object);
  if (!locks.tryLock()) locks.lock();
  call();
  locks.unlock();
}

using ObjectLocks = ModuleTest;

TEST_F(ObjectLocks, queries_while_another_thread_adds_see_whole_adds) {
  constexpr std::size_t kChunk = 5000;
  constexpr int kChunks = 40;
  const HostArrayPtr digest = construct({});
  std::atomic<bool> done{false};
  std::thread adder([&] {
    for (int k = 0; k < kChunks; ++k) {
      const HostArrayPtr data = doubles(ramp(kChunk, 1000.0 * k));
      lockedCall(*digest, [&] { call("add", 0, {digest.get(), data.get()}); });
    }
    done = true;
  });
  const auto reader = [&] {
    const HostArrayPtr ends = doubles({0.0, 1.0});
    for (std::uint64_t last = 0;;) {
      const bool finished = done;
      std::uint64_t n = 0;
      std::vector<HostArrayPtr> q;
      lockedCall(*digest, [&] {
        n = countProperty(*digest, "NumDataPoints");
        if (n > 0) q = call("icdf", 1, {digest.get(), ends.get()});
      });
      ASSERT_EQ(n % kChunk, 0u) << "an add seen half done";
      ASSERT_GE(n, last);
      if (n > 0) {
        ASSERT_LE(q.at(0)->data<double>()[0], q.at(0)->data<double>()[1]);
      }
      last = n;
      if (finished) break;
    }
  };
  std::thread r1(reader), r2(reader);
  adder.join();
  r1.join();
  r2.join();
  EXPECT_EQ(countProperty(*digest, "NumDataPoints"), kChunk * kChunks);
}

}  // namespace
}  // namespace zotdigest::hosttest
