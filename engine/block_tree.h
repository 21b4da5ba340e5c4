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
#pragma once

#include <cstddef>
#include <cstdint>

#include "quorix/host_array.h"

namespace zotdigest::engine {

// Values per block. 2^16: large enough that the extra work of a tree (a
// final compress per leaf, one merge per leaf, all of them about a thousand
// centroid insertions at Delta 100) stays a few percent of the block's own
// 65536 insertions, small enough that 10^6 values already make 16 blocks to
// share among threads. Changing it changes every digest.
inline constexpr std::size_t kBlockSize = std::size_t{1} << 16;

// The substream of the leaf of block k, and of the merge making node j of
// level `level` (level 0 being the leaves themselves).
constexpr std::uint64_t nodeSubstream(unsigned level, std::uint64_t j) noexcept {
  return (j << (level + 1)) + (std::uint64_t{1} << level);
}

// Step 2: the digest of one block. `values` points at `count` elements of
// the numeric class `id` (1 <= count <= kBlockSize). Polls for Ctrl-C.
quorix::HostArrayPtr digestBlock(const void* values, std::size_t count, quorix::ClassID id,
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
