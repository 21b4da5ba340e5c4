// The check that a saved "TDigest" state is one the module can restore and
// then work on safely.
//
// The module's summary decoder trusts its matrix beyond the row count (it
// rebuilds the tree slot by slot and keeps whatever heights and subtree
// weights the matrix holds), so a crafted file could hand it a tree whose
// bookkeeping lies. Files are checked here, at the edge, before anything
// reaches the module: the heap layout, the AVL heights and balance, the
// subtree weights and the order of the means must all be those of a tree
// the module itself could have written.
#pragma once

#include <string>

#include "quorix/object_system.h"

namespace zotdigest::engine {

inline constexpr const char* kDigestClass = "TDigest";

// Returns an empty string when `saved` is a valid TDigest state, else the
// reason, one sentence, for the user. What is required:
// - class "TDigest" and exactly the properties "AVLTreeSummary" (int64,
//   4 x C), "Delta" (double scalar, > 0; +Inf allowed, NaN refused),
//   "NumCentroids" and "NumDataPoints" (uint64 scalars), each once;
// - C = 2^(h+1) - 1 for a root of height h, or C = 0 for an empty digest;
// - empty slots (count 0) are all zero and have no non-empty slot below;
// - each node's height is 1 + the larger child height (absent child -1)
//   and the two differ by at most 1; its subtree weight is its count plus
//   its children's, without overflow;
// - the means are in ascending order (equal means allowed; a NaN mean,
//   which the module never makes, is not ordered against its neighbours);
// - NumCentroids equals the number of nodes.
// NumDataPoints is not compared with the tree: the module keeps it apart
// from the tree's weight on purpose.
std::string checkSavedDigest(const quorix::SavedObject& saved);

}  // namespace zotdigest::engine
