// The grouped build: one reproducible digest per group of values, each the
// digest engine/block_tree.h defines for that group's values (or pairs) in
// input order, whatever the threads.
//
// Design note. The values are first partitioned stably by group code into
// one buffer (a counting pass over chunks in parallel, prefix sums over
// (group, chunk), then a parallel scatter of each chunk to its own slots),
// pairs of weight 0 left out. Then each group is built: a group of more
// than one block by the parallel reproducible build, reading the buffer in
// place; smaller groups, a single leaf each, in batches of consecutive
// groups, one batch per task, each leaf built serially with no allocation
// beyond its digest. Many small groups thus cost about what their values
// cost. Memory: the caller's input, the partition buffer (values in their
// own class, weights when given), per-chunk counts (bounded by a quarter of
// the values' count), and the digests. Ctrl-C stops it between chunks and
// inside every leaf and merge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/reproducible_build.h"
#include "quorix/host_array.h"

namespace zotdigest::engine {

struct GroupedInput {
  const void* values;  // `count` elements of the numeric class `id`
  quorix::ClassID id;
  std::size_t count;
  const std::int64_t* codes;  // group of each value: 0 .. groups-1, or negative = dropped
  std::size_t groups;
  const std::uint64_t* weights = nullptr;  // optional, same length
};

// One digest per group, index = code; groups without values (or with
// weight 0 only) get the empty digest. With weights the build is the
// weighted one (options.weighted is implied by them). Throws InputError,
// before any digest is built, naming the first position whose code is >=
// groups, or when the weights of the values kept sum beyond 2^64 - 1. Raises the
// module's errors (Delta) and "QUORIX:interrupt:Interrupted".
std::vector<quorix::HostArrayPtr> groupedDigests(const GroupedInput& input,
                                                 const BuildOptions& options);

}  // namespace zotdigest::engine
