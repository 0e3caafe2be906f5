// The map's on-disk formats, checked against the byte layouts of the CAT
// entry, the CAT sector and the "CATLooku" area, written out by hand here
// (not through the accessors under test).
#include <gtest/gtest.h>

#include <cstring>

#include "cat/catlookuptable/CATEntry.h"
#include "cat/catlookuptable/CLTImage.h"
#include "util/Crc.h"

TEST(CATEntryFormat, ZoneAndClusterArePackedLittleEndianAcrossTheFirstFourBytes) {
    CATEntry e;
    e.setLocation(0x3ABC, 0x2F00D);
    // zone = byte0 + (byte1 & 0x3F) x 256; cluster = (byte1 >> 6) + byte2 x 4 + byte3 x 1024.
    EXPECT_EQ(e.b[0], 0xBC);
    EXPECT_EQ(e.b[1] & 0x3F, 0x3A);
    EXPECT_EQ((e.b[1] >> 6) + e.b[2] * 4u + e.b[3] * 1024u, 0x2F00Du);
    EXPECT_EQ(e.zone(), 0x3ABCu);
    EXPECT_EQ(e.cluster(), 0x2F00Du);
    EXPECT_TRUE(e.allocated());
    // The largest values use every bit and no more.
    e.setLocation((1u << 14) - 1, (1u << 18) - 1);
    EXPECT_EQ(e.b[0], 0xFF);
    EXPECT_EQ(e.b[1], 0xFF);
    EXPECT_EQ(e.b[2], 0xFF);
    EXPECT_EQ(e.b[3], 0xFF);
    EXPECT_EQ(e.b[4], 0);
}

TEST(CATEntryFormat, StateTickAndTimestampTakeBytesFourToSixAndOnlyCodesOneAndFourAreValid) {
    CATEntry e;
    e.map(7, 9, 0x33, 0x44);
    EXPECT_EQ(e.b[4], CATEntry::kMapped);
    EXPECT_EQ(e.b[5], 0x44);
    EXPECT_EQ(e.b[6], 0x33);
    EXPECT_TRUE(e.validState());
    for (uint8_t code : {0, 2, 3, 5, 0xFF}) {
        e.setState(code, 0);
        EXPECT_FALSE(e.validState()) << int(code);
    }
    e.setState(CATEntry::kDefragMoved, 0);
    EXPECT_TRUE(e.validState());
    e.clear(CATEntry::kReclaimed, 0x55);
    EXPECT_FALSE(e.allocated());
    EXPECT_EQ(e.b[4], 3);
    EXPECT_EQ(e.b[5], 0x55);
}

TEST(CATEntryFormat, ContiguityNeedsTheSameZoneAndTheNextCluster) {
    CATEntry a, b;
    a.map(5, 100, 0, 0);
    b.map(5, 101, 0, 0);
    EXPECT_TRUE(a.IsContiguous(b));
    EXPECT_FALSE(b.IsContiguous(a));
    b.map(6, 101, 0, 0);
    EXPECT_FALSE(a.IsContiguous(b));
    // Across a byte boundary of the packed cluster field.
    a.map(5, 0x3FF, 0, 0);
    b.map(5, 0x400, 0, 0);
    EXPECT_TRUE(a.IsContiguous(b));
}

TEST(CLTGeometry, TheDefaultPackGivesTwentyNineCatZonesForSixteenTebibytes) {
    const uint64_t region = 0x2AA8000, zone = 24 * region;
    const CLTGeometry g = CLTGeometry::compute(region, zone);
    EXPECT_EQ(g.sectorsPerCatZone, zone / 512);
    EXPECT_EQ(g.entriesPerCatZone, 73ull * (zone / 512));
    EXPECT_EQ(g.chunksPerZone, 0xF00u);
    EXPECT_EQ(g.sectorsPerChunk, zone / 0xF00 / 512);
    EXPECT_EQ(g.maxCatZonesPerLun, 29u);
    EXPECT_EQ(g.tableBytes, 29u * 4);
    EXPECT_EQ(g.chunkMapBytes, 0xF00u * 29 / 8);
    // 16 TiB of clusters fit the CAT zones a LUN may have.
    EXPECT_GE(uint64_t(g.maxCatZonesPerLun) * g.entriesPerCatZone, (uint64_t(16) << 40) / 4096);
    // A 2 TiB LUN (last LBA 2^32 - 1) is given enough CAT zones for its clusters.
    const uint32_t twoTiB = g.catZonesFor(0xFFFFFFFFull);
    EXPECT_EQ(twoTiB, 4u);
    EXPECT_GE(uint64_t(twoTiB) * g.entriesPerCatZone, (uint64_t(1) << 32) / 8);
    // Small Regions: 1,536 chunks.
    EXPECT_EQ(CLTGeometry::compute(0xD20000, 24 * 0xD20000).chunksPerZone, 0x600u);
}

namespace {
// The header offsets of the two layouts, from the area's table.
struct Layout {
    uint32_t luns, headerLength, flags, chunks, crc, highWords, ids, nextId;
};
constexpr Layout k16{16, 0x17E, 0x110, 0x114, 0x118, 0x11C, 0x15C, 0x17C};
constexpr Layout k32{32, 0x2DE, 0x210, 0x214, 0x218, 0x21C, 0x29C, 0x2DC};

uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
}  // namespace

TEST(CLTImageFormat, BothHeaderLayoutsPutEveryFieldAtItsOffsetAndTheCrcCoversTheHeader) {
    const CLTGeometry g = CLTGeometry::compute(0x2AA8000, 24ull * 0x2AA8000);
    for (const Layout& L : {k16, k32}) {
        CLTImage img;
        img.init(g, L.luns);
        img.clearHeader();
        img.setChunksPerZone(g.chunksPerZone);
        img.setNextUniqueId(1000);
        img.setZoneCount(3, 4);
        img.setLunIndex(3);
        img.setMaxLba(3, 0x123456789ull);
        img.setUniqueId(3, 1007);
        img.setFlags(CLTImage::kFlagRecoveryWritten);
        img.sealCrc();
        const uint8_t* d = img.data();
        EXPECT_EQ(std::memcmp(d, "CATL", 4), 0);
        EXPECT_EQ(le16(d + 8), L.headerLength) << L.luns;
        EXPECT_EQ(le16(d + 0x0A), 3u);
        EXPECT_EQ(le32(d + 0x0C), L.luns);
        const uint8_t* rec = d + 0x10 + 16 * 3;
        EXPECT_EQ(le32(rec), 4u);
        EXPECT_EQ(le32(rec + 4), 0u);
        EXPECT_EQ(le32(rec + 8), 3u);
        EXPECT_EQ(le32(rec + 12), 0x23456789u);
        EXPECT_EQ(le32(d + L.highWords + 4 * 3), 0x1u);
        EXPECT_EQ(le32(d + L.flags), 1u);
        EXPECT_EQ(le32(d + L.chunks), 0xF00u);
        EXPECT_EQ(le16(d + L.ids + 2 * 3), 1007);
        EXPECT_EQ(le16(d + L.nextId), 1000);
        std::vector<uint8_t> header(d, d + L.headerLength);
        std::memset(header.data() + L.crc, 0, 4);
        EXPECT_EQ(le32(d + L.crc), GetCRC(header.data(), header.size())) << L.luns;
        // The LUN blocks begin at the first sector boundary after the header,
        // and the image is whole sectors.
        EXPECT_EQ(img.blockOffset(0), 512u * ((L.headerLength + 511) / 512));
        EXPECT_EQ(img.blockOffset(1) - img.blockOffset(0), g.tableBytes + g.chunkMapBytes);
        EXPECT_EQ(img.length() % 512, 0u);
        EXPECT_GE(img.length(), img.blockOffset(L.luns));
    }
}

TEST(CLTImageFormat, ChunkBitIIsBitIModThirtyTwoOfWordIOverThirtyTwo) {
    const CLTGeometry g = CLTGeometry::compute(0x2AA8000, 24ull * 0x2AA8000);
    CLTImage img;
    img.init(g, 16);
    const uint64_t chunk = 0xF00 + 45;  // CAT zone 1, chunk 45: word 121, bit 13
    img.setChunkWritten(2, chunk);
    const uint8_t* map = img.data() + img.blockOffset(2) + g.tableBytes;
    EXPECT_EQ(le32(map + 4 * (chunk / 32)), 1u << (chunk % 32));
    EXPECT_TRUE(img.chunkWritten(2, chunk));
    EXPECT_FALSE(img.chunkWritten(2, chunk - 1));
    EXPECT_FALSE(img.chunkWritten(1, chunk));
    // The table word of CAT zone 5 of LUN 2.
    img.setCatZone(2, 5, 0x1234);
    EXPECT_EQ(le32(img.data() + img.blockOffset(2) + 20), 0x1234u);
}

TEST(CLTGeometry, EntriesSitSevenBytesApartAndSkipTheLastByteOfEachSector) {
    EXPECT_EQ(CLTGeometry::entryByte(0), 0u);
    EXPECT_EQ(CLTGeometry::entryByte(1), 7u);
    EXPECT_EQ(CLTGeometry::entryByte(72), 504u);  // ends at byte 510; byte 511 is the pad
    EXPECT_EQ(CLTGeometry::entryByte(73), 512u);  // 8 bytes after entry 72
    EXPECT_EQ(CLTGeometry::entryByte(73 * 5 + 3), 5u * 512 + 21);
}
