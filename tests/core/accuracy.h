// The accuracy the core promises, as a bound on rank error: a centroid at
// cumulative fraction q holds at most about 4 n q (1 - q) / delta of the n
// values, and icdf and cdf interpolate within and between centroids, so the
// rank of icdf(q) (and cdf at the exact q-quantile) is off by at most one
// such centroid. Far in the tails centroids hold single values, so the bound
// never drops below 5 ranks.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

namespace zotdigest::testing {

// Largest accepted |rank / n - q| for a digest of n values.
inline double rankErrorBound(double q, double delta, double n) {
  const double centroidFraction = 4.0 * q * (1.0 - q) / delta;
  const double tailFloor = 5.0 / n;
  return centroidFraction > tailFloor ? centroidFraction : tailFloor;
}

// Fractions of the sorted data strictly below v and at or below v, and the
// distance from p to that range.
inline std::pair<double, double> rankRange(const std::vector<double>& sorted, double v) {
  const auto n = static_cast<double>(sorted.size());
  return {
      static_cast<double>(std::lower_bound(sorted.begin(), sorted.end(), v) - sorted.begin()) / n,
      static_cast<double>(std::upper_bound(sorted.begin(), sorted.end(), v) - sorted.begin()) / n};
}

inline double rankError(const std::vector<double>& sorted, double v, double p) {
  const auto [below, atOrBelow] = rankRange(sorted, v);
  return p < below ? below - p : p > atOrBelow ? p - atOrBelow : 0.0;
}

}  // namespace zotdigest::testing
