// The digest file format and the check of the TDigest states it stores:
// bit-exact round trips, the payload layout against an independent writer,
// damage to one field at a time refused for one specific reason, and each
// rule of a valid stored tree broken on its own. The CLI's tests read the
// golden files of format version 1.
#include "engine/digest_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "engine/saved_digest_check.h"
#include "quorix/object_system.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using Bytes = std::vector<std::byte>;

// One slot of the summary matrix: mean, count, height, subtree weight.
struct Slot {
  double mean = 0.0;
  std::uint64_t count = 0;
  std::int64_t height = 0;
  std::uint64_t subtree = 0;
};

// An AVL tree of the given height in heap order, in-order means 1, 2, ...
// with count k for mean k: perfect, or sparse (the fewest nodes: the left
// subtree one level taller than the right all the way down).
std::vector<Slot> tree(int height, bool sparse = false) {
  std::vector<Slot> s((std::size_t{1} << (height + 1)) - 1);
  std::uint64_t next = 1;
  const auto fill = [&](const auto& self, std::size_t j, int h) -> std::uint64_t {
    if (h < 0) return 0;
    const std::uint64_t left = self(self, 2 * j + 1, h - 1);
    s[j] = Slot{static_cast<double>(next), next, h, 0};
    ++next;
    s[j].subtree = s[j].count + left + self(self, 2 * j + 2, sparse ? h - 2 : h - 1);
    return s[j].subtree;
  };
  fill(fill, 0, height);
  return s;
}

quorix::SavedObject savedDigest(const std::vector<Slot>& slots, double delta = 100.0) {
  auto m = HostArray::createNumericMatrix(4, slots.size(), ClassID::Int64);
  auto* d = m->data<std::int64_t>();
  std::uint64_t nodes = 0, weight = 0;
  for (std::size_t j = 0; j < slots.size(); ++j) {
    const Slot& s = slots[j];
    d[4 * j] = s.count == 0 ? 0 : std::bit_cast<std::int64_t>(s.mean);
    d[4 * j + 1] = static_cast<std::int64_t>(s.count);
    d[4 * j + 2] = s.height;
    d[4 * j + 3] = static_cast<std::int64_t>(s.subtree);
    nodes += s.count != 0 ? 1 : 0;
    weight += s.count;
  }
  quorix::SavedObject saved;
  saved.className = "TDigest";
  saved.properties.push_back({"AVLTreeSummary", std::move(m)});
  saved.properties.push_back({"Delta", HostArray::createDoubleScalar(delta)});
  saved.properties.push_back({"NumCentroids", HostArray::createUInt64Scalar(nodes)});
  saved.properties.push_back({"NumDataPoints", HostArray::createUInt64Scalar(weight)});
  return saved;
}

// Writes payload records the way the format describes them.
struct PayloadWriter {
  PayloadWriter& le(std::uint64_t v, int width) {
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<std::byte>(v >> (8 * i)));
    return *this;
  }
  PayloadWriter& u16(std::size_t v) { return le(static_cast<std::uint64_t>(v), 2); }
  PayloadWriter& text(const std::string& s) {
    u16(s.size());
    for (const char c : s) le(static_cast<std::uint8_t>(c), 1);
    return *this;
  }
  // One property: name, class number, dims, 8-byte elements.
  PayloadWriter& property(const std::string& name, int classId,
                          const std::vector<std::uint64_t>& dims,
                          const std::vector<std::uint64_t>& words) {
    text(name).le(static_cast<std::uint64_t>(classId), 1).le(dims.size(), 1);
    for (const std::uint64_t d : dims) le(d, 8);
    for (const std::uint64_t w : words) le(w, 8);
    return *this;
  }
  std::vector<std::byte> bytes;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void expectRefused(std::span<const std::byte> file, FileError code, const std::string& reason) {
  try {
    decodeDigestFile(file);
    ADD_FAILURE() << "the file was accepted";
  } catch (const DigestFileError& e) {
    EXPECT_EQ(e.code(), code) << e.what();
    EXPECT_PRED2(contains, e.what(), reason);
  }
}

void storeLE(Bytes& b, std::size_t at, std::uint64_t v, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) b[at + i] = std::byte(v >> (8 * i));
}

// Recomputes the checksums after a deliberate change, so that the change
// itself is what the decoder refuses.
void reseal(Bytes& b, bool payloadToo = false) {
  if (payloadToo) storeLE(b, 20, crc32Of(std::span(b).subspan(kHeaderSize)), 4);
  storeLE(b, 40, crc32Of(std::span(b).first(40)), 4);
}

TEST(DigestFile, round_trip_keeps_every_bit_every_label_and_the_order) {
  const double nanWithPayload = std::bit_cast<double>(std::uint64_t{0x7FF8000000000123});
  const std::vector<std::vector<Slot>> trees = {
      {},
      {{5.0, 3, 0, 3}},
      {{-0.0, 1, 0, 1}},
      {{nanWithPayload, 2, 0, 2}},
      {{1.0, 1, 1, 3}, {-INFINITY, 1, 0, 1}, {INFINITY, 1, 0, 1}},
      {{2.0, 1, 1, 3}, {1.0, 2, 0, 2}, {}},
      tree(5)};
  std::vector<StoredDigest> digests;
  for (std::size_t i = 0; i < trees.size(); ++i) {
    const std::string label(i == 1 ? kMaxLabelLength : i, 'L');
    digests.push_back(StoredDigest{label, savedDigest(trees[i], 7.5 * static_cast<double>(i + 1))});
  }
  const DigestFile back = decodeDigestFile(encodeDigestFile(digests));
  EXPECT_EQ(back.header.version, kPlainFormatVersion);
  EXPECT_EQ(back.header.digestCount, trees.size());
  // The payload records every label, class, property, dimension and bit.
  EXPECT_EQ(encodePayload(back.digests), encodePayload(digests));
}

// Version 2 carries a build record per digest (kind 0 where unknown); a
// file without any is written as version 1, and an unknown kind is refused.
TEST(DigestFile, build_records_round_trip_in_version_2) {
  std::vector<StoredDigest> digests;
  digests.push_back(StoredDigest{"a", savedDigest(tree(2)), BuildRecord{4000000000u, 65536}});
  digests.push_back(StoredDigest{"b", savedDigest(tree(1)), std::nullopt});
  const Bytes file = encodeDigestFile(digests);
  const DigestFile back = decodeDigestFile(file);
  EXPECT_EQ(back.header.version, 2);
  EXPECT_EQ(back.digests[0].build, (BuildRecord{4000000000u, 65536}));
  EXPECT_FALSE(back.digests[1].build);
  EXPECT_EQ(encodePayload(back.digests), encodePayload(digests));
  digests.pop_back();
  Bytes payload = encodePayload(digests);
  const std::size_t kind = payload.size() - 13;  // u8 kind, u32 seed, u64 block size
  payload[kind] = std::byte{7};
  expectRefused(packDigestFile(payload, 1, 2), FileError::BadRecord, "unknown build record kind 7");
  payload[kind] = std::byte{1};
  payload.resize(kind + 1);
  expectRefused(packDigestFile(payload, 1, 2), FileError::BadRecord,
                "ends inside the build record's seed");
}

// Version 3 adds weighted build records and typed keys; each file is
// written in the lowest version that holds its records, and what a version
// cannot hold is refused.
TEST(DigestFile, weighted_builds_and_typed_keys_round_trip_in_version_3) {
  const BuildRecord plain{7, 65536};
  const BuildRecord weighted{7, 65536, true};
  const std::vector<LabelKey> keys = {{KeyKind::Int64, std::uint64_t(-42)},
                                      {KeyKind::UInt64, ~std::uint64_t{0}},
                                      {KeyKind::Float64, std::bit_cast<std::uint64_t>(-0.5)},
                                      {KeyKind::Bool, 1},
                                      {KeyKind::DateTime64, std::uint64_t(-86400), 6},
                                      {KeyKind::TimeDelta64, 5, 12},
                                      {}};
  std::vector<StoredDigest> digests;
  for (const LabelKey& key : keys) {
    digests.push_back(StoredDigest{"k", savedDigest(tree(1)), weighted, key});
  }
  const DigestFile back = decodeDigestFile(encodeDigestFile(digests));
  EXPECT_EQ(back.header.version, 3);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(back.digests[i].key, keys[i]);
    EXPECT_EQ(back.digests[i].build, weighted);
  }
  const auto versionOf = [](std::optional<BuildRecord> build, LabelKey key) {
    std::vector<StoredDigest> one;
    one.push_back(StoredDigest{"", savedDigest(tree(1)), build, key});
    return formatVersionFor(one);
  };
  EXPECT_EQ(versionOf(std::nullopt, {}), 1);
  EXPECT_EQ(versionOf(plain, {}), 2);
  EXPECT_EQ(versionOf(weighted, {}), 3);
  EXPECT_EQ(versionOf(std::nullopt, keys[0]), 3);

  // The last record ends: build kind, seed, block size, key kind, u64, unit.
  digests.clear();
  digests.push_back(StoredDigest{"t", savedDigest(tree(1)), weighted, keys[4]});
  Bytes payload = encodePayload(digests);
  const std::size_t unit = payload.size() - 1;
  const std::size_t key = unit - 9;
  const std::size_t kind = key - 13;
  Bytes damaged = payload;
  damaged[unit] = std::byte{13};
  expectRefused(packDigestFile(damaged, 1, 3), FileError::BadRecord, "unknown time unit number 13");
  damaged = payload;
  damaged[key] = std::byte{7};
  expectRefused(packDigestFile(damaged, 1, 3), FileError::BadRecord, "unknown key kind 7");
  damaged.resize(key);
  expectRefused(packDigestFile(damaged, 1, 2), FileError::BadRecord,
                "unknown build record kind 2 in format version 2");
  damaged = payload;
  damaged[key] = std::byte{4};
  damaged.resize(key + 2);
  damaged[key + 1] = std::byte{2};
  expectRefused(packDigestFile(damaged, 1, 3), FileError::BadRecord, "a bool key of 2");
  EXPECT_EQ(payload[kind], std::byte{2});
  digests[0].key.unit = 13;
  EXPECT_THROW(encodePayload(digests), InputError);
}

// Sets a header field and, unless told not to, reseals the header.
std::function<void(Bytes&)> set(std::size_t at, std::size_t width, std::uint64_t v,
                                bool seal = true) {
  return [=](Bytes& b) {
    storeLE(b, at, v, width);
    if (seal) reseal(b);
  };
}

TEST(DigestFileDamage, each_damaged_header_field_is_refused_for_its_own_reason) {
  using E = FileError;
  std::vector<StoredDigest> digests;
  digests.push_back(StoredDigest{"x", savedDigest(tree(3))});
  const Bytes good = encodeDigestFile(digests);
  const FileHeader header = decodeDigestFile(good).header;
  const std::uint64_t packed = good.size() - kHeaderSize;
  const struct {
    std::function<void(Bytes&)> edit;
    FileError code;
    const char* reason;
  } cases[] = {
      {[](Bytes& b) { b.resize(kHeaderSize - 1); }, E::TooShort, "shorter than"},
      // The version is read before the checksum: a newer header may differ.
      {set(8, 2, 0xFFFF, false), E::NewerVersion, "format version 65535"},
      {set(8, 2, 0), E::BadVersion, "version 0"},
      {set(20, 4, header.payloadCrc ^ 1, false), E::HeaderChecksum, "header is damaged"},
      {set(10, 2, 1), E::BadFlags, "flags"},
      {set(15, 1, 1), E::BadFlags, "flags"},  // reserved
      {set(12, 1, 2), E::UnknownCompression, "compression method 2"},
      {set(16, 4, 0), E::BadDigestCount, "announces 0 digests"},
      {set(16, 4, kMaxDigests + 1u), E::BadDigestCount, "digests"},
      {set(24, 8, kMaxPayloadSize + 1), E::BadPayloadSize, "impossible payload size"},
      {set(24, 8, packed * 1032 + 2048), E::BadPayloadSize, "impossible payload size"},
      {set(32, 8, ~std::uint64_t{0}), E::BadPayloadSize, "impossible compressed size"},
      {set(24, 8, header.payloadSize + 1), E::PayloadLength, "does not inflate to the announced"},
      {[](Bytes& b) { b.pop_back(); }, E::Truncated, "truncated"},
      {[](Bytes& b) { b.push_back(std::byte{0}); }, E::TrailingData, "1 unexpected bytes"},
      {[](Bytes& b) { b[kHeaderSize + 5] ^= std::byte{1}; }, E::PayloadChecksum, "payload is"},
      {[](Bytes& b) {  // zlib stream cut short, both checksums right
         b.resize(kHeaderSize + (b.size() - kHeaderSize) / 2);
         storeLE(b, 32, b.size() - kHeaderSize, 8);
         reseal(b, true);
       },
       E::BadCompressedData, "compressed payload is damaged"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    Bytes f = good;
    cases[i].edit(f);
    expectRefused(f, cases[i].code, cases[i].reason);
  }
  for (std::size_t i = 0; i < 8; ++i) {  // every magic byte, read before anything else
    Bytes f = good;
    f[i] ^= std::byte{0x20};
    expectRefused(f, E::BadMagic, "wrong magic");
  }
}

// A record labelled "" of the class, announcing `properties`, followed by
// those of a one-centroid digest with the class numbers written by hand.
PayloadWriter record(std::size_t properties, const char* cls = "TDigest", bool dataPoints = true) {
  const std::uint64_t summary[4] = {std::bit_cast<std::uint64_t>(5.0), 3, 0, 3};
  PayloadWriter w;
  w.text("").text(cls).u16(properties);
  w.property("AVLTreeSummary", 14, {4, 1}, {summary, summary + 4});
  w.property("Delta", 6, {1, 1}, {std::bit_cast<std::uint64_t>(100.0)});
  w.property("NumCentroids", 15, {1, 1}, {1});
  if (dataPoints) w.property("NumDataPoints", 15, {1, 1}, {3});
  return w;
}

// A record of one property alone.
Bytes alone(const char* name, int classId, const std::vector<std::uint64_t>& dims,
            const std::vector<std::uint64_t>& words = {}) {
  return PayloadWriter().text("").text("TDigest").u16(1).property(name, classId, dims, words).bytes;
}

TEST(DigestFile, payload_layout_matches_an_independent_writer) {
  const Bytes written = record(4).bytes;
  std::vector<StoredDigest> digests;
  digests.push_back(StoredDigest{"", savedDigest({{5.0, 3, 0, 3}})});
  EXPECT_EQ(encodePayload(digests), written);
  EXPECT_EQ(encodePayload(decodeDigestFile(packDigestFile(written, 1)).digests), written);
}

TEST(DigestFileDamage, each_malformed_record_is_refused_for_its_own_reason) {
  using E = FileError;
  const Bytes valid = record(4).bytes;
  expectRefused(packDigestFile(valid, 2), E::BadRecord,
                "digest 1): the payload ends inside a label");
  const struct {
    Bytes payload;
    FileError code;
    const char* reason;
  } cases[] = {
      {{valid.begin(), valid.end() - 3}, E::BadRecord, "'NumDataPoints' claims more elements"},
      {record(4).le(0, 1).bytes, E::TrailingPayload, "1 bytes after its last digest"},
      {PayloadWriter().u16(kMaxLabelLength + 1).bytes, E::BadRecord, "label is 4097 bytes long"},
      {record(4, "").bytes, E::BadRecord, "class name is empty"},
      {record(kMaxProperties + 1).bytes, E::BadRecord, "65 properties"},
      {alone("", 6, {1, 1}, {0}), E::BadRecord, "empty name"},
      {alone("Delta", 7, {1, 1}, {0}), E::BadRecord, "class number 7"},
      {alone("Delta", 6, {1}, {0}), E::BadRecord, "has 1 dimensions"},
      {alone("Delta", 6, {1, 1, 1, 1, 1, 1, 1, 1, 2}), E::BadRecord, "has 9 dimensions"},
      {alone("Delta", 6, {1, 2, 1}, {0, 0}), E::BadRecord, "trailing singleton"},
      {alone("Delta", 6, {1u << 31, 1u << 31}), E::BadRecord, "more elements than the payload"},
      {alone("Delta", 6, {~std::uint64_t{0}, 0, 2}), E::BadRecord,
       "more elements than the payload"},
      {record(3, "TDigest", false).bytes, E::InvalidDigest, "lacks one of"},
      {record(4, "Histogram").bytes, E::InvalidDigest, "class 'Histogram'"},
      {record(5).property("Colour", 6, {1, 1}, {0}).bytes, E::InvalidDigest, "property 'Colour'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    expectRefused(packDigestFile(c.payload, 1), c.code, c.reason);
  }
}

// --- the stored TDigest state ----------------------------------------------

TEST(SavedDigestCheck, accepts_trees_the_module_could_write) {
  EXPECT_EQ(checkSavedDigest(savedDigest({})), "");
  for (int h = 0; h <= 6; ++h) {
    EXPECT_EQ(checkSavedDigest(savedDigest(tree(h))), "") << h;
    EXPECT_EQ(checkSavedDigest(savedDigest(tree(h, true))), "") << h;
  }
  // Equal neighbouring means, infinite means, a NaN mean, Delta +Inf, and
  // a NumDataPoints apart from the tree's weight are all allowed.
  std::vector<Slot> t = tree(1);
  t[1].mean = 2.0;
  t[2].mean = INFINITY;
  EXPECT_EQ(checkSavedDigest(savedDigest(t)), "");
  t[1].mean = NAN;
  quorix::SavedObject s = savedDigest(t, INFINITY);
  s.properties[3].value = HostArray::createUInt64Scalar(12345);
  EXPECT_EQ(checkSavedDigest(s), "");
}

TEST(SavedDigestCheck, each_broken_tree_rule_gives_its_own_reason) {
  const struct {
    std::function<void(std::vector<Slot>&)> damage;
    const char* reason;
  } cases[] = {
      {[](auto& s) { s.pop_back(); }, "not a whole number of tree levels"},
      {[](auto& s) { s.assign(1, Slot{}); }, "no root centroid"},
      {[](auto& s) {
         s[14] = Slot{0.0, 0, 3, 0};
       },
       "empty slot 14 of the summary holds non-zero"},
      {[](auto& s) { s[1] = Slot{}; }, "centroid below the empty slot 1"},
      {[](auto& s) { s[2].height = 1; }, "height stored in slot 2 of the summary is wrong"},
      {[](auto& s) { s[4].subtree += 1; },
       "subtree weight stored in slot 4 of the summary is wrong"},
      {[](auto& s) { s[13].count = s[13].subtree = ~std::uint64_t{0}; }, "overflows"},
      {[](auto& s) {
         // The root's right child loses its children: heights 2 and 0.
         for (std::size_t j : {5, 6, 11, 12, 13, 14}) s[j] = Slot{};
         s[2].height = 0;
         s[2].subtree = s[2].count;
       },
       "not balanced at slot"},
      {[](auto& s) { (s = tree(2)).resize(15); }, "root height does not match"},
      {[](auto& s) { std::swap(s[7].mean, s[8].mean); }, "not in ascending order"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    std::vector<Slot> slots = tree(3);  // 15 slots, in-order means 1..15
    c.damage(slots);
    EXPECT_PRED2(contains, checkSavedDigest(savedDigest(slots)), c.reason);
  }
}

// The reason given for a two-level tree with property i replaced.
std::string withProperty(std::size_t i, quorix::HostArrayPtr value) {
  quorix::SavedObject s = savedDigest(tree(1));
  s.properties[i].value = std::move(value);
  return checkSavedDigest(s);
}

TEST(SavedDigestCheck, each_broken_property_rule_gives_its_own_reason) {
  const auto matrix = [](std::size_t m, std::size_t n, ClassID id) {
    return HostArray::createNumericMatrix(m, n, id);
  };
  const std::pair<std::string, const char*> cases[] = {
      {withProperty(1, HostArray::createDoubleScalar(0.0)), "Delta is not greater than 0"},
      {withProperty(1, HostArray::createDoubleScalar(NAN)), "Delta is not greater than 0"},
      {withProperty(1, matrix(1, 2, ClassID::Double)), "Delta is not a real double scalar"},
      {withProperty(2, HostArray::createUInt64Scalar(2)),
       "NumCentroids is 2 but the summary holds 3"},
      {withProperty(3, HostArray::createDoubleScalar(3)), "must be real uint64 scalars"},
      {withProperty(0, matrix(3, 3, ClassID::Int64)), "not a real int64 matrix with 4 rows"},
      {withProperty(0, matrix(4, 0, ClassID::Int64)), "NumCentroids does not match the summary"},
  };
  for (const auto& [why, reason] : cases) EXPECT_PRED2(contains, why, reason);
  quorix::SavedObject twice = savedDigest(tree(1));
  twice.properties.push_back({"Delta", HostArray::createDoubleScalar(1)});
  EXPECT_PRED2(contains, checkSavedDigest(twice), "has property 'Delta' twice");
}

}  // namespace
}  // namespace zotdigest::engine
