// The Python class zotdigest.RandomStream: a handle on a runtime stream.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>

#include "quorix/random_stream.h"

namespace zotdigest::python {

// Shares ownership of a runtime stream; for the process-wide default stream
// the pointer does not own (the runtime never destroys that stream).
struct StreamHandle {
  std::shared_ptr<quorix::RandomStream> stream;
};

// Adds class RandomStream: RandomStream(generator="mrg32k3a", seed=0),
// rand(n), reset(seed=None), the static default(), and the read-only
// properties generator and seed. An unknown generator or a seed outside
// [0, 2^32) raises zotdigest.Error with the runtime's identifier.
void register_random_stream(pybind11::module_& m);

}  // namespace zotdigest::python
