// Ctrl-C for the command-line tool.
#pragma once

namespace zotdigest::cli {

// Installs the SIGINT handler: the first Ctrl-C sets the runtime's
// interrupt flag, which the module's loops and the tool's readers poll, so
// the work stops at the next check and the tool exits with status 130
// without writing its output. A second Ctrl-C before that ends the process
// at once.
void installInterruptHandler();

}  // namespace zotdigest::cli
