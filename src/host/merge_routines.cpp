// The methods merge their argument into the object itself; the two table
// routines build new objects. Whatever draws during a merge (add's tie
// draws, compress's permutation) comes from the stream the call chose,
// which is stored in the receiving digest before the merge starts.
//
// The array merge gives its result the elements' common Delta up front, so
// the first merge cannot fail against the new object's default Delta. The
// column merge instead re-sets the result's Delta from every element just
// before merging it: a column of mixed Deltas merges without complaint and
// ends with its last element's Delta. The asymmetry is intended.
#include "host/merge_routines.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "host/errors.h"
#include "host/tdigest_class.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"

namespace zotdigest {

namespace {

using quorix::HostArray;
using quorix::ObjectSystem;
using quorix::RandomStream;

// The default stream unless the optional stream input at `index` is
// present and not empty.
RandomStream& chosenStream(int nIn, const HostArray* const* in, int index) {
  if (nIn > index && !in[index]->isEmpty()) {
    return RandomStream::fromHostValue(*in[index]);
  }
  return RandomStream::defaultStream();
}

// Merge with the capacity check on both sides: before, with the combined
// centroid count and the incoming weight; after, with the result alone.
void mergeChecked(TDigest& into, const TDigest& from) {
  checkCapacity(into.totalWeight, into.tree.size() + from.tree.size(), from.totalWeight);
  into.merge(from);
  checkCapacity(into.totalWeight, into.tree.size(), 0);
}

void mergeObject(TDigest& digest, const HostArray& otherObject, RandomStream& stream) {
  const TDigest& other = ObjectSystem::scalarInstanceAs<TDigest>(otherObject, kClassName);
  digest.stream = &stream;
  mergeChecked(digest, other);
}

TDigest& digestOf(const quorix::ObjectHandle& handle) {
  return *static_cast<TDigest*>(handle->instance());
}

// The digests of the array merge's input, after the class tests.
std::vector<const TDigest*> mergeInputs(const HostArray& array) {
  if (array.isEmpty() || array.classID() != quorix::ClassID::Object) {
    raiseError<component_QUORIX::catalog_class::key_RequireClass>(RequireClass(kClassName));
  }
  std::vector<const TDigest*> digests;
  digests.reserve(array.numel());
  for (std::size_t i = 0; i < array.numel(); ++i) {
    const quorix::ObjectHandle& handle = array.object(i);
    if (!handle || handle->className() != kClassName) {
      raiseError<component_QUORIX::catalog_class::key_RequireClass>(RequireClass(kClassName));
    }
    digests.push_back(&digestOf(handle));
  }
  return digests;
}

// Element j of the column merge's input. The routine makes no class test of
// its own; this only keeps a foreign or missing object from being read as a
// digest, with the object system's identifier for that case.
const TDigest& columnElement(const HostArray& array, std::size_t j) {
  const quorix::ObjectHandle& handle = array.object(j);
  if (!handle || array.objectClassName() != kClassName) {
    quorix::raiseHostError(
        quorix::MessageID("QUORIX:class", "RequireScalarObject", 1, {std::string(kClassName)}));
  }
  return digestOf(handle);
}

}  // namespace

void mergeDigest(TDigest& digest, int& /*nOut*/, HostArray** /*out*/, int /*nIn*/,
                 const HostArray* const* in) {
  mergeObject(digest, *in[0], RandomStream::defaultStream());
}

void mergeDigestWithStream(TDigest& digest, int& /*nOut*/, HostArray** /*out*/, int nIn,
                           const HostArray* const* in) {
  mergeObject(digest, *in[0], chosenStream(nIn, in, 1));
}

void arrayMergeRoutine(int /*nOut*/, HostArray** out, int nIn, const HostArray* const* in) {
  if (nIn < 1 || nIn > 2) {
    raiseError<stats::tdigest::InvalidNumInputs>(InvalidNumInputs());
  }
  const std::vector<const TDigest*> digests = mergeInputs(*in[0]);
  const double delta = digests.front()->delta;
  for (std::size_t i = 1; i < digests.size(); ++i) {
    // Exact comparison; a NaN on either side is a mismatch.
    if (!(digests[i]->delta == delta)) {
      raiseError<stats::tdigest::MergeDeltaMismatch>(MergeDeltaMismatch());
    }
  }
  RandomStream& stream = chosenStream(nIn, in, 1);

  quorix::ObjectHandle handle = ObjectSystem::createInstance(kClassName);
  TDigest& result = digestOf(handle);
  setDelta(result, delta);
  result.stream = &stream;
  for (const TDigest* digest : digests) {
    mergeChecked(result, *digest);
  }
  out[0] = HostArray::createScalarObject(std::move(handle)).release();
}

void columnMergeRoutine(int /*nOut*/, HostArray** out, int nIn, const HostArray* const* in) {
  if (nIn < 1 || nIn > 2) {
    raiseError<component_QUORIX::catalog_class::key_WrongNumberOfConstructorArgs>(
        WrongNumberOfConstructorArgs());
  }
  RandomStream& stream = chosenStream(nIn, in, 1);
  // Drawn only to advance the stream, so that its state after the call is
  // the same as a column build's with the same stream.
  double discarded = 0.0;
  stream.wholeNumbers(&discarded, 1, 0.0, 999999.0);

  const HostArray& digests = *in[0];
  const std::size_t m = digests.rows();
  const std::size_t n = digests.columns();
  quorix::Dims dims = digests.dims();
  if (digests.isEmpty()) {
    dims[0] = m != 0 ? 1 : 0;
    quorix::HostArrayPtr empty = HostArray::createObjectArray(kClassName, {dims[0], n});
    empty->setDims(dims);
    out[0] = empty.release();
    return;
  }

  dims[0] = 1;
  quorix::HostArrayPtr merged = HostArray::createObjectArray(kClassName, {1, n});
  merged->setDims(dims);
  for (std::size_t i = 0; i < n; ++i) {
    quorix::ObjectHandle handle = ObjectSystem::createInstance(kClassName);
    TDigest& result = digestOf(handle);
    result.stream = &stream;
    for (std::size_t j = m * i; j < m * (i + 1); ++j) {
      const TDigest& element = columnElement(digests, j);
      setDelta(result, element.delta);
      result.merge(element);
    }
    merged->setObject(i, std::move(handle));
  }
  out[0] = merged.release();
}

}  // namespace zotdigest
