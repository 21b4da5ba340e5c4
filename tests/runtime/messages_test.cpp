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

namespace {

using quorix::MessageID;
using quorix::MsgIDException;

// A module's own error type: the runtime must carry it through unchanged.
class ModuleError : public MsgIDException {
 public:
  ModuleError(MessageID id, int detail) : MsgIDException(std::move(id)), detail_(detail) {}
  ModuleError* clone() const override { return new ModuleError(*this); }
  [[noreturn]] void rethrow() const override { throw *this; }
  int detail() const { return detail_; }

 private:
  int detail_;
};

// --- identifiers and the catalogue -----------------------------------------------

TEST(MessageID, identifier_joins_catalog_and_key) {
  const MessageID id("QUORIX:array", "BadIndex", 1, {"7"});
  EXPECT_EQ(id.identifier(), "QUORIX:array:BadIndex");
  EXPECT_EQ(id.catalog(), "QUORIX:array");
  EXPECT_EQ(id.key(), "BadIndex");
  EXPECT_EQ(id.declaredArgs(), 1);
  EXPECT_EQ(id.args(), std::vector<std::string>{"7"});
}

TEST(MessageCatalogue, substitutes_arguments_and_falls_back_to_the_identifier) {
  quorix::registerMessageText("test:catalogue:One", "value {0} is not allowed");
  EXPECT_EQ(quorix::formatMessage(MessageID("test:catalogue", "One", 1, {"-3"})),
            "value -3 is not allowed");
  // Without an argument the placeholder stays as written.
  EXPECT_EQ(quorix::formatMessage(MessageID("test:catalogue", "One")), "value {0} is not allowed");

  quorix::registerMessageText("test:catalogue:Two", "{1} then {0}, {0} again; {x} {}");
  EXPECT_EQ(quorix::formatMessage(MessageID("test:catalogue", "Two", 2, {"a", "b"})),
            "b then a, a again; {x} {}");

  EXPECT_FALSE(quorix::hasMessageText("test:catalogue:Missing"));
  EXPECT_EQ(quorix::formatMessage(MessageID("test:catalogue", "Missing", 1, {"x"})),
            "test:catalogue:Missing");
}

TEST(MessageCatalogue, registering_again_replaces_the_text) {
  quorix::registerMessageText("test:catalogue:Replace", "first");
  quorix::registerMessageText("test:catalogue:Replace", "second {0}");
  EXPECT_EQ(quorix::formatMessage(MessageID("test:catalogue", "Replace", 1, {"!"})), "second !");
}

TEST(MessageCatalogue, concurrent_registration_and_lookup_are_safe) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        const std::string key = "K" + std::to_string(t) + "_" + std::to_string(i);
        quorix::registerMessageText("test:concurrent:" + key, "text {0}");
        EXPECT_EQ(quorix::formatMessage(MessageID("test:concurrent", key, 1, {"x"})), "text x");
        EXPECT_TRUE(quorix::hasMessageText("QUORIX:random:InvalidSeed"));
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
}

class RuntimeText : public testing::TestWithParam<const char*> {};

TEST_P(RuntimeText, has_its_own_text) {
  EXPECT_TRUE(quorix::hasMessageText(GetParam())) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(
    Runtime, RuntimeText,
    testing::Values("QUORIX:interrupt:Interrupted", "QUORIX:random:InvalidStream",
                    "QUORIX:random:UnknownGenerator", "QUORIX:random:InvalidSeed",
                    "QUORIX:random:InvalidStreamCount", "QUORIX:random:InvalidPermutation",
                    "QUORIX:class:AccessDenied", "QUORIX:class:ReadOnly",
                    "QUORIX:class:UnknownClass", "QUORIX:class:UnknownMember",
                    "QUORIX:class:NoMatchingSignature", "QUORIX:class:RequireScalarObject",
                    "QUORIX:class:InvalidType", "QUORIX:class:DuplicateClass",
                    "QUORIX:class:NoObjectArrays", "QUORIX:class:NotSavable",
                    "QUORIX:class:RequireClass", "QUORIX:class:RequireNumeric",
                    "QUORIX:class:RequireReal", "QUORIX:class:WrongNumberOfConstructorArgs",
                    "QUORIX:module:NotFound", "QUORIX:module:MissingSymbol",
                    "QUORIX:module:BadTable", "QUORIX:module:NoSuchRoutine",
                    "QUORIX:array:BadIndex", "QUORIX:array:WrongClass", "QUORIX:array:NotNumeric",
                    "QUORIX:array:NoSuchField", "QUORIX:array:BadView", "QUORIX:array:TooLarge",
                    "QUORIX:array:NullValue", "QUORIX:array:MixedClasses"));

TEST(MessageCatalogue, argument_bearing_runtime_texts_show_their_argument) {
  EXPECT_NE(quorix::formatMessage(MessageID("QUORIX:class", "RequireClass", 1, {"TDigestX"}))
                .find("TDigestX"),
            std::string::npos);
  EXPECT_NE(quorix::formatMessage(MessageID("QUORIX:module", "NotFound", 1, {"/a/libm.so"}))
                .find("/a/libm.so"),
            std::string::npos);
}

// --- the exception and the raising path -----------------------------------------

TEST(MsgIDException, what_is_the_formatted_text_or_the_identifier) {
  quorix::registerMessageText("test:exception:Text", "bad thing: {0}");
  const MsgIDException withText(MessageID("test:exception", "Text", 1, {"42"}));
  EXPECT_STREQ(withText.what(), "bad thing: 42");
  EXPECT_EQ(withText.identifier(), "test:exception:Text");
  const MsgIDException without(MessageID("test:exception", "NoText"));
  EXPECT_STREQ(without.what(), "test:exception:NoText");
  const std::exception& asStd = withText;
  EXPECT_STREQ(asStd.what(), "bad thing: 42");
}

TEST(MsgIDException, clone_and_rethrow_keep_the_exact_dynamic_type) {
  const ModuleError original(MessageID("test:exception", "Module"), 99);
  const MsgIDException& base = original;

  std::unique_ptr<MsgIDException> copy(base.clone());
  const MsgIDException& copied = *copy;
  EXPECT_EQ(typeid(copied), typeid(ModuleError));
  EXPECT_EQ(copy->identifier(), "test:exception:Module");
  EXPECT_EQ(static_cast<ModuleError&>(*copy).detail(), 99);

  try {
    copy->rethrow();
  } catch (const ModuleError& e) {
    EXPECT_EQ(e.detail(), 99);
  } catch (...) {
    ADD_FAILURE() << "rethrow lost the dynamic type";
  }

  const MsgIDException plain(MessageID("test:exception", "Plain"));
  std::unique_ptr<MsgIDException> plainCopy(plain.clone());
  const MsgIDException& plainCopied = *plainCopy;
  EXPECT_EQ(typeid(plainCopied), typeid(MsgIDException));
  EXPECT_EQ(plainCopy->identifier(), "test:exception:Plain");
}

TEST(RaiseHostError, rethrows_the_exact_type_given) {
  const ModuleError error(MessageID("test:raise", "Module"), 5);
  try {
    quorix::raiseHostError(static_cast<const MsgIDException&>(error));
  } catch (const ModuleError& e) {
    EXPECT_EQ(e.identifier(), "test:raise:Module");
    EXPECT_EQ(e.detail(), 5);
    return;
  } catch (...) {
  }
  ADD_FAILURE() << "ModuleError did not arrive";
}

TEST(RaiseHostError, message_id_form_throws_a_plain_msgid_exception) {
  try {
    quorix::raiseHostError(MessageID("QUORIX:random", "UnknownGenerator", 1, {"xyz"}));
  } catch (const MsgIDException& e) {
    EXPECT_EQ(typeid(e), typeid(MsgIDException));
    EXPECT_EQ(e.identifier(), "QUORIX:random:UnknownGenerator");
    EXPECT_NE(std::string(e.what()).find("xyz"), std::string::npos);
    return;
  }
  ADD_FAILURE() << "nothing raised";
}

// --- warnings ------------------------------------------------------------------------

struct Received {
  std::mutex mutex;
  std::vector<std::pair<std::string, std::string>> warnings;
};

// Installs a recording sink for the test and restores the previous one.
class Warnings : public testing::Test {
 protected:
  void SetUp() override {
    previous_ = quorix::setWarningSink([this](const std::string& id, const std::string& text) {
      std::lock_guard lock(received_.mutex);
      received_.warnings.emplace_back(id, text);
    });
  }
  void TearDown() override { quorix::setWarningSink(std::move(previous_)); }

  Received received_;
  quorix::WarningSink previous_;
};

TEST_F(Warnings, reach_the_installed_sink_with_identifier_and_text) {
  quorix::registerMessageText("test:warn:Sink", "careful with {0}");
  quorix::issueHostWarning(MessageID("test:warn", "Sink", 1, {"NaN"}));
  ASSERT_EQ(received_.warnings.size(), 1u);
  EXPECT_EQ(received_.warnings[0].first, "test:warn:Sink");
  EXPECT_EQ(received_.warnings[0].second, "careful with NaN");
}

TEST_F(Warnings, can_be_switched_off_and_on_per_identifier) {
  const MessageID off("test:warn", "Off");
  const MessageID other("test:warn", "Other");
  EXPECT_TRUE(quorix::warningEnabled("test:warn:Off"));
  quorix::setWarningEnabled("test:warn:Off", false);
  EXPECT_FALSE(quorix::warningEnabled("test:warn:Off"));
  quorix::issueHostWarning(off);
  quorix::issueHostWarning(other);
  ASSERT_EQ(received_.warnings.size(), 1u);
  EXPECT_EQ(received_.warnings[0].first, "test:warn:Other");

  quorix::setWarningEnabled("test:warn:Off", true);
  quorix::issueHostWarning(off);
  ASSERT_EQ(received_.warnings.size(), 2u);
  EXPECT_EQ(received_.warnings[1].first, "test:warn:Off");
}

TEST_F(Warnings, installing_a_sink_returns_the_previous_one) {
  int calls = 0;
  quorix::WarningSink mine =
      quorix::setWarningSink([&](const std::string&, const std::string&) { ++calls; });
  ASSERT_TRUE(mine);  // the recording sink of the fixture
  quorix::issueHostWarning(MessageID("test:warn", "Swap"));
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(received_.warnings.empty());
  quorix::setWarningSink(std::move(mine));
  quorix::issueHostWarning(MessageID("test:warn", "Swap"));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(received_.warnings.size(), 1u);
}

TEST_F(Warnings, default_sink_prints_text_and_identifier_to_stderr) {
  quorix::registerMessageText("test:warn:Default", "something odd");
  quorix::WarningSink mine = quorix::setWarningSink({});
  testing::internal::CaptureStderr();
  quorix::issueHostWarning(MessageID("test:warn", "Default"));
  const std::string printed = testing::internal::GetCapturedStderr();
  quorix::setWarningSink(std::move(mine));
  EXPECT_EQ(printed, "Warning: something odd (test:warn:Default)\n");
  EXPECT_TRUE(received_.warnings.empty());
}

TEST_F(Warnings, may_be_issued_from_many_threads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i) {
        quorix::issueHostWarning(MessageID("test:warn", "Threads"));
        if (t == 0 && i % 10 == 0) {
          quorix::setWarningEnabled("test:warn:Unrelated", i % 20 == 0);
        }
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  EXPECT_EQ(received_.warnings.size(), 1000u);
  quorix::setWarningEnabled("test:warn:Unrelated", true);
}

// --- interrupts ------------------------------------------------------------------------

std::string interruptOutcome() {
  try {
    quorix::checkInterrupt();
  } catch (const MsgIDException& e) {
    return e.identifier();
  }
  return "none";
}

TEST(Interrupt, check_raises_once_per_request_and_clears_the_flag) {
  quorix::clearInterrupt();
  EXPECT_EQ(interruptOutcome(), "none");
  quorix::requestInterrupt();
  quorix::requestInterrupt();  // requests do not accumulate
  EXPECT_TRUE(quorix::interruptPending());
  EXPECT_EQ(interruptOutcome(), "QUORIX:interrupt:Interrupted");
  EXPECT_FALSE(quorix::interruptPending());
  EXPECT_EQ(interruptOutcome(), "none");
}

TEST(Interrupt, clear_withdraws_a_request) {
  quorix::requestInterrupt();
  quorix::clearInterrupt();
  EXPECT_FALSE(quorix::interruptPending());
  EXPECT_EQ(interruptOutcome(), "none");
}

TEST(Interrupt, exactly_one_of_several_polling_threads_sees_a_request) {
  quorix::clearInterrupt();
  std::atomic<int> raised{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      while (!go.load()) {
      }
      for (int i = 0; i < 1000; ++i) {
        if (interruptOutcome() != "none") {
          raised.fetch_add(1);
        }
      }
    });
  }
  quorix::requestInterrupt();
  go.store(true);
  for (auto& t : threads) {
    t.join();
  }
  EXPECT_EQ(raised.load(), 1);
  EXPECT_FALSE(quorix::interruptPending());
}

}  // namespace
