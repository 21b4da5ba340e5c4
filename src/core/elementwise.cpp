#include "core/elementwise.h"

#include <bit>
#include <cstddef>
#include <cstdint>

#include "host/errors.h"

namespace zotdigest {

quorix::HostArrayPtr applyElementwise(const quorix::HostArray& in, const TDigest& digest,
                                      ScalarQuery fn) {
  using component_QUORIX::catalog_class::key_RequireNumeric;
  using component_QUORIX::catalog_class::key_RequireReal;
  if (in.isNumeric() && in.isComplex()) raiseError<key_RequireReal>(RequireReal());
  if (!in.isNumeric()) raiseError<key_RequireNumeric>(RequireNumeric());

  // The sign bit set: the NaN an element-wise answer reports for NaN input.
  const double nanOut = std::bit_cast<double>(UINT64_C(0xFFF8000000000000));
  quorix::HostArrayPtr result =
      quorix::HostArray::createNumericMatrix(in.rows(), in.columns(), quorix::ClassID::Double);
  double* out = result->data<double>();
  const std::size_t n = in.numel();
  const double* doubles = in.classID() == quorix::ClassID::Double ? in.data<double>() : nullptr;
  for (std::size_t i = 0; i < n; ++i) {
    const double v = doubles != nullptr ? doubles[i] : in.elementAsDouble(i);
    out[i] = quorix::isNaN(v) ? nanOut : fn(digest, v);
  }
  return result;
}

}  // namespace zotdigest
