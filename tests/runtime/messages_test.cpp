// Message texts, the exception that carries an identifier, warnings and
// interrupts.
#include "quorix/messages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "quorix/interrupt.h"

namespace quorix {
namespace {

// A module's own error type: the runtime must carry it through unchanged.
struct ModuleError : MsgIDException {
  ModuleError(MessageID id, int d) : MsgIDException(std::move(id)), detail(d) {}
  ModuleError* clone() const override { return new ModuleError(*this); }
  [[noreturn]] void rethrow() const override { throw *this; }
  int detail;
};

// Runs `body` on four threads at once.
template <class Body>
void onFourThreads(Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(body, t);
  for (auto& t : threads) t.join();
}

TEST(MessageCatalogue, substitutes_arguments_and_falls_back_to_the_identifier) {
  registerMessageText("test:catalogue:Two", "first");
  registerMessageText("test:catalogue:Two", "{1} then {0}, {0} again; {x} {}");  // replaces
  EXPECT_EQ(formatMessage(MessageID("test:catalogue", "Two", 2, {"a", "b"})),
            "b then a, a again; {x} {}");
  EXPECT_EQ(formatMessage(MessageID("test:catalogue", "Missing", 1, {"x"})),
            "test:catalogue:Missing");
  onFourThreads([](int t) {  // registration and lookup may race
    for (int i = 0; i < 200; ++i) {
      const std::string key = "K" + std::to_string(t) + "_" + std::to_string(i);
      registerMessageText("test:concurrent:" + key, "text {0}");
      EXPECT_EQ(formatMessage(MessageID("test:concurrent", key, 1, {"x"})), "text x");
    }
  });
}

TEST(MsgIDException, clone_and_rethrow_keep_the_exact_dynamic_type) {
  registerMessageText("test:exception:Module", "bad thing: {0}");
  const ModuleError original(MessageID("test:exception", "Module", 1, {"42"}), 99);
  EXPECT_STREQ(static_cast<const std::exception&>(original).what(), "bad thing: 42");
  const std::unique_ptr<MsgIDException> copy(static_cast<const MsgIDException&>(original).clone());
  for (const bool viaRaise : {false, true}) {
    try {
      viaRaise ? raiseHostError(*copy) : copy->rethrow();
    } catch (const ModuleError& e) {
      EXPECT_EQ(e.identifier(), "test:exception:Module");
      EXPECT_EQ(e.detail, 99);
    } catch (...) {
      ADD_FAILURE() << "the dynamic type was lost";
    }
  }
}

// Installs a recording sink for the test and restores the previous one.
class Warnings : public testing::Test {
 protected:
  void SetUp() override {
    previous_ = setWarningSink([this](const std::string& id, const std::string& text) {
      std::lock_guard lock(mutex_);
      received_.emplace_back(id, text);
    });
  }
  void TearDown() override { setWarningSink(std::move(previous_)); }

  std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> received_;
  WarningSink previous_;
};

TEST_F(Warnings, reach_the_sink_switched_per_identifier_from_any_thread_or_stderr) {
  registerMessageText("test:warn:Off", "careful with {0}");
  const MessageID off("test:warn", "Off", 1, {"NaN"});
  setWarningEnabled("test:warn:Off", false);
  issueHostWarning(off);
  issueHostWarning(MessageID("test:warn", "Other"));
  setWarningEnabled("test:warn:Off", true);
  issueHostWarning(off);
  const std::vector<std::pair<std::string, std::string>> expected{
      {"test:warn:Other", "test:warn:Other"}, {"test:warn:Off", "careful with NaN"}};
  EXPECT_EQ(received_, expected);
  onFourThreads([](int t) {
    for (int i = 0; i < 250; ++i) {
      issueHostWarning(MessageID("test:warn", "Threads"));
      if (t == 0 && i % 10 == 0) setWarningEnabled("test:warn:Unrelated", i % 20 == 0);
    }
  });
  EXPECT_EQ(received_.size(), 1002u);

  WarningSink mine = setWarningSink({});  // the default sink
  testing::internal::CaptureStderr();
  issueHostWarning(off);
  const std::string printed = testing::internal::GetCapturedStderr();
  setWarningSink(std::move(mine));
  EXPECT_EQ(printed, "Warning: careful with NaN (test:warn:Off)\n");
  EXPECT_EQ(received_.size(), 1002u);
}

TEST(Interrupt, one_request_raises_once_however_many_threads_poll) {
  requestInterrupt();
  clearInterrupt();  // withdraws it
  EXPECT_NO_THROW(checkInterrupt());
  requestInterrupt();
  requestInterrupt();  // requests do not accumulate
  std::atomic<int> raised{0};
  onFourThreads([&](int) {
    for (int i = 0; i < 1000; ++i) {
      try {
        checkInterrupt();
      } catch (const MsgIDException& e) {
        EXPECT_EQ(e.identifier(), "QUORIX:interrupt:Interrupted");
        ++raised;
      }
    }
  });
  EXPECT_EQ(raised.load(), 1);
  EXPECT_FALSE(interruptPending());
}

}  // namespace
}  // namespace quorix
