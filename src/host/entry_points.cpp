// The module's exported surface: the three entry points the runtime looks up
// by name, the three texts, and the function table. Everything else in the
// module is hidden; this file only wires.
#include <cstdint>

#include "construction/arguments.h"
#include "host/merge_routines.h"
#include "host/tdigest_class.h"
#include "quorix/host_array.h"
#include "quorix/module.h"

#if !defined(ZOTDIGEST_VERSION_TEXT) || !defined(ZOTDIGEST_BUILD_DATE_TEXT) || \
    !defined(ZOTDIGEST_BUILD_TIME)
#error "the build stamp (version, date, time) comes from src/CMakeLists.txt"
#endif

#define ZOTDIGEST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The column build answers nothing when called without inputs.
void columnBuildRoutine(int /*nOut*/, quorix::HostArray** out, int nIn,
                        const quorix::HostArray* const* in) {
  if (quorix::HostArrayPtr built = zotdigest::buildColumnDigestsFromArgs(nIn, in)) {
    out[0] = built.release();
  }
}

constexpr quorix::EntryRoutine kRoutines[] = {
    zotdigest::arrayMergeRoutine,
    columnBuildRoutine,
    zotdigest::columnMergeRoutine,
    nullptr,
};

// "ZDTG", the module's identification in the table.
constexpr std::uint64_t kIdentification = 0x5A445447u;

constexpr quorix::FunctionTable kFunctionTable{
    kRoutines,
    kIdentification,
    ZOTDIGEST_BUILD_TIME,
    3,
    quorix::kFunctionTableProtocol,
    sizeof(quorix::FunctionTable),
};

}  // namespace

ZOTDIGEST_EXPORT const char* const libzotdigest_version = ZOTDIGEST_VERSION_TEXT;
ZOTDIGEST_EXPORT const char* const libzotdigest_build_date = ZOTDIGEST_BUILD_DATE_TEXT;
ZOTDIGEST_EXPORT const char* const libzotdigest_relative_path = "bin\\win64\\libzotdigest.dll";

// The host calls this from its loading thread, so a plain flag suffices. It
// is set before registering and never cleared: a failed registration is not
// retried, and termination does not undo it.
ZOTDIGEST_EXPORT void QXInitialize_libzotdigest() {
  static bool initialised = false;
  if (initialised) {
    return;
  }
  initialised = true;
  zotdigest::registerTDigestClass();
}

// The registered class stays with the host's registry.
ZOTDIGEST_EXPORT void QXTerminate_libzotdigest() {}

ZOTDIGEST_EXPORT const quorix::FunctionTable* QueryQXFcnTable_libzotdigest() {
  return &kFunctionTable;
}
