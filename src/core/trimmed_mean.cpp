// trimmedMean and the centroid listing.
//
// The trim walk keeps the passed count as an unsigned 64-bit integer and
// converts through toDouble where it meets the double cut points, so weights
// above 2^53 round the same way everywhere.
#include "core/trimmed_mean.h"

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/errors.h"

namespace zotdigest {

double trimmedMean(const TDigest& digest, double p) {
  if (0.0 > p || p >= 0.5) {
    raiseError<stats::tdigest::TrimmedMeanInvalidTrim>(TrimmedMeanInvalidTrim());
  }
  const CentroidTree& tree = digest.tree;
  if (tree.size() == 0 || tree.root() == nullptr) {
    raiseError<stats::tdigest::TrimmedMeanNoData>(TrimmedMeanNoData());
  }

  const double total = toDouble(digest.totalWeight);
  const double lo = total * p;
  const double hi = (1.0 - p) * total;
  double sum = 0.0;
  double weight = 0.0;
  std::uint64_t cum = 0;
  for (const CentroidNode* c = tree.first(); c != nullptr; c = CentroidTree::next(c)) {
    const double count = toDouble(c->count);
    const double end = toDouble(cum + c->count);
    if (end > lo) {
      if (lo > toDouble(cum)) {  // the lower cut falls inside c
        const double f = (end - lo) / count;
        sum += c->mean * (count * f);
        weight += count * f;
      } else {
        sum += c->mean * count;
        weight += count;
      }
    }
    if (end > hi) {  // the upper cut falls inside c: take its part above off
      const double g = ((count - hi) + toDouble(cum)) / count;
      sum -= c->mean * (count * g);
      weight -= count * g;
      break;
    }
    cum += c->count;
  }
  return sum / weight;
}

void centroids(const TDigest& digest, int nOut, quorix::HostArray** out) {
  if (nOut < 2) raiseError<stats::tdigest::MergeDeltaMismatch>(MergeDeltaMismatch());
  std::vector<Centroid> listed;
  digest.tree.listCentroids(listed);
  const std::size_t n = listed.size();
  quorix::HostArrayPtr means =
      quorix::HostArray::createNumericMatrix(n, 1, quorix::ClassID::Double);
  quorix::HostArrayPtr counts =
      quorix::HostArray::createNumericMatrix(n, 1, quorix::ClassID::UInt64);
  double* meanData = means->data<double>();
  std::uint64_t* countData = counts->data<std::uint64_t>();
  for (std::size_t i = 0; i < n; ++i) {
    meanData[i] = listed[i].mean;
    countData[i] = listed[i].count;
  }
  out[0] = means.release();
  out[1] = counts.release();
}

}  // namespace zotdigest
