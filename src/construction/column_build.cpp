// One digest per column: a parallel_for over column indices fills one
// scratch digest per column from the shared generator (substream.h), each
// column on a fresh substream; the scratch digests are then merged, in
// column order on the calling thread, into the objects handed back, whose
// digests keep the seed stream rather than the per-call generator. The loop
// body neither compresses nor polls for interrupts.
#include "construction/column_build.h"

#include <cstddef>
#include <cstdint>

#include <tbb/blocked_range.h>
#include <tbb/concurrent_vector.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include "construction/element_types.h"
#include "construction/substream.h"
#include "core/tdigest.h"
#include "host/tdigest_class.h"
#include "quorix/object_system.h"
#include "summary/properties.h"

namespace zotdigest {

namespace {

using ColumnDigests = tbb::concurrent_vector<TDigest>;

// parallel_for body for element type T: builds the digests of a range of
// columns. Column i is rows elements starting at element rows * i.
template <class T>
class CreateTDigest {
 public:
  CreateTDigest(const T* data, ColumnDigests* columnDigests, std::uint64_t rows, double delta,
                StreamSlots* slots) noexcept
      : data_(data), columnDigests_(columnDigests), rows_(rows), delta_(delta), slots_(slots) {}

  void operator()(const tbb::blocked_range<std::size_t>& columns) const {
    for (std::size_t i = columns.begin(); i != columns.end(); ++i) {
      TDigest& digest = (*columnDigests_)[i];
      digest.stream = moveToFreshSubstream(*slots_);
      setDelta(digest, delta_);
      const T* const last = data_ + rows_ * (i + 1);
      for (const T* p = data_ + rows_ * i; p != last; ++p) {
        digest.add(elementValue(*p));
      }
    }
  }

 private:
  const T* data_;
  ColumnDigests* columnDigests_;
  std::uint64_t rows_;
  double delta_;
  StreamSlots* slots_;
};

template <class T>
void fillColumns(const quorix::HostArray& data, ColumnDigests& columnDigests, double delta,
                 StreamSlots& slots) {
  const std::size_t n = columnDigests.size();
  if (n == 0) {
    return;
  }
  const CreateTDigest<T> body(data.data<T>(), &columnDigests, data.rows(), delta, &slots);
  tbb::task_group_context context(tbb::task_group_context::bound);
  // Grain size 1: a column can be long, so every column is a unit TBB may
  // hand to another worker.
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, n, 1), body, tbb::auto_partitioner(),
                    context);
}

}  // namespace

quorix::HostArrayPtr buildColumnDigests(const quorix::HostArray& data, double delta,
                                        quorix::RandomStream& seedStream) {
  CallGenerator generator(seedStream);
  const std::size_t n = data.columns();
  quorix::Dims dims = data.dims();

  if (data.isEmpty()) {
    dims[0] = dims[0] != 0 ? 1 : 0;
    return quorix::ObjectSystem::createObjectArray(kClassName, dims);
  }

  dims[0] = 1;
  quorix::HostArrayPtr result = quorix::ObjectSystem::createObjectArray(kClassName, {1, n});
  result->setDims(dims);
  ColumnDigests columnDigests;
  columnDigests.grow_to_at_least(n);

  visitElementType(data.classID(), [&](auto type) {
    fillColumns<typename decltype(type)::type>(data, columnDigests, delta, generator.slots());
  });

  // The object array came with a fresh, empty digest in every element.
  for (std::size_t i = 0; i < n; ++i) {
    const quorix::HostArrayPtr element = quorix::HostArray::createScalarObject(result->object(i));
    TDigest& target = quorix::ObjectSystem::scalarInstanceAs<TDigest>(*element, kClassName);
    target.stream = &seedStream;
    target.delta = delta;
    target.merge(columnDigests[i]);
    // The scratch tree is done with: freed now rather than with the vector,
    // its memory can serve the digests of the columns still to come.
    columnDigests[i].tree = CentroidTree();
  }
  return result;
}

}  // namespace zotdigest
