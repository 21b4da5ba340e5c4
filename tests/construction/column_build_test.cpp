// buildColumnDigests: one digest per column, the shapes of the result, and
// its use of the seed stream.
#include "construction/column_build.h"

#include <gtest/gtest.h>

#include <vector>

#include "build_test_support.h"
#include "host/tdigest_class.h"
#include "quorix/interrupt.h"
#include "quorix/object_system.h"

namespace zotdigest {
namespace {

using namespace zotdigest::testing;
using quorix::Dims;

// Every element of `objects` holds exactly the values 1 .. rows of its
// column i, shifted by rows * i, with the delta and stream given.
void expectColumnContents(const quorix::HostArray& objects, std::size_t rows, double delta,
                          const quorix::RandomStream* stream) {
  for (std::size_t i = 0; i < objects.numel(); ++i) {
    SCOPED_TRACE("column " + std::to_string(i));
    const auto element = quorix::HostArray::createScalarObject(objects.object(i));
    const TDigest& d = quorix::ObjectSystem::scalarInstanceAs<TDigest>(*element, kClassName);
    EXPECT_EQ(d.delta, delta);
    EXPECT_EQ(d.stream, stream);
    const auto c = listOf(d);
    ASSERT_EQ(c.size(), rows);
    for (std::size_t k = 0; k < rows; ++k) {
      EXPECT_EQ(c[k].mean, static_cast<double>(rows * i + k + 1));
      EXPECT_EQ(c[k].count, 1u);
    }
  }
}

// Column i of an M-row array holds M i + 1 .. M i + M.
template <class T>
quorix::HostArrayPtr countingArray(const Dims& dims) {
  std::vector<T> v(dims[0] * dims[1] * (dims.size() > 2 ? dims[2] : 1));
  for (std::size_t k = 0; k < v.size(); ++k) v[k] = static_cast<T>(k + 1);
  return makeArray(v, dims);
}

template <class T>
class ColumnBuild : public ::testing::Test {};
TYPED_TEST_SUITE(ColumnBuild, ElementTypes);

// Every dimension after the first is kept (empty shapes: table_routines_test).
TYPED_TEST(ColumnBuild, each_column_of_every_type_gets_a_digest_of_its_values) {
  auto seed = seededStream(8);
  const auto result = buildColumnDigests(*countingArray<TypeParam>({3, 4, 2}), 25.0, *seed);
  EXPECT_EQ(result->objectClassName(), kClassName);
  EXPECT_EQ(result->dims(), (Dims{1, 4, 2}));
  expectColumnContents(*result, 3, 25.0, seed.get());
}

TEST(ColumnBuild, draws_once_from_the_seed_stream_and_ignores_interrupts) {
  auto seed = seededStream(4), twin = seededStream(4);
  buildColumnDigests(*countingArray<double>({50, 3}), 100.0, *seed);
  twin->uniform();
  EXPECT_EQ(seed->uniform(), twin->uniform());
  quorix::requestInterrupt();
  buildColumnDigests(*countingArray<double>({20000, 2}), 100.0, *seed);
  EXPECT_TRUE(quorix::interruptPending());
  quorix::clearInterrupt();
}

}  // namespace
}  // namespace zotdigest
