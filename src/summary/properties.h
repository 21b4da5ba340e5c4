// The native accessors behind the properties "Delta", "NumDataPoints",
// "NumCentroids" and "AVLTreeSummary".
#pragma once

#include <cstdint>

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

double getDelta(const TDigest& digest) noexcept;
// Stores value when it is > 0 (infinity included); otherwise raises
// "stats:tdigest:DeltaInvalidValue" with the value as "%f" text and leaves
// delta unchanged. Nothing is recompressed.
void setDelta(TDigest& digest, double value);

std::uint64_t getNumDataPoints(const TDigest& digest) noexcept;
// Stored as it stands, unchecked against the tree.
void setNumDataPoints(TDigest& digest, std::uint64_t value) noexcept;

std::uint64_t getNumCentroids(const TDigest& digest) noexcept;

quorix::HostArrayPtr getSummary(const TDigest& digest);
void setSummary(TDigest& digest, const quorix::HostArray& matrix);

}  // namespace zotdigest
