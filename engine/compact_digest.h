// The compact form of one digest: the digest-file record of that digest
// (without a label), compressed, behind a short header of its own. It is
// what a digest pickles to and what travels between processes; a file of
// one digest holds the same record.
//
// Layout of version 1 (integers little-endian):
//
//   offset size  field
//        0    4  magic 89 5A 44 43 ("\x89ZDC")
//        4    1  version (1)
//        5    4  record size before compression (<= kMaxCompactRecordSize)
//        9       zlib stream (RFC 1950, with its own Adler-32 check)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "engine/digest_file.h"
#include "quorix/object_system.h"

namespace zotdigest::engine {

inline constexpr std::uint8_t kCompactVersion = 1;
inline constexpr std::size_t kCompactHeaderSize = 9;
// A delta-100 digest's record is a few tens of kilobytes; a record this
// large is refused before anything is allocated for it.
inline constexpr std::uint32_t kMaxCompactRecordSize = std::uint32_t{1} << 30;

// The compact form of a saved digest. Throws InputError when the state
// cannot be stored or is not a valid TDigest state.
std::vector<std::byte> encodeCompactDigest(quorix::SavedObject saved);

// The saved digest of a compact form, checked as a digest file's records
// are. Throws DigestFileError naming what is wrong (too short, foreign,
// newer, damaged compression, bad record, invalid state).
quorix::SavedObject decodeCompactDigest(std::span<const std::byte> bytes);

}  // namespace zotdigest::engine
