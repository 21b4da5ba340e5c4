#include "construction/arguments.h"

#include "construction/column_build.h"
#include "construction/element_types.h"
#include "host/errors.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"

namespace zotdigest {

namespace {

constexpr double kDefaultDelta = 100.0;

bool given(int nIn, const quorix::HostArray* const* in, int index) {
  return nIn > index && !in[index]->isEmpty();
}

[[noreturn]] void raiseWrongNumberOfArgs() {
  raiseError<component_QUORIX::catalog_class::key_WrongNumberOfConstructorArgs>(
      WrongNumberOfConstructorArgs());
}

}  // namespace

void constructDigest(TDigest& digest, int nIn, const quorix::HostArray* const* in) {
  digest.stream = &quorix::RandomStream::defaultStream();
  if (nIn <= 0) {
    return;
  }
  if (nIn > 3) {
    raiseWrongNumberOfArgs();
  }
  if (nIn == 3 && given(nIn, in, 2)) {
    digest.stream = &quorix::RandomStream::fromHostValue(*in[2]);
  }
  if (given(nIn, in, 1)) {
    const quorix::HostArray& delta = *in[1];
    if (delta.classID() != quorix::ClassID::Double || delta.isComplex() || !delta.isScalar()) {
      raiseError<stats::tdigest::DeltaInvalidType>(DeltaInvalidType());
    }
    setDelta(digest, delta.data<double>()[0]);
  }
  const quorix::HostArray& data = *in[0];
  // Empty data of any class, even a non-numeric one, leaves the digest
  // empty without a check.
  if (data.isEmpty()) {
    return;
  }
  checkData(data);
  // Three inputs always add serially, also when the stream input is empty:
  // a caller who passes the stream slot asks for reproducible results.
  addArrayDispatch(data, digest, nIn == 3);
}

quorix::HostArrayPtr buildColumnDigestsFromArgs(int nIn, const quorix::HostArray* const* in) {
  if (nIn <= 0) {
    return nullptr;
  }
  if (nIn > 3) {
    raiseWrongNumberOfArgs();
  }
  const quorix::HostArray& data = *in[0];
  checkData(data);
  // No class test here: the value is tested when each column digest's
  // delta is set.
  const double delta = given(nIn, in, 1) ? in[1]->elementAsDouble(0) : kDefaultDelta;
  quorix::RandomStream& seedStream = given(nIn, in, 2)
                                         ? quorix::RandomStream::fromHostValue(*in[2])
                                         : quorix::RandomStream::defaultStream();
  return buildColumnDigests(data, delta, seedStream);
}

}  // namespace zotdigest
