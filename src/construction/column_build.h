// One digest per column of a matrix, built in parallel.
#pragma once

#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace zotdigest {

// Returns an object array of "TDigest" objects whose dimensions are the
// data's with the first replaced by 1 (empty data: by 1 when the first
// dimension is non-zero, else 0). `data` must be validated (checkData).
// Raises "stats:tdigest:DeltaInvalidValue" when delta is not > 0.
quorix::HostArrayPtr buildColumnDigests(const quorix::HostArray& data, double delta,
                                        quorix::RandomStream& seedStream);

}  // namespace zotdigest
