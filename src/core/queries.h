// Distribution queries of a digest: the cumulative distribution at a value
// and its inverse. Both read the digest only.
#pragma once

#include "core/tdigest.h"

namespace zotdigest {

// Estimated fraction of the data at or below x, in [0, 1]. Each centroid's
// count is spread uniformly between the midpoints to its neighbours (the
// first and last centroids symmetric about their means). 0.0 below the first
// mean, 1.0 at or above the last. Raises "stats:tdigest:CdfNoData" on a
// digest with no centroid. A NaN x is not rejected (it walks past every
// centroid); the element-wise method never passes one.
double cdf(const TDigest& digest, double x);

// Estimated value at cumulative probability q. Raises
// "stats:tdigest:IcdfInvalidQuantile" when q < 0 or q > 1 (checked first, so
// also on an empty digest; -0.0 and NaN pass). The host NaN for an empty
// digest, the mean for a single centroid, the last mean when q reaches the
// end; otherwise interpolated along the gap to a neighbour, extrapolating
// beyond the first and last means without clamping.
double icdf(const TDigest& digest, double q);

}  // namespace zotdigest
