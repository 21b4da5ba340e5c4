// The reproducible digest: what it is, independent of how it is computed.
//
// Definition (part of the product, like the file format; it changes only
// with a new build-record kind in the digest file). The digest of the values
// x[0..n) for a compression Delta and a seed s in [0, 2^32):
//
// 1. Blocks. The values are cut into blocks of kBlockSize consecutive
//    values: block k holds x[k*B .. min((k+1)*B, n)). Only the last block may
//    be shorter. No values, no blocks.
// 2. Leaves. Block k is digested by the module's constructor with three
//    inputs (the block in its own element class, Delta, and an "mrg32k3a"
//    RandomStream created with seed s and moved to substream 2k + 1): the
//    serial path, so its draws are exactly that substream's sequence.
// 3. Tree. Level 0 holds the leaves in block order. Level L + 1 is made from
//    level L by pairing neighbours: node j of level L + 1 is node 2j of level
//    L with node 2j + 1 merged into it (the module's "merge" with a stream,
//    the left node's centroids listed first), when node 2j + 1 exists; when a
//    level has an odd count, its last node is carried up unchanged (no merge,
//    no draws). The first level with one node holds the result.
// 4. Merge streams. The merge that makes node j of level L (L >= 1) draws
//    from an "mrg32k3a" stream of seed s on substream j * 2^(L+1) + 2^L. The
//    numbers have exactly L trailing zero bits, so every leaf and every merge
//    has its own substream, fixed by its place in the tree alone, never by n.
// 5. Empty input: the empty digest of that Delta.
//
// The result's own stream is then reset to the host's default stream (as
// the module's "add" without a stream does), so it never refers to a stream
// of the build. Nothing above depends on the number of threads, the
// scheduling, the chunks the values arrive in, or the machine.
//
// The weighted digest of pairs (x[i], w[i]), i in [0, n), w[i] unsigned
// 64-bit (a different build from the one above; a digest file records it
// with its own build-record kind):
//
// 1. Pairs of weight 0 are not data and are removed first. The remaining
//    pairs, in input order, are cut into blocks of kBlockSize pairs as in
//    step 1. A NaN value keeps its place in its block.
// 2. Leaf k is an empty digest of Delta into which the module's "merge",
//    with an "mrg32k3a" stream of seed s on substream 2k + 1, merges a fresh
//    digest holding the block: its "AVLTreeSummary" (set at the restricted
//    level, as a host restoring a digest does) has one centroid per non-NaN
//    pair (mean: the value converted to double as the module converts
//    elements; count: the weight), in order of value, equal values (-0.0
//    and 0.0 are equal) in input order; its "NumDataPoints" is the block's
//    weight sum (NaN pairs included) and its "Delta" the build's. Merge
//    lists the other digest's centroids in order and sorts them stably by
//    decreasing count, so this is the module's weighted add of each pair
//    in the order: weight decreasing, then value increasing, then input
//    position. No compress follows.
// 3. Tree, merge streams, empty input and the final stream reset: steps 3
//    to 5 above, unchanged.
//
// The grouped build: given a group code for each value (or pair), the
// digest of group g is the digest above (weighted or not) of the values
// whose code is g, in input order. It depends neither on the threads, nor
// on the chunks, nor on the order or number of the groups.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quorix/host_array.h"

namespace zotdigest::engine {

// Values per block: 2^18. Each leaf ends with a compress and each leaf
// costs one merge, both re-adding up to 20 Delta centroids; at Delta 100
// that is a few thousand insertions per block, so the tree's extra CPU time
// over one serial pass shrinks with B: about 15% at 2^16, 7% at 2^17 and
// within the noise at 2^18 (uniform and log-normal values, one thread).
// Fewer merge levels also lose less accuracy. Larger blocks would only cost
// parallelism on small inputs: 10^7 values still make 39 blocks, and inputs
// of under 2^18 values take milliseconds anyway. Changing it changes every
// digest.
inline constexpr std::size_t kBlockSize = std::size_t{1} << 18;

// The substream of the leaf of block k, and of the merge making node j of
// level `level` (level 0 being the leaves themselves).
constexpr std::uint64_t nodeSubstream(unsigned level, std::uint64_t j) noexcept {
  return (j << (level + 1)) + (std::uint64_t{1} << level);
}

// Step 2: the digest of one block. `values` points at `count` elements of
// the numeric class `id` (1 <= count <= kBlockSize). Polls for Ctrl-C.
quorix::HostArrayPtr digestBlock(const void* values, std::size_t count, quorix::ClassID id,
                                 double delta, std::uint32_t seed, std::uint64_t block);

// Weighted step 2: the leaf of block `block`. Its pairs are those of
// values[0..count) (elements of the numeric class `id`) and
// weights[0..count) whose weight is not 0: at most kBlockSize of them.
// The weights' sum must fit in 64 bits (callers check it first). Polls for
// Ctrl-C.
quorix::HostArrayPtr digestWeightedBlock(const void* values, quorix::ClassID id,
                                         const std::uint64_t* weights, std::size_t count,
                                         double delta, std::uint32_t seed, std::uint64_t block);

// Step 3: merges `right` into `left`, which becomes node j of `level`
// (level >= 1). Polls for Ctrl-C.
void mergeNodes(const quorix::HostArray& left, const quorix::HostArray& right, unsigned level,
                std::uint64_t j, std::uint32_t seed);

// Step 5: an empty digest of this Delta (the module refuses a Delta that is
// not a positive double).
quorix::HostArrayPtr emptyDigest(double delta);

// Points the digest's stream back at the host's default stream.
void releaseBuildStream(const quorix::HostArray& digest);

}  // namespace zotdigest::engine
