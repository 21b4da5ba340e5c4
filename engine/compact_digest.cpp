// Compact form: one record of the digest-file payload, compressed with
// zlib's one-shot calls; the record codec and the state check are the
// digest file's own.
#include "engine/compact_digest.h"

#include <zlib.h>

#include <array>
#include <limits>
#include <new>
#include <string>
#include <utility>

namespace zotdigest::engine {
namespace {

constexpr std::array<std::uint8_t, 4> kCompactMagic = {0x89, 0x5A, 0x44, 0x43};

[[noreturn]] void refuse(FileError code, const std::string& message) {
  throw DigestFileError(code, "compact digest: " + message);
}

std::uint8_t byteAt(std::span<const std::byte> bytes, std::size_t i) {
  return std::to_integer<std::uint8_t>(bytes[i]);
}

}  // namespace

std::vector<std::byte> encodeCompactDigest(quorix::SavedObject saved) {
  std::vector<StoredDigest> one;
  one.push_back(StoredDigest{"", std::move(saved)});
  const std::vector<std::byte> record = encodePayload(one);
  if (record.size() > kMaxCompactRecordSize) {
    throw InputError("the digest needs " + std::to_string(record.size()) +
                     " bytes, more than its compact form holds");
  }
  uLongf compressedSize = compressBound(static_cast<uLong>(record.size()));
  std::vector<std::byte> out(kCompactHeaderSize + compressedSize);
  // zlib's default level: on these records as small as its best level and
  // several times faster, which pickling many digests notices.
  const int rc = compress2(reinterpret_cast<Bytef*>(out.data() + kCompactHeaderSize),
                           &compressedSize, reinterpret_cast<const Bytef*>(record.data()),
                           static_cast<uLong>(record.size()), Z_DEFAULT_COMPRESSION);
  if (rc != Z_OK) {
    throw std::bad_alloc();
  }
  out.resize(kCompactHeaderSize + compressedSize);
  for (std::size_t i = 0; i < kCompactMagic.size(); ++i) {
    out[i] = static_cast<std::byte>(kCompactMagic[i]);
  }
  out[4] = static_cast<std::byte>(kCompactVersion);
  const auto size = static_cast<std::uint32_t>(record.size());
  for (std::size_t i = 0; i < 4; ++i) {
    out[5 + i] = static_cast<std::byte>(size >> (8 * i));
  }
  return out;
}

quorix::SavedObject decodeCompactDigest(std::span<const std::byte> bytes) {
  if (bytes.size() < kCompactHeaderSize) {
    refuse(FileError::TooShort, std::to_string(bytes.size()) + " bytes, shorter than the " +
                                    std::to_string(kCompactHeaderSize) + "-byte header");
  }
  for (std::size_t i = 0; i < kCompactMagic.size(); ++i) {
    if (byteAt(bytes, i) != kCompactMagic[i]) {
      refuse(FileError::BadMagic, "not a compact digest (wrong magic number)");
    }
  }
  const std::uint8_t version = byteAt(bytes, 4);
  if (version > kCompactVersion) {
    refuse(FileError::NewerVersion, "version " + std::to_string(version) +
                                        ", written by a newer zotdigest; this one reads "
                                        "versions up to " +
                                        std::to_string(kCompactVersion));
  }
  if (version == 0) {
    refuse(FileError::BadVersion, "version 0, which does not exist");
  }
  std::uint32_t size = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    size |= std::uint32_t{byteAt(bytes, 5 + i)} << (8 * i);
  }
  const std::span<const std::byte> compressed = bytes.subspan(kCompactHeaderSize);
  // deflate compresses at most about 1032 to 1: a larger claim is a lie.
  if (size > kMaxCompactRecordSize || size > compressed.size() * std::uint64_t{1032} + 1024 ||
      compressed.size() > std::numeric_limits<uLong>::max()) {
    refuse(FileError::BadPayloadSize,
           "an impossible record size of " + std::to_string(size) + " bytes");
  }
  std::vector<std::byte> record(size);
  uLongf produced = size;
  uLong consumed = static_cast<uLong>(compressed.size());
  const int rc = uncompress2(reinterpret_cast<Bytef*>(record.data()), &produced,
                             reinterpret_cast<const Bytef*>(compressed.data()), &consumed);
  if (rc == Z_BUF_ERROR && produced == size && size != 0) {
    refuse(FileError::PayloadLength,
           "the record does not inflate to the announced " + std::to_string(size) + " bytes");
  }
  if (rc != Z_OK) {
    refuse(FileError::BadCompressedData, "the compressed record is damaged or truncated");
  }
  if (produced != size) {
    refuse(FileError::PayloadLength, "the record inflates to " + std::to_string(produced) +
                                         " bytes, not the announced " + std::to_string(size));
  }
  if (consumed != compressed.size()) {
    refuse(FileError::TrailingData, std::to_string(compressed.size() - consumed) +
                                        " unexpected bytes after the compressed record");
  }
  try {
    return std::move(decodePayload(record, 1).front().saved);
  } catch (const DigestFileError& e) {
    refuse(e.code(), e.what());
  }
}

}  // namespace zotdigest::engine
