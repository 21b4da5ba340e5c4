// The zotdigest module as the runtime loads it.
#pragma once

#include "quorix/module.h"

namespace zotdigest::python {

// Loads libzotdigest.so (module name "libzotdigest") through the runtime's module path
// (QUORIX_MODULE_PATH, then the directory the runtime was built with) on first use; loading
// registers the module's classes. Raises the runtime's error naming every
// path searched when the library is missing.
quorix::Module& zotdigestModule();

}  // namespace zotdigest::python
