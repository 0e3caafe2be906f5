// Placement of the Region metadata over the whole range of disk sizes.
#include "region/RegionLayout.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "disk/DisSector.h"
#include "region/RMMetadataFormat.h"
#include "region/RegionManager.h"

namespace {
constexpr uint32_t kRlba = RMLayout::kDefaultRegionBytes / 512;

std::array<RegionLayout::Range, 3> rangesOf(uint32_t capacity) {
    auto d = disRangesFor(capacity);
    return {RegionLayout::Range{d[0].first, d[0].end}, RegionLayout::Range{d[1].first, d[1].end},
            RegionLayout::Range{d[2].first, d[2].end}};
}

// Both copies placed, inside data sectors, clear of the DIS ranges and of
// each other, in Regions the disk marks allocated.
void expectSoundPlacement(uint32_t capacity, uint32_t rlba) {
    SCOPED_TRACE("capacity " + std::to_string(capacity) + " Rlba " + std::to_string(rlba));
    RegionLayout l = RegionLayout::forCapacity(capacity, rlba, 1, rangesOf(capacity));
    uint32_t lba[2];
    ASSERT_TRUE(l.initialCopyLba(0, lba[0]));
    ASSERT_TRUE(l.initialCopyLba(1, lba[1]));
    EXPECT_EQ(lba[0], 0x480u);
    auto reserved = l.reservedRegions(lba[0], lba[1]);
    for (uint32_t c : lba) {
        EXPECT_TRUE(l.copyFits(c));
        uint32_t last = c + l.copySectors - 1;
        EXPECT_EQ(l.regionOf(c), l.regionOf(last));
        EXPECT_LT(last % l.stride(), rlba) << "a copy reaches the padding sector";
        for (auto& r : l.dis) EXPECT_TRUE(last < r.first || c >= r.end);
        // Nor the write test's sectors after DIS ranges 0 and 1.
        for (int i = 0; i < 2; ++i) EXPECT_TRUE(last <= l.dis[i].end || c > l.dis[i].end + 0x80);
        EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), l.regionOf(c)));
    }
    EXPECT_TRUE(lba[0] + l.copySectors <= lba[1]);
    for (auto& r : l.dis) {
        EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), l.regionOf(r.first)));
        EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), l.regionOf(r.end - 1)));
    }
    for (int i = 0; i < 2; ++i)  // the write test's sectors never hold Region data
        for (uint32_t lba : {l.dis[i].end + 1, l.dis[i].end + 0x80})
            EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), l.regionOf(lba)));
}
}  // namespace

TEST(RegionLayout, DefaultRegionsHoldTheMetadataOnEveryDiskSizeFromTensOfGiBTo2TiB) {
    for (uint64_t gib = 10; gib <= 2048; gib += 13) {
        uint64_t sectors = std::min<uint64_t>(gib << 21, 0xFFFFFFFFull);
        for (uint32_t wobble : {0u, 1u, 0x7777u, 0x15540u}) expectSoundPlacement(uint32_t(sectors - wobble), kRlba);
    }
    expectSoundPlacement(0xFFFFFFFFu, kRlba);
}

TEST(RegionLayout, DISRange1AcrossTwoRegionsMarksBothAndTheCopyStillFits) {
    const uint32_t stride = kRlba + 1;
    int straddles = 0, tight = 0;
    for (uint32_t capacity = 40u << 21; capacity < (40u << 21) + 200 * 0xD200 && straddles < 3; capacity += 0xD200) {
        RegionLayout l = RegionLayout::forCapacity(capacity, kRlba, 1, rangesOf(capacity));
        uint32_t first = l.dis[1].first % stride;
        if (first + 0x80 > stride) {
            ++straddles;
            uint32_t lba0 = 0, lba1 = 0;
            ASSERT_TRUE(l.initialCopyLba(0, lba0));
            ASSERT_TRUE(l.initialCopyLba(1, lba1));
            auto reserved = l.reservedRegions(lba0, lba1);
            uint32_t r = l.regionOf(l.dis[1].first);
            EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), r));
            EXPECT_TRUE(std::binary_search(reserved.begin(), reserved.end(), r + 1));
            expectSoundPlacement(capacity, kRlba);
        } else if (first + 0x480 + l.copySectors > kRlba) {
            ++tight;  // range inside one Region, but no room beside it for the copy
            expectSoundPlacement(capacity, kRlba);
        }
    }
    // The sweep over whole DIS steps meets both cases (the step is not a multiple of the Region).
    for (uint32_t capacity = 40u << 21; straddles == 0; capacity += 0x6900 * 2 - 1) {
        RegionLayout l = RegionLayout::forCapacity(capacity, kRlba, 1, rangesOf(capacity));
        if (l.dis[1].first % stride + 0x80 > stride) {
            ++straddles;
            expectSoundPlacement(capacity, kRlba);
        }
    }
    EXPECT_GT(straddles, 0);
    // The write test's sectors after range 1 running into the next Region.
    int spills = 0;
    for (uint32_t capacity = 1u << 21; spills < 2 && capacity < (400u << 21); capacity += 0xD200) {
        auto d = disRangesFor(capacity);
        if (d[1].end / stride != (d[1].end + 0x80) / stride && d[1].end % stride != 0) {
            ++spills;
            expectSoundPlacement(capacity, kRlba);
        }
    }
    EXPECT_GT(spills, 0);
}

TEST(RegionLayout, RelocationStepsStayInTheRegionClearOfTheDISRangeUntilExhausted) {
    uint32_t capacity = 64u << 21;
    RegionLayout l = RegionLayout::forCapacity(capacity, kRlba, 1, rangesOf(capacity));
    for (unsigned c = 0; c < 2; ++c) {
        uint32_t lba = 0, steps = 0;
        ASSERT_TRUE(l.initialCopyLba(c, lba));
        uint32_t region = l.regionOf(lba);
        uint32_t next = 0;
        while (l.nextCopyLba(lba, next)) {
            EXPECT_GE(next, lba + 0x400);
            EXPECT_EQ(l.regionOf(next), region);
            EXPECT_TRUE(l.copyFits(next));
            lba = next;
            ++steps;
        }
        // Exhausted: the last position leaves no room for another step.
        EXPECT_GT(lba + 0x400 + l.copySectors, l.regionStart(region) + kRlba);
        EXPECT_GT(steps, 10u);
    }
}

TEST(RegionLayout, ScaleFactorsAreTakenOnlyWhereEveryZoneGeometryHolds) {
    std::string why;
    EXPECT_TRUE(RegionManager::ScaleFactorUsable(0, why));
    EXPECT_TRUE(RegionManager::ScaleFactorUsable(2, why)) << why;
    EXPECT_FALSE(RegionManager::ScaleFactorUsable(3, why));
    EXPECT_TRUE(RegionManager::ScaleFactorUsable(14, why)) << why;
    EXPECT_FALSE(RegionManager::ScaleFactorUsable(4, why));  // cuts superstripe lines of a DRStripe type
    EXPECT_NE(why.find("DRStripe"), std::string::npos) << why;
    EXPECT_FALSE(RegionManager::ScaleFactorUsable(16, why));  // not whole stripe blocks
    EXPECT_FALSE(RegionManager::ScaleFactorUsable(18, why));  // does not divide the Region
    EXPECT_NE(why.find("does not divide"), std::string::npos) << why;
    // Every factor taken gives a layout that holds the metadata of any disk size.
    for (unsigned long s = 2; s <= 1024; s += 2) {
        if (!RegionManager::ScaleFactorUsable(s, why)) continue;
        uint32_t rlba = uint32_t(RMLayout::kDefaultRegionBytes / s / 512);
        for (uint64_t gib : {10ull, 100ull, 1000ull, 2047ull}) expectSoundPlacement(uint32_t(gib << 21), rlba);
    }
}
