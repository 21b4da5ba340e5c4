// Trimmed mean of a digest, and the listing of its centroids as host
// matrices. Both read the digest only.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// Mean of the data after cutting a fraction p of the total weight from each
// end; a centroid cut by a bound contributes the part inside. Raises
// "stats:tdigest:TrimmedMeanInvalidTrim" unless 0 <= p < 0.5 (tested first;
// -0.0 and NaN pass), then "stats:tdigest:TrimmedMeanNoData" on a digest
// with no centroid. p = 0 gives the count-weighted mean of the means; a NaN
// p gives NaN.
double trimmedMean(const TDigest& digest, double p);

// The method "centroids": out[0] becomes an n x 1 real double matrix of the
// means in ascending order, out[1] an n x 1 real uint64 matrix of the
// matching counts (0 x 1 each for an empty digest); ownership passes to the
// caller. Raises "stats:tdigest:MergeDeltaMismatch" when nOut < 2: the
// listing has no error key of its own and shares the merge one.
void centroids(const TDigest& digest, int nOut, quorix::HostArray** out);

}  // namespace zotdigest
