// Message identifiers, the message-ID exception, the catalogue and the
// warning channel.
//
// The catalogue and the warning channel are process-wide and reached from
// any thread: both sit behind function-local statics (initialised once, on
// first use) guarded by their own mutex. The warning sink is copied out
// under the lock and called outside it, so a sink may itself issue warnings
// or take a long time without blocking other threads' bookkeeping.
#include "quorix/messages.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace quorix {

// --- MessageID ---------------------------------------------------------------

MessageID::MessageID(std::string catalog, std::string key, int declaredArgs,
                     std::vector<std::string> args)
    : catalog_(std::move(catalog)),
      key_(std::move(key)),
      declaredArgs_(declaredArgs),
      args_(std::move(args)) {}

std::string MessageID::identifier() const { return catalog_ + ":" + key_; }

// --- exceptions --------------------------------------------------------------

ClonableException::~ClonableException() = default;

MsgIDException::MsgIDException(MessageID id)
    : id_(std::move(id)), identifier_(id_.identifier()), text_(formatMessage(id_)) {}

MsgIDException::~MsgIDException() = default;

MsgIDException* MsgIDException::clone() const { return new MsgIDException(*this); }

void MsgIDException::rethrow() const { throw *this; }

const char* MsgIDException::what() const noexcept { return text_.c_str(); }

void raiseHostError(const MsgIDException& e) {
  e.rethrow();
  // Not reached: rethrow always throws, but a virtual call does not carry
  // [[noreturn]] for the compiler.
  std::abort();
}

void raiseHostError(MessageID id) { throw MsgIDException(std::move(id)); }

// --- catalogue ---------------------------------------------------------------

namespace {

// The runtime's own texts. A module registers its catalog's texts itself
// when it is initialised.
const std::pair<const char*, const char*> kRuntimeTexts[] = {
    // arrays
    {"QUORIX:array:BadIndex", "Index {0} is out of range for an array of {1} elements."},
    {"QUORIX:array:WrongClass", "This operation is not defined for arrays of class '{0}'."},
    {"QUORIX:array:NotNumeric", "A numeric array is required; the array has class '{0}'."},
    {"QUORIX:array:NoSuchField", "The struct array has no field named '{0}'."},
    {"QUORIX:array:BadView", "A view needs a numeric, logical or char class and non-null data."},
    {"QUORIX:array:TooLarge", "The requested array is too large to allocate."},
    {"QUORIX:array:NullValue", "A null array or object handle cannot be stored here."},
    {"QUORIX:array:MixedClasses",
     "An object of class '{0}' cannot be stored in an object array of class '{1}'."},
    // interrupts
    {"QUORIX:interrupt:Interrupted", "The operation was interrupted."},
    // random streams
    {"QUORIX:random:InvalidStream", "A RandomStream object is required."},
    {"QUORIX:random:UnknownGenerator",
     "Unknown random number generator '{0}'; the available generator is 'mrg32k3a'."},
    {"QUORIX:random:InvalidSeed", "The seed must be a whole number from 0 to 2^32-1."},
    {"QUORIX:random:InvalidStreamCount",
     "A random number generator must provide at least 1000000 streams."},
    {"QUORIX:random:InvalidPermutation",
     "A permutation draws k distinct values from 1..n: n must be a whole number not less "
     "than k."},
    // object system
    {"QUORIX:class:AccessDenied", "Access to '{0}' is not permitted."},
    {"QUORIX:class:ReadOnly", "The property '{0}' is read-only."},
    {"QUORIX:class:UnknownClass", "There is no class named '{0}'."},
    {"QUORIX:class:UnknownMember", "The class has no member named '{0}'."},
    {"QUORIX:class:NoMatchingSignature", "No version of '{0}' accepts these arguments."},
    {"QUORIX:class:RequireScalarObject", "A scalar object of class '{0}' is required."},
    {"QUORIX:class:InvalidType", "'{0}' is not a valid type."},
    {"QUORIX:class:DuplicateClass", "A class named '{0}' is already registered."},
    {"QUORIX:class:NoObjectArrays", "Objects of class '{0}' cannot form arrays."},
    {"QUORIX:class:NotSavable", "Objects of class '{0}' cannot be saved."},
    {"QUORIX:class:RequireClass", "An argument of class '{0}' is required."},
    {"QUORIX:class:RequireNumeric", "A numeric argument is required."},
    {"QUORIX:class:RequireReal", "A real (not complex) argument is required."},
    {"QUORIX:class:WrongNumberOfConstructorArgs", "Wrong number of arguments for the constructor."},
    // modules
    {"QUORIX:module:NotFound", "Module not found; searched: {0}"},
    {"QUORIX:module:MissingSymbol", "The module does not export '{0}'."},
    {"QUORIX:module:BadTable", "The module's function table is not valid: {0}"},
    {"QUORIX:module:NoSuchRoutine", "The module has no routine number {0}."},
};

struct Catalogue {
  std::shared_mutex mutex;
  std::unordered_map<std::string, std::string> texts;

  Catalogue() {
    for (const auto& [identifier, text] : kRuntimeTexts) {
      texts.emplace(identifier, text);
    }
  }
};

// Never destroyed: module terminators run at exit and may still raise or
// warn after ordinary statics are gone.
Catalogue& catalogue() {
  static Catalogue* const instance = new Catalogue;
  return *instance;
}

// Replaces every "{i}" with argument i when it exists; anything else
// (including "{i}" without an argument) is copied as it stands.
std::string substitute(const std::string& text, const std::vector<std::string>& args) {
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  while (pos < text.size()) {
    const char c = text[pos];
    if (c == '{') {
      const std::size_t close = text.find('}', pos + 1);
      if (close != std::string::npos && close > pos + 1) {
        std::size_t index = 0;
        bool digits = true;
        for (std::size_t q = pos + 1; q < close; ++q) {
          if (text[q] < '0' || text[q] > '9') {
            digits = false;
            break;
          }
          index = index * 10 + static_cast<std::size_t>(text[q] - '0');
        }
        if (digits && index < args.size()) {
          out += args[index];
          pos = close + 1;
          continue;
        }
      }
    }
    out += c;
    ++pos;
  }
  return out;
}

}  // namespace

void registerMessageText(const std::string& identifier, std::string text) {
  Catalogue& cat = catalogue();
  std::unique_lock lock(cat.mutex);
  cat.texts[identifier] = std::move(text);
}

std::string formatMessage(const MessageID& id) {
  const std::string identifier = id.identifier();
  Catalogue& cat = catalogue();
  std::string text;
  {
    std::shared_lock lock(cat.mutex);
    const auto it = cat.texts.find(identifier);
    if (it == cat.texts.end()) {
      return identifier;
    }
    text = it->second;
  }
  return substitute(text, id.args());
}

bool hasMessageText(const std::string& identifier) {
  Catalogue& cat = catalogue();
  std::shared_lock lock(cat.mutex);
  return cat.texts.count(identifier) != 0;
}

// --- warnings ----------------------------------------------------------------

namespace {

void defaultSink(const std::string& identifier, const std::string& text) {
  // One fputs per warning: stdio locks the stream per call, so concurrent
  // warnings do not interleave within a line.
  const std::string line = "Warning: " + text + " (" + identifier + ")\n";
  std::fputs(line.c_str(), stderr);
}

struct WarningChannel {
  std::mutex mutex;
  std::unordered_set<std::string> disabled;
  WarningSink sink;
};

WarningChannel& warningChannel() {
  static WarningChannel* const instance = new WarningChannel;  // never destroyed, as above
  return *instance;
}

}  // namespace

void issueHostWarning(const MessageID& id) {
  const std::string identifier = id.identifier();
  WarningChannel& channel = warningChannel();
  WarningSink sink;
  {
    std::lock_guard lock(channel.mutex);
    if (channel.disabled.count(identifier) != 0) {
      return;
    }
    sink = channel.sink;
  }
  const std::string text = formatMessage(id);
  if (sink) {
    sink(identifier, text);
  } else {
    defaultSink(identifier, text);
  }
}

void setWarningEnabled(const std::string& identifier, bool enabled) {
  WarningChannel& channel = warningChannel();
  std::lock_guard lock(channel.mutex);
  if (enabled) {
    channel.disabled.erase(identifier);
  } else {
    channel.disabled.insert(identifier);
  }
}

bool warningEnabled(const std::string& identifier) {
  WarningChannel& channel = warningChannel();
  std::lock_guard lock(channel.mutex);
  return channel.disabled.count(identifier) == 0;
}

WarningSink setWarningSink(WarningSink sink) {
  WarningChannel& channel = warningChannel();
  std::lock_guard lock(channel.mutex);
  WarningSink previous = std::move(channel.sink);
  channel.sink = std::move(sink);
  return previous;
}

}  // namespace quorix
