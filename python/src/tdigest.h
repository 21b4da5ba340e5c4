// The Python class zotdigest.TDigest, built from what the module registers.
//
// The constructor has the fixed form TDigest(data=None, delta=None,
// stream=None). Every other member comes from the class definition the
// module registered with the object system: one Python method per method
// name (all overloads of a name behind it; the runtime's dispatch picks
// one; see method_object.h for how it is called), one Python property per
// property, documented by its registered description. A member the module
// adds later appears without a change here. Answers are shaped after the
// first argument (conversion.h).
// Python callers are public-level callers: members registered at a more
// restricted level refuse them with the runtime's identifier.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Loads the module, then adds class TDigest (with __getstate__ and
// __setstate__: the runtime's save and restore, for pickle and copy) and
// class_definition(name), the registered members of a class as plain
// Python data.
void register_tdigest(pybind11::module_& m);

}  // namespace zotdigest::python
