// The process-wide class registry behind ObjectSystem.
//
// Entries are created once and never removed or moved, so a ClassEntry
// reference (and the ClassInfo and ClassDefinition it holds) stays valid for
// the life of the process. The registry itself is never destroyed: objects
// released at exit, after ordinary statics are gone, still reach their class.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "quorix/object_system.h"

namespace quorix::detail {

struct ClassEntry {
  std::string name;
  std::unique_ptr<ClassInfo> info;
  // Published once defineMembers has returned; read without the lock.
  std::atomic<const ClassDefinition*> definition{nullptr};
  std::unique_ptr<ClassDefinition> ownedDefinition;
  std::mutex defineMutex;
};

class ClassRegistry {
 public:
  // The registry, with the runtime's own classes registered on first use.
  static ClassRegistry& instance();

  // Takes ownership; raises DuplicateClass (after destroying `info`).
  void add(std::unique_ptr<ClassInfo> info);
  // Null when no class of that name is registered.
  ClassEntry* find(std::string_view name) const;
  // Raises UnknownClass.
  ClassEntry& get(std::string_view name) const;
  // The entry's members, defined by its ClassInfo on the first call only.
  // Concurrent first calls wait for one definition. If defineMembers
  // raises, nothing is published and the error propagates; a later call
  // tries again. A class's defineMembers must not ask for its own
  // definition.
  static const ClassDefinition& definition(ClassEntry& entry);

 private:
  ClassRegistry() = default;

  mutable std::shared_mutex mutex_;
  std::map<std::string, std::unique_ptr<ClassEntry>, std::less<>> entries_;
};

}  // namespace quorix::detail
