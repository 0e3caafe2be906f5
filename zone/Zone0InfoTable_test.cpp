// The Zone 0 directory on simulated disks: a new pack's directory, areas
// created and found again after a restart with their contents, the fit rules
// over real slots, and the loads that must not write: a bad signature on a
// pack that is not new, a bad CRC, a read-only load.
#include <gtest/gtest.h>

#include <cstring>

#include "util/Endian.h"
#include "zone/ZoneTableTestSupport.h"

namespace {

class Zone0OnDisks : public ZoneTableTestFixture {
protected:
    static Zone0InfoTable* z0() { return Zone0InfoTable::GetInstance(); }
    void makeLoadedPack() {
        makeZonePack({"20G", "20G"});
        ASSERT_EQ(z0()->LoadDiskPack(), StatusCode::Success);
    }
    StatusCode restart() {
        StatusCode st = reloadZones();
        if (st != StatusCode::Success) return st;
        return z0()->LoadDiskPack();
    }
    // Zone 0's first block as its data copy holds it on the disk.
    std::vector<uint8_t> directoryOnDisk() {
        ZoneTableEntry zero;
        table().RawLookupZone(0, zero);
        unsigned slot = 0;
        EXPECT_EQ(zero.CalculateDataRegion(0, slot), StatusCode::Success);
        return raw(zero.disk[slot], lbaOf(zero.disk[slot], zero.region[slot]), 8);
    }
    void writeDirectoryEverywhere(const std::vector<uint8_t>& block) {
        ZoneTableEntry zero;
        table().RawLookupZone(0, zero);
        for (unsigned slot : {0u, 24u}) writeRaw(zero.disk[slot], lbaOf(zero.disk[slot], zero.region[slot]), block);
    }
};

TEST_F(Zone0OnDisks, ANewPackGetsAnEmptyDirectory) {
    makeLoadedPack();
    const std::vector<uint8_t> block = directoryOnDisk();
    EXPECT_EQ(std::memcmp(block.data(), "InfoTabl", 8), 0);
    EXPECT_EQ(getLE32(block.data() + 16), 3u);
    for (unsigned i = 0; i < Zone0InfoTable::kEntries; ++i) EXPECT_FALSE(z0()->GetEntry(i).inUse()) << i;
    ZoneTableEntry zero;
    table().RawLookupZone(0, zero);
    EXPECT_TRUE(zero.isMetadata() && zero.isMirrorOnly());
    // Every Region of Zone 0 says who owns it.
    IOTracker t(READ_ONLY);
    for (unsigned s : {0u, 23u, 24u, 47u}) {
        _ZoneOwnership owner;
        ASSERT_EQ(rm()->GetZoneOwnership(zero.disk[s], zero.region[s], owner, t), StatusCode::Success);
        EXPECT_EQ(owner.owner, _ZoneOwnership::kZ0IT) << "slot " << s;
        RecoveryBlock rb;
        ASSERT_EQ(rm()->ReadRecoveryBlock(zero.disk[s], zero.region[s], rb, t), StatusCode::Success);
        EXPECT_EQ(rb.zis.zoneNumber, 0u);
        EXPECT_EQ(rb.zis.arrayIndex, s);
        EXPECT_EQ(rb.zis.redundancyType, uint32_t(RedundancyType::Mirrored));
    }
    t.commitIfDirty();
}

TEST_F(Zone0OnDisks, AreasAreCreatedAndFoundAfterARestartWithTheirContents) {
    makeLoadedPack();
    ASSERT_EQ(z0()->CreateEntry(11, 1, 4096, "SM-Z0IT"), StatusCode::Success);
    ASSERT_EQ(z0()->CreateEntry(9, 1, 1, "CALENDAR"), StatusCode::Success);
    EXPECT_EQ(z0()->GetEntry(11).startOffset, 4096u) << "the first area follows the directory";
    EXPECT_EQ(z0()->GetEntry(9).length, 512u) << "sizes round up to a sector";
    std::vector<uint8_t> state(4096);
    for (size_t i = 0; i < state.size(); ++i) state[i] = uint8_t(i * 7 + 3);
    ASSERT_EQ(z0()->WriteArea(11, state.data(), 4096), StatusCode::Success);
    // A different size for a slot in use changes nothing.
    ASSERT_EQ(z0()->CreateEntry(11, 1, 0x8000, "SM-Z0IT"), StatusCode::Success);
    EXPECT_EQ(z0()->GetEntry(11).length, 4096u);

    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_TRUE(z0()->entryValid(11, "SM-Z0IT", 1));
    EXPECT_TRUE(z0()->entryValid(9, "CALENDAR", 1));
    EXPECT_FALSE(z0()->entryValid(11, "SM-Z0IT", 2));
    EXPECT_FALSE(z0()->entryValid(10, "SCRUBBER", 2));
    std::vector<uint8_t> back(4096);
    ASSERT_EQ(z0()->ReadArea(11, back.data(), 4096), StatusCode::Success);
    EXPECT_EQ(back, state);

    // Erase frees the slot; the next area may take the hole.
    ASSERT_EQ(z0()->EraseEntry(11), StatusCode::Success);
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_FALSE(z0()->GetEntry(11).inUse());
    ASSERT_EQ(z0()->CreateEntry(6, 1, 0x1000, "HRM-Z0IT"), StatusCode::Success);
    EXPECT_EQ(z0()->GetEntry(6).startOffset, 4096u) << "the exact hole the erased area left";
}

TEST_F(Zone0OnDisks, EveryOwnersAreaFitsWithoutOverlap) {
    makeLoadedPack();
    const struct {
        unsigned slot;
        const char* sig;
        uint32_t size;
    } owners[] = {{0, "CatMTabl", 0x4000},  {2, "TI0Z-MA", 0x14200}, {4, "EventLog", 0x30A00}, {6, "HRM-Z0IT", 0x2000},
                  {7, "TI0Z-SC", 0x400000}, {8, "EPM-Z0IT", 0x4000}, {9, "CALENDAR", 0x1000},  {10, "SCRUBBER", 0x1000},
                  {11, "SM-Z0IT", 0x1000},  {12, "DiskLog ", 0x30A00}, {14, "HAM-Z0IT", 0x10200}, {16, "Defrager", 0x4000},
                  {19, "CS-TMP", 0x80000}};
    for (const auto& o : owners) ASSERT_EQ(z0()->CreateEntry(o.slot, 1, o.size, o.sig), StatusCode::Success) << o.slot;
    ASSERT_EQ(z0()->EraseEntry(8), StatusCode::Success);
    ASSERT_EQ(z0()->CreateEntry(13, 2, 0x2000, "LUN--DEL"), StatusCode::Success);
    ASSERT_EQ(restart(), StatusCode::Success);
    auto map = z0()->getAllocatedSpaceMap();
    ASSERT_EQ(map.size(), 14u);
    for (size_t i = 0; i + 1 < map.size(); ++i) EXPECT_LT(map[i].second, map[i + 1].first);
    EXPECT_LT(map.back().second, SystemDrivePackInfo::GetInstance()->GetZoneSize());
    // An impossible request is an error, and the directory is unchanged.
    EXPECT_EQ(z0()->CreateEntry(17, 1, uint32_t(SystemDrivePackInfo::GetInstance()->GetZoneSize()), "TOO-BIG"),
              StatusCode::OutOfSpace);
    EXPECT_FALSE(z0()->GetEntry(17).inUse());
}

TEST_F(Zone0OnDisks, ABadSignatureOnAnExistingPackIsNotInitialisedOver) {
    makeLoadedPack();
    ASSERT_EQ(z0()->CreateEntry(11, 1, 4096, "SM-Z0IT"), StatusCode::Success);
    std::vector<uint8_t> block = directoryOnDisk();
    block[0] ^= 0xFF;
    writeDirectoryEverywhere(block);
    EXPECT_EQ(restart(), StatusCode::BadSignature);
    EXPECT_EQ(directoryOnDisk(), block) << "nothing was written";
    EXPECT_FALSE(z0()->loaded());
}

// A power cut after the pack was made but before its first directory was
// written leaves Zone 0 without directory and without owner: the next load
// lays the directory out (and stamps the owner with it) instead of refusing a
// pack that holds nothing yet.
TEST_F(Zone0OnDisks, AZoneZeroWhoseMakingWasCutGetsItsDirectoryAtTheNextLoad) {
    makeLoadedPack();
    ZoneTableEntry zero;
    table().RawLookupZone(0, zero);
    {
        IOTracker t(READ_WRITE);
        for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
            if (zero.region[s] == 0) continue;
            ASSERT_EQ(rm()->SetZoneOwnership(zero.disk[s], zero.region[s], {}, t), StatusCode::Success);
        }
        ASSERT_EQ(t.commit(), StatusCode::Success);
    }
    writeDirectoryEverywhere(std::vector<uint8_t>(8 * 512, 0));
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_EQ(std::memcmp(directoryOnDisk().data(), "InfoTabl", 8), 0);
    IOTracker t(READ_ONLY);
    for (unsigned s : {0u, 47u}) {
        _ZoneOwnership owner;
        ASSERT_EQ(rm()->GetZoneOwnership(zero.disk[s], zero.region[s], owner, t), StatusCode::Success);
        EXPECT_EQ(owner.owner, _ZoneOwnership::kZ0IT) << "slot " << s;
    }
    t.commitIfDirty();
    ASSERT_EQ(restart(), StatusCode::Success) << "the directory made at that load is found again";
}

TEST_F(Zone0OnDisks, ABadChecksumFailsTheLoad) {
    makeLoadedPack();
    ASSERT_EQ(z0()->CreateEntry(11, 1, 4096, "SM-Z0IT"), StatusCode::Success);
    std::vector<uint8_t> block = directoryOnDisk();
    block[24 + 11 * 24 + 4] ^= 1;  // slot 11's length
    writeDirectoryEverywhere(block);
    EXPECT_EQ(restart(), StatusCode::BadMetadataCRC);
}

TEST_F(Zone0OnDisks, AVersion2DirectoryIsUpgradedAndGetsItsChecksum) {
    makeLoadedPack();
    ASSERT_EQ(z0()->CreateEntry(3, 3, 0x1000, "CATLooku"), StatusCode::Success);
    ASSERT_EQ(z0()->CreateEntry(10, 2, 0x1000, "SCRUBBER"), StatusCode::Success);
    std::vector<uint8_t> block = directoryOnDisk();
    putLE32(block.data() + 8, 0x100);  // size
    putLE32(block.data() + 12, 0);     // no CRC
    putLE32(block.data() + 16, 2);     // version 2
    putLE32(block.data() + 20, 9);
    writeDirectoryEverywhere(block);
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_EQ(z0()->directory().version, 3u);
    EXPECT_TRUE(z0()->entryValid(3, "CATLooku", 3));
    EXPECT_FALSE(z0()->GetEntry(10).inUse()) << "slots 9 to 19 are freed by the upgrade";
    const std::vector<uint8_t> after = directoryOnDisk();
    EXPECT_EQ(getLE32(after.data() + 16), 3u);
    EXPECT_NE(getLE32(after.data() + 12), 0u) << "Validate wrote the first CRC";
    ASSERT_EQ(restart(), StatusCode::Success);
}

TEST_F(Zone0OnDisks, AReadOnlyLoadNeverWrites) {
    makeLoadedPack();
    std::vector<uint8_t> block = directoryOnDisk();
    block[0] ^= 0xFF;
    writeDirectoryEverywhere(block);
    unloadZones();
    ASSERT_EQ(reload(true), StatusCode::Success);
    ASSERT_EQ(zm()->LoadDiskPack(), StatusCode::Success);
    EXPECT_EQ(z0()->LoadDiskPack(true), StatusCode::ReadOnlyMode);
    EXPECT_EQ(directoryOnDisk(), block);
}

}  // namespace
