// The summary matrix: a digest's centroid tree as a 4 x C int64 host matrix
// in heap order (column 0 the root, children of column j at 2j+1 and 2j+2).
// Rows: mean bits, count, sign-extended height, subtree count. Empty slots
// are four zeros; a slot is empty when its count row is 0. Decoding rebuilds
// exactly the encoded shape with no re-balancing and no re-sorting.
#pragma once

#include "core/centroid_tree.h"
#include "quorix/host_array.h"

namespace zotdigest {

// A new 4 x (2^(h+1) - 1) int64 matrix, h the root's height, levels 0 to h
// in heap order (4 x 0 for an empty tree, and for a decoded tree that counts
// a root slot without a node). Means are bit copies, NaN payloads and -0.0
// included. The root's stored height is used only when it is possible for
// the tree (0 <= h <= the tree's real depth and <= the tallest AVL height
// for its node count), which every tree built by insertion satisfies; for a
// decoded tree with an implausible root height, the real depth capped at
// that AVL bound is used instead, so the column count stays below
// 2 (n + 2)^1.45 for n nodes whatever the stored height says. Raises nothing
// but allocation failures.
quorix::HostArrayPtr encodeSummary(const CentroidTree& tree);

// Replaces the tree's contents with the matrix's. A null matrix changes
// nothing; a matrix whose first dimension is not 4 raises
// "stats:tdigest:DataMalformed" and leaves the tree as it was, and so does
// one that is not a real int64 array (its columns could not be read as
// 64-bit words). Beyond that the matrix is trusted: means in any order (NaN
// and infinities included), heights and subtree counts as they stand, junk
// below empty slots ignored, columns after 2P (P = (C - 1) / 2) unread. A
// zero-count root column gives a tree with no root and a size of 1.
// Whatever the matrix holds, later operations on the tree stay memory-safe;
// their numbers need not mean anything.
void decodeSummary(CentroidTree& tree, const quorix::HostArray* matrix);

}  // namespace zotdigest
