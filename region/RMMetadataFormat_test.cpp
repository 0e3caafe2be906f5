// The Region metadata format, checked against an independent reader of the
// header and bitmap tables.
#include "region/RMMetadataFormat.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/IndependentReader.h"

namespace {

RMMetadataHeader sampleHeader() {
    RMMetadataHeader h;
    h.regionSize = 0x15540;
    h.copyNumber = 1;
    h.generation = 0xFFFFFFFF;
    h.metadataLba = 0x480;
    h.bitmapBytes = 512;
    h.saved[0] = {2, 77};
    h.saved[2] = {5, 0x123456};
    h.unavailableRegions = 4;
    h.padding = 1;
    h.recoveryGeneration = 0x0000000100000002ull;
    h.metadataAllocBase = 900;
    return h;
}

TEST(RMMetadataFormat, HeaderIsBigEndianButThePadding) {
    uint8_t s[512];
    RMMetadataHeader h = sampleHeader();
    h.encode(s);
    independent::RMHeader r = independent::readRMHeader(s);
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.version, 6u);
    EXPECT_EQ(r.regionSectors, 0x15540u);
    EXPECT_EQ(r.copyNumber, 1u);
    EXPECT_EQ(r.generation, 0xFFFFFFFFu);
    EXPECT_EQ(r.metadataLba, 0x480u);
    EXPECT_EQ(r.savedLd[0], 2);
    EXPECT_EQ(r.savedRegion[0], 77u);
    EXPECT_EQ(r.savedLd[2], 5);
    EXPECT_EQ(r.savedRegion[2], 0x123456u);
    EXPECT_EQ(r.unavailable, 4u);
    EXPECT_EQ(r.padding, 1u);
    EXPECT_EQ(s[0x78], 1) << "padding is stored in host order";
    EXPECT_EQ(r.recoveryGeneration, 0x0000000100000002ull);
    EXPECT_EQ(r.allocBase, 900u);
    RMMetadataHeader back;
    EXPECT_EQ(back.decode(s), RMMetadataHeader::Verdict::Good);
    EXPECT_EQ(back.saved[2], (RMSavedMetadata{5, 0x123456}));
}

TEST(RMMetadataFormat, HeaderChecksRefuseWhatTheReaderMustRefuse) {
    uint8_t s[512];
    RMMetadataHeader h = sampleHeader();
    RMMetadataHeader r;
    h.encode(s);
    s[0x40] = 1;  // a reserved byte under the CRC
    EXPECT_EQ(r.decode(s), RMMetadataHeader::Verdict::BadCrc);

    h = sampleHeader();
    h.encode(s);
    std::memset(s + 0x70, 0, 4);  // no stored CRC: not checked
    s[0x40] = 1;
    EXPECT_EQ(r.decode(s), RMMetadataHeader::Verdict::Good);

    h = sampleHeader();
    h.version = 5;
    h.padding = 2;
    h.encode(s);
    EXPECT_EQ(r.decode(s), RMMetadataHeader::Verdict::BadPadding);
    h.version = 3;
    h.padding = 1;
    h.encode(s);
    EXPECT_EQ(r.decode(s), RMMetadataHeader::Verdict::BadPadding);
    h.version = 7;
    h.padding = 1;
    h.encode(s);
    EXPECT_EQ(r.decode(s), RMMetadataHeader::Verdict::BadVersion);
}

TEST(RMMetadataFormat, BitmapBitsAndChecksum) {
    RMBitmap b(1000);
    for (uint32_t r : {0u, 7u, 8u, 999u}) b.set(r, true);
    std::vector<uint8_t> area(b.sizeBytes());
    EXPECT_EQ(area.size(), 512u);
    b.encode(area.data());
    EXPECT_TRUE(independent::rabmValid(area.data(), uint32_t(area.size())));
    for (uint32_t r = 0; r < 1000; ++r)
        ASSERT_EQ(independent::rabmAllocated(area.data(), r), r == 0 || r == 7 || r == 8 || r == 999) << r;
    RMBitmap back;
    EXPECT_EQ(back.decode(area.data(), uint32_t(area.size())), RMBitmap::Verdict::Good);
    EXPECT_EQ(back, b);
    area[100] ^= 0x10;
    EXPECT_EQ(back.decode(area.data(), uint32_t(area.size())), RMBitmap::Verdict::BadCrc);
}

TEST(RMMetadataFormat, RegionCountCoversEverySector) {
    const uint32_t rlba = 0x15540, p = 1;
    // An exact multiple: no partial Region.
    EXPECT_EQ(regionCountFor(uint64_t(rlba + p) * 100, rlba, p), 100u);
    // One sector more makes a partial last Region. Here the two counting
    // rules one could read disagree; the count must cover the sector.
    EXPECT_EQ(regionCountFor(uint64_t(rlba + p) * 100 + 1, rlba, p), 101u);
    EXPECT_EQ(bitmapBytesFor(4096 * 8 - 12 * 8), 4096u);
    EXPECT_EQ(bitmapBytesFor(4096 * 8 - 12 * 8 + 1), 4608u);
}

}  // namespace
