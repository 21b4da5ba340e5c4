// libFuzzer target: any byte string given to the digest file decoder must
// either decode (and then re-encode to a file that decodes to the same
// digests) or be refused with a DigestFileError; never crash, never read
// out of bounds, never allocate beyond what the input can describe.
//
// Checksums stop almost every mutation of a whole file at the header, so
// inputs that start with 'P' (format version 1), 'Q' (version 2, records
// with build records) or 'R' (version 3, records with build records and
// keys) are taken as an uncompressed payload instead: byte 1
// is the digest count, the rest is packed into a file with correct
// checksums first. That lets the fuzzer reach the record parser and the
// TDigest state check behind them. Inputs that start with 'C' go, less that
// byte, to the compact-form decoder, whose answer must encode and decode
// again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "engine/compact_digest.h"
#include "engine/digest_file.h"

namespace {

void checkRoundTrip(const zotdigest::engine::DigestFile& file) {
  using zotdigest::engine::decodeDigestFile;
  using zotdigest::engine::encodeDigestFile;
  const std::vector<std::byte> again = encodeDigestFile(file.digests);
  const zotdigest::engine::DigestFile back = decodeDigestFile(again);
  if (back.digests.size() != file.digests.size()) {
    std::abort();
  }
  for (std::size_t i = 0; i < file.digests.size(); ++i) {
    const auto& a = file.digests[i];
    const auto& b = back.digests[i];
    if (a.label != b.label || a.build != b.build || a.key != b.key ||
        a.saved.properties.size() != b.saved.properties.size()) {
      std::abort();
    }
    for (std::size_t k = 0; k < a.saved.properties.size(); ++k) {
      const auto& x = *a.saved.properties[k].value;
      const auto& y = *b.saved.properties[k].value;
      if (x.dims() != y.dims() || std::memcmp(x.realData(), y.realData(), 8 * x.numel()) != 0) {
        std::abort();
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(data), size);
  try {
    if (size >= 2 && (data[0] == 'P' || data[0] == 'Q' || data[0] == 'R')) {
      const auto version = static_cast<std::uint16_t>(data[0] - 'P' + 1);
      const std::vector<std::byte> file =
          zotdigest::engine::packDigestFile(bytes.subspan(2), data[1], version);
      checkRoundTrip(zotdigest::engine::decodeDigestFile(file));
      return 0;
    }
    if (size >= 1 && data[0] == 'C') {
      using zotdigest::engine::decodeCompactDigest;
      using zotdigest::engine::encodeCompactDigest;
      decodeCompactDigest(encodeCompactDigest(decodeCompactDigest(bytes.subspan(1))));
      return 0;
    }
    checkRoundTrip(zotdigest::engine::decodeDigestFile(bytes));
  } catch (const zotdigest::engine::DigestFileError&) {
    // Refusing is the expected answer to almost every input.
  }
  return 0;
}
