// Encoder and the one decoder of the digest file format (layout in the
// header). The decoder checks in a fixed order, so each kind of damage has
// one answer: size, magic, version (before the header checksum, so that a
// newer file is reported as newer even if its header grew), header
// checksum, header fields, payload size, payload checksum, inflation,
// records, and last the TDigest state of each record. Every read goes
// through Cursor, which checks the remaining length first.
#include "engine/digest_file.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "engine/saved_digest_check.h"

namespace zotdigest::engine {
namespace {

constexpr std::array<std::uint8_t, 8> kMagic = {0x89, 0x5A, 0x44, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
constexpr std::size_t kHeaderCrcOffset = 40;
// zlib's deflate never compresses better than about 1032 to 1; a payload
// announced larger than that is a lie we refuse before allocating for it.
constexpr std::uint64_t kMaxInflateRatio = 1032;
constexpr std::uint64_t kInflateSlack = 1024;
// Build record kinds: the reproducible block-tree build, unweighted and
// weighted.
constexpr std::uint8_t kBuildKindBlockTree = 1;
constexpr std::uint8_t kBuildKindWeightedBlockTree = 2;

// --- writing -----------------------------------------------------------------

class ByteWriter {
 public:
  void u8(std::uint8_t v) { bytes_.push_back(static_cast<std::byte>(v)); }
  void u16(std::uint16_t v) { little(v, 2); }
  void u32(std::uint32_t v) { little(v, 4); }
  void u64(std::uint64_t v) { little(v, 8); }
  void text16(const std::string& s) {
    u16(static_cast<std::uint16_t>(s.size()));
    for (const char c : s) {
      u8(static_cast<std::uint8_t>(c));
    }
  }
  std::vector<std::byte> take() { return std::move(bytes_); }

 private:
  void little(std::uint64_t v, int width) {
    for (int i = 0; i < width; ++i) {
      u8(static_cast<std::uint8_t>(v >> (8 * i)));
    }
  }
  std::vector<std::byte> bytes_;
};

bool storableClass(quorix::ClassID id) {
  return id == quorix::ClassID::Double || id == quorix::ClassID::Int64 ||
         id == quorix::ClassID::UInt64;
}

void encodeProperty(ByteWriter& out, const quorix::SavedProperty& p) {
  const quorix::HostArray& a = *p.value;
  if (!storableClass(a.classID()) || a.isComplex()) {
    throw InputError("property '" + p.name + "' has class " +
                     std::string(quorix::className(a.classID())) +
                     ", which a digest file cannot hold");
  }
  if (p.name.empty() || p.name.size() > kMaxNameLength || a.dims().size() > kMaxDimensions) {
    throw InputError("property '" + p.name + "' has a name or shape a digest file cannot hold");
  }
  out.text16(p.name);
  out.u8(static_cast<std::uint8_t>(a.classID()));
  out.u8(static_cast<std::uint8_t>(a.dims().size()));
  for (const std::size_t d : a.dims()) {
    out.u64(d);
  }
  // All three classes are 8 bytes wide; the bits go out unchanged.
  const auto* words = static_cast<const std::uint8_t*>(a.realData());
  for (std::size_t i = 0; i < a.numel(); ++i) {
    std::uint64_t w = 0;
    std::memcpy(&w, words + 8 * i, 8);
    out.u64(w);
  }
}

void encodeKey(ByteWriter& out, const LabelKey& key) {
  out.u8(static_cast<std::uint8_t>(key.kind));
  switch (key.kind) {
    case KeyKind::Text:
      break;
    case KeyKind::Bool:
      out.u8(static_cast<std::uint8_t>(key.bits));
      break;
    case KeyKind::DateTime64:
    case KeyKind::TimeDelta64:
      out.u64(key.bits);
      out.u8(key.unit);
      break;
    default:
      out.u64(key.bits);
  }
}

// The key as a writer may store it: a known kind, a bool of 0 or 1, a
// known time unit.
void checkKey(const LabelKey& key, const std::string& label) {
  const auto kind = static_cast<std::uint8_t>(key.kind);
  const bool timed = key.kind == KeyKind::DateTime64 || key.kind == KeyKind::TimeDelta64;
  if (kind >= kKeyKindCount || (key.kind == KeyKind::Bool && key.bits > 1) ||
      (timed && key.unit >= kTickUnitCount)) {
    throw InputError("the key of label '" + label.substr(0, 40) +
                     "' is of a kind a digest file cannot hold");
  }
}

// --- reading -----------------------------------------------------------------

[[noreturn]] void refuse(FileError code, const std::string& message) {
  throw DigestFileError(code, message);
}

std::uint64_t loadLittle(const std::byte* p, int width) noexcept {
  std::uint64_t v = 0;
  for (int i = 0; i < width; ++i) {
    v |= std::uint64_t{std::to_integer<std::uint8_t>(p[i])} << (8 * i);
  }
  return v;
}

// Reads the inflated payload front to back; every read checks its length.
class Cursor {
 public:
  explicit Cursor(std::span<const std::byte> bytes) : bytes_(bytes) {}

  std::size_t remaining() const noexcept { return bytes_.size() - pos_; }
  void setContext(std::string context) { context_ = std::move(context); }

  std::uint8_t u8(const char* what) { return static_cast<std::uint8_t>(little(1, what)); }
  std::uint16_t u16(const char* what) { return static_cast<std::uint16_t>(little(2, what)); }
  std::uint32_t u32(const char* what) { return static_cast<std::uint32_t>(little(4, what)); }
  std::uint64_t u64(const char* what) { return little(8, what); }
  std::string text16(const char* what, std::size_t maxLength) {
    const std::size_t n = u16(what);
    if (n > maxLength) {
      fail(std::string(what) + " is " + std::to_string(n) + " bytes long, more than " +
           std::to_string(maxLength));
    }
    need(n, what);
    std::string s(reinterpret_cast<const char*>(bytes_.data() + pos_), n);
    pos_ += n;
    return s;
  }
  // Elements of one property: each 8 bytes; `count` already bounded.
  void words(void* out, std::size_t count, const char* what) {
    need(count * 8, what);
    auto* dst = static_cast<std::uint8_t*>(out);
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t w = loadLittle(bytes_.data() + pos_ + 8 * i, 8);
      std::memcpy(dst + 8 * i, &w, 8);
    }
    pos_ += count * 8;
  }
  [[noreturn]] void fail(const std::string& what) const {
    refuse(FileError::BadRecord, "damaged digest record (" + context_ + "): " + what);
  }

 private:
  void need(std::size_t n, const char* what) const {
    if (n > remaining()) {
      fail(std::string("the payload ends inside ") + what);
    }
  }
  std::uint64_t little(int width, const char* what) {
    need(static_cast<std::size_t>(width), what);
    const std::uint64_t v = loadLittle(bytes_.data() + pos_, width);
    pos_ += static_cast<std::size_t>(width);
    return v;
  }

  std::span<const std::byte> bytes_;
  std::size_t pos_ = 0;
  std::string context_;
};

quorix::SavedProperty decodeProperty(Cursor& in) {
  quorix::SavedProperty p;
  p.name = in.text16("a property name", kMaxNameLength);
  if (p.name.empty()) {
    in.fail("a property has an empty name");
  }
  const auto id = static_cast<quorix::ClassID>(in.u8("a property's class"));
  if (!storableClass(id)) {
    in.fail("property '" + p.name + "' has class number " + std::to_string(static_cast<int>(id)) +
            ", not double, int64 or uint64");
  }
  const std::size_t rank = in.u8("a property's dimension count");
  if (rank < 2 || rank > kMaxDimensions) {
    in.fail("property '" + p.name + "' has " + std::to_string(rank) + " dimensions");
  }
  quorix::Dims dims(rank);
  std::size_t numel = 1;
  for (std::size_t& d : dims) {
    const std::uint64_t v = in.u64("a property's dimensions");
    // Every element takes 8 payload bytes: a count beyond what remains is
    // refused here, before anything is allocated.
    const std::uint64_t limit = in.remaining() / 8;
    if (v != 0 && numel > limit / v) {
      in.fail("property '" + p.name + "' claims more elements than the payload holds");
    }
    d = static_cast<std::size_t>(v);
    numel *= d;
  }
  if (rank > 2 && dims.back() == 1) {
    in.fail("property '" + p.name + "' has a trailing singleton dimension");
  }
  p.value = quorix::HostArray::createNumeric(dims, id);
  in.words(p.value->realData(), numel, "a property's elements");
  return p;
}

std::optional<BuildRecord> decodeBuildRecord(Cursor& in, std::uint16_t version) {
  const std::uint8_t kind = in.u8("the build record's kind");
  if (kind == 0) {
    return std::nullopt;
  }
  const bool known =
      kind == kBuildKindBlockTree || (kind == kBuildKindWeightedBlockTree && version >= 3);
  if (!known) {
    in.fail("unknown build record kind " + std::to_string(kind) + " in format version " +
            std::to_string(version));
  }
  BuildRecord b;
  b.weighted = kind == kBuildKindWeightedBlockTree;
  b.seed = in.u32("the build record's seed");
  b.blockSize = in.u64("the build record's block size");
  if (b.blockSize == 0) {
    in.fail("the build record's block size is 0");
  }
  return b;
}

LabelKey decodeKey(Cursor& in) {
  LabelKey key;
  const std::uint8_t kind = in.u8("the key's kind");
  if (kind >= kKeyKindCount) {
    in.fail("unknown key kind " + std::to_string(kind));
  }
  key.kind = static_cast<KeyKind>(kind);
  switch (key.kind) {
    case KeyKind::Text:
      break;
    case KeyKind::Bool:
      key.bits = in.u8("a bool key");
      if (key.bits > 1) {
        in.fail("a bool key of " + std::to_string(key.bits));
      }
      break;
    case KeyKind::DateTime64:
    case KeyKind::TimeDelta64:
      key.bits = in.u64("a time key");
      key.unit = in.u8("a time key's unit");
      if (key.unit >= kTickUnitCount) {
        in.fail("unknown time unit number " + std::to_string(key.unit));
      }
      break;
    default:
      key.bits = in.u64("a key");
  }
  return key;
}

StoredDigest decodeRecord(Cursor& in, std::uint32_t index, std::uint16_t version) {
  in.setContext("digest " + std::to_string(index));
  StoredDigest d;
  d.label = in.text16("a label", kMaxLabelLength);
  d.saved.className = in.text16("a class name", kMaxNameLength);
  if (d.saved.className.empty()) {
    in.fail("the class name is empty");
  }
  const std::size_t count = in.u16("the property count");
  if (count > kMaxProperties) {
    in.fail(std::to_string(count) + " properties, more than " + std::to_string(kMaxProperties));
  }
  d.saved.properties.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    d.saved.properties.push_back(decodeProperty(in));
  }
  if (version >= 2) {
    d.build = decodeBuildRecord(in, version);
  }
  if (version >= 3) {
    d.key = decodeKey(in);
  }
  return d;
}

FileHeader decodeHeader(std::span<const std::byte> bytes) {
  if (bytes.size() < kHeaderSize) {
    refuse(FileError::TooShort, "not a digest file: " + std::to_string(bytes.size()) +
                                    " bytes, shorter than the " + std::to_string(kHeaderSize) +
                                    "-byte header");
  }
  if (!hasDigestMagic(bytes)) {
    refuse(FileError::BadMagic, "not a digest file (wrong magic number)");
  }
  FileHeader h;
  h.version = static_cast<std::uint16_t>(loadLittle(&bytes[8], 2));
  if (h.version > kFormatVersion) {
    refuse(FileError::NewerVersion,
           "the digest file has format version " + std::to_string(h.version) +
               ", written by a newer zotdigest; this one reads versions up to " +
               std::to_string(kFormatVersion));
  }
  if (h.version == 0) {
    refuse(FileError::BadVersion, "the digest file has format version 0, which does not exist");
  }
  h.flags = static_cast<std::uint16_t>(loadLittle(&bytes[10], 2));
  h.compression = static_cast<std::uint8_t>(loadLittle(&bytes[12], 1));
  const std::uint64_t reserved = loadLittle(&bytes[13], 3);
  h.digestCount = static_cast<std::uint32_t>(loadLittle(&bytes[16], 4));
  h.payloadCrc = static_cast<std::uint32_t>(loadLittle(&bytes[20], 4));
  h.payloadSize = loadLittle(&bytes[24], 8);
  h.compressedSize = loadLittle(&bytes[32], 8);
  h.headerCrc = static_cast<std::uint32_t>(loadLittle(&bytes[kHeaderCrcOffset], 4));
  if (crc32Of(bytes.first(kHeaderCrcOffset)) != h.headerCrc) {
    refuse(FileError::HeaderChecksum, "the digest file's header is damaged (checksum mismatch)");
  }
  if (h.flags != 0 || reserved != 0) {
    refuse(FileError::BadFlags, "the digest file sets header flags this version does not define");
  }
  if (h.compression != kCompressionZlib) {
    refuse(FileError::UnknownCompression,
           "the digest file uses unknown compression method " + std::to_string(h.compression));
  }
  if (h.digestCount == 0 || h.digestCount > kMaxDigests) {
    refuse(FileError::BadDigestCount,
           "the digest file announces " + std::to_string(h.digestCount) + " digests");
  }
  if (h.compressedSize > kMaxCompressedSize) {
    refuse(FileError::BadPayloadSize,
           "the digest file announces an impossible compressed size of " +
               std::to_string(h.compressedSize) + " bytes");
  }
  if (h.payloadSize > kMaxPayloadSize ||
      h.payloadSize > h.compressedSize * kMaxInflateRatio + kInflateSlack) {
    refuse(FileError::BadPayloadSize, "the digest file announces an impossible payload size of " +
                                          std::to_string(h.payloadSize) + " bytes");
  }
  const std::uint64_t present = bytes.size() - kHeaderSize;
  if (present < h.compressedSize) {
    refuse(FileError::Truncated, "the digest file is truncated: " + std::to_string(present) +
                                     " of " + std::to_string(h.compressedSize) +
                                     " payload bytes present");
  }
  if (present > h.compressedSize) {
    refuse(FileError::TrailingData, "the digest file has " +
                                        std::to_string(present - h.compressedSize) +
                                        " unexpected bytes after its payload");
  }
  return h;
}

std::vector<std::byte> inflatePayload(std::span<const std::byte> compressed, std::size_t size) {
  std::vector<std::byte> out(size);
  z_stream z{};
  if (inflateInit(&z) != Z_OK) {
    throw std::bad_alloc();
  }
  // zlib's interface is not const-correct; it only reads next_in.
  z.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(compressed.data()));
  z.avail_in = static_cast<uInt>(compressed.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  const int rc = inflate(&z, Z_FINISH);
  const uInt leftIn = z.avail_in;
  const uInt leftOut = z.avail_out;
  inflateEnd(&z);
  if (rc == Z_STREAM_END && leftOut == 0 && leftIn == 0) {
    return out;
  }
  // The stream ended early, or the output filled before it ended.
  if (rc == Z_STREAM_END || ((rc == Z_BUF_ERROR || rc == Z_OK) && leftOut == 0)) {
    refuse(FileError::PayloadLength,
           "the digest file's payload does not inflate to the announced " + std::to_string(size) +
               " bytes");
  }
  refuse(FileError::BadCompressedData, "the digest file's compressed payload is damaged");
}

}  // namespace

DigestFileError::DigestFileError(FileError code, const std::string& message)
    : InputError(message), code_(code) {}

std::uint32_t crc32Of(std::span<const std::byte> bytes) noexcept {
  uLong crc = crc32(0L, Z_NULL, 0);
  const auto* p = reinterpret_cast<const Bytef*>(bytes.data());
  std::size_t n = bytes.size();
  // crc32 takes a 32-bit length; feed large spans in pieces.
  while (n > 0) {
    const auto piece = static_cast<uInt>(std::min<std::size_t>(n, 1u << 30));
    crc = crc32(crc, p, piece);
    p += piece;
    n -= piece;
  }
  return static_cast<std::uint32_t>(crc);
}

std::uint16_t formatVersionFor(const std::vector<StoredDigest>& digests) noexcept {
  std::uint16_t version = kPlainFormatVersion;
  for (const StoredDigest& d : digests) {
    if ((d.build && d.build->weighted) || d.key.kind != KeyKind::Text) {
      return kFormatVersion;
    }
    if (d.build) {
      version = kBuiltFormatVersion;
    }
  }
  return version;
}

std::vector<std::byte> encodePayload(const std::vector<StoredDigest>& digests) {
  const std::uint16_t version = formatVersionFor(digests);
  ByteWriter out;
  for (const StoredDigest& d : digests) {
    if (std::string why = checkSavedDigest(d.saved); !why.empty()) {
      throw InputError("refusing to store an invalid digest: " + why);
    }
    if (d.label.size() > kMaxLabelLength) {
      throw InputError("the label '" + d.label.substr(0, 40) + "...' is longer than " +
                       std::to_string(kMaxLabelLength) + " bytes");
    }
    out.text16(d.label);
    out.text16(d.saved.className);
    out.u16(static_cast<std::uint16_t>(d.saved.properties.size()));
    for (const quorix::SavedProperty& p : d.saved.properties) {
      encodeProperty(out, p);
    }
    if (version >= 2) {
      if (d.build) {
        out.u8(d.build->weighted ? kBuildKindWeightedBlockTree : kBuildKindBlockTree);
        out.u32(d.build->seed);
        out.u64(d.build->blockSize);
      } else {
        out.u8(0);
      }
    }
    if (version >= 3) {
      checkKey(d.key, d.label);
      encodeKey(out, d.key);
    }
  }
  return out.take();
}

std::vector<std::byte> packDigestFile(std::span<const std::byte> payload, std::uint32_t digestCount,
                                      std::uint16_t version) {
  if (payload.size() > kMaxPayloadSize) {
    throw InputError("the digests need " + std::to_string(payload.size()) +
                     " bytes, more than a digest file holds");
  }
  uLongf compressedSize = compressBound(static_cast<uLong>(payload.size()));
  std::vector<std::byte> file(kHeaderSize + compressedSize);
  // zlib's default level: on summary payloads within 0.3% of the best
  // level's size at a fifteenth of its time (a file of 100 digests: 0.05 s
  // instead of 0.7 s).
  const int rc = compress2(reinterpret_cast<Bytef*>(file.data() + kHeaderSize), &compressedSize,
                           reinterpret_cast<const Bytef*>(payload.data()),
                           static_cast<uLong>(payload.size()), Z_DEFAULT_COMPRESSION);
  if (rc != Z_OK) {
    throw std::bad_alloc();
  }
  file.resize(kHeaderSize + compressedSize);

  ByteWriter header;
  for (const std::uint8_t b : kMagic) {
    header.u8(b);
  }
  header.u16(version);
  header.u16(0);  // flags
  header.u8(kCompressionZlib);
  header.u8(0);  // reserved
  header.u16(0);
  header.u32(digestCount);
  header.u32(crc32Of(std::span(file).subspan(kHeaderSize)));
  header.u64(payload.size());
  header.u64(compressedSize);
  std::vector<std::byte> head = header.take();
  const std::uint32_t headerCrc = crc32Of(head);
  std::copy(head.begin(), head.end(), file.begin());
  for (int i = 0; i < 4; ++i) {
    file[kHeaderCrcOffset + static_cast<std::size_t>(i)] =
        static_cast<std::byte>(headerCrc >> (8 * i));
  }
  return file;
}

std::vector<std::byte> encodeDigestFile(const std::vector<StoredDigest>& digests) {
  if (digests.empty() || digests.size() > kMaxDigests) {
    throw InputError("a digest file holds 1 to " + std::to_string(kMaxDigests) + " digests");
  }
  const std::vector<std::byte> payload = encodePayload(digests);
  return packDigestFile(payload, static_cast<std::uint32_t>(digests.size()),
                        formatVersionFor(digests));
}

bool hasDigestMagic(std::span<const std::byte> bytes) noexcept {
  if (bytes.size() < kMagic.size()) {
    return false;
  }
  for (std::size_t i = 0; i < kMagic.size(); ++i) {
    if (std::to_integer<std::uint8_t>(bytes[i]) != kMagic[i]) {
      return false;
    }
  }
  return true;
}

std::vector<StoredDigest> decodePayload(std::span<const std::byte> payload, std::uint32_t count,
                                        std::uint16_t version) {
  Cursor in(payload);
  std::vector<StoredDigest> digests;
  digests.reserve(std::min<std::size_t>(count, payload.size() / 6));
  for (std::uint32_t i = 0; i < count; ++i) {
    digests.push_back(decodeRecord(in, i, version));
  }
  if (in.remaining() != 0) {
    refuse(FileError::TrailingPayload, "the digest payload has " + std::to_string(in.remaining()) +
                                           " bytes after its last digest");
  }
  for (std::size_t i = 0; i < digests.size(); ++i) {
    if (std::string why = checkSavedDigest(digests[i].saved); !why.empty()) {
      refuse(FileError::InvalidDigest, "digest " + std::to_string(i) + " is invalid: " + why);
    }
  }
  return digests;
}

DigestFile decodeDigestFile(std::span<const std::byte> bytes) {
  DigestFile file;
  file.header = decodeHeader(bytes);
  const std::span<const std::byte> compressed = bytes.subspan(kHeaderSize);
  if (crc32Of(compressed) != file.header.payloadCrc) {
    refuse(FileError::PayloadChecksum, "the digest file's payload is damaged (checksum mismatch)");
  }
  const std::vector<std::byte> payload =
      inflatePayload(compressed, static_cast<std::size_t>(file.header.payloadSize));
  file.digests = decodePayload(payload, file.header.digestCount, file.header.version);
  return file;
}

}  // namespace zotdigest::engine
