// Degraded, double-degraded and critical: which losses of disks and Regions a
// Zone reports, for single- and dual-redundancy types, with the pack's dual
// redundancy switch off and on.
#include <gtest/gtest.h>

#include "zone/ZoneRedundancyState.h"

namespace {

using RT = RedundancyType;
constexpr uint32_t kR = 0x78000;

// A Zone laid out as allocation lays it: column c of the type on disk 10 + c.
struct TestZone {
    explicit TestZone(RT type, bool inUse = true) : type(type), inUse(inUse) {
        RedundancyGeometry g(type, 2, kR);
        for (unsigned s = 0; s < RedundancyGeometry::kMaxSlots; ++s) {
            disks[s] = uint16_t(10 + g.columnOfSlot(s));
            regions[s] = s < RedundancyGeometry::GetRegionCount(type) ? 100 + s : 0;
        }
    }
    ZoneRedundancyState state(const std::vector<uint16_t>& missing, bool dualMode) const {
        return ZoneRedundancyState(ZoneSlotsView{type, 2, inUse, disks, regions}, kR, missing, dualMode);
    }
    RT type;
    bool inUse;
    uint16_t disks[RedundancyGeometry::kMaxSlots];
    uint32_t regions[RedundancyGeometry::kMaxSlots];
};

TEST(ZoneRedundancyState, IntactZonesReportNothingButSingleCopyTypesAreAlwaysCritical) {
    const std::vector<uint16_t> none;
    for (RT type : kRedundancyTypes) {
        TestZone z(type);
        auto s = z.state(none, RedundancyGeometry::DualRedundancy(type));
        EXPECT_FALSE(s.IsDegraded());
        EXPECT_FALSE(s.IsDoubleDegraded());
        EXPECT_FALSE(s.UsesMissingDisk());
        EXPECT_TRUE(s.UsesDisk(10));
        EXPECT_FALSE(s.UsesDisk(30));
        const bool singleCopy = type == RT::None || type == RT::SelfMirrored;
        EXPECT_EQ(s.DiskIsCritical(10), singleCopy) << RedundancyGeometry::DecodeRedundancyType(uint32_t(type));
    }
}

TEST(ZoneRedundancyState, OneLostDiskOfASingleRedundancyZone) {
    TestZone z(RT::HStripe4);
    const std::vector<uint16_t> missing{11};
    auto off = z.state(missing, false);
    EXPECT_TRUE(off.IsDegraded());
    EXPECT_FALSE(off.IsDoubleDegraded());
    EXPECT_TRUE(off.UsesMissingDisk());
    EXPECT_TRUE(off.DiskIsCritical(10));  // one more loss loses data
    EXPECT_TRUE(off.IsDegradedRegion(0x1000, RegionCopy::Data));   // column 1
    EXPECT_FALSE(off.IsDegradedRegion(0x2000, RegionCopy::Data));  // column 2
    EXPECT_FALSE(off.IsDegradedRegion(0x1000, RegionCopy::Primary));
    // With dual redundancy on, a single-redundancy Zone is already short: it
    // is reported double degraded instead.
    auto on = z.state(missing, true);
    EXPECT_FALSE(on.IsDegraded());
    EXPECT_TRUE(on.IsDoubleDegraded());
}

TEST(ZoneRedundancyState, DualZonesCountLostDisksOnceEach) {
    TestZone z(RT::DRStripe6);
    auto one = z.state({12}, true);
    EXPECT_TRUE(one.IsDegraded());
    EXPECT_FALSE(one.IsDoubleDegraded());
    EXPECT_FALSE(one.DiskIsCritical(10));
    auto two = z.state({12, 15}, true);
    EXPECT_TRUE(two.IsDoubleDegraded());
    EXPECT_TRUE(two.DiskIsCritical(10));
    EXPECT_TRUE(two.IsDegradedRegion(0, RegionCopy::Secondary));  // the diagonal column is disk 15
    EXPECT_FALSE(z.state({12, 30}, true).IsDoubleDegraded());     // disk 30 holds nothing of it

    // A Region patched out (number 0) on the missing disk's column is the same loss...
    TestZone patched(RT::DRStripe6);
    patched.regions[2 * 6 + 1] = 0;  // column 2, Region row 1: disk 12
    EXPECT_FALSE(patched.state({12}, true).IsDoubleDegraded());
    // ...on another column it is a second one.
    patched.regions[3 * 6 + 1] = 0;  // column 3: disk 13
    EXPECT_TRUE(patched.state({12}, true).IsDoubleDegraded());
    EXPECT_TRUE(patched.state({}, true).IsDoubleDegraded());
    EXPECT_TRUE(patched.state({}, true).IsDegradedRegion(3 * 0x1000 + 0x78000 * 4, RegionCopy::Data));
}

TEST(ZoneRedundancyState, ZonesNotInUseAndSlotsWithoutRegionsHoldNothing) {
    TestZone idle(RT::Mirrored, false);
    auto s = idle.state({10, 11}, false);
    EXPECT_FALSE(s.IsDegraded());
    EXPECT_FALSE(s.IsDoubleDegraded());
    TestZone z(RT::Mirrored);
    for (unsigned slot = 24; slot < 48; ++slot) z.regions[slot] = 0;  // the copy is gone entirely
    auto t = z.state({}, false);
    EXPECT_FALSE(t.UsesDisk(11));
    EXPECT_TRUE(t.IsDegraded());
    EXPECT_TRUE(t.DiskIsCritical(10));
    EXPECT_FALSE(t.DiskIsCritical(11));
}

}  // namespace
