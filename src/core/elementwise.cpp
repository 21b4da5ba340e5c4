// The element-wise apply, with a sorted sweep for cdf and icdf.
//
// Called once per element, cdf and icdf each walk the tree from its first
// centroid, which makes a large array cost elements x centroids. For those
// two functions (recognised by address) an array of at least kSweepMin
// elements is answered instead by one cursor (queries.h) fed the elements in
// ascending order of value, so the walk passes each centroid once for the
// whole array. Each element's answer is still computed from its own value by
// the same code as the scalar call, so the results are the scalar ones bit
// for bit, whatever the tree.
//
// Errors come out as the per-element loop would raise them: a first pass in
// storage order makes every check the scalar function makes on its argument
// (the icdf range test) and raises at the first offending element; only
// then does the digest-level check run (cdf's CdfNoData, raised when the
// cursor is made, and only if some element is not NaN). cdf has no argument
// check, and icdf no digest-level error, so the order matches the loop's.
// trimmedMean and any other function are called once per element.
#include "core/elementwise.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/queries.h"
#include "host/errors.h"

namespace zotdigest {

namespace {

// Below this many elements the per-element calls are cheap enough that the
// key array and the sort are not worth making.
constexpr std::size_t kSweepMin = 16;

// The sign bit set: the NaN an element-wise answer reports for NaN input.
constexpr double kNaNOut = std::bit_cast<double>(UINT64_C(0xFFF8000000000000));

struct Keyed {
  double value;
  std::size_t index;
};

class ElementReader {
 public:
  explicit ElementReader(const quorix::HostArray& in)
      : in_(in), doubles_(in.classID() == quorix::ClassID::Double ? in.data<double>() : nullptr) {}
  double operator()(std::size_t i) const {
    return doubles_ != nullptr ? doubles_[i] : in_.elementAsDouble(i);
  }

 private:
  const quorix::HostArray& in_;
  const double* doubles_;
};

// cdf takes any argument.
void acceptAnyArgument(double /*x*/) {}

void applyEach(const ElementReader& read, std::size_t n, const TDigest& digest, ScalarQuery fn,
               double* out) {
  for (std::size_t i = 0; i < n; ++i) {
    const double v = read(i);
    out[i] = quorix::isNaN(v) ? kNaNOut : fn(digest, v);
  }
}

// checkArgument raises as the scalar function would on one argument.
template <class Cursor, class Check>
void sweep(const ElementReader& read, std::size_t n, const TDigest& digest, Check checkArgument,
           double* out) {
  std::vector<Keyed> keys;
  keys.reserve(n);
  bool ascending = true;
  for (std::size_t i = 0; i < n; ++i) {
    const double v = read(i);
    if (quorix::isNaN(v)) {
      out[i] = kNaNOut;
      continue;
    }
    checkArgument(v);
    if (!keys.empty() && v < keys.back().value) ascending = false;
    keys.push_back({v, i});
  }
  if (keys.empty()) return;

  Cursor cursor(digest);
  // Equal values (0.0 and -0.0 among them) may come in any order: the walk
  // compares them equal, and each answer is computed from its own value.
  if (!ascending) {
    std::sort(keys.begin(), keys.end(),
              [](const Keyed& a, const Keyed& b) { return a.value < b.value; });
  }
  for (const Keyed& k : keys) out[k.index] = cursor(k.value);
}

}  // namespace

quorix::HostArrayPtr applyElementwise(const quorix::HostArray& in, const TDigest& digest,
                                      ScalarQuery fn) {
  using component_QUORIX::catalog_class::key_RequireNumeric;
  using component_QUORIX::catalog_class::key_RequireReal;
  if (in.isNumeric() && in.isComplex()) raiseError<key_RequireReal>(RequireReal());
  if (!in.isNumeric()) raiseError<key_RequireNumeric>(RequireNumeric());

  quorix::HostArrayPtr result =
      quorix::HostArray::createNumericMatrix(in.rows(), in.columns(), quorix::ClassID::Double);
  double* out = result->data<double>();
  const std::size_t n = in.numel();
  const ElementReader read(in);
  if (n >= kSweepMin && fn == &cdf) {
    sweep<CdfCursor>(read, n, digest, &acceptAnyArgument, out);
  } else if (n >= kSweepMin && fn == &icdf) {
    sweep<IcdfCursor>(read, n, digest, &IcdfCursor::checkQuantile, out);
  } else {
    applyEach(read, n, digest, fn, out);
  }
  return result;
}

}  // namespace zotdigest
