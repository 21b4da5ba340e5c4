// Message identifiers, the message-ID exception, the catalogue of message
// texts and the warning channel.
//
// Errors leave a module as MsgIDException subclasses through raiseHostError,
// which rethrows the exact dynamic type; front ends catch MsgIDException at
// their boundary and render identifier() and formatMessage(messageID()).
// Warnings go to a process-wide channel that can switch single identifiers
// off and route the rest to a replaceable sink.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "quorix/config.h"

namespace quorix {

class QUORIX_API MessageID {
 public:
  MessageID() = default;
  MessageID(std::string catalog, std::string key, int declaredArgs = 0,
            std::vector<std::string> args = {});

  const std::string& catalog() const noexcept { return catalog_; }
  const std::string& key() const noexcept { return key_; }
  int declaredArgs() const noexcept { return declaredArgs_; }
  const std::vector<std::string>& args() const noexcept { return args_; }
  // catalog + ":" + key
  std::string identifier() const;

 private:
  std::string catalog_;
  std::string key_;
  int declaredArgs_ = 0;
  std::vector<std::string> args_;
};

// Clonable exception interface: a copy on the heap, and a rethrow that throws
// the exact dynamic type by value.
class QUORIX_API ClonableException {
 public:
  virtual ~ClonableException();
  virtual ClonableException* clone() const = 0;
  [[noreturn]] virtual void rethrow() const = 0;
};

// Base of every error that carries a MessageID. The identifier text is
// computed once, at construction; what() returns the formatted catalogue
// text (or the identifier when the catalogue has none).
class QUORIX_API MsgIDException : public virtual std::exception, public ClonableException {
 public:
  explicit MsgIDException(MessageID id);
  MsgIDException(const MsgIDException&) = default;
  ~MsgIDException() override;

  MsgIDException* clone() const override;
  [[noreturn]] void rethrow() const override;
  const char* what() const noexcept override;

  std::string identifier() const { return identifier_; }
  const MessageID& messageID() const noexcept { return id_; }

 private:
  MessageID id_;
  std::string identifier_;
  std::string text_;
};

// Raises a host error: rethrows `e` through its own rethrow(), so the exact
// type unwinds to the front end.
[[noreturn]] QUORIX_API void raiseHostError(const MsgIDException& e);
// Raises the runtime's own errors (catalog "QUORIX").
[[noreturn]] QUORIX_API void raiseHostError(MessageID id);

// --- catalogue -------------------------------------------------------------
// Registers (or replaces) the text of an identifier; "{0}" stands for the
// argument. Thread safe.
QUORIX_API void registerMessageText(const std::string& identifier, std::string text);
// The text of the identifier with its argument filled in; the identifier
// itself when no text is registered.
QUORIX_API std::string formatMessage(const MessageID& id);
QUORIX_API bool hasMessageText(const std::string& identifier);

// --- warnings --------------------------------------------------------------
using WarningSink = std::function<void(const std::string& identifier, const std::string& text)>;

// Sends the warning to the sink unless its identifier is switched off.
// Returns normally; safe to call from any thread.
QUORIX_API void issueHostWarning(const MessageID& id);
QUORIX_API void setWarningEnabled(const std::string& identifier, bool enabled);
QUORIX_API bool warningEnabled(const std::string& identifier);
// Installs a sink and returns the previous one; an empty function restores
// the default, which prints "Warning: <text> (<identifier>)" to stderr.
QUORIX_API WarningSink setWarningSink(WarningSink sink);

}  // namespace quorix
