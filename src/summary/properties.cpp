#include "summary/properties.h"

#include "host/errors.h"
#include "summary/summary_matrix.h"

namespace zotdigest {

double getDelta(const TDigest& digest) noexcept { return digest.delta; }

void setDelta(TDigest& digest, double value) {
  // Written so that NaN fails too: it is not greater than anything.
  if (!(value > 0.0)) {
    raiseError<stats::tdigest::DeltaInvalidValue>(DeltaInvalidValue(formatDouble(value)));
  }
  digest.delta = value;
}

std::uint64_t getNumDataPoints(const TDigest& digest) noexcept { return digest.totalWeight; }

void setNumDataPoints(TDigest& digest, std::uint64_t value) noexcept { digest.totalWeight = value; }

std::uint64_t getNumCentroids(const TDigest& digest) noexcept { return digest.tree.size(); }

quorix::HostArrayPtr getSummary(const TDigest& digest) { return encodeSummary(digest.tree); }

void setSummary(TDigest& digest, const quorix::HostArray& matrix) {
  decodeSummary(digest.tree, &matrix);
}

}  // namespace zotdigest
