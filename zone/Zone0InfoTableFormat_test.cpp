// The Zone 0 directory's format and fit rules, without disks: byte layout and
// CRC, the version 2 upgrade, and where new areas are placed.
#include <gtest/gtest.h>

#include <cstring>

#include "util/Crc.h"
#include "util/Endian.h"
#include "zone/Zone0InfoTableFormat.h"

namespace {

constexpr uint64_t kZone = 24ull * 0x100000;

void use(Zone0Directory& d, unsigned slot, uint32_t start, uint32_t length) {
    d.entries[slot].startOffset = start;
    d.entries[slot].length = length;
    d.entries[slot].version = 1;
}

TEST(Zone0DirectoryFormat, LayoutAndCrc) {
    Zone0Directory d = Zone0Directory::Empty();
    use(d, 11, 0x1000, 0x1000);
    std::memcpy(d.entries[11].userSignature, "SM-Z0IT", 7);
    d.Seal();
    uint8_t raw[Zone0Directory::kSize];
    d.Encode(raw);
    EXPECT_EQ(std::memcmp(raw, "InfoTabl", 8), 0);
    EXPECT_EQ(getLE32(raw + 8), 0x1F8u);
    EXPECT_EQ(getLE32(raw + 16), 3u);
    EXPECT_EQ(getLE32(raw + 20), 20u);
    const uint8_t* slot = raw + 24 + 11 * 24;
    EXPECT_EQ(getLE32(slot + 0), 0x1000u);
    EXPECT_EQ(getLE32(slot + 4), 0x1000u);
    EXPECT_EQ(getLE32(slot + 8), 1u);
    EXPECT_EQ(std::memcmp(slot + 12, "SM-Z0IT", 7), 0);
    EXPECT_EQ(getLE32(raw + 24 + 0 * 24 + 8), 0xFFFFFFFFu) << "a free slot's version";
    // CRC over `size` bytes with the field zero.
    uint32_t stored = getLE32(raw + 12);
    putLE32(raw + 12, 0);
    EXPECT_EQ(stored, GetCRC(raw, 0x1F8));
    Zone0Directory back;
    putLE32(raw + 12, stored);
    back.Decode(raw);
    EXPECT_EQ(back.ComputeCrc(), back.crc);
    raw[24 + 11 * 24] ^= 1;
    back.Decode(raw);
    EXPECT_NE(back.ComputeCrc(), back.crc);
}

TEST(Zone0DirectoryFormat, Version2UpgradeFreesTheUpperSlots) {
    Zone0Directory d = Zone0Directory::Empty();
    d.version = 2, d.size = 0x100, d.numEntries = 9;
    for (unsigned i = 0; i < 20; ++i) use(d, i, 0x1000 * (i + 1), 0x200);
    d.UpgradeFromVersion2();
    EXPECT_EQ(d.version, 3u);
    EXPECT_EQ(d.size, 0x1F8u);
    EXPECT_EQ(d.numEntries, 20u);
    for (unsigned i = 0; i < 9; ++i) EXPECT_TRUE(d.entries[i].inUse()) << i;
    for (unsigned i = 9; i < 20; ++i) {
        EXPECT_FALSE(d.entries[i].inUse()) << i;
        EXPECT_EQ(d.entries[i].version, 0xFFFFFFFFu);
    }
}

TEST(Zone0Fit, FirstAreaLandsAfterTheTable) {
    Zone0Directory d = Zone0Directory::Empty();
    uint64_t off = 0;
    ASSERT_EQ(d.findZone0Space(512, kZone, off), StatusCode::Success);
    EXPECT_EQ(off, 4096u);
}

TEST(Zone0Fit, ExactHoleWinsOtherwiseTheLastHoleThatFits) {
    // Areas leave a 4,096-byte hole at 0x2000 and a later 8,192-byte hole at 0x5000.
    Zone0Directory d = Zone0Directory::Empty();
    use(d, 0, 0x1000, 0x1000);
    use(d, 1, 0x3000, 0x2000);
    use(d, 2, 0x7000, 0x1000);
    uint64_t off = 0;
    ASSERT_EQ(d.findZone0Space(4096, kZone, off), StatusCode::Success);
    EXPECT_EQ(off, 0x2000u) << "exact fit";
    ASSERT_EQ(d.findZone0Space(2048, kZone, off), StatusCode::Success);
    EXPECT_EQ(off, 0x5000u) << "the later hole, at its start";
    ASSERT_EQ(d.findZone0Space(0x3000, kZone, off), StatusCode::Success);
    EXPECT_EQ(off, 0x8000u) << "no hole fits: after the last area";
}

TEST(Zone0Fit, TheEndMustStayStrictlyInsideTheZone) {
    Zone0Directory d = Zone0Directory::Empty();
    use(d, 0, 0x1000, uint32_t(kZone - 0x3000));  // last byte kZone - 0x2001
    uint64_t off = 0;
    // Room after the last area is 0x2000 bytes; the rule wants strictly less.
    EXPECT_EQ(d.findZone0Space(0x2000, kZone, off), StatusCode::OutOfSpace);
    ASSERT_EQ(d.findZone0Space(0x1E00, kZone, off), StatusCode::Success);
    EXPECT_EQ(off, kZone - 0x2000);
}

TEST(Zone0Fit, PlacedAreasNeverOverlap) {
    Zone0Directory d = Zone0Directory::Empty();
    const uint32_t sizes[] = {0x4000, 0x200, 0x14200, 0x1000, 0x30A00, 0x2000, 0x1000, 0x4000, 0x1000, 0x10200};
    for (unsigned i = 0; i < 10; ++i) {
        uint64_t off = 0;
        ASSERT_EQ(d.findZone0Space(sizes[i], kZone, off), StatusCode::Success);
        use(d, i, uint32_t(off), sizes[i]);
        if (i == 3) d.entries[1].clear();  // a hole appears
    }
    auto map = d.getAllocatedSpaceMap();
    for (size_t i = 0; i + 1 < map.size(); ++i) EXPECT_LT(map[i].second, map[i + 1].first);
}

}  // namespace
