// Digest files and the compact form of one digest, for Python. The format
// is the engine's (one reader, one writer, shared with the command-line
// tool); this file only moves digests and bytes across the boundary.
#pragma once

#include <pybind11/pybind11.h>

namespace zotdigest::python {

// Adds to the extension:
//   _save_digests(path, digests, labels, keys=None)  writes a digest file atomically
//   _decode_digest_file(data, name, keys=False)      -> list of (label, TDigest)
//                                                       (label, TDigest, key) with keys
// A key is None (the label is text) or (kind, bits, unit): the engine's
// LabelKey, kind and unit as numbers, bits a uint64.
//   _to_compact(digest)                   -> bytes
//   _from_compact(data)                   -> TDigest
// The package's save, load, TDigest.to_bytes and TDigest.from_bytes call
// them. The engine's errors become ValueError (bad input: a damaged file, a
// digest that cannot be stored) and OSError (the output could not be
// written).
void register_digest_files(pybind11::module_& m);

}  // namespace zotdigest::python
