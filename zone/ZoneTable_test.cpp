// The Zone table on simulated disks: a new pack's table and reserved Zones,
// reloads, the three copies on distinct disks, repair of a corrupt copy, the
// generation vote, and the table's refusals.
#include <gtest/gtest.h>

#include <set>

#include "util/Endian.h"
#include "zone/ZISFormat.h"
#include "zone/ZoneTableTestSupport.h"

namespace {

class ZoneTableOnDisks : public ZoneTableTestFixture {};

TEST_F(ZoneTableOnDisks, NewPackGetsThreeCopiesOnDistinctDisksAndZonesZeroAndOne) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    std::set<uint16_t> disks;
    for (unsigned i = 0; i < 3; ++i) disks.insert(copy(i).ld);
    EXPECT_EQ(disks.size(), 3u);
    ZoneTableEntry zero, one;
    ASSERT_EQ(table().LookupZone(0, zero), StatusCode::Success);
    EXPECT_EQ(zero.type(), RedundancyType::Mirrored) << "a metadata Zone is mirrored, never striped";
    EXPECT_TRUE(zero.isMetadata());
    EXPECT_TRUE(zero.isMirrorOnly());
    ASSERT_EQ(table().LookupZone(1, one), StatusCode::Success);
    EXPECT_FALSE(one.HasRegions()) << "Zone 1 is emptied at load";
    EXPECT_EQ(table().entriesCreated(), 2u);

    // A restart finds the same table.
    const Location before = copy(0);
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_EQ(copy(0).ld, before.ld);
    EXPECT_EQ(copy(0).region, before.region);
    ZoneTableEntry again;
    ASSERT_EQ(table().LookupZone(0, again), StatusCode::Success);
    EXPECT_TRUE(again.Matches(zero));
}

// A start cut after the pack's Region metadata was made but before its Zone
// table: no table location anywhere and no Region in use. The viability check
// (a read-only load) must accept it, and the next read-write load makes the
// table, rather than the pack staying unloadable for ever.
TEST_F(ZoneTableOnDisks, APackCutBeforeItsTableWasMadePassesTheCheckAndGetsOne) {
    makePack({"20G", "20G", "20G"});
    ASSERT_EQ(reloadZones(true), StatusCode::Success);
    EXPECT_EQ(table().entriesCreated(), 0u);
    ASSERT_EQ(reloadZones(false), StatusCode::Success);
    EXPECT_EQ(table().entriesCreated(), 2u);
    ASSERT_EQ(reloadZones(false), StatusCode::Success) << "the table made at that load is found again";
}

// Lost locations on a pack that has Zones must never lead to a new, empty
// table: every Zone would be orphaned.
TEST_F(ZoneTableOnDisks, LostLocationsOnAPackInUseFailTheLoadAndMakeNoTable) {
    makeZonePack({"20G", "20G", "20G"});
    allocate();
    {
        IOTracker t(READ_WRITE);
        for (unsigned i = 0; i < 3; ++i) ASSERT_EQ(rm()->SetMetaData(i, 0, 0, t), StatusCode::Success);
        ASSERT_EQ(t.commit(), StatusCode::Success);
    }
    uint32_t freeBefore = 0;
    {
        IOTracker t(READ_ONLY);
        ASSERT_EQ(rm()->GetFreeRegionCount(0, freeBefore, t), StatusCode::Success);
    }
    EXPECT_EQ(reloadZones(true), StatusCode::BadMetadata);
    EXPECT_EQ(reloadZones(false), StatusCode::BadMetadata);
    uint32_t freeAfter = 0;
    IOTracker t(READ_ONLY);
    ASSERT_EQ(rm()->GetFreeRegionCount(0, freeAfter, t), StatusCode::Success);
    EXPECT_EQ(freeAfter, freeBefore) << "no Region was taken for a new table";
}

class ZoneTableCopies : public ZoneTableTestFixture {
protected:
    ZoneTableEntry entryOnDisk(unsigned copyIndex, uint32_t zone) {
        const Location l = copy(copyIndex);
        const uint32_t position = 0x1000 + zone * 0x1C0;
        std::vector<uint8_t> sectors = raw(l.ld, lbaOf(l.ld, l.region, position & ~511u), 2);
        ZoneTableEntry e;
        ZISFormat::DecodeEntry(8, sectors.data() + (position & 511u), e);
        return e;
    }
    ZISHeader headerOnDisk(unsigned copyIndex) {
        const Location l = copy(copyIndex);
        std::vector<uint8_t> block = raw(l.ld, lbaOf(l.ld, l.region), 8);
        ZISHeader h;
        EXPECT_EQ(ZISFormat::DecodeHeader(block.data(), h), StatusCode::Success) << "copy " << copyIndex;
        return h;
    }
};

TEST_F(ZoneTableCopies, EveryUpdateReachesAllThreeCopiesAndTheGenerationRises) {
    makeZonePack({"20G", "20G", "20G"});
    const uint32_t before = headerOnDisk(0).generation;
    const uint32_t zone = allocate();
    ZoneTableEntry mem;
    ASSERT_EQ(table().LookupZone(zone, mem), StatusCode::Success);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_TRUE(entryOnDisk(i, zone).Matches(mem)) << "copy " << i;
        const ZISHeader h = headerOnDisk(i);
        EXPECT_TRUE(ZISFormat::GenerationNewer(h.generation, before)) << "copy " << i;
        EXPECT_EQ(h.entryCount, table().entriesCreated());
        EXPECT_EQ(h, headerOnDisk(0)) << "all three copies carry identical headers";
    }
}

TEST_F(ZoneTableCopies, CorruptPrimaryIsRebuiltOnADiskThatHoldsNoOtherCopy) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    const uint32_t zone = allocate();
    const Location old = copy(0);
    std::vector<uint8_t> garbage(4096, 0xA5);
    writeRaw(old.ld, lbaOf(old.ld, old.region), garbage);
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    const Location fresh = copy(0);
    EXPECT_NE(fresh.ld, copy(1).ld);
    EXPECT_NE(fresh.ld, copy(2).ld);
    EXPECT_FALSE(fresh.ld == old.ld && fresh.region == old.region) << "a new Region takes the copy";
    bool allocated = true;
    IOTracker t(READ_ONLY);
    ASSERT_EQ(rm()->IsAllocated(old.ld, old.region, allocated, t), StatusCode::Success);
    t.commitIfDirty();
    EXPECT_FALSE(allocated) << "the bad copy's Region goes back";
    ZoneTableEntry mem;
    ASSERT_EQ(table().LookupZone(zone, mem), StatusCode::Success);
    EXPECT_TRUE(entryOnDisk(0, zone).Matches(mem));
    EXPECT_EQ(headerOnDisk(0), headerOnDisk(1));
    // And the Region layer points every later load at the new copy.
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_EQ(copy(0).ld, fresh.ld);
    EXPECT_EQ(copy(0).region, fresh.region);
    ASSERT_EQ(table().LookupZone(zone, mem), StatusCode::Success);
}

TEST_F(ZoneTableCopies, ACopyThatMissedUpdatesLosesTheVote) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    const Location tertiary = copy(2);
    // The tertiary copy as it stood before two more Zones were made.
    const uint32_t headerLba = lbaOf(tertiary.ld, tertiary.region);
    std::vector<uint8_t> stale = raw(tertiary.ld, headerLba, 16);
    const uint32_t a = allocate(), b = allocate();
    writeRaw(tertiary.ld, headerLba, stale);
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    ZoneTableEntry e;
    EXPECT_EQ(table().LookupZone(a, e), StatusCode::Success);
    EXPECT_EQ(table().LookupZone(b, e), StatusCode::Success);
    EXPECT_EQ(headerOnDisk(2).entryCount, table().entriesCreated()) << "the stale copy was rebuilt";
    EXPECT_TRUE(entryOnDisk(2, b).Matches(e));
}

TEST_F(ZoneTableCopies, AllCopiesUnreadableFailsTheLoad) {
    makeZonePack({"20G", "20G", "20G"});
    std::vector<uint8_t> garbage(4096, 0x5A);
    for (unsigned i = 0; i < 3; ++i) {
        const Location l = copy(i);
        writeRaw(l.ld, lbaOf(l.ld, l.region), garbage);
    }
    unloadZones();
    ASSERT_EQ(reload(true), StatusCode::Success);
    EXPECT_EQ(zm()->LoadDiskPack(), StatusCode::BadMetadata);
}

TEST_F(ZoneTableCopies, AVersion6TableLoadsAndIsRewrittenAsVersion8OnFreshRegions) {
    makeZonePack({"20G", "20G", "20G"});
    const uint32_t zone = allocate();
    ZoneTableEntry mem;
    ASSERT_EQ(table().LookupZone(zone, mem), StatusCode::Success);
    // Rewrite the primary and secondary as a version 6 table, newer than the tertiary.
    ZISHeader h = headerOnDisk(0);
    h.version = 6;
    h.generation = ZISFormat::NextGeneration(h.generation);
    const Location old[3] = {copy(0), copy(1), copy(2)};
    for (unsigned i = 0; i < 2; ++i) {
        std::vector<uint8_t> block(4096 + 4096 * 4, 0);
        ZISFormat::EncodeOldHeader(h, block.data());
        for (uint32_t z = 0; z < h.entryCount; ++z) {
            ZoneTableEntry e;
            table().RawLookupZone(z, e);
            ZISFormat::EncodeOldEntry(6, e, block.data() + 0x1000 + z * 0x134);
        }
        writeRaw(old[i].ld, lbaOf(old[i].ld, old[i].region), block);
    }
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(headerOnDisk(i).version, 8u);
        EXPECT_FALSE(copy(i).ld == old[i].ld && copy(i).region == old[i].region) << "copy " << i << " moved";
        EXPECT_TRUE(entryOnDisk(i, zone).Matches(mem)) << "copy " << i;
    }
    ZoneTableEntry back;
    ASSERT_EQ(table().LookupZone(zone, back), StatusCode::Success);
    EXPECT_TRUE(back.Matches(mem));
}

TEST_F(ZoneTableCopies, RetiredTypesMakeTheTableUnreadable) {
    makeZonePack({"20G", "20G", "20G"});
    const uint32_t zone = allocate();
    for (unsigned i = 0; i < 3; ++i) {
        const Location l = copy(i);
        const uint32_t position = 0x1000 + zone * 0x1C0;
        const uint32_t lba = lbaOf(l.ld, l.region, position & ~511u);
        std::vector<uint8_t> sectors = raw(l.ld, lba, 2);
        putLE32(sectors.data() + (position & 511u) + 4, 4);  // a type of the retired range
        writeRaw(l.ld, lba, sectors);
    }
    unloadZones();
    ASSERT_EQ(reload(true), StatusCode::Success);
    EXPECT_EQ(zm()->LoadDiskPack(), StatusCode::BadMetadata);
}

TEST_F(ZoneTableCopies, ReadOnlyLoadWritesNothingAndRefusesChanges) {
    makeZonePack({"20G", "20G"});
    const Location p = copy(0);
    const std::vector<uint8_t> before = raw(p.ld, lbaOf(p.ld, p.region), 8);
    ASSERT_EQ(reloadZones(true), StatusCode::Success);
    IOTracker t(READ_WRITE);
    uint32_t zone = 0;
    EXPECT_EQ(zm()->AllocateZone(zone, t), StatusCode::ReadOnlyMode);
    EXPECT_EQ(zm()->AllocateMetadataZone(zone, t), StatusCode::ReadOnlyMode);
    ZoneTableEntry e;
    table().RawLookupZone(0, e);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), t);
        EXPECT_EQ(table().UpdateZoneTableEntry(0, e, t), StatusCode::ReadOnlyMode);
    }
    t.commitIfDirty();
    EXPECT_EQ(raw(p.ld, lbaOf(p.ld, p.region), 8), before);
}

TEST_F(ZoneTableCopies, ModeSwitchesPersistInTheZis) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    EXPECT_FALSE(table().DualRedundancyMode());
    ASSERT_EQ(table().SetDualRedundancyMode(true), StatusCode::Success);
    ASSERT_EQ(table().SetUseSelfmirrored(true), StatusCode::Success);
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_TRUE(table().DualRedundancyMode());
    EXPECT_TRUE(table().UseSelfMirrored());
    EXPECT_EQ(headerOnDisk(1).flags, ZISHeader::kUseDualRedundancy | ZISHeader::kUseSelfMirroring);
    ASSERT_EQ(table().SetDualRedundancyMode(false), StatusCode::Success);
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_FALSE(table().DualRedundancyMode());
}

TEST_F(ZoneTableCopies, AFullTableRefusesNewZonesAndGivesTheirRegionsBack) {
    makeZonePack({"20G", "20G"});
    const uint32_t max = table().maxEntries();
    ASSERT_GT(max, 1000u);
    // Fill the table in memory to its last entry: in use, no Regions.
    while (table().entriesCreated() < max - 1) {
        ZoneTableEntry e = ZoneTableEntry::Fresh();
        e.redundancyType = uint32_t(RedundancyType::Mirrored);
        e.flags = ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
        table().AddEntry(e);
    }
    // The last entry fits: its two sectors lie inside the table Region.
    const uint32_t last = allocate();
    EXPECT_EQ(last, max - 1);
    ZoneTableEntry mem;
    ASSERT_EQ(table().LookupZone(last, mem), StatusCode::Success);
    EXPECT_TRUE(entryOnDisk(2, last).Matches(mem));
    IOTracker t(READ_WRITE);
    uint32_t free0 = 0, free1 = 0;
    rm()->GetFreeRegionCount(0, free0, t);
    rm()->GetFreeRegionCount(1, free1, t);
    uint32_t zone = 0;
    EXPECT_EQ(zm()->AllocateZone(zone, t), StatusCode::ZoneOverflow);
    t.commitIfDirty();
    IOTracker r(READ_ONLY);
    uint32_t after0 = 0, after1 = 0;
    rm()->GetFreeRegionCount(0, after0, r);
    rm()->GetFreeRegionCount(1, after1, r);
    r.commitIfDirty();
    EXPECT_EQ(after0, free0);
    EXPECT_EQ(after1, free1);
    EXPECT_EQ(table().entriesCreated(), max);
}

}  // namespace
