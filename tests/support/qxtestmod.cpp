// A well-formed module for the loader tests. Routine 0 reports how often the
// module was initialised and terminated, as a 1x2 double [init, term];
// routine 1 returns the sum of every element of its inputs as a double
// scalar.
#include <atomic>

#include "module_exports.h"
#include "quorix/host_array.h"
#include "quorix/module.h"

namespace {

std::atomic<int> initCount{0};
std::atomic<int> termCount{0};

void counts(int /*nOut*/, quorix::HostArray** out, int /*nIn*/,
            const quorix::HostArray* const* /*in*/) {
  auto result = quorix::HostArray::createNumericMatrix(1, 2, quorix::ClassID::Double);
  result->data<double>()[0] = static_cast<double>(initCount.load());
  result->data<double>()[1] = static_cast<double>(termCount.load());
  out[0] = result.release();
}

void sum(int /*nOut*/, quorix::HostArray** out, int nIn, const quorix::HostArray* const* in) {
  double total = 0.0;
  for (int i = 0; i < nIn; ++i) {
    for (std::size_t j = 0; j < in[i]->numel(); ++j) {
      total += in[i]->elementAsDouble(j);
    }
  }
  out[0] = quorix::HostArray::createDoubleScalar(total).release();
}

const quorix::EntryRoutine routines[] = {&counts, &sum, nullptr};

const quorix::FunctionTable table{routines,
                                  0x1234u,
                                  1700000000u,
                                  2,
                                  quorix::kFunctionTableProtocol,
                                  sizeof(quorix::FunctionTable)};

}  // namespace

QX_MODULE_EXPORT void QXInitialize_qxtestmod() { ++initCount; }
QX_MODULE_EXPORT void QXTerminate_qxtestmod() { ++termCount; }
QX_MODULE_EXPORT const quorix::FunctionTable* QueryQXFcnTable_qxtestmod() { return &table; }
QX_MODULE_EXPORT const char* const qxtestmod_version = "1.2.3.4";
QX_MODULE_EXPORT const char* const qxtestmod_build_date = "Mar  5 2024";
QX_MODULE_EXPORT const char* const qxtestmod_relative_path = "bin/libqxtestmod.so";
