// zotdigest._core._grouped_digests: the engine's grouped build, for the
// package's digest_by. The package turns keys into codes and validates the
// weights; this binding only checks shapes and hands back the digests.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds _grouped_digests(values, codes, groups, weights=None, delta=100.0,
// seed=0, threads=None) -> list of TDigest, one per code 0 .. groups-1.
// values: a 1-D array of a numeric dtype; codes: int64, same length
// (negative drops the value); weights: uint64, same length, or None. A code
// >= groups raises ValueError naming its position.
void register_grouped_build(pybind11::module_& m);

}  // namespace zotdigest::python
