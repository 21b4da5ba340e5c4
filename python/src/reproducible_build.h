// zotdigest._core.ReproducibleBuild: the engine's reproducible build, for
// zotdigest.digest and zotdigest.dask.digest. The package's digest()
// decides what is one array and what is a sequence of chunks; this class
// only appends arrays and hands back the digest.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds class ReproducibleBuild(delta=100.0, seed=0, threads=None,
// first_block=0, weighted=False) with append(data) (unweighted builds),
// append_weighted(data, weights) (weighted ones), finish() and the
// read-only property size; merge_tree_nodes(left, right, level, index, seed); and the constant
// BLOCK_SIZE.
void register_reproducible_build(pybind11::module_& m);

}  // namespace zotdigest::python
