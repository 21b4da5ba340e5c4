// The module's routines as Python functions.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds the three routines of the module's function table:
//   merge(digests, stream=None)                     -> TDigest
//   column_digests(data, delta=100.0, stream=None)  -> NumPy object array of TDigest
//   merge_columns(digests, stream=None)             -> NumPy object array of TDigest
// The object arrays have the dimensions the module gives them. Also adds
// module_info(): name, path, version and build date of the loaded module.
void register_routines(pybind11::module_& m);

}  // namespace zotdigest::python
