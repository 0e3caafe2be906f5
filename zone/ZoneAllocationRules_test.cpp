// The type choice of Zone allocation over made-up packs: 1 to 8 disks with
// dual redundancy off and on, the reserve's edge, the critical-disk refusal,
// and, for mixed sizes, the whole sequence of types until OutOfSpace against a
// model written from the rules (which types exist, how many disks and Regions
// each needs beyond the reserve).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "zone/RedundancyGeometry.h"
#include "zone/ZoneAllocationModel.h"
#include "zone/ZoneAllocationRules.h"

namespace {

using RT = RedundancyType;
namespace R = ZoneAllocationRules;

std::vector<FreeRegions> pack(std::vector<uint64_t> counts) {
    std::vector<FreeRegions> v;
    for (size_t i = 0; i < counts.size(); ++i) v.push_back({uint16_t(i), counts[i]});
    return v;
}

AllocationSwitches switches(bool dual, bool self = false) {
    AllocationSwitches sw;
    sw.dualBit = dual;
    sw.selfMirroringBit = self;
    return sw;
}

RT choose(std::vector<uint64_t> counts, bool dual, bool stripes = true, bool allowSelf = false,
          StatusCode expect = StatusCode::Success) {
    std::vector<FreeRegions> v = pack(counts);
    RT type = RT::Unset;
    EXPECT_EQ(R::ChooseRedundancy(v, switches(dual), stripes, allowSelf, type), expect);
    return type;
}

std::string name(RT t) { return RedundancyGeometry::DecodeRedundancyType(uint32_t(t)); }

TEST(ZoneTypeChoice, OneToEightEqualDisksDualOffAndOn) {
    const RT off[] = {RT::SelfMirrored, RT::Mirrored, RT::HStripe3, RT::HStripe4,
                      RT::HStripe5,     RT::HStripe5, RT::HStripe7, RT::HStripe7};
    const RT on[] = {RT::SelfMirrored, RT::Mirrored, RT::Mirrored3, RT::DRStripe4,
                     RT::DRStripe5,    RT::DRStripe6, RT::DRStripe6, RT::DRStripe8};
    for (size_t disks = 1; disks <= 8; ++disks) {
        std::vector<uint64_t> counts(disks, 5000);
        EXPECT_EQ(name(choose(counts, false)), name(off[disks - 1])) << disks << " disks, dual off";
        EXPECT_EQ(name(choose(counts, true)), name(on[disks - 1])) << disks << " disks, dual on";
    }
}

TEST(ZoneTypeChoice, MetadataZonesAreNeverStriped) {
    for (size_t disks = 1; disks <= 8; ++disks) {
        std::vector<uint64_t> counts(disks, 5000);
        const RT off = disks == 1 ? RT::SelfMirrored : RT::Mirrored;
        const RT on = disks == 1 ? RT::SelfMirrored : disks == 2 ? RT::Mirrored : RT::Mirrored3;
        EXPECT_EQ(name(choose(counts, false, false)), name(off)) << disks;
        EXPECT_EQ(name(choose(counts, true, false)), name(on)) << disks;
    }
}

TEST(ZoneTypeChoice, TheReserveOfTwentyFourIsNeverCounted) {
    // Mirrored needs 24 beyond the reserve on two disks: 48 each.
    EXPECT_EQ(name(choose({48, 48}, false)), "Mirrored");
    choose({48, 47}, false, true, false, StatusCode::OutOfSpace);
    // HStripe3 needs 12 beyond the reserve: 36; a disk with exactly 24 counts 0.
    EXPECT_EQ(name(choose({36, 36, 36}, false)), "HStripe3");
    EXPECT_EQ(name(choose({100, 100, 35}, false)), "Mirrored");
    // HStripe7 needs 4 beyond; 25 counts 1.
    EXPECT_EQ(name(choose({28, 28, 28, 28, 28, 28, 28}, false)), "HStripe7");
    EXPECT_EQ(name(choose({30, 30, 30, 30, 30, 30, 27}, false)), "HStripe5");
    // SelfMirrored on one disk needs 48 beyond.
    EXPECT_EQ(name(choose({72}, false)), "SelfMirrored");
    choose({71}, false, true, false, StatusCode::OutOfSpace);
}

TEST(ZoneTypeChoice, DualModeOffersNothingBelowMirrored3) {
    EXPECT_EQ(name(choose({48, 48, 48}, true)), "Mirrored3");
    choose({48, 48, 47}, true, true, true, StatusCode::OutOfSpace);
    // Two disks: the dual bit alone changes nothing.
    EXPECT_EQ(name(choose({5000, 5000}, true)), "Mirrored");
}

TEST(ZoneTypeChoice, EightDisksWithOnlyOneRoomyNeedsSelfMirroring) {
    std::vector<uint64_t> counts = {5000, 26, 26, 26, 26, 26, 26, 26};
    choose(counts, false, true, false, StatusCode::OutOfSpace);
    EXPECT_EQ(name(choose(counts, false, true, true)), "SelfMirrored");
    std::vector<FreeRegions> v = pack(counts);
    RT type = RT::Unset;
    EXPECT_EQ(R::ChooseRedundancy(v, switches(false, true), true, false, type), StatusCode::Success)
        << "the pack's self-mirroring bit allows it too";
}

TEST(ZoneTypeChoice, SelfMirroredRefusedWhenEveryOtherDiskIsCritical) {
    AllocationSwitches sw = switches(false, true);
    uint16_t asked = 99;
    sw.allOtherDisksCritical = [&](uint16_t ld) {
        asked = ld;
        return true;
    };
    std::vector<FreeRegions> v = pack({26, 26, 26, 26, 26, 26, 26, 5000});
    RT type = RT::Unset;
    EXPECT_EQ(R::ChooseRedundancy(v, sw, true, true, type), StatusCode::OutOfSpace);
    EXPECT_EQ(type, RT::SelfMirrored);
    EXPECT_EQ(asked, 7u) << "asked about the disk the Zone would use";
}

TEST(ZoneTypeChoice, MirrorOnlyNarrowsStripes) {
    EXPECT_EQ(R::NarrowForMirrorOnly(RT::DRStripe8, true), RT::Mirrored3);
    EXPECT_EQ(R::NarrowForMirrorOnly(RT::HStripe5, false), RT::Mirrored);
    EXPECT_EQ(R::NarrowForMirrorOnly(RT::Mirrored3, false), RT::Mirrored);
    EXPECT_EQ(R::NarrowForMirrorOnly(RT::Mirrored3, true), RT::Mirrored3);
    EXPECT_EQ(R::NarrowForMirrorOnly(RT::SelfMirrored, false), RT::SelfMirrored);
}

TEST(ZoneTypeChoice, MixedSizesFollowTheRulesUntilOutOfSpace) {
    const std::vector<std::vector<uint64_t>> packs = {
        {900, 700, 300, 120},          {400, 400, 400, 400, 100, 100, 60, 30},
        {1000, 150},                   {333, 222, 111, 444, 555},
        {80, 80, 80, 80, 80, 80, 2000}, {3000, 40, 40, 40, 40, 40, 40, 40}};
    for (bool dual : {false, true}) {
        for (const auto& start : packs) {
            std::vector<uint64_t> real = start, model = start;
            std::map<std::string, unsigned> seen;
            for (unsigned step = 0;; ++step) {
                ASSERT_LT(step, 10000u);
                ZoneAllocationModel::Type want{};
                const bool modelFits = ZoneAllocationModel::choose(model, dual, want);
                std::vector<FreeRegions> v = pack(real);
                RT got = RT::Unset;
                StatusCode st = R::ChooseRedundancy(v, switches(dual), true, false, got);
                ASSERT_EQ(st == StatusCode::Success, modelFits) << "step " << step << " dual " << dual;
                if (!modelFits) break;
                ASSERT_EQ(name(got), name(want.type)) << "step " << step << " dual " << dual;
                ++seen[name(got)];
                // Take the Regions as allocation does: the first disks in sorted order.
                for (unsigned i = 0; i < R::DisksFor(got); ++i) real[v[i].ld] -= R::SharePerDisk(got);
                ZoneAllocationModel::take(model, want);
                std::vector<uint64_t> a = real, b = model;
                std::sort(a.begin(), a.end());
                std::sort(b.begin(), b.end());
                ASSERT_EQ(a, b);
            }
            EXPECT_GT(seen.size(), 0u);
        }
    }
}

TEST(ZoneCapacitySimulation, CountsByTheRulesOfEachType) {
    uint64_t zones = 0;
    // Mirrored: second disk's count / 24, twice.
    ASSERT_EQ(R::SimulateZoneCount(pack({100, 60}), switches(false), false, false, zones), StatusCode::Success);
    EXPECT_EQ(zones, 2u);
    // HStripe3 rotating over 3 usable disks (block 50/12 = 4, 4 Zones), then
    // Mirrored over what is left (52/24 = 2).
    ASSERT_EQ(R::SimulateZoneCount(pack({100, 100, 50}), switches(false), false, false, zones), StatusCode::Success);
    EXPECT_EQ(zones, 6u);
    // HStripe4 over four equal disks: 1000/8 blocks of 8, 4 x 125 / 4.
    ASSERT_EQ(R::SimulateZoneCount(pack({1000, 1000, 1000, 1000}), switches(false), false, false, zones),
              StatusCode::Success);
    EXPECT_EQ(zones, 125u);
    // Dual: Mirrored3 over three disks: third disk / 24.
    ASSERT_EQ(R::SimulateZoneCount(pack({500, 500, 100}), switches(true), false, true, zones), StatusCode::Success);
    EXPECT_EQ(zones, 0u) << "only SelfMirrored Zones are counted in that mode";
    ASSERT_EQ(R::SimulateZoneCount(pack({500, 100, 100}), switches(true), false, false, zones), StatusCode::Success);
    // DRStripe? needs 4 disks: no. Mirrored3: 100/24 = 4 Zones, leaving 404, 4, 4.
    EXPECT_EQ(zones, 4u);
}

TEST(ZoneCapacitySimulation, SelfMirroredTotalOnOneDisk) {
    uint64_t zones = 0;
    ASSERT_EQ(R::SimulateZoneCount(pack({500}), switches(false), true, true, zones), StatusCode::Success);
    EXPECT_EQ(zones, 500u / 48);
    ASSERT_EQ(R::SimulateZoneCount(pack({}), switches(false), true, false, zones), StatusCode::Success);
    EXPECT_EQ(zones, 0u);
}

}  // namespace
