// The two metadata copies: the generation vote, repair in memory and on disk,
// the checks a copy must pass, and relocation of a copy whose sectors failed.
#include "disk/DisSector.h"
#include "region/RegionTestSupport.h"

namespace {
constexpr uint32_t kRlba = 0x15540;
constexpr uint32_t kStride = kRlba + 1;
uint32_t copy1Lba(int slot) {
    return disRangesFor(uint32_t(DiskManager::GetInstance()->GetDriveCapacity(slot)))[1].end + 0x400;
}
}  // namespace

class RegionRepairTest : public RegionTestFixture {
protected:
    // A pack whose Region `allocated` is in use, so the bitmap says something.
    uint32_t packWithOneAllocation() {
        makePack({"20G"});
        IOTracker t(READ_WRITE);
        uint32_t r = 0;
        EXPECT_EQ(rm()->AllocateRegions(0, 1, &r, false, t), StatusCode::Success);
        EXPECT_EQ(t.commit(), StatusCode::Success);
        return r;
    }
    bool allocated(uint32_t region) {
        IOTracker t(READ_ONLY);
        bool a = false;
        EXPECT_EQ(rm()->IsAllocated(0, region, a, t), StatusCode::Success);
        return a;
    }
    void expectCopiesAgree(int slot) {
        Copy c0 = readCopy(slot, 0x480), c1 = readCopy(slot, copy1Lba(slot));
        ASSERT_TRUE(c0.header.valid && c0.bitmapValid);
        ASSERT_TRUE(c1.header.valid && c1.bitmapValid);
        EXPECT_EQ(c0.header.generation, c1.header.generation);
        EXPECT_EQ(c0.header.copyNumber, 0u);
        EXPECT_EQ(c1.header.copyNumber, 1u);
        EXPECT_EQ(c0.bitmap, c1.bitmap);
    }
};

TEST_F(RegionRepairTest, ACorruptedCopyIsRepairedFromTheOtherInMemoryAndOnDisk) {
    uint32_t r = packWithOneAllocation();
    // Copy 1's header checksum no longer matches.
    patchHeader(
        0, copy1Lba(0), [](uint8_t* s) { s[0x90] ^= 0xFF; }, false);
    testing::internal::CaptureStdout();
    ASSERT_EQ(reload(), StatusCode::Success);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Repaired metadata in memory and on disk for logical disk 0"), std::string::npos) << out;
    EXPECT_NE(out.find("RM::ReadRMMD:  repaired secondary (metadata for logical disk 0"), std::string::npos);
    expectCopiesAgree(0);
    EXPECT_TRUE(allocated(r));

    // Copy 0's bitmap damaged: repaired from copy 1.
    auto bm = raw(0, 0x481);
    bm[12] ^= 0x40;
    writeRaw(0, 0x481, bm);
    testing::internal::CaptureStdout();
    ASSERT_EQ(reload(), StatusCode::Success);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("repaired primary"), std::string::npos) << out;
    expectCopiesAgree(0);
    EXPECT_TRUE(allocated(r));
    EXPECT_FALSE(allocated(6));
}

TEST_F(RegionRepairTest, TheNewerGenerationWinsEvenAcrossTheWrap) {
    uint32_t r = packWithOneAllocation();
    uint32_t extra = r + 5;
    ASSERT_FALSE(allocated(extra));
    // Copy 0 at 0xFFFFFFFF says `extra` is allocated; copy 1 at 0 says it is free.
    patchBitmap(0, 0x480, extra, true);
    patchHeader(0, 0x480, [](uint8_t* s) { RegionTestFixture::putBE(s + 0x14, 0xFFFFFFFF); });
    patchHeader(0, copy1Lba(0), [](uint8_t* s) { RegionTestFixture::putBE(s + 0x14, 0); });
    testing::internal::CaptureStdout();
    ASSERT_EQ(reload(), StatusCode::Success);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Generation number for second metadata is newest - making first metadata match"),
              std::string::npos)
        << out;
    EXPECT_FALSE(allocated(extra));
    EXPECT_TRUE(allocated(r));
    expectCopiesAgree(0);
    EXPECT_EQ(readCopy(0, 0x480).header.generation, 1u);  // 0 + 1 for the repair

    // And the plain case: the larger generation is the newer.
    patchBitmap(0, copy1Lba(0), extra, true);
    patchHeader(0, copy1Lba(0), [](uint8_t* s) { RegionTestFixture::putBE(s + 0x14, 7); });
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_TRUE(allocated(extra));
    expectCopiesAgree(0);
}

TEST_F(RegionRepairTest, CopiesThatDisagreeWithEqualGenerationsAreMadeToMatchTheFirst) {
    uint32_t r = packWithOneAllocation();
    patchBitmap(0, copy1Lba(0), r, false);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_TRUE(allocated(r));
    expectCopiesAgree(0);
}

TEST_F(RegionRepairTest, HeadersWithBadVersionOrPaddingAreRefusedAndAZeroChecksumIsNotChecked) {
    uint32_t r = packWithOneAllocation();
    // Version 5 with padding 2, version 3 with padding 1: both copies refused.
    patchHeader(0, 0x480, [](uint8_t* s) {
        RegionTestFixture::putBE(s + 4, 5);
        s[0x78] = 2;
    });
    patchHeader(0, copy1Lba(0), [](uint8_t* s) {
        RegionTestFixture::putBE(s + 4, 3);
        s[0x78] = 1;
    });
    EXPECT_EQ(reload(), StatusCode::RM_MetaDataBad);
    uint32_t padding = 9;
    EXPECT_EQ(rm()->CheckRMMetaData(0, padding), StatusCode::RM_MetaDataBad);

    // Restore copy 0 to version 6 padding 1 but store no checksum at all, and
    // change a field under it: a stored 0 means "not checked".
    patchHeader(0, 0x480, [](uint8_t* s) {
        RegionTestFixture::putBE(s + 4, 6);
        s[0x78] = 1;
    });
    patchHeader(
        0, 0x480,
        [](uint8_t* s) {
            RegionTestFixture::putBE(s + 0x70, 0);
            s[0x100] = 0x5A;  // in the zero tail: harmless, and uncheckable without a CRC
        },
        false);
    EXPECT_EQ(rm()->CheckRMMetaData(0, padding), StatusCode::Success);
    EXPECT_EQ(padding, 1u);
    // CheckRMMetaData never repairs: copy 1 is still refused on the disk.
    EXPECT_EQ(readCopy(0, copy1Lba(0)).header.version, 3u);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_TRUE(allocated(r));
    expectCopiesAgree(0);
}

TEST_F(RegionRepairTest, AReadOnlyLoadUsesTheGoodCopyAndLeavesTheDiskAlone) {
    packWithOneAllocation();
    patchHeader(
        0, copy1Lba(0), [](uint8_t* s) { s[0] = 'X'; }, false);
    auto before = raw(0, copy1Lba(0));
    ASSERT_EQ(reload(false), StatusCode::Success);
    EXPECT_EQ(raw(0, copy1Lba(0)), before);
    // Both copies gone: the disk cannot load.
    patchHeader(
        0, 0x480, [](uint8_t* s) { s[1] = 'X'; }, false);
    EXPECT_EQ(reload(), StatusCode::RM_MetaDataBad);
}

TEST_F(RegionRepairTest, ACopyWhoseSectorsFailMovesOnAndIsFoundThereAfterARestart) {
    uint32_t r = packWithOneAllocation();
    uint32_t old = copy1Lba(0);
    ASSERT_EQ(RegionManagerTestAccess::copyLba(0, 1), old);
    fault(0, {"media", "write", "lba=" + std::to_string(old) + "-" + std::to_string(old), "always"});
    // The journal reports the failed spill of copy 1's header after the fact.
    rm()->outOfBandError(0, old / kStride, old, 0, StatusCode::MediaError);
    uint32_t moved = RegionManagerTestAccess::copyLba(0, 1);
    EXPECT_EQ(moved, old + 0x400);
    Copy c1 = readCopy(0, moved), c0 = readCopy(0, 0x480);
    ASSERT_TRUE(c1.header.valid && c1.bitmapValid);
    EXPECT_EQ(c1.header.copyNumber, 1u);
    EXPECT_EQ(c1.header.generation, c0.header.generation);
    EXPECT_EQ(c1.bitmap, c0.bitmap);
    // The sector after the new place ends the search at the next load.
    EXPECT_EQ(raw(0, moved + 0x400), std::vector<uint8_t>(512, 0));

    // Changes go to the new place; after a restart the copy is found there.
    IOTracker t(READ_WRITE);
    uint32_t r2 = 0;
    ASSERT_EQ(rm()->AllocateRegions(0, 1, &r2, false, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), moved);
    EXPECT_TRUE(allocated(r) && allocated(r2));
    c1 = readCopy(0, moved);
    EXPECT_EQ(c1.header.generation, readCopy(0, 0x480).header.generation);
}

TEST_F(RegionRepairTest, ADeviceTimeoutFlushRewritesInPlaceAndOtherLBAsAreNotOurs) {
    packWithOneAllocation();
    uint32_t gen = RegionManagerTestAccess::generation(0);
    rm()->outOfBandError(0, 0, 0x480 + 1, 0, StatusCode::DM_DeviceTimeoutFlush);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 0), 0x480u);
    EXPECT_EQ(RegionManagerTestAccess::generation(0), gen + 1);
    EXPECT_EQ(readCopy(0, 0x480).header.generation, gen + 1);
    // An LBA outside both copies changes nothing.
    rm()->outOfBandError(0, 3, 3 * kStride + 10, 0, StatusCode::MediaError);
    EXPECT_EQ(RegionManagerTestAccess::generation(0), gen + 1);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), copy1Lba(0));
}

TEST_F(RegionRepairTest, WhenEveryPlaceInTheRegionFailsTheDiskIsGivenUp) {
    packWithOneAllocation();
    // Every sector of Region 0 after the first copy's place refuses writes.
    fault(0, {"media", "write", "lba=" + std::to_string(0x480) + "-" + std::to_string(kRlba - 1), "always"});
    testing::internal::CaptureStdout();
    rm()->outOfBandError(0, 0, 0x480, 0, StatusCode::MediaError);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Exhausted all possible metadata locations in region!"), std::string::npos) << out;
    EXPECT_NE(out.find("RM::outOfBandError: Unable to relocate metadata for logicalDisk: 0"), std::string::npos);
    // Copy 1 still stands, so the disk still loads once the fault is gone.
    ctl().forget();
}

TEST_F(RegionRepairTest, ARepairThatCannotBeWrittenLeavesTheGoodCopyInChargeUntilTheCopyMoves) {
    uint32_t r = packWithOneAllocation();
    uint32_t old = copy1Lba(0);
    patchHeader(
        0, old, [](uint8_t* s) { s[0x90] ^= 1; }, false);
    fault(0, {"media", "write", "lba=" + std::to_string(old) + "-" + std::to_string(old), "always"});
    testing::internal::CaptureStdout();
    ASSERT_EQ(reload(), StatusCode::Success);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Unable to repair metadata! Status: "), std::string::npos) << out;
    EXPECT_TRUE(allocated(r));
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), old);
    // The error comes back through the error policy: the copy moves and both agree again.
    rm()->outOfBandError(0, old / kStride, old, 0, StatusCode::MediaError);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), old + 0x400);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), old + 0x400);
    Copy c0 = readCopy(0, 0x480), c1 = readCopy(0, old + 0x400);
    ASSERT_TRUE(c1.header.valid && c1.bitmapValid);
    EXPECT_EQ(c0.header.generation, c1.header.generation);
    EXPECT_TRUE(allocated(r));
}

TEST_F(RegionRepairTest, AChangeThatReachedOnlyTheFirstCopyIsUndoneOnDiskToo) {
    uint32_t r = packWithOneAllocation();
    uint32_t c1 = copy1Lba(0);
    fault(0, {"media", "write", "lba=" + std::to_string(c1) + "-" + std::to_string(c1), "always"});
    IOTracker t(READ_WRITE);
    EXPECT_NE(rm()->FreeRegions(0, 1, &r, t), StatusCode::Success);
    uint32_t other = 0;
    EXPECT_NE(rm()->AllocateRegions(0, 1, &other, false, t), StatusCode::Success);
    t.commit();
    EXPECT_TRUE(allocated(r));
    EXPECT_FALSE(allocated(other));
    std::string err;
    ASSERT_TRUE(ctl().clearFaults(0, err)) << err;
    // Copy 0 carries the newer generation: it must still say what the caller was told.
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_TRUE(allocated(r)) << "a Region whose free failed came back free";
    EXPECT_FALSE(allocated(other)) << "a Region whose allocation failed stayed allocated";
}

TEST_F(RegionRepairTest, WhenBothCopiesHaveBadSectorsEachMovesOnceAndTheDiskStays) {
    uint32_t r = packWithOneAllocation();
    uint32_t c1 = copy1Lba(0);
    fault(0, {"media", "write", "lba=0x480-0x480", "always"});
    fault(0, {"media", "write", "lba=" + std::to_string(c1) + "-" + std::to_string(c1), "always"});
    testing::internal::CaptureStdout();
    rm()->outOfBandError(0, 0, 0x480, 0, StatusCode::MediaError);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("Unable to relocate"), std::string::npos) << out;
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 0), 0x480u + 0x400);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), c1 + 0x400);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 0), 0x480u + 0x400);
    EXPECT_EQ(RegionManagerTestAccess::copyLba(0, 1), c1 + 0x400);
    EXPECT_TRUE(allocated(r));
    Copy a = readCopy(0, 0x880), b = readCopy(0, c1 + 0x400);
    ASSERT_TRUE(a.header.valid && b.header.valid);
    EXPECT_EQ(a.header.metadataLba, 0x880u);
    EXPECT_EQ(a.header.generation, b.header.generation);
}
