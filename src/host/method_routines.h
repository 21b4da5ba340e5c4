// The work functions behind the methods "add", "cdf", "icdf", "trimmedMean"
// and "centroids" of class "TDigest". Each has the MethodFunction shape of
// method_adapters.h: the object's digest, then the method's own arguments.
#pragma once

#include "core/tdigest.h"
#include "quorix/host_array.h"

namespace zotdigest {

// add(data): element type T is the data's class (the object system picks
// the overload by class). Sets the digest's stream to the host's default
// stream, checks the data ("QUORIX:class:RequireReal" for non-numeric or
// complex data, also when empty) and adds every element on the parallel
// path. NaN elements are dropped by the digest; infinities are values.
template <class T>
void addData(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
             const quorix::HostArray* const* in);

// add(data, stream): as addData, with the stream taken from in[1] (the
// default stream when in[1] is empty; "QUORIX:random:InvalidStream" when
// it holds no stream), and the elements added serially, so the result is
// reproducible from the stream's state.
template <class T>
void addDataWithStream(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                       const quorix::HostArray* const* in);

// cdf(x), icdf(q), trimmedMean(p): the scalar query over every element of
// in[0], answered as a double matrix in out[0] (rows: the first dimension;
// columns: the product of the rest). NaN elements answer NaN unasked.
// Raise "QUORIX:class:RequireReal" (complex), "QUORIX:class:RequireNumeric"
// and the query's own identifiers.
void cdfMethod(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
               const quorix::HostArray* const* in);
void icdfMethod(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                const quorix::HostArray* const* in);
void trimmedMeanMethod(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                       const quorix::HostArray* const* in);

// centroids(): means (n x 1 double) in out[0] and counts (n x 1 uint64) in
// out[1]. Raises "stats:tdigest:MergeDeltaMismatch" when fewer than two
// outputs are requested (that identifier is the listing's, by design).
void centroidsMethod(TDigest& digest, int& nOut, quorix::HostArray** out, int nIn,
                     const quorix::HostArray* const* in);

}  // namespace zotdigest
