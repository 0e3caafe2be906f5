// The ZIS header and entry codec: the version 8 layout byte for byte, the
// CRC, the generation's wrap, and every older version still readable.
#include <gtest/gtest.h>

#include <vector>

#include "util/Crc.h"
#include "util/Endian.h"
#include "zone/ZISFormat.h"

namespace {

ZISHeader sampleHeader() {
    ZISHeader h;
    h.generation = 0x01020304;
    h.flags = ZISHeader::kUseSelfMirroring | ZISHeader::kUseDualRedundancy;
    h.disk[0] = 3, h.disk[1] = 5, h.disk[2] = 7;
    h.region[0] = 0x111, h.region[1] = 0x222, h.region[2] = 0x333;
    h.entryCount = 42;
    h.zoneSize = 24 * 0x2AA8000u;
    return h;
}

ZoneTableEntry sampleEntry(unsigned slots) {
    ZoneTableEntry e = ZoneTableEntry::Fresh();
    e.zoneNumber = 77;
    e.redundancyType = uint32_t(RedundancyType::HStripe5);
    e.flags = ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
    for (unsigned s = 0; s < slots; ++s) e.disk[s] = uint16_t(s % 5), e.region[s] = 1000 + s;
    return e;
}

TEST(ZISHeaderCodec, Version8FieldsStandWhereTheFormatPutsThem) {
    std::vector<uint8_t> b(ZISHeader::kBlockSize, 0xEE);
    ZISFormat::EncodeHeader(sampleHeader(), b.data());
    EXPECT_EQ(getLE32(&b[0x00]), 0x5461626Cu);
    EXPECT_EQ(getLE32(&b[0x04]), 0x5A6F6E65u);
    EXPECT_EQ(getLE32(&b[0x0C]), 0x38u);
    EXPECT_EQ(getLE32(&b[0x10]), 8u);
    EXPECT_EQ(getLE32(&b[0x14]), 0x01020304u);
    EXPECT_EQ(getLE16(&b[0x18]), 0xC000u);
    EXPECT_EQ(getLE16(&b[0x1A]), 3u);
    EXPECT_EQ(getLE16(&b[0x1C]), 5u);
    EXPECT_EQ(getLE16(&b[0x1E]), 7u);
    EXPECT_EQ(getLE32(&b[0x20]), 0x111u);
    EXPECT_EQ(getLE32(&b[0x24]), 0x222u);
    EXPECT_EQ(getLE32(&b[0x28]), 0x333u);
    EXPECT_EQ(getLE32(&b[0x2C]), 0x1000u);
    EXPECT_EQ(getLE32(&b[0x30]), 42u);
    EXPECT_EQ(getLE32(&b[0x34]), 24 * 0x2AA8000u);
    for (size_t i = 0x38; i < b.size(); ++i) ASSERT_EQ(b[i], 0) << "byte " << i;
    // CRC over the header length with the field zero.
    std::vector<uint8_t> c(b.begin(), b.begin() + 0x38);
    putLE32(&c[8], 0);
    EXPECT_EQ(getLE32(&b[0x08]), GetCRC(c.data(), c.size()));

    ZISHeader back;
    ASSERT_EQ(ZISFormat::DecodeHeader(b.data(), back), StatusCode::Success);
    EXPECT_EQ(back, sampleHeader());
}

TEST(ZISHeaderCodec, ACorruptHeaderOrSignatureIsRefused) {
    std::vector<uint8_t> b(ZISHeader::kBlockSize);
    ZISFormat::EncodeHeader(sampleHeader(), b.data());
    ZISHeader h;
    b[0x30] ^= 1;  // the count, under the CRC
    EXPECT_FALSE(ZISFormat::ValidateZIS(b.data()));
    EXPECT_EQ(ZISFormat::DecodeHeader(b.data(), h), StatusCode::BadMetadata);
    // No CRC stored: no check.
    putLE32(&b[8], 0);
    EXPECT_TRUE(ZISFormat::ValidateZIS(b.data()));
    b[4] ^= 1;
    EXPECT_FALSE(ZISFormat::ValidateZIS(b.data()));
}

TEST(ZISHeaderCodec, UnknownVersionsAreBadMetadata) {
    for (uint32_t v : {0u, 1u, 9u, 100u}) {
        std::vector<uint8_t> b(ZISHeader::kBlockSize);
        ZISFormat::EncodeHeader(sampleHeader(), b.data());
        putLE32(&b[0x10], v);
        putLE32(&b[0x08], 0);
        ZISHeader h;
        EXPECT_EQ(ZISFormat::DecodeHeader(b.data(), h), StatusCode::BadMetadata) << v;
    }
}

TEST(ZISHeaderCodec, OldHeadersReadByVersion) {
    for (uint32_t v = 2; v <= 7; ++v) {
        ZISHeader h = sampleHeader();
        h.version = v;
        std::vector<uint8_t> b(ZISHeader::kBlockSize);
        ZISFormat::EncodeOldHeader(h, b.data());
        ZISHeader back;
        ASSERT_EQ(ZISFormat::DecodeHeader(b.data(), back), StatusCode::Success) << v;
        EXPECT_EQ(back.version, v);
        EXPECT_EQ(back.disk[0], 3u);
        EXPECT_EQ(back.disk[1], 5u);
        EXPECT_EQ(back.region[0], 0x111u);
        EXPECT_EQ(back.region[1], 0x222u);
        EXPECT_EQ(back.entryCount, 42u);
        EXPECT_EQ(back.zoneSize, h.zoneSize);
        EXPECT_EQ(back.tableOffset, 0x1000u);
        EXPECT_EQ(back.flags, ZISHeader::kUseSelfMirroring) << "the dual bit means nothing before version 8";
        EXPECT_EQ(back.generation, v <= 4 ? 1u : 0x01020304u) << v;
        EXPECT_EQ(back.hasTertiary, v == 7) << v;
        if (v == 7) {
            EXPECT_EQ(back.region[2], 0x333u);
        }
    }
    // Fixed positions of a version 4 header, written by hand.
    std::vector<uint8_t> b(ZISHeader::kBlockSize, 0);
    putLE32(&b[0], 0x5461626C), putLE32(&b[4], 0x5A6F6E65), putLE32(&b[0xC], 0x30), putLE32(&b[0x10], 4);
    putLE16(&b[0x16], 2), putLE16(&b[0x18], 6), putLE32(&b[0x1C], 9), putLE32(&b[0x20], 10);
    putLE32(&b[0x24], 0x1000), putLE32(&b[0x28], 3), putLE32(&b[0x2C], 0x12345000);
    ZISHeader h;
    ASSERT_EQ(ZISFormat::DecodeHeader(b.data(), h), StatusCode::Success);
    EXPECT_EQ(h.disk[1], 6u);
    EXPECT_EQ(h.region[1], 10u);
    EXPECT_EQ(h.entryCount, 3u);
    EXPECT_EQ(h.zoneSize, 0x12345000u);
}

TEST(ZISGeneration, WrapsPastZeroAndIsComparedSigned) {
    EXPECT_EQ(ZISFormat::NextGeneration(0xFFFFFFFFu), 1u);
    EXPECT_EQ(ZISFormat::NextGeneration(5), 6u);
    EXPECT_TRUE(ZISFormat::GenerationNewer(1, 0xFFFFFFFFu));
    EXPECT_FALSE(ZISFormat::GenerationNewer(0xFFFFFFFFu, 1));
    EXPECT_TRUE(ZISFormat::GenerationNewer(7, 6));
    EXPECT_FALSE(ZISFormat::GenerationNewer(6, 6));
}

TEST(ZISEntryCodec, CurrentEntriesRoundTripByteExact) {
    ZoneTableEntry e = sampleEntry(72);
    e.lastWrittenTimestamp = 99;
    uint8_t raw[0x1C0];
    ZISFormat::EncodeEntry(e, raw);
    EXPECT_EQ(getLE32(raw + 0x004), uint32_t(RedundancyType::HStripe5));
    EXPECT_EQ(getLE16(raw + 0x008 + 2 * 71), 71u % 5);
    EXPECT_EQ(getLE32(raw + 0x098 + 4 * 71), 1071u);
    EXPECT_EQ(getLE32(raw + 0x1B8), e.flags);
    ZoneTableEntry back;
    ZISFormat::DecodeEntry(8, raw, back);
    EXPECT_TRUE(back.Matches(e));
    EXPECT_EQ(back.lastWrittenTimestamp, 99u);
}

TEST(ZISEntryCodec, OldEntriesKeepTheirFortyEightSlotsAndFlags) {
    const uint32_t allFlags = ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata | ZoneTableEntry::kInUse |
                              ZoneTableEntry::kPreinitialized | ZoneTableEntry::kInitComplete;
    for (uint32_t v : {2u, 5u, 6u}) {
        ZoneTableEntry e = sampleEntry(48);
        e.flags = allFlags;
        std::vector<uint8_t> raw(ZISFormat::EntrySize(v));
        ASSERT_EQ(raw.size(), 0x134u);
        ZISFormat::EncodeOldEntry(v, e, raw.data());
        ZoneTableEntry back;
        ZISFormat::DecodeEntry(v, raw.data(), back);
        EXPECT_TRUE(back.Matches(e)) << "version " << v;
        EXPECT_EQ(back.region[48], 0u) << "slots past 48 are empty";
    }
    // Below version 6 the flags are scattered bits: check the positions.
    std::vector<uint8_t> raw(0x134, 0);
    putLE32(&raw[4], 0x80000005);  // top bit: MirrorOnly and Metadata
    raw[8] = 1, raw[0x131] = 1;
    putLE32(&raw[0x0C], 2);
    putLE16(&raw[0x10 + 2], 4), putLE32(&raw[0x70 + 4], 55);
    ZoneTableEntry back;
    ZISFormat::DecodeEntry(5, raw.data(), back);
    EXPECT_EQ(back.zoneNumber, 5u);
    EXPECT_EQ(back.flags, ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata | ZoneTableEntry::kInUse |
                              ZoneTableEntry::kInitComplete);
    EXPECT_EQ(back.type(), RedundancyType::Mirrored);
    EXPECT_EQ(back.disk[1], 4u);
    EXPECT_EQ(back.region[1], 55u);
}

}  // namespace
