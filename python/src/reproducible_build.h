// zotdigest._core.ReproducibleBuild: the engine's reproducible build, for
// zotdigest.digest and zotdigest.dask.digest. The package's digest()
// decides what is one array and what is a sequence of chunks; this class
// only appends arrays and hands back the digest.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>

namespace zotdigest::python {

// Adds class ReproducibleBuild(delta=100.0, seed=0, threads=None,
// first_block=0, weighted=False) with append(data) (unweighted builds),
// append_weighted(data, weights) (weighted ones), finish() and the
// read-only property size; merge_tree_nodes(left, right, level, index, seed); and the constant
// BLOCK_SIZE.
void register_reproducible_build(pybind11::module_& m);

// The seed and thread-count arguments of the engine's builds, checked:
// ValueError unless the seed is in [0, 2**32) and threads is None (every
// core, as 0) or at least 1.
std::uint32_t checkedSeed(const pybind11::object& seed);
unsigned checkedThreads(const pybind11::object& threads);

}  // namespace zotdigest::python
