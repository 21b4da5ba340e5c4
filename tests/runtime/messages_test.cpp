// Message texts, the exception that carries an identifier, warnings and
// interrupts.
#include "quorix/messages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
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

TEST(MessageCatalogue, substitutes_arguments_and_falls_back_to_the_identifier) {
  registerMessageText("test:catalogue:Two", "first");
  registerMessageText("test:catalogue:Two", "{1} then {0}, {0} again; {x} {}");  // replaces
  EXPECT_EQ(formatMessage(MessageID("test:catalogue", "Two", 2, {"a", "b"})),
            "b then a, a again; {x} {}");
  EXPECT_EQ(formatMessage(MessageID("test:catalogue", "Missing", 1, {"x"})),
            "test:catalogue:Missing");
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

TEST(Warnings, reach_the_sink_switched_per_identifier_or_stderr) {
  std::vector<std::pair<std::string, std::string>> received;
  WarningSink previous = setWarningSink(
      [&](const std::string& id, const std::string& text) { received.emplace_back(id, text); });
  registerMessageText("test:warn:Off", "careful with {0}");
  const MessageID off("test:warn", "Off", 1, {"NaN"});
  setWarningEnabled("test:warn:Off", false);
  issueHostWarning(off);
  issueHostWarning(MessageID("test:warn", "Other"));
  setWarningEnabled("test:warn:Off", true);
  issueHostWarning(off);
  setWarningSink({});  // the default sink
  testing::internal::CaptureStderr();
  issueHostWarning(off);
  const std::string printed = testing::internal::GetCapturedStderr();
  setWarningSink(std::move(previous));
  const std::vector<std::pair<std::string, std::string>> expected{
      {"test:warn:Other", "test:warn:Other"}, {"test:warn:Off", "careful with NaN"}};
  EXPECT_EQ(received, expected);
  EXPECT_EQ(printed, "Warning: careful with NaN (test:warn:Off)\n");
}

TEST(Interrupt, one_request_raises_once_however_many_threads_poll) {
  requestInterrupt();
  clearInterrupt();  // withdraws it
  EXPECT_NO_THROW(checkInterrupt());
  requestInterrupt();
  requestInterrupt();  // requests do not accumulate
  std::atomic<int> raised{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        try {
          checkInterrupt();
        } catch (const MsgIDException& e) {
          EXPECT_EQ(e.identifier(), "QUORIX:interrupt:Interrupted");
          ++raised;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(raised.load(), 1);
  EXPECT_FALSE(interruptPending());
}

}  // namespace
}  // namespace quorix
