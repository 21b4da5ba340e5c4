// Combining digests: the two "merge" methods of class "TDigest", and the
// array merge and column merge routines of the module's function table.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// merge(other): folds the digest of the scalar TDigest object in[0] into
// `digest`, drawing from the host's default stream, which becomes the
// digest's stream. Warns "stats:tdigest:PreMaxData" before merging when the
// combined weight or centroid count passes the limits and
// "stats:tdigest:PostMaxData" after; merges either way. Raises
// "stats:tdigest:MergeDeltaMismatch" (nothing changed) when the deltas
// differ or either is NaN, and "QUORIX:class:RequireScalarObject" when in[0]
// is not a scalar TDigest object. `other` may be the object itself.
void mergeDigest(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                 const quorix::HostArray* const* in);

// merge(other, stream): as mergeDigest, drawing from the stream held by
// in[1] (the default stream when in[1] is empty; a value holding no stream
// raises "QUORIX:random:InvalidStream").
void mergeDigestWithStream(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                           const quorix::HostArray* const* in);

// Table routine: in[0] an array of TDigest objects, in[1] (optional) a
// stream. Returns in out[0] a new scalar TDigest object holding all of
// them, merged in storage order; its Delta is their common Delta.
// Raises "stats:tdigest:InvalidNumInputs" (not one or two inputs),
// "QUORIX:class:RequireClass" with "TDigest" (in[0] empty, not an object
// array, or holding anything but TDigest objects) and
// "stats:tdigest:MergeDeltaMismatch" (the Deltas are not all equal; a NaN
// equals nothing). Warns as mergeDigest for every element.
void arrayMergeRoutine(int nOut, quorix::HostArray** out, int nIn,
                       const quorix::HostArray* const* in);

// Table routine: in[0] a d1 x N x ... array of TDigest objects, in[1]
// (optional) a stream. Returns in out[0] a 1 x N x ... array whose element i
// merges column i in order; each result takes the Delta of every element
// just before merging it, so it never raises MergeDeltaMismatch and ends
// with the Delta of its column's last element. An empty input gives an
// empty array (first dimension 1 when d1 is not 0, else 0). One whole
// number is drawn from the stream and discarded before anything else.
// Raises "QUORIX:class:WrongNumberOfConstructorArgs" (not one or two
// inputs); no capacity check and no class test, though an element that is
// not a TDigest object is refused by the object system
// ("QUORIX:class:RequireScalarObject") or the array service.
void columnMergeRoutine(int nOut, quorix::HostArray** out, int nIn,
                        const quorix::HostArray* const* in);

}  // namespace zotdigest
