// Replacing a file so that readers see the old content or the new, never a
// mixture: write a temporary file in the same directory, flush it to disk,
// rename it over the target, then flush the directory entry.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace zotdigest::engine {

// Writes `bytes` to `path` atomically. A new file gets the usual mode
// (0666 less the umask); a replaced file keeps its mode. Throws OutputError
// (with the system's reason) when any step fails, and raises the runtime's
// interrupt error when Ctrl-C was pressed before the rename; in both cases
// the temporary file is removed and `path` is left as it was.
void writeFileAtomically(const std::string& path, std::span<const std::byte> bytes);

}  // namespace zotdigest::engine
