// A module whose function table speaks another protocol. Its initialiser
// must never run: it aborts the process if it does.
#include <cstdlib>

#include "module_exports.h"
#include "quorix/module.h"

namespace {

void nothing(int, quorix::HostArray**, int, const quorix::HostArray* const*) {}

const quorix::EntryRoutine routines[] = {&nothing, nullptr};
const quorix::FunctionTable table{
    routines, 0u, 0u, 1, quorix::kFunctionTableProtocol + 1, sizeof(quorix::FunctionTable)};

}  // namespace

QX_MODULE_EXPORT void QXInitialize_qxbadtablemod() { std::abort(); }
QX_MODULE_EXPORT void QXTerminate_qxbadtablemod() {}
QX_MODULE_EXPORT const quorix::FunctionTable* QueryQXFcnTable_qxbadtablemod() { return &table; }
QX_MODULE_EXPORT const char* const qxbadtablemod_version = "1.0.0.0";
QX_MODULE_EXPORT const char* const qxbadtablemod_build_date = "Jan  1 2024";
QX_MODULE_EXPORT const char* const qxbadtablemod_relative_path = "bin/libqxbadtablemod.so";
