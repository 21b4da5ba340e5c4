// Loading modules by name.
//
// Module N is the shared library libN.so, searched on QUORIX_MODULE_PATH
// (colon-separated) and then in the directory the runtime was built with
// (a name that already begins with "lib", such as "libzotdigest", is also
// tried as N.so, so a module may form its symbols from its file's name). It
// exports QXInitialize_N, QXTerminate_N, QueryQXFcnTable_N and the texts
// N_version, N_build_date and N_relative_path. The runtime binds all six or
// none, calls the initialiser once, and the terminator when the process
// shuts the runtime down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "quorix/config.h"
#include "quorix/host_array.h"

namespace quorix {

using EntryRoutine = void (*)(int nOut, HostArray** out, int nIn, const HostArray* const* in);

// The descriptor a module's QueryQXFcnTable_N returns; every field 64 bits.
struct FunctionTable {
  const EntryRoutine* routines;  // null-terminated
  std::uint64_t identification;  // 32-bit value, zero-extended
  std::uint64_t buildTime;       // seconds since 1970-01-01
  std::uint64_t count;           // number of routines
  std::uint64_t protocol;        // kFunctionTableProtocol
  std::uint64_t descriptorSize;  // sizeof(FunctionTable)
};
static_assert(sizeof(FunctionTable) == 48);

// "QXFT" and table protocol version 1.
inline constexpr std::uint64_t kFunctionTableProtocol = 0x5158465400000001ull;

class QUORIX_API Module {
 public:
  // Loads (once per process) and initialises the module; raises
  // "QUORIX:module:NotFound" naming every path searched, or
  // "QUORIX:module:MissingSymbol" / "QUORIX:module:BadTable".
  static Module& load(std::string_view name);
  // The directories searched, in order.
  static std::vector<std::string> searchPath();
  // Calls every loaded module's terminator (once); also run at exit.
  static void shutdownAll() noexcept;

  const std::string& name() const noexcept { return name_; }
  const std::string& path() const noexcept { return path_; }
  const char* version() const noexcept { return version_; }
  const char* buildDate() const noexcept { return buildDate_; }
  const char* relativePath() const noexcept { return relativePath_; }
  const FunctionTable& table() const noexcept { return *table_; }
  std::size_t routineCount() const noexcept { return static_cast<std::size_t>(table_->count); }
  // Calls routine i; raises "QUORIX:module:NoSuchRoutine" when out of range.
  void call(std::size_t i, int nOut, HostArray** out, int nIn, const HostArray* const* in) const;

  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();

 private:
  Module() = default;
  friend struct ModuleRegistry;

  std::string name_;
  std::string path_;
  void* handle_ = nullptr;
  void (*terminate_)() = nullptr;
  const FunctionTable* table_ = nullptr;
  const char* version_ = nullptr;
  const char* buildDate_ = nullptr;
  const char* relativePath_ = nullptr;
  bool terminated_ = false;
};

}  // namespace quorix
