// The DIS sector format, checked against an independent reader of the table.
#include "disk/DisSector.h"

#include <gtest/gtest.h>

#include "tests/support/IndependentReader.h"

namespace {

DisSector sample() {
    DisSector d;
    d.packId[0] = 0x11223344;
    d.packId[1] = 0x55667788;
    d.generation = 7;
    d.logicalDisks = 0b1011;
    d.name = "Office";
    d.ldNumber = 3;
    d.ldBitmap = 1u << 3;
    d.flags = DisLayout::DIS1_BAD | DisLayout::DIS_NEEDS_REPAIR;
    d.iteration = 42;
    d.rmLba[0] = 0x100;
    d.rmLba[1] = 0x4100;
    return d;
}

TEST(DisSector, EncodesExactlyTheTable) {
    uint8_t s[512];
    DisSector d = sample();
    d.encode(s);
    independent::Dis r = independent::readDis(s);
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.packId0, 0x11223344u);
    EXPECT_EQ(r.packId1, 0x55667788u);
    EXPECT_EQ(r.generation, 7u);
    EXPECT_EQ(r.logicalDisks, 0b1011u);
    EXPECT_EQ(r.name, "Office");
    EXPECT_EQ(r.ldNumber, 3);
    EXPECT_EQ(r.ldBitmap, 8u);
    EXPECT_EQ(r.flags, DisLayout::DIS1_BAD | DisLayout::DIS_NEEDS_REPAIR);
    EXPECT_EQ(r.iteration, 42u);
    EXPECT_EQ(r.rmLba0, 0x100u);
    EXPECT_EQ(r.rmLba1, 0x4100u);
    EXPECT_EQ(r.layout, 0x11u);
    EXPECT_EQ(r.expungeReason, "NOT EXPUNGED");
    for (int i = 0x90; i < 512; ++i) ASSERT_EQ(s[i], 0) << "byte " << i;
    DisSector back;
    EXPECT_EQ(back.decode(s), DisSector::Verdict::Good);
    EXPECT_EQ(back.iteration, 42u);
    EXPECT_EQ(back.name, "Office");
}

TEST(DisSector, RejectsWhatTheSanityRulesRefuse) {
    uint8_t s[512];
    DisSector d = sample();
    d.version = 15;
    d.encode(s);  // a good checksum over a wrong version
    DisSector r;
    EXPECT_EQ(r.decode(s), DisSector::Verdict::BadSanity);

    d = sample();
    d.encode(s);
    s[0x30] ^= 1;  // inside the name: covered by the main checksum
    EXPECT_EQ(r.decode(s), DisSector::Verdict::BadChecksum);

    d.encode(s);
    s[0x64] ^= 1;  // sig3, with a good main checksum
    EXPECT_EQ(r.decode(s), DisSector::Verdict::BadExtensionSignature);

    d.encode(s);
    s[0x68] ^= 1;  // Ext version: covered by the Ext checksum only
    EXPECT_EQ(r.decode(s), DisSector::Verdict::BadExtensionChecksum);

    d.encode(s);
    s[0x70] = 'X';  // the expunge reason is covered by no checksum
    EXPECT_EQ(r.decode(s), DisSector::Verdict::Good);
}

TEST(DisSector, OldLayoutHasNoExtension) {
    uint8_t s[512];
    DisSector d = sample();
    d.layout = 9;
    d.flags |= DisLayout::DIS_EXPUNGED;
    d.encode(s);
    std::memset(s + 0x64, 0xAB, 512 - 0x64);  // whatever lies there is ignored
    DisSector r;
    EXPECT_EQ(r.decode(s), DisSector::Verdict::Good);
    EXPECT_EQ(r.expungeReason, "UNKNOWN REASON - OLD FIRMWARE");
    EXPECT_TRUE(independent::readDis(s).valid);
}

TEST(DisSector, RangesSitAtStartMiddleAndEnd) {
    // 64 GiB: 0x8000000 sectors.
    auto r = disRangesFor(0x8000000ull);
    EXPECT_EQ(r[0].first, 0u);
    EXPECT_EQ(r[0].end, 0x80u);
    EXPECT_EQ(r[1].first, (0x8000000u / 0xD200) * 0x6900);
    EXPECT_EQ(r[1].end, r[1].first + 0x80);
    EXPECT_EQ(r[2].first, 0x8000000u - 0x80);
    EXPECT_EQ(r[2].end, 0x8000000u);
    // The middle range is the middle of the disk rounded down to 0x6900 sectors.
    EXPECT_EQ(r[1].first % 0x6900, 0u);
    EXPECT_LE(r[1].first, 0x8000000u / 2);
    EXPECT_GT(r[1].first + 0x6900, 0x8000000u / 2);
}

TEST(DisSector, A2TiBDiskKeepsItsRangesInside32BitLbas) {
    // 2^32 sectors would wrap to 0 as a 32-bit count: the last range must sit
    // at the top of the 32-bit space, not below sector 0.
    for (uint64_t sectors : {0x100000000ull, 0x100200000ull}) {
        auto r = disRangesFor(sectors);
        EXPECT_EQ(r[2].end, 0xFFFFFFFFu);
        EXPECT_EQ(r[2].first, 0xFFFFFFFFu - 0x80);
        EXPECT_EQ(r[1].first, (0xFFFFFFFFu / 0xD200) * 0x6900);
    }
    EXPECT_EQ(packCapacity(0x8000000ull), 0x8000000u);
}

}  // namespace
