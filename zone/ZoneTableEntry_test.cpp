// The Zone table entry's own predicates: what it holds, and how degraded it
// is against a list of missing disks with dual redundancy off and on.
#include <gtest/gtest.h>

#include "zone/ZoneTableEntry.h"

namespace {

using RT = RedundancyType;

// An in-use entry of `type` whose columns lie on LDs 0, 1, 2... in order,
// Region numbers from 100 up.
ZoneTableEntry laidOut(RT type, uint32_t zone = 5) {
    ZoneTableEntry e = ZoneTableEntry::Fresh();
    e.zoneNumber = zone;
    e.redundancyType = uint32_t(type);
    e.flags = ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
    const unsigned perColumn = RedundancyGeometry::SlotsPerColumn(type);
    for (unsigned s = 0; s < RedundancyGeometry::GetRegionCount(type); ++s) {
        e.disk[s] = uint16_t(s / perColumn);
        e.region[s] = 100 + s;
    }
    return e;
}

TEST(ZoneTableEntryHolds, RegionsPerDiskCountsOnlyTheTypesSlots) {
    ZoneTableEntry e = laidOut(RT::HStripe4);  // 4 columns of 8
    e.disk[40] = 3, e.region[40] = 7;           // beyond the 32 slots: ignored
    uint32_t counts[24];
    e.GetRegionsPerLogicalDisk(counts);
    for (unsigned ld = 0; ld < 4; ++ld) EXPECT_EQ(counts[ld], 8u) << ld;
    EXPECT_EQ(counts[4], 0u);
    e.region[0] = 0;
    e.GetRegionsPerLogicalDisk(counts);
    EXPECT_EQ(counts[0], 7u);
    EXPECT_TRUE(e.HasUnusableRegions());
}

TEST(ZoneTableEntryHolds, HasRegionsLooksAtTheFirstTwoSlots) {
    ZoneTableEntry e = ZoneTableEntry::Fresh();
    EXPECT_FALSE(e.HasRegions());
    e.region[1] = 9;
    EXPECT_TRUE(e.HasRegions());
    e.region[1] = 0, e.disk[0] = 2;
    EXPECT_TRUE(e.HasRegions());
}

TEST(ZoneTableEntryHolds, MatchesIgnoresOnlyTheTimestamp) {
    ZoneTableEntry a = laidOut(RT::Mirrored), b = a;
    b.lastWrittenTimestamp = 1234;
    EXPECT_TRUE(a.Matches(b));
    b.region[47] ^= 1;
    EXPECT_FALSE(a.Matches(b));
    b = a, b.flags |= ZoneTableEntry::kMetadata;
    EXPECT_FALSE(a.Matches(b));
    b = a, b.disk[71] = 9;  // a slot the type does not use still counts
    EXPECT_FALSE(a.Matches(b));
}

TEST(ZoneTableEntryHolds, CanPatchNeedsMirroredOrBetterAndNotZoneZero) {
    EXPECT_FALSE(laidOut(RT::SelfMirrored).CanPatch());
    EXPECT_TRUE(laidOut(RT::Mirrored).CanPatch());
    EXPECT_TRUE(laidOut(RT::Mirrored3).CanPatch());
    EXPECT_TRUE(laidOut(RT::DRStripe6).CanPatch());
    EXPECT_FALSE(laidOut(RT::Mirrored, 0).CanPatch());
}

TEST(ZoneTableEntryDegraded, SingleRedundancyTypesWithDualOff) {
    for (RT type : {RT::Mirrored, RT::HStripe3, RT::HStripe5}) {
        ZoneTableEntry e = laidOut(type);
        EXPECT_FALSE(e.state({7}, false).IsDegraded());
        EXPECT_TRUE(e.state({1}, false).IsDegraded());
        EXPECT_FALSE(e.state({1}, false).IsDoubleDegraded()) << "dual off never reports double";
        EXPECT_TRUE(e.state({1}, false).UsesMissingDisk());
        // The other columns are critical once one is gone.
        EXPECT_TRUE(e.state({1}, false).DiskIsCritical(0));
        EXPECT_FALSE(e.state({}, false).DiskIsCritical(0));
        EXPECT_FALSE(e.state({1}, false).DiskIsCritical(7)) << "a disk the Zone does not use";
    }
}

TEST(ZoneTableEntryDegraded, DualModeMovesSingleRedundancyZonesToDoubleDegraded) {
    ZoneTableEntry e = laidOut(RT::Mirrored);
    EXPECT_FALSE(e.state({1}, true).IsDegraded());
    EXPECT_TRUE(e.state({1}, true).IsDoubleDegraded());
    // A lost Region with no missing disk counts the same.
    e.region[30] = 0;
    EXPECT_TRUE(e.state({}, true).IsDoubleDegraded());
    EXPECT_TRUE(e.state({}, false).IsDegraded());
}

TEST(ZoneTableEntryDegraded, DualTypesNeedTwoLostDisksForDoubleDegraded) {
    for (RT type : {RT::Mirrored3, RT::DRStripe4, RT::DRStripe8}) {
        ZoneTableEntry e = laidOut(type);
        EXPECT_TRUE(e.state({2}, true).IsDegraded());
        EXPECT_FALSE(e.state({2}, true).IsDoubleDegraded());
        EXPECT_TRUE(e.state({0, 2}, true).IsDoubleDegraded());
        EXPECT_FALSE(e.state({0}, true).DiskIsCritical(1)) << "a dual type survives one more loss";
        EXPECT_TRUE(e.state({0, 2}, true).DiskIsCritical(1));
    }
}

TEST(ZoneTableEntryDegraded, NotInUseIsNeverDegraded) {
    ZoneTableEntry e = laidOut(RT::Mirrored);
    e.flags = 0;
    EXPECT_FALSE(e.state({0, 1}, false).IsDegraded());
    EXPECT_FALSE(e.state({0, 1}, true).IsDoubleDegraded());
}

TEST(ZoneTableEntryDegraded, SelfMirroredAndNoneMakeTheirDiskCritical) {
    EXPECT_TRUE(laidOut(RT::SelfMirrored).state({}, false).DiskIsCritical(0));
    EXPECT_TRUE(laidOut(RT::None).state({}, false).DiskIsCritical(0));
}

TEST(ZoneTableEntryDegraded, RegionLevelLossFollowsTheCopy) {
    SystemDrivePackInfo::GetInstance()->set(SystemDrivePackInfo::RegionSize, 0x100000);
    ZoneTableEntry e = laidOut(RT::Mirrored, 4);  // even: data in column 0, copy in column 1
    EXPECT_TRUE(e.state({0}, false).IsDegradedRegion(0, RegionCopy::Data));
    EXPECT_FALSE(e.state({0}, false).IsDegradedRegion(0, RegionCopy::Primary));
    EXPECT_TRUE(e.IsDegradedRegion(0, 1)) << "no disk is present in this test, so every copy is lost";
    SystemDrivePackInfo::GetInstance()->unset(SystemDrivePackInfo::RegionSize);
}

TEST(ZoneTableEntryDegraded, ThePackFormsReadThePresentDisks) {
    // No disk is ready in a unit test's board: every LD counts as missing.
    EXPECT_EQ(ZoneTableEntry::MissingDisks().size(), 24u);
    ZoneTableEntry e = laidOut(RT::Mirrored);
    EXPECT_TRUE(e.IsDegraded());
    EXPECT_TRUE(e.UsesMissingDisk());
    EXPECT_FALSE(e.IsDoubleDegraded()) << "dual redundancy is off in a table never loaded";
}

}  // namespace
