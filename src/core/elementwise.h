// The element-wise apply behind the methods "cdf", "icdf" and "trimmedMean":
// checks an argument array and maps a scalar query of a digest over it.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

using ScalarQuery = double (*)(const TDigest&, double);

// A new real double matrix with in's first dimension as rows and in's
// column count (the product of its other dimensions) as columns, element i
// being fn(digest, in[i]) in storage order. Each element is read as a
// double, whatever in's numeric class. A NaN element gives the quiet NaN
// 0xFFF8000000000000 without calling fn; an empty input gives an empty
// matrix without calling fn. Raises "QUORIX:class:RequireReal" for complex
// input (tested first), "QUORIX:class:RequireNumeric" for non-numeric input,
// and whatever fn raises (the partial result is dropped). For fn = cdf or
// icdf a larger array is answered by one walk over its elements in ascending
// order, with the same results bit for bit and the same error as the
// per-element loop in storage order would raise first; the cost is then one
// pass over the centroids plus a sort of the elements.
quorix::HostArrayPtr applyElementwise(const quorix::HostArray& in, const TDigest& digest,
                                      ScalarQuery fn);

}  // namespace zotdigest
