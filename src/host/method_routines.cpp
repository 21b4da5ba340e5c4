#include "host/method_routines.h"

#include <cstdint>

#include "construction/element_types.h"
#include "core/elementwise.h"
#include "core/queries.h"
#include "core/trimmed_mean.h"
#include "quorix/random_stream.h"

namespace zotdigest {

using quorix::HostArray;
using quorix::RandomStream;

// The stream is set before the data are checked, as the constructor does:
// a refused array leaves the digest's centroids untouched either way.
template <class T>
void addData(TDigest& digest, int& /*nOut*/, HostArray** /*out*/, int /*nIn*/,
             const HostArray* const* in) {
  digest.stream = &RandomStream::defaultStream();
  checkData(*in[0]);
  addArray<T>(*in[0], digest, /*serial=*/false);
}

template <class T>
void addDataWithStream(TDigest& digest, int& /*nOut*/, HostArray** /*out*/, int /*nIn*/,
                       const HostArray* const* in) {
  digest.stream =
      in[1]->isEmpty() ? &RandomStream::defaultStream() : &RandomStream::fromHostValue(*in[1]);
  checkData(*in[0]);
  addArray<T>(*in[0], digest, /*serial=*/true);
}

#define ZOTDIGEST_INSTANTIATE_ADD(T)                                                   \
  template void addData<T>(TDigest&, int&, HostArray**, int, const HostArray* const*); \
  template void addDataWithStream<T>(TDigest&, int&, HostArray**, int, const HostArray* const*);

ZOTDIGEST_INSTANTIATE_ADD(float)
ZOTDIGEST_INSTANTIATE_ADD(double)
ZOTDIGEST_INSTANTIATE_ADD(std::int8_t)
ZOTDIGEST_INSTANTIATE_ADD(std::int16_t)
ZOTDIGEST_INSTANTIATE_ADD(std::int32_t)
ZOTDIGEST_INSTANTIATE_ADD(std::int64_t)
ZOTDIGEST_INSTANTIATE_ADD(std::uint8_t)
ZOTDIGEST_INSTANTIATE_ADD(std::uint16_t)
ZOTDIGEST_INSTANTIATE_ADD(std::uint32_t)
ZOTDIGEST_INSTANTIATE_ADD(std::uint64_t)

#undef ZOTDIGEST_INSTANTIATE_ADD

void cdfMethod(TDigest& digest, int& /*nOut*/, HostArray** out, int /*nIn*/,
               const HostArray* const* in) {
  out[0] = applyElementwise(*in[0], digest, cdf).release();
}

void icdfMethod(TDigest& digest, int& /*nOut*/, HostArray** out, int /*nIn*/,
                const HostArray* const* in) {
  out[0] = applyElementwise(*in[0], digest, icdf).release();
}

void trimmedMeanMethod(TDigest& digest, int& /*nOut*/, HostArray** out, int /*nIn*/,
                       const HostArray* const* in) {
  out[0] = applyElementwise(*in[0], digest, trimmedMean).release();
}

void centroidsMethod(TDigest& digest, int& nOut, HostArray** out, int /*nIn*/,
                     const HostArray* const* /*in*/) {
  centroids(digest, nOut, out);
}

}  // namespace zotdigest
