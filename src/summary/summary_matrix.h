// The summary matrix: a digest's centroid tree as a 4 x C int64 host matrix
// in heap order (column 0 the root, children of column j at 2j+1 and 2j+2).
// Rows: mean bits, count, sign-extended height, subtree count. Empty slots
// are four zeros; a slot is empty when its count row is 0. Decoding rebuilds
// exactly the encoded shape with no re-balancing and no re-sorting.
#pragma once

#include "core/centroid_tree.h"
#include "quorix/host_array.h"

namespace zotdigest {

// A new 4 x (2^(h+1) - 1) int64 matrix (4 x 0 for an empty tree).
quorix::HostArrayPtr encodeSummary(const CentroidTree& tree);

// Replaces the tree's contents with the matrix's. A null matrix changes
// nothing; a matrix whose first dimension is not 4 raises
// "stats:tdigest:DataMalformed" and leaves the tree as it was. Beyond that
// the matrix is trusted: whatever it holds, later operations on the tree
// stay memory-safe.
void decodeSummary(CentroidTree& tree, const quorix::HostArray* matrix);

}  // namespace zotdigest
