// Input arrays: which host arrays may serve as data and how each element
// becomes a double. The ten element types have one instantiation each of the
// construction templates; addArrayDispatch selects it by class identifier.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// Raises "QUORIX:class:RequireReal" unless the array is numeric and real
// (one identifier for non-numeric and complex data).
void checkData(const quorix::HostArray& data);

// Adds every element of a validated real numeric array of element type T to
// the digest: serially in blocks of 10000 with an interrupt check after each
// full block, or in parallel on TBB workers. Compresses afterwards and runs
// the capacity checks before and after. NaN elements are dropped by add.
template <class T>
void addArray(const quorix::HostArray& data, TDigest& digest, bool serial);

// addArray for the array's own element type; other classes add nothing.
void addArrayDispatch(const quorix::HostArray& data, TDigest& digest, bool serial);

}  // namespace zotdigest
