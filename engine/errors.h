// The two kinds of failure the engine reports besides the runtime's own
// errors. Everything a caller handed over that is wrong (a damaged digest
// file, a digest that cannot be stored) is an InputError; a failure to
// produce output (a full disk, a read-only directory) is an OutputError.
// The front ends map them once, at their boundary: the CLI to exit
// statuses 2 and 1, Python to ValueError and OSError.
#pragma once

#include <stdexcept>

namespace zotdigest::engine {

class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class OutputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zotdigest::engine
