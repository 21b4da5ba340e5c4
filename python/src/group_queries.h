// Queries of many digests in one call, for zotdigest.GroupedDigests.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds _query_digests(digests, name, points) -> float64 array (digests x points):
// row i holds digests[i].<name>(points) for name "icdf" or "cdf"; a digest
// without data gives a row of NaN for "cdf" (whose own call refuses it) and
// the module's answer for "icdf". One call of the module per digest, made
// from C++ without the GIL; Ctrl-C stops it. And _digest_property(digests,
// name): each digest's NumDataPoints (a uint64 array) or Delta (float64).
void register_group_queries(pybind11::module_& m);

}  // namespace zotdigest::python
