// ZoneManager beyond allocation: capacity figures as Zones come and go, the
// critical-disk answers and the table's protection when a disk is pulled, and
// the console commands of the Zone table.
#include <gtest/gtest.h>

#include <sstream>

#include "util/ConsoleCommand.h"
#include "zone/ZoneTableTestSupport.h"

namespace {

class ZoneManagerOnDisks : public ZoneTableTestFixture {
protected:
    // Takes the disk in `slot` out as a hot removal does, below the Zone layer.
    void pull(int slot) {
        std::string where;
        ASSERT_TRUE(ctl().pullDisk(slot, where));
        drainMessages();
        ASSERT_EQ(dm()->RemoveDisk(slot), StatusCode::Success);
        leavePack(uint16_t(slot));
        rm()->RemoveDisk(uint16_t(slot));
        ASSERT_FALSE(DiskPackManager::GetInstance()->isPresent(uint16_t(slot)));
    }
    bool critical(uint16_t ld) {
        IOTracker t(READ_ONLY);
        bool c = zm()->IsCriticalDisk(ld, true, t);
        t.commitIfDirty();
        return c;
    }
    std::string console(const std::string& line) {
        std::ostringstream out;
        ConsoleCommand::ExecuteLine(line, out);
        return out.str();
    }
};

TEST_F(ZoneManagerOnDisks, CapacityFiguresFollowAllocation) {
    makeZonePack({"20G", "20G"});
    IOTracker t(READ_ONLY);
    uint64_t potential = 0, allocated = 0, freeZones = 0;
    ASSERT_EQ(zm()->GetZoneCounts(potential, allocated, t), StatusCode::Success);
    ASSERT_EQ(zm()->GetFreeZoneCount(freeZones, t), StatusCode::Success);
    EXPECT_EQ(allocated, 1u) << "Zone 0; Zone 1 holds no Regions";
    EXPECT_GT(freeZones, 5u);
    EXPECT_EQ(zm()->cachedPotentialZoneCount(), potential);
    for (unsigned i = 1; i <= 3; ++i) {
        allocate();
        uint64_t p = 0, a = 0, f = 0;
        ASSERT_EQ(zm()->GetZoneCounts(p, a, t), StatusCode::Success);
        ASSERT_EQ(zm()->GetFreeZoneCount(f, t), StatusCode::Success);
        EXPECT_EQ(a, 1u + i);
        EXPECT_EQ(f, freeZones - i) << "two equal disks: each Mirrored Zone takes one from the free count";
        EXPECT_EQ(p, potential) << "the potential count does not depend on what is allocated";
    }
    uint64_t self = 0;
    ASSERT_EQ(zm()->GetSelfMirroredZoneTotal(self), StatusCode::Success);
    EXPECT_EQ(self, 0u) << "two disks with room for mirrors book no self-mirrored Zone";
    t.commitIfDirty();
}

TEST_F(ZoneManagerOnDisks, ADiskBecomesCriticalWhenItsPartnerIsPulled) {
    makeZonePack({"20G", "20G", "20G"});
    ZoneTableEntry zero;
    table().RawLookupZone(0, zero);
    const uint16_t a = zero.disk[0], b = zero.disk[24];
    ASSERT_NE(a, b);
    for (uint16_t ld = 0; ld < 3; ++ld) EXPECT_FALSE(critical(ld)) << ld;
    pull(b);
    EXPECT_TRUE(critical(a)) << "Zone 0's last copy";
    ZoneTableEntry again;
    table().RawLookupZone(0, again);
    EXPECT_TRUE(again.IsDegraded());
    EXPECT_TRUE(again.UsesMissingDisk());
}

TEST_F(ZoneManagerOnDisks, OneDiskPacksAreSelfMirroredAndTheirDiskCritical) {
    makeZonePack({"20G"});
    RedundancyType type;
    allocate(&type);
    EXPECT_EQ(type, RedundancyType::SelfMirrored);
    EXPECT_TRUE(critical(0));
}

TEST_F(ZoneManagerOnDisks, APulledCopyIsRebuiltOnADiskThatHoldsNoOtherCopy) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    const uint32_t zone = allocate();
    const Location gone = copy(2);
    pull(gone.ld);
    ASSERT_EQ(table().ZoneTableProtected(nullptr), StatusCode::Success);
    const Location fresh = copy(2);
    EXPECT_NE(fresh.ld, gone.ld);
    EXPECT_NE(fresh.ld, copy(0).ld);
    EXPECT_NE(fresh.ld, copy(1).ld);
    EXPECT_TRUE(DiskPackManager::GetInstance()->isPresent(fresh.ld));
    std::ostringstream report;
    EXPECT_TRUE(table().ConsistencyCheck(2, report, false)) << report.str();
    ZoneTableEntry e;
    EXPECT_EQ(table().LookupZone(zone, e), StatusCode::Success);
}

TEST_F(ZoneManagerOnDisks, ACopyOnAFullDiskMovesToOneWithRoom) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    const Location before = copy(1);
    // Fill the secondary's disk to below the reserve.
    IOTracker t(READ_WRITE);
    uint32_t free = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(before.ld, free, t), StatusCode::Success);
    std::vector<uint32_t> taken(free - 10);
    ASSERT_EQ(rm()->AllocateRegions(before.ld, uint32_t(taken.size()), taken.data(), false, t), StatusCode::Success);
    t.commit();
    ASSERT_EQ(table().ZoneTableProtected(nullptr), StatusCode::Success);
    const Location after = copy(1);
    EXPECT_NE(after.ld, before.ld);
    EXPECT_NE(after.ld, copy(0).ld);
    EXPECT_NE(after.ld, copy(2).ld);
    std::ostringstream report;
    EXPECT_TRUE(table().ConsistencyCheck(1, report, false)) << report.str();
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_EQ(copy(1).ld, after.ld);
}

TEST_F(ZoneManagerOnDisks, ConsoleCorruptZisIsRepairedAtTheNextLoad) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    const Location before = copy(0);
    EXPECT_NE(console("corruptZIS").find("corrupted"), std::string::npos);
    std::ostringstream report;
    EXPECT_FALSE(table().ConsistencyCheck(0, report, false));
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_FALSE(copy(0).ld == before.ld && copy(0).region == before.region);
    EXPECT_TRUE(table().ConsistencyCheck(0, report, false)) << report.str();
}

TEST_F(ZoneManagerOnDisks, ConsoleCommandsOfTheTable) {
    EXPECT_NE(console("dualRedundancy on").find("Unable"), std::string::npos) << "no pack, no switch";
    makeZonePack({"20G", "20G", "20G", "20G"});
    EXPECT_NE(console("dumpZoneTableEntry 0").find("Mirrored"), std::string::npos);
    EXPECT_NE(console("dumpZoneTableEntry 99").find("past the end"), std::string::npos);
    EXPECT_NE(console("dumpZoneTableEntry x").find("Syntax"), std::string::npos);
    EXPECT_NE(console("dualRedundancy on").find("enabled and in force"), std::string::npos);
    RedundancyType type;
    allocate(&type);
    EXPECT_EQ(type, RedundancyType::DRStripe4);
    EXPECT_NE(console("dualRedundancy off").find("disabled"), std::string::npos);
    EXPECT_NE(console("useSelfMirrored off").find("cannot be turned off"), std::string::npos);
    EXPECT_NE(console("useSelfMirrored on").find("enabled"), std::string::npos);
    EXPECT_NE(console("setStripeThreshold 101").find("Syntax"), std::string::npos);
    EXPECT_EQ(zm()->StripingThreshold(), 50u);
    EXPECT_NE(console("deallocateZone 1").find("InvalidZoneNumber"), std::string::npos);
    EXPECT_NE(console("state ZoneTable").find("Number of Entries created"), std::string::npos);
}

}  // namespace
