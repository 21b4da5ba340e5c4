// A module that exports five of the six symbols (no relative path text).
#include "module_exports.h"
#include "quorix/module.h"

namespace {

const quorix::EntryRoutine routines[] = {nullptr};
const quorix::FunctionTable table{
    routines, 0u, 0u, 0, quorix::kFunctionTableProtocol, sizeof(quorix::FunctionTable)};

}  // namespace

QX_MODULE_EXPORT void QXInitialize_qxbrokenmod() {}
QX_MODULE_EXPORT void QXTerminate_qxbrokenmod() {}
QX_MODULE_EXPORT const quorix::FunctionTable* QueryQXFcnTable_qxbrokenmod() { return &table; }
QX_MODULE_EXPORT const char* const qxbrokenmod_version = "1.0.0.0";
QX_MODULE_EXPORT const char* const qxbrokenmod_build_date = "Jan  1 2024";
