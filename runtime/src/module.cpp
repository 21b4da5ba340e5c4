// Loading modules by name.
//
// A module is bound all or nothing: the six symbols are looked up from one
// table of {name, slot}, and the first one missing closes the library again
// and raises. The function table is checked before the initialiser runs, so
// a module that is refused never registers anything. Once initialised, a
// module is never closed: the classes it registered and the objects made
// from them point into its code until the process ends. Module records live
// in a registry that is never destroyed, because the terminators run from
// std::atexit, after ordinary statics may be gone.
#include "quorix/module.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorix/messages.h"

namespace quorix {

namespace {

using InitFunction = void (*)();
using TableQuery = const FunctionTable* (*)();

[[noreturn]] void raiseModuleError(const char* key, std::vector<std::string> args) {
  const int count = static_cast<int>(args.size());
  raiseHostError(MessageID("QUORIX:module", key, count, std::move(args)));
}

bool fileExists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// File names tried in each directory: libN.so, and N.so for a name that
// already carries the "lib" prefix (a module whose symbols are formed from
// its library's base name, such as "libzotdigest").
std::vector<std::string> fileNames(const std::string& name) {
  std::vector<std::string> names{"lib" + name + ".so"};
  if (name.size() > 3 && name.compare(0, 3, "lib") == 0) {
    names.push_back(name + ".so");
  }
  return names;
}

void shutdownAtExit() { Module::shutdownAll(); }

}  // namespace

struct ModuleRegistry {
  std::recursive_mutex mutex;  // a module's initialiser may load another module
  std::map<std::string, std::unique_ptr<Module>, std::less<>> modules;
  std::vector<Module*> loadOrder;
  bool atexitRegistered = false;

  static ModuleRegistry& instance() {
    static ModuleRegistry* const registry = new ModuleRegistry;  // never destroyed
    return *registry;
  }

  // Opens the first library of the name found on the search path; raises
  // NotFound naming every path tried (with the loader's complaint for a file
  // that exists but would not open).
  static std::pair<void*, std::string> open(const std::string& name) {
    std::string tried;
    for (const std::string& directory : Module::searchPath()) {
      for (const std::string& file : fileNames(name)) {
        const std::string path = directory + "/" + file;
        if (!tried.empty()) {
          tried += ", ";
        }
        tried += path;
        if (!fileExists(path)) {
          continue;
        }
        if (void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
          return {handle, path};
        }
        const char* const why = ::dlerror();
        tried += " (";
        tried += why != nullptr ? why : "cannot be opened";
        tried += ")";
      }
    }
    raiseModuleError("NotFound", {tried.empty() ? std::string("(no directories)") : tried});
  }

  // The bound module and its initialiser, not yet called.
  static std::pair<std::unique_ptr<Module>, InitFunction> bind(const std::string& name) {
    auto [handle, path] = open(name);
    std::unique_ptr<Module> module(new Module);
    module->name_ = name;
    module->path_ = path;
    module->handle_ = handle;

    void* initialize = nullptr;
    void* terminate = nullptr;
    void* query = nullptr;
    void* version = nullptr;
    void* buildDate = nullptr;
    void* relativePath = nullptr;
    const std::pair<std::string, void**> symbols[] = {
        {"QXInitialize_" + name, &initialize}, {"QXTerminate_" + name, &terminate},
        {"QueryQXFcnTable_" + name, &query},   {name + "_version", &version},
        {name + "_build_date", &buildDate},    {name + "_relative_path", &relativePath},
    };
    for (const auto& [symbol, slot] : symbols) {
      *slot = ::dlsym(handle, symbol.c_str());
      if (*slot == nullptr) {
        ::dlclose(handle);
        raiseModuleError("MissingSymbol", {symbol, path});
      }
    }

    const FunctionTable* const table = reinterpret_cast<TableQuery>(query)();
    std::string problem;
    if (table == nullptr) {
      problem = "no table";
    } else if (table->protocol != kFunctionTableProtocol) {
      problem = "unknown protocol";
    } else if (table->descriptorSize != sizeof(FunctionTable)) {
      problem = "wrong descriptor size";
    } else if (table->routines == nullptr) {
      problem = "no routine list";
    } else {
      // The count must agree with the null-terminated list; only count + 1
      // entries are read, so a list without its terminator is not overrun.
      for (std::uint64_t i = 0; i < table->count && problem.empty(); ++i) {
        if (table->routines[i] == nullptr) {
          problem = "routine count disagrees with the routine list";
        }
      }
      if (problem.empty() && table->routines[table->count] != nullptr) {
        problem = "routine count disagrees with the routine list";
      }
    }
    if (!problem.empty()) {
      ::dlclose(handle);
      raiseModuleError("BadTable", {problem + " (" + path + ")"});
    }

    module->terminate_ = reinterpret_cast<InitFunction>(terminate);
    module->table_ = table;
    module->version_ = *static_cast<const char* const*>(version);
    module->buildDate_ = *static_cast<const char* const*>(buildDate);
    module->relativePath_ = *static_cast<const char* const*>(relativePath);
    return {std::move(module), reinterpret_cast<InitFunction>(initialize)};
  }
};

Module& Module::load(std::string_view name) {
  ModuleRegistry& registry = ModuleRegistry::instance();
  std::lock_guard lock(registry.mutex);
  if (const auto it = registry.modules.find(name); it != registry.modules.end()) {
    return *it->second;
  }
  auto [module, initialize] = ModuleRegistry::bind(std::string(name));
  if (!registry.atexitRegistered) {
    registry.atexitRegistered = std::atexit(shutdownAtExit) == 0;
  }
  // Recorded before the initialiser runs: whatever happens inside it, the
  // module is initialised at most once, and its terminator runs at exit.
  Module& loaded = *module;
  registry.loadOrder.push_back(&loaded);
  registry.modules.emplace(std::string(name), std::move(module));
  initialize();
  return loaded;
}

std::vector<std::string> Module::searchPath() {
  std::vector<std::string> directories;
  if (const char* const path = std::getenv("QUORIX_MODULE_PATH")) {
    const std::string_view text(path);
    std::size_t start = 0;
    while (start <= text.size()) {
      std::size_t end = text.find(':', start);
      if (end == std::string_view::npos) {
        end = text.size();
      }
      if (end > start) {
        directories.emplace_back(text.substr(start, end - start));
      }
      start = end + 1;
    }
  }
  directories.emplace_back(QUORIX_DEFAULT_MODULE_DIR);
  return directories;
}

void Module::shutdownAll() noexcept {
  ModuleRegistry& registry = ModuleRegistry::instance();
  std::lock_guard lock(registry.mutex);
  // Last loaded, first terminated: a module may depend on one it loaded.
  for (auto it = registry.loadOrder.rbegin(); it != registry.loadOrder.rend(); ++it) {
    Module& module = **it;
    if (module.terminated_) {
      continue;
    }
    module.terminated_ = true;
    try {
      module.terminate_();
    } catch (...) {
      // Shutdown has nobody to report to; the remaining modules still end.
    }
  }
}

void Module::call(std::size_t i, int nOut, HostArray** out, int nIn,
                  const HostArray* const* in) const {
  if (i >= routineCount()) {
    raiseHostError(MessageID("QUORIX:module", "NoSuchRoutine", 1, {std::to_string(i)}));
  }
  table_->routines[i](nOut, out, nIn, in);
}

// The library stays open: see the note at the top.
Module::~Module() = default;

}  // namespace quorix
