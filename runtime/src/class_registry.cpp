// The class registry: one map from class name to entry, read under a shared
// lock, and a mutex per class for its one-time member definition (a mutex
// rather than std::call_once, whose behaviour when the callable throws is
// unreliable in some standard libraries).
#include "class_registry.h"

#include "builtin_classes.h"
#include "class_errors.h"

namespace quorix::detail {

namespace {

// Set while this thread registers the built-in classes, whose registration
// reaches instance() again through ObjectSystem::registerClass.
thread_local bool registeringBuiltins = false;

}  // namespace

ClassRegistry& ClassRegistry::instance() {
  static ClassRegistry* const registry = new ClassRegistry;  // never destroyed, see header
  static std::once_flag builtins;
  if (!registeringBuiltins) {
    std::call_once(builtins, [] {
      registeringBuiltins = true;
      struct Reset {
        ~Reset() { registeringBuiltins = false; }
      } reset;
      registerBuiltinClasses();
    });
  }
  return *registry;
}

void ClassRegistry::add(std::unique_ptr<ClassInfo> info) {
  auto entry = std::make_unique<ClassEntry>();
  entry->name = info->name();
  std::unique_lock lock(mutex_);
  if (entries_.count(entry->name) != 0) {
    lock.unlock();
    const std::string name = entry->name;
    info.reset();
    raiseClassError("DuplicateClass", name);
  }
  entry->info = std::move(info);
  const std::string name = entry->name;
  entries_.emplace(name, std::move(entry));
}

ClassEntry* ClassRegistry::find(std::string_view name) const {
  std::shared_lock lock(mutex_);
  const auto it = entries_.find(name);
  return it == entries_.end() ? nullptr : it->second.get();
}

ClassEntry& ClassRegistry::get(std::string_view name) const {
  ClassEntry* const entry = find(name);
  if (entry == nullptr) {
    raiseClassError("UnknownClass", std::string(name));
  }
  return *entry;
}

const ClassDefinition& ClassRegistry::definition(ClassEntry& entry) {
  if (const ClassDefinition* defined = entry.definition.load(std::memory_order_acquire)) {
    return *defined;
  }
  std::lock_guard lock(entry.defineMutex);
  if (const ClassDefinition* defined = entry.definition.load(std::memory_order_relaxed)) {
    return *defined;
  }
  auto definition = std::make_unique<ClassDefinition>(*entry.info);
  entry.info->defineMembers(*definition);
  entry.ownedDefinition = std::move(definition);
  entry.definition.store(entry.ownedDefinition.get(), std::memory_order_release);
  return *entry.ownedDefinition;
}

}  // namespace quorix::detail
