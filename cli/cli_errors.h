// The command-line tool's own failures and the exit status each maps to.
//
// Errors from the module and the runtime arrive as quorix::MsgIDException
// and are rendered at the boundary in main; these two types cover what the
// tool itself refuses. Everything the user handed us that is wrong (an
// option, an input file, a digest file) is an InputError and exits 2; a
// failure to produce the output (a full disk, a read-only directory) is an
// OutputError and exits 1, the status of a failed computation.
#pragma once

#include "engine/errors.h"

namespace zotdigest::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130;

// Bad user input: options, number files, digest files. Exit status 2.
// The engine's digest files raise the same type.
using InputError = engine::InputError;

// The output could not be written. Exit status 1.
using OutputError = engine::OutputError;

}  // namespace zotdigest::cli
