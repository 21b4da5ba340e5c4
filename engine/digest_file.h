// Digest files: one or more saved TDigest objects in a small versioned,
// compressed, checksummed binary format of our own.
//
// Layout of format versions 1 to 3 (every integer little-endian, written
// and read byte by byte, never as a struct):
//
//   offset size  field
//        0    8  magic 89 5A 44 47 0D 0A 1A 0A ("\x89ZDG\r\n\x1a\n"): the high
//                byte and the line-end bytes expose 7-bit and text-mode damage
//        8    2  format version (1, 2 or 3)
//       10    2  flags, 0 (no flag is defined)
//       12    1  compression method: 1 = zlib stream (RFC 1950)
//       13    3  reserved, 0
//       16    4  number of digests D (1 .. kMaxDigests)
//       20    4  CRC-32 of the compressed payload
//       24    8  payload size before compression (<= kMaxPayloadSize)
//       32    8  compressed payload size: exactly the bytes after the header
//       40    4  CRC-32 of bytes 0 .. 39
//       44       compressed payload
//
// The payload, once inflated, holds D digest records, one after the other:
//
//   u16 label length, label bytes (free text, e.g. "col3"; may be empty)
//   u16 class name length, class name bytes ("TDigest")
//   u16 property count P
//   P times: u16 name length, name bytes,
//            u8 element class (the runtime's class numbers: 6 double,
//               14 int64, 15 uint64), u8 dimension count n (2 .. 8),
//            n x u64 dimensions, then every element as 8 bytes, in the
//            array's column-major order (doubles as their IEEE-754 bits).
//   versions 2 and 3, the build record: u8 kind, then by kind
//     0  nothing: how the digest was built is not known
//     1  the reproducible block-tree build (engine/block_tree.h):
//        u32 seed, u64 block size
//     2  (version 3 only) the weighted reproducible block-tree build:
//        u32 seed, u64 block size
//   version 3 only, the key record: the typed key the label stands for,
//   for digests saved one per group; the label holds the key's text too.
//        u8 kind, then by kind
//     0  nothing: the label is text (a group's key is the label itself)
//     1  int64: u64 (two's complement)     2  uint64: u64
//     3  float64: u64 (IEEE-754 bits)      4  bool: u8 (0 or 1)
//     5  datetime64, 6  timedelta64: u64 ticks (two's complement), then
//        u8 tick unit: 0 Y, 1 M, 2 W, 3 D, 4 h, 5 m, 6 s, 7 ms, 8 us, 9 ns,
//        10 ps, 11 fs, 12 as
//
// A version 1 record is read as a version 2 record of kind 0, a version 2
// record as a version 3 record with key kind 0. The writer writes the
// lowest version that holds its records, byte for byte as that version
// always was, so that such files stay readable by older readers: version 1
// when no digest has a build record or a key, version 2 when build records
// are of kind 1 and no digest has a key, version 3 otherwise.
//
// The properties are what the runtime's save reads from an object, in its
// order; restoring hands them back to the runtime. A newer format version
// is refused (never guessed at); an older one would be read by its own
// branch of the one decoder below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/errors.h"
#include "quorix/object_system.h"

namespace zotdigest::engine {

// The newest version read and written, the version of files whose digests
// carry no build record, and the version of files whose build records are
// all of kind 1.
inline constexpr std::uint16_t kFormatVersion = 3;
inline constexpr std::uint16_t kPlainFormatVersion = 1;
inline constexpr std::uint16_t kBuiltFormatVersion = 2;
inline constexpr std::size_t kHeaderSize = 44;
inline constexpr std::uint8_t kCompressionZlib = 1;
// Bounds that keep a reader's memory proportional to what the file can
// honestly describe: a delta-100 digest needs well under a megabyte.
inline constexpr std::uint64_t kMaxPayloadSize = std::uint64_t{1} << 30;
inline constexpr std::uint32_t kMaxDigests = std::uint32_t{1} << 20;
// Compression may grow incompressible data a little; no honest file is
// longer than this.
inline constexpr std::uint64_t kMaxCompressedSize =
    kMaxPayloadSize + (kMaxPayloadSize >> 10) + 1024;
inline constexpr std::uint64_t kMaxFileSize = kHeaderSize + kMaxCompressedSize;
inline constexpr std::size_t kMaxLabelLength = 4096;
inline constexpr std::size_t kMaxNameLength = 255;
inline constexpr std::size_t kMaxProperties = 64;
inline constexpr std::size_t kMaxDimensions = 8;

// The one reason a file was refused; each has its own message.
enum class FileError {
  TooShort,            // fewer bytes than a header
  BadMagic,            // not a digest file
  NewerVersion,        // written by a newer format version
  BadVersion,          // version 0
  HeaderChecksum,      // header CRC-32 mismatch
  BadFlags,            // flags or reserved bytes not zero
  UnknownCompression,  // compression method not 1
  BadDigestCount,      // 0 or more than kMaxDigests
  BadPayloadSize,      // announced payload size impossible or too large
  Truncated,           // fewer payload bytes than announced
  TrailingData,        // bytes after the announced payload
  PayloadChecksum,     // payload CRC-32 mismatch
  BadCompressedData,   // zlib refused the payload
  PayloadLength,       // payload inflates to another size than announced
  BadRecord,           // a digest record is malformed or incomplete
  TrailingPayload,     // bytes left after the last digest record
  InvalidDigest,       // a record is well formed but no valid TDigest state
};

// Why a digest file was refused; an InputError (exit status 2).
class DigestFileError : public InputError {
 public:
  DigestFileError(FileError code, const std::string& message);
  FileError code() const noexcept { return code_; }

 private:
  FileError code_;
};

// How a stored digest was built (build record of kind 1, or of kind 2 when
// weighted).
struct BuildRecord {
  std::uint32_t seed = 0;
  std::uint64_t blockSize = 0;
  bool weighted = false;
  bool operator==(const BuildRecord&) const = default;
};

// The type of a typed key (the key record's kind).
enum class KeyKind : std::uint8_t {
  Text = 0,  // no key record: the label is the key
  Int64 = 1,
  UInt64 = 2,
  Float64 = 3,
  Bool = 4,
  DateTime64 = 5,
  TimeDelta64 = 6,
};
inline constexpr std::uint8_t kKeyKindCount = 7;
// Tick units of datetime64 and timedelta64 keys, by unit number.
inline constexpr const char* kTickUnits[] = {"Y",  "M",  "W",  "D",  "h",  "m", "s",
                                             "ms", "us", "ns", "ps", "fs", "as"};
inline constexpr std::uint8_t kTickUnitCount = 13;

// The typed key a label stands for (format version 3).
struct LabelKey {
  KeyKind kind = KeyKind::Text;
  // By kind: the int64 (two's complement), the uint64, the double's bits,
  // 0 or 1, or the ticks (two's complement).
  std::uint64_t bits = 0;
  std::uint8_t unit = 0;  // datetime64 and timedelta64: index into kTickUnits
  bool operator==(const LabelKey&) const = default;
};

// One digest as stored: a label, the saved object, when known how it was
// built, and the key the label stands for when it has a type of its own.
struct StoredDigest {
  std::string label;
  quorix::SavedObject saved;
  std::optional<BuildRecord> build = std::nullopt;
  LabelKey key = {};
};

// The fixed header fields as read from a file.
struct FileHeader {
  std::uint16_t version = 0;
  std::uint16_t flags = 0;
  std::uint8_t compression = 0;
  std::uint32_t digestCount = 0;
  std::uint32_t payloadCrc = 0;
  std::uint64_t payloadSize = 0;
  std::uint64_t compressedSize = 0;
  std::uint32_t headerCrc = 0;
};

struct DigestFile {
  FileHeader header;
  std::vector<StoredDigest> digests;
};

// --- writing -----------------------------------------------------------------
// The uncompressed payload of the digests, in formatVersionFor(digests). Throws InputError when a
// digest cannot be stored (a property of another class than double, int64 or uint64, a complex
// value, names or labels beyond the limits) or fails the TDigest state check, so nothing is written
// that reading would refuse.
std::vector<std::byte> encodePayload(const std::vector<StoredDigest>& digests);
// The format version the digests are written in: 3 when one of them has a
// weighted build record or a typed key, else 2 when one has a build record,
// else 1.
std::uint16_t formatVersionFor(const std::vector<StoredDigest>& digests) noexcept;
// Compresses a payload and puts the header in front. digestCount and the
// version are written as given (tests use this to craft damaged files).
std::vector<std::byte> packDigestFile(std::span<const std::byte> payload, std::uint32_t digestCount,
                                      std::uint16_t version = kPlainFormatVersion);
// encodePayload then packDigestFile.
std::vector<std::byte> encodeDigestFile(const std::vector<StoredDigest>& digests);

// --- reading -----------------------------------------------------------------
// True when the bytes begin with the digest-file magic number.
bool hasDigestMagic(std::span<const std::byte> bytes) noexcept;
// The decoder every reader uses: checks the header, the checksums and every
// record, then the TDigest state of each digest. Throws DigestFileError with
// one specific code; never reads outside `bytes`.
DigestFile decodeDigestFile(std::span<const std::byte> bytes);

// The records of an inflated payload that holds `count` digests in the
// layout of format `version`: every record, nothing after the last, then
// the TDigest state of each. Throws DigestFileError (BadRecord,
// TrailingPayload or InvalidDigest).
std::vector<StoredDigest> decodePayload(std::span<const std::byte> payload, std::uint32_t count,
                                        std::uint16_t version = kPlainFormatVersion);

// CRC-32 (the zlib polynomial) of a byte span.
std::uint32_t crc32Of(std::span<const std::byte> bytes) noexcept;

}  // namespace zotdigest::engine
