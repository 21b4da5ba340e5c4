// Argument handling of the constructor and of the column build.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// The constructor's work on a new object's digest, given the user inputs
// (data, Delta, stream; up to three). Raises
// "QUORIX:class:WrongNumberOfConstructorArgs", "stats:tdigest:DeltaInvalidType",
// "stats:tdigest:DeltaInvalidValue" and "QUORIX:class:RequireReal".
void constructDigest(TDigest& digest, int nIn, const quorix::HostArray* const* in);

// The column build's entry: inputs (data, Delta, stream). Returns null for no
// inputs. Raises "QUORIX:class:WrongNumberOfConstructorArgs" for more than
// three and "QUORIX:class:RequireReal" for bad data (also when empty).
quorix::HostArrayPtr buildColumnDigestsFromArgs(int nIn, const quorix::HostArray* const* in);

}  // namespace zotdigest
