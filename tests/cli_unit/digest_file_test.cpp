// The digest file format: round trips, the header layout, and corruption
// tests that change one field at a time and expect one specific refusal.
#include "cli/digest_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "cli_unit/digest_fixtures.h"

namespace zotdigest::cli {
namespace {

using testing::PayloadWriter;
using testing::perfectTree;
using testing::savedDigest;
using testing::Slot;
using testing::sparseTree;
using Bytes = std::vector<std::byte>;

std::uint64_t loadLE(const Bytes& b, std::size_t offset, int width) {
  std::uint64_t v = 0;
  for (int i = 0; i < width; ++i) {
    v |= std::uint64_t{std::to_integer<std::uint8_t>(b[offset + static_cast<std::size_t>(i)])}
         << (8 * i);
  }
  return v;
}

void storeLE(Bytes& b, std::size_t offset, std::uint64_t v, int width) {
  for (int i = 0; i < width; ++i) {
    b[offset + static_cast<std::size_t>(i)] = static_cast<std::byte>(v >> (8 * i));
  }
}

// Recomputes the header checksum after a deliberate change of a field.
void resealHeader(Bytes& b) { storeLE(b, 40, crc32Of(std::span(b).first(40)), 4); }

// Recomputes both checksums after a change of the compressed payload.
void resealAll(Bytes& b) {
  storeLE(b, 20, crc32Of(std::span(b).subspan(kHeaderSize)), 4);
  resealHeader(b);
}

StoredDigest stored(std::string label, quorix::SavedObject saved) {
  return StoredDigest{std::move(label), std::move(saved)};
}

std::vector<StoredDigest> one(const std::vector<Slot>& slots, std::string label = "x") {
  std::vector<StoredDigest> v;
  v.push_back(stored(std::move(label), savedDigest(slots)));
  return v;
}

Bytes goodFile() { return encodeDigestFile(one(perfectTree(3))); }

FileError refusal(const Bytes& b) {
  try {
    decodeDigestFile(b);
  } catch (const DigestFileError& e) {
    return e.code();
  }
  ADD_FAILURE() << "the file was accepted";
  return FileError::TooShort;
}

std::string refusalText(const Bytes& b) {
  try {
    decodeDigestFile(b);
  } catch (const DigestFileError& e) {
    return e.what();
  }
  return "accepted";
}

void expectSameDigests(const std::vector<StoredDigest>& a, const std::vector<StoredDigest>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(a[i].label, b[i].label);
    EXPECT_EQ(a[i].saved.className, b[i].saved.className);
    ASSERT_EQ(a[i].saved.properties.size(), b[i].saved.properties.size());
    for (std::size_t k = 0; k < a[i].saved.properties.size(); ++k) {
      const auto& x = a[i].saved.properties[k];
      const auto& y = b[i].saved.properties[k];
      EXPECT_EQ(x.name, y.name);
      EXPECT_EQ(x.value->classID(), y.value->classID());
      EXPECT_EQ(x.value->dims(), y.value->dims());
      EXPECT_EQ(0, std::memcmp(x.value->realData(), y.value->realData(), 8 * x.value->numel()))
          << x.name;
    }
  }
}

// --- round trips -------------------------------------------------------------

struct TreeCase {
  const char* name;
  std::vector<Slot> slots;
  friend void PrintTo(const TreeCase& c, std::ostream* os) { *os << c.name; }
};

class DigestFileRoundTrip : public ::testing::TestWithParam<TreeCase> {};

TEST_P(DigestFileRoundTrip, keeps_every_bit_of_every_property) {
  const auto digests = one(GetParam().slots, GetParam().name);
  const Bytes file = encodeDigestFile(digests);
  const DigestFile back = decodeDigestFile(file);
  expectSameDigests(digests, back.digests);
  EXPECT_EQ(back.header.version, kFormatVersion);
  EXPECT_EQ(back.header.digestCount, 1u);
  EXPECT_EQ(back.header.compressedSize + kHeaderSize, file.size());
  EXPECT_EQ(back.header.payloadSize, encodePayload(digests).size());
}

const double kNaNWithPayload = std::bit_cast<double>(std::uint64_t{0x7FF8000000000123});

INSTANTIATE_TEST_SUITE_P(
    Trees, DigestFileRoundTrip,
    ::testing::Values(TreeCase{"empty", {}}, TreeCase{"one", {{5.0, 3, 0, 3}}},
                      TreeCase{"negative_zero", {{-0.0, 1, 0, 1}}},
                      TreeCase{"nan_payload", {{kNaNWithPayload, 2, 0, 2}}},
                      TreeCase{"infinities",
                               {{1.0, 1, 1, 3}, {-INFINITY, 1, 0, 1}, {INFINITY, 1, 0, 1}}},
                      TreeCase{"two_with_empty_slot", {{2.0, 1, 1, 3}, {1.0, 2, 0, 2}, {}}},
                      TreeCase{"perfect_height_5", perfectTree(5)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DigestFile, several_digests_keep_their_order_and_labels) {
  std::vector<StoredDigest> digests;
  digests.push_back(stored("", savedDigest({})));
  digests.push_back(stored("col1", savedDigest(perfectTree(2), 30.0)));
  digests.push_back(stored(std::string(kMaxLabelLength, 'L'), savedDigest(perfectTree(0), 7.5)));
  const DigestFile back = decodeDigestFile(encodeDigestFile(digests));
  EXPECT_EQ(back.header.digestCount, 3u);
  expectSameDigests(digests, back.digests);
}

TEST(DigestFile, header_fields_are_little_endian_at_fixed_offsets) {
  const auto digests = one(perfectTree(4));
  const Bytes f = encodeDigestFile(digests);
  const unsigned char magic[8] = {0x89, 'Z', 'D', 'G', '\r', '\n', 0x1A, '\n'};
  EXPECT_EQ(0, std::memcmp(f.data(), magic, 8));
  EXPECT_EQ(loadLE(f, 8, 2), 1u);   // version
  EXPECT_EQ(loadLE(f, 10, 2), 0u);  // flags
  EXPECT_EQ(loadLE(f, 12, 1), 1u);  // zlib
  EXPECT_EQ(loadLE(f, 13, 3), 0u);  // reserved
  EXPECT_EQ(loadLE(f, 16, 4), 1u);  // digest count
  EXPECT_EQ(loadLE(f, 20, 4), crc32Of(std::span(f).subspan(kHeaderSize)));
  EXPECT_EQ(loadLE(f, 24, 8), encodePayload(digests).size());
  EXPECT_EQ(loadLE(f, 32, 8), f.size() - kHeaderSize);
  EXPECT_EQ(loadLE(f, 40, 4), crc32Of(std::span(f).first(40)));
}

TEST(DigestFile, payload_layout_matches_an_independent_writer) {
  const quorix::SavedObject saved = savedDigest(perfectTree(2), 42.0);
  PayloadWriter w;
  w.record("lbl", saved);
  std::vector<StoredDigest> digests;
  digests.push_back(stored("lbl", savedDigest(perfectTree(2), 42.0)));
  EXPECT_EQ(encodePayload(digests), w.bytes);
  // and what the independent writer writes decodes
  const DigestFile back = decodeDigestFile(packDigestFile(w.bytes, 1));
  expectSameDigests(digests, back.digests);
}

TEST(DigestFile, compresses_the_empty_deep_levels) {
  // The sparsest AVL tree of height 11 fills 232 of 4095 slots: mostly
  // zero columns, like a real digest's summary.
  const std::vector<Slot> slots = sparseTree(11);
  const Bytes file = encodeDigestFile(one(slots));
  EXPECT_LT(file.size() * 4, encodePayload(one(slots)).size());
}

TEST(DigestFile, refuses_to_write_what_it_would_not_read) {
  std::vector<Slot> slots = perfectTree(2);
  slots[1].height = 5;
  EXPECT_THROW(encodeDigestFile(one(slots)), InputError);
  std::vector<StoredDigest> none;
  EXPECT_THROW(encodeDigestFile(none), InputError);
  auto bad = one(perfectTree(1));
  bad[0].saved.properties[1].value =
      quorix::HostArray::createNumericMatrix(1, 1, quorix::ClassID::Single);
  EXPECT_THROW(encodeDigestFile(bad), InputError);
}

// --- header damage, one field at a time ------------------------------------

struct HeaderCase {
  const char* name;
  std::function<void(Bytes&)> damage;
  FileError expected;
  const char* text;
  friend void PrintTo(const HeaderCase& c, std::ostream* os) { *os << c.name; }
};

class DigestFileHeaderDamage : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(DigestFileHeaderDamage, is_refused_with_one_specific_error) {
  Bytes f = goodFile();
  GetParam().damage(f);
  EXPECT_EQ(refusal(f), GetParam().expected);
  EXPECT_NE(refusalText(f).find(GetParam().text), std::string::npos) << refusalText(f);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, DigestFileHeaderDamage,
    ::testing::Values(
        HeaderCase{"empty", [](Bytes& b) { b.clear(); }, FileError::TooShort, "shorter than"},
        HeaderCase{"header_cut", [](Bytes& b) { b.resize(kHeaderSize - 1); }, FileError::TooShort,
                   "shorter than"},
        HeaderCase{"magic_first", [](Bytes& b) { b[0] = std::byte{0x88}; }, FileError::BadMagic,
                   "wrong magic"},
        HeaderCase{"magic_last", [](Bytes& b) { b[7] = std::byte{'\r'}; }, FileError::BadMagic,
                   "wrong magic"},
        HeaderCase{"version_newer", [](Bytes& b) { storeLE(b, 8, 2, 2); }, FileError::NewerVersion,
                   "newer"},
        HeaderCase{"version_newer_resealed",
                   [](Bytes& b) {
                     storeLE(b, 8, 0xFFFF, 2);
                     resealHeader(b);
                   },
                   FileError::NewerVersion, "format version 65535"},
        HeaderCase{"version_zero",
                   [](Bytes& b) {
                     storeLE(b, 8, 0, 2);
                     resealHeader(b);
                   },
                   FileError::BadVersion, "version 0"},
        HeaderCase{"flags_unsealed", [](Bytes& b) { storeLE(b, 10, 1, 2); },
                   FileError::HeaderChecksum, "header is damaged"},
        HeaderCase{"header_crc", [](Bytes& b) { b[41] ^= std::byte{0x10}; },
                   FileError::HeaderChecksum, "header is damaged"},
        HeaderCase{"flags",
                   [](Bytes& b) {
                     storeLE(b, 10, 1, 2);
                     resealHeader(b);
                   },
                   FileError::BadFlags, "flags"},
        HeaderCase{"reserved",
                   [](Bytes& b) {
                     storeLE(b, 15, 1, 1);
                     resealHeader(b);
                   },
                   FileError::BadFlags, "flags"},
        HeaderCase{"compression",
                   [](Bytes& b) {
                     storeLE(b, 12, 2, 1);
                     resealHeader(b);
                   },
                   FileError::UnknownCompression, "compression method 2"},
        HeaderCase{"digest_count_zero",
                   [](Bytes& b) {
                     storeLE(b, 16, 0, 4);
                     resealHeader(b);
                   },
                   FileError::BadDigestCount, "announces 0 digests"},
        HeaderCase{"digest_count_huge",
                   [](Bytes& b) {
                     storeLE(b, 16, kMaxDigests + 1u, 4);
                     resealHeader(b);
                   },
                   FileError::BadDigestCount, "digests"},
        HeaderCase{"payload_size_over_limit",
                   [](Bytes& b) {
                     storeLE(b, 24, kMaxPayloadSize + 1, 8);
                     resealHeader(b);
                   },
                   FileError::BadPayloadSize, "impossible payload size"},
        HeaderCase{"payload_size_beyond_inflation_ratio",
                   [](Bytes& b) {
                     storeLE(b, 24, (b.size() - kHeaderSize) * 1032 + 2048, 8);
                     resealHeader(b);
                   },
                   FileError::BadPayloadSize, "impossible payload size"},
        HeaderCase{"compressed_size_absurd",
                   [](Bytes& b) {
                     storeLE(b, 32, ~std::uint64_t{0}, 8);
                     resealHeader(b);
                   },
                   FileError::BadPayloadSize, "impossible compressed size"},
        HeaderCase{"compressed_size_larger",
                   [](Bytes& b) {
                     storeLE(b, 32, b.size() - kHeaderSize + 1, 8);
                     resealHeader(b);
                   },
                   FileError::Truncated, "truncated"},
        HeaderCase{"file_cut", [](Bytes& b) { b.pop_back(); }, FileError::Truncated, "truncated"},
        HeaderCase{"header_only", [](Bytes& b) { b.resize(kHeaderSize); }, FileError::Truncated,
                   "0 of"},
        HeaderCase{"byte_appended", [](Bytes& b) { b.push_back(std::byte{0}); },
                   FileError::TrailingData, "1 unexpected bytes"},
        HeaderCase{"payload_flip", [](Bytes& b) { b[kHeaderSize + 5] ^= std::byte{1}; },
                   FileError::PayloadChecksum, "payload is damaged"},
        HeaderCase{"payload_crc", [](Bytes& b) { b[22] ^= std::byte{1}; },
                   FileError::HeaderChecksum, "header is damaged"},
        HeaderCase{"payload_crc_resealed",
                   [](Bytes& b) {
                     b[22] ^= std::byte{1};
                     resealHeader(b);
                   },
                   FileError::PayloadChecksum, "payload is damaged"},
        HeaderCase{"not_zlib",
                   [](Bytes& b) {
                     for (std::size_t i = kHeaderSize; i < b.size(); ++i) {
                       b[i] = std::byte{0xAB};
                     }
                     resealAll(b);
                   },
                   FileError::BadCompressedData, "compressed payload is damaged"},
        HeaderCase{"zlib_cut",
                   [](Bytes& b) {
                     b.resize(kHeaderSize + (b.size() - kHeaderSize) / 2);
                     storeLE(b, 32, b.size() - kHeaderSize, 8);
                     resealAll(b);
                   },
                   FileError::BadCompressedData, "compressed payload is damaged"},
        HeaderCase{"payload_size_one_more",
                   [](Bytes& b) {
                     storeLE(b, 24, loadLE(b, 24, 8) + 1, 8);
                     resealHeader(b);
                   },
                   FileError::PayloadLength, "does not inflate to the announced"},
        HeaderCase{"payload_size_one_less",
                   [](Bytes& b) {
                     storeLE(b, 24, loadLE(b, 24, 8) - 1, 8);
                     resealHeader(b);
                   },
                   FileError::PayloadLength, "does not inflate to the announced"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DigestFileHeaderDamage, every_single_byte_change_is_refused) {
  const Bytes good = goodFile();
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (const int bit : {0, 7}) {
      Bytes f = good;
      f[i] ^= std::byte{static_cast<unsigned char>(1u << bit)};
      EXPECT_THROW(decodeDigestFile(f), DigestFileError) << "byte " << i << " bit " << bit;
    }
  }
}

// --- payload records, one field at a time ------------------------------------

struct RecordCase {
  const char* name;
  std::function<Bytes()> payload;
  std::uint32_t count;
  FileError expected;
  const char* text;
  friend void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.name; }
};

class DigestFileRecordDamage : public ::testing::TestWithParam<RecordCase> {};

TEST_P(DigestFileRecordDamage, is_refused_with_one_specific_error) {
  const Bytes f = packDigestFile(GetParam().payload(), GetParam().count);
  EXPECT_EQ(refusal(f), GetParam().expected);
  EXPECT_NE(refusalText(f).find(GetParam().text), std::string::npos) << refusalText(f);
}

// A valid one-centroid record, with `edit` applied to its properties
// before writing.
Bytes recordWith(const std::function<void(PayloadWriter&)>& write) {
  PayloadWriter w;
  write(w);
  return w.bytes;
}

const std::uint64_t kOneSummary[4] = {std::bit_cast<std::uint64_t>(5.0), 3, 0, 3};

void writeDigestProperties(PayloadWriter& w, bool skipLast = false) {
  w.property("AVLTreeSummary", 14, {4, 1}, {kOneSummary, kOneSummary + 4});
  w.property("Delta", 6, {1, 1}, {std::bit_cast<std::uint64_t>(100.0)});
  w.property("NumCentroids", 15, {1, 1}, {1});
  if (!skipLast) {
    w.property("NumDataPoints", 15, {1, 1}, {3});
  }
}

Bytes validRecord() {
  return recordWith([](PayloadWriter& w) {
    w.text("").text("TDigest").u16(4);
    writeDigestProperties(w);
  });
}

INSTANTIATE_TEST_SUITE_P(
    Fields, DigestFileRecordDamage,
    ::testing::Values(
        RecordCase{"more_digests_announced", validRecord, 2, FileError::BadRecord,
                   "digest 1): the payload ends inside a label"},
        RecordCase{"record_cut",
                   [] {
                     Bytes b = validRecord();
                     b.resize(b.size() - 3);
                     return b;
                   },
                   1, FileError::BadRecord,
                   "property 'NumDataPoints' claims more elements than the payload holds"},
        RecordCase{"byte_after_last_record",
                   [] {
                     Bytes b = validRecord();
                     b.push_back(std::byte{0});
                     return b;
                   },
                   1, FileError::TrailingPayload, "1 bytes after its last digest"},
        RecordCase{"label_too_long",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.u16(static_cast<std::uint16_t>(kMaxLabelLength + 1));
                     });
                   },
                   1, FileError::BadRecord, "a label is 4097 bytes long"},
        RecordCase{"empty_class_name",
                   [] { return recordWith([](PayloadWriter& w) { w.text("").text("").u16(0); }); },
                   1, FileError::BadRecord, "class name is empty"},
        RecordCase{"too_many_properties",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(kMaxProperties + 1);
                     });
                   },
                   1, FileError::BadRecord, "65 properties"},
        RecordCase{"empty_property_name",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("", 6, {1, 1}, {0});
                     });
                   },
                   1, FileError::BadRecord, "empty name"},
        RecordCase{"single_class",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("Delta", 7, {1, 1}, {0});
                     });
                   },
                   1, FileError::BadRecord, "class number 7"},
        RecordCase{"one_dimension",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("Delta", 6, {1}, {0});
                     });
                   },
                   1, FileError::BadRecord, "has 1 dimensions"},
        RecordCase{"nine_dimensions",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("Delta", 6,
                                                                  {1, 1, 1, 1, 1, 1, 1, 1, 2}, {});
                     });
                   },
                   1, FileError::BadRecord, "has 9 dimensions"},
        RecordCase{"trailing_singleton",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("Delta", 6, {1, 2, 1}, {0, 0});
                     });
                   },
                   1, FileError::BadRecord, "trailing singleton"},
        RecordCase{
            "dimensions_beyond_payload",
            [] {
              return recordWith([](PayloadWriter& w) {
                w.text("").text("TDigest").u16(1).property("Delta", 6, {1u << 31, 1u << 31}, {});
              });
            },
            1, FileError::BadRecord, "more elements than the payload holds"},
        RecordCase{"dimension_product_overflows",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(1).property("Delta", 6,
                                                                  {~std::uint64_t{0}, 0, 2}, {});
                     });
                   },
                   1, FileError::BadRecord, "more elements than the payload holds"},
        RecordCase{"missing_property",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(3);
                       writeDigestProperties(w, true);
                     });
                   },
                   1, FileError::InvalidDigest, "lacks one of"},
        RecordCase{"foreign_class",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("Histogram").u16(4);
                       writeDigestProperties(w);
                     });
                   },
                   1, FileError::InvalidDigest, "class 'Histogram'"},
        RecordCase{"unknown_property",
                   [] {
                     return recordWith([](PayloadWriter& w) {
                       w.text("").text("TDigest").u16(5);
                       writeDigestProperties(w);
                       w.property("Colour", 6, {1, 1}, {0});
                     });
                   },
                   1, FileError::InvalidDigest, "unknown property 'Colour'"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DigestFileRecordDamage, the_independent_valid_record_is_accepted) {
  const DigestFile f = decodeDigestFile(packDigestFile(validRecord(), 1));
  ASSERT_EQ(f.digests.size(), 1u);
  EXPECT_EQ(f.digests[0].saved.properties.size(), 4u);
}

// --- golden files of format version 1 -----------------------------------------

const std::filesystem::path kData =
    std::filesystem::path(__FILE__).parent_path().parent_path() / "data";

Bytes readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  const std::vector<char> chars((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  Bytes b(chars.size());
  std::memcpy(b.data(), chars.data(), chars.size());
  return b;
}

double storedDelta(const StoredDigest& d) { return *d.saved.properties[1].value->data<double>(); }
std::uint64_t storedPoints(const StoredDigest& d) {
  return *d.saved.properties[3].value->data<std::uint64_t>();
}

struct GoldenCase {
  const char* file;
  std::vector<std::string> labels;
  double delta;
  std::vector<std::uint64_t> dataPoints;
  friend void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.file; }
};

class GoldenV1 : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenV1, decodes_with_its_recorded_contents) {
  const auto path = kData / GetParam().file;
  ASSERT_TRUE(std::filesystem::exists(path)) << path;
  const DigestFile f = decodeDigestFile(readFile(path));
  EXPECT_EQ(f.header.version, 1u);
  ASSERT_EQ(f.digests.size(), GetParam().labels.size());
  for (std::size_t i = 0; i < f.digests.size(); ++i) {
    EXPECT_EQ(f.digests[i].label, GetParam().labels[i]);
    EXPECT_EQ(f.digests[i].saved.className, "TDigest");
    EXPECT_EQ(storedDelta(f.digests[i]), GetParam().delta);
    EXPECT_EQ(storedPoints(f.digests[i]), GetParam().dataPoints[i]);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, GoldenV1,
    ::testing::Values(
        GoldenCase{"golden_v1_single.zd", {"single"}, 20.0, {20000}},
        GoldenCase{"golden_v1_columns.zd", {"col0", "col1", "col2"}, 30.0, {5000, 5000, 5000}},
        GoldenCase{"golden_v1_empty.zd", {""}, 100.0, {0}},
        GoldenCase{"golden_v1_one.zd", {"one"}, 100.0, {1}},
        GoldenCase{"golden_v1_merged.zd", {"merged"}, 20.0, {23000}}),
    [](const auto& info) {
      std::string name = info.param.file;
      return name.substr(10, name.size() - 13);
    });

}  // namespace
}  // namespace zotdigest::cli
