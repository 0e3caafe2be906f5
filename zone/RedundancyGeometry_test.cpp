// The geometry of every RedundancyType: data placement is a bijection onto the
// data columns, every copy and parity block lies in the data block's row, and
// copies land in distinct columns (disks) except for SelfMirrored.
#include <gtest/gtest.h>

#include <set>

#include "zone/RedundancyGeometry.h"

namespace {

using RT = RedundancyType;
constexpr uint32_t kBlock = RedundancyGeometry::kStripeBlock;
constexpr uint32_t kDefaultRegionSize = 0x2AA8000;

std::string name(RT type) { return RedundancyGeometry::DecodeRedundancyType(uint32_t(type)); }

// The column that holds the data of a Zone's copies: which of the type's
// columns are data columns.
bool isDataColumn(RT type, uint32_t zone, unsigned column) {
    if (RedundancyGeometry::IsStripe(type)) return column < RedundancyGeometry::GetStripeDataWidth(type);
    if (type == RT::Mirrored) return column == zone % 2;
    if (type == RT::Mirrored3) return column == zone % 3;
    return column == 0;
}

void checkType(RT type, uint32_t zone, uint32_t R) {
    RedundancyGeometry g(type, zone, R);
    ASSERT_TRUE(g.valid()) << name(type) << " R " << R;
    const unsigned regions = RedundancyGeometry::GetRegionCount(type);
    const uint32_t blocksPerRegion = R / kBlock;
    const bool stripe = RedundancyGeometry::IsStripe(type);
    const unsigned d = RedundancyGeometry::GetStripeDataWidth(type);
    const unsigned q = RedundancyGeometry::SlotsPerColumn(type);
    std::vector<bool> dataUsed(size_t(regions) * blocksPerRegion, false), parityUsed(dataUsed.size(), false);
    uint32_t dataBlocks = 0;
    for (uint32_t off = 0; off < g.zoneSize(); off += kBlock) {
        const RegionPlace data = g.dataPlace(off);
        ASSERT_LT(data.slot, regions) << name(type) << " off " << off;
        ASSERT_EQ(data.offset % kBlock, 0u);
        ASSERT_LT(data.offset, R);
        ASSERT_TRUE(isDataColumn(type, zone, g.columnOfSlot(data.slot))) << name(type) << " off " << off;
        const size_t at = size_t(data.slot) * blocksPerRegion + data.offset / kBlock;
        ASSERT_FALSE(dataUsed[at]) << name(type) << " two Zone blocks on one Region block, off " << off;
        dataUsed[at] = true;
        ++dataBlocks;
        if (stripe) {
            // The defining formula of a stripe's data slot.
            ASSERT_EQ(data.slot, off / (R * d) + ((off >> 12) % d) * q) << name(type) << " off " << off;
        }

        uint32_t columns = 1u << g.columnOfSlot(data.slot);  // columns (disks) used by this block's copies
        for (RegionCopy copy : {RegionCopy::Primary, RegionCopy::Secondary}) {
            RegionPlace p;
            if (!g.place(copy, off, p)) continue;
            ASSERT_LT(p.slot, regions);
            ASSERT_EQ(p.offset, data.offset) << name(type) << " copy " << unsigned(copy) << " off " << off;
            const unsigned rowSlots = stripe ? q : RedundancyGeometry::kRegionsPerZone;
            ASSERT_EQ(p.slot % rowSlots, data.slot % rowSlots)
                << name(type) << " copy in another Region row, off " << off;
            ASSERT_FALSE(isDataColumn(type, zone, g.columnOfSlot(p.slot)) && type != RT::SelfMirrored);
            if (type == RT::SelfMirrored) {
                ASSERT_NE(p.slot, data.slot);
            } else {
                const uint32_t column = 1u << g.columnOfSlot(p.slot);
                ASSERT_FALSE(columns & column) << name(type) << " copy on a disk already used, off " << off;
                columns |= column;
            }
            if (stripe && (off >> 12) % d == 0) {
                // Each parity block protects exactly one stripe line.
                const size_t pat = size_t(p.slot) * blocksPerRegion + p.offset / kBlock;
                ASSERT_FALSE(parityUsed[pat]) << name(type) << " off " << off;
                parityUsed[pat] = true;
            }
        }
        if (stripe && (off >> 12) % d == d - 1) {
            // The whole line: d data blocks and the parity on distinct columns.
            uint32_t line = 0;
            for (unsigned c = 0; c < d; ++c) line |= 1u << g.columnOfSlot(g.dataPlace(off - c * kBlock).slot);
            line |= 1u << g.columnOfSlot(g.primaryPlace(off).slot);
            if (RedundancyGeometry::IsDRStripe(type)) line |= 1u << g.columnOfSlot(g.secondaryPlace(off).slot);
            ASSERT_EQ(unsigned(__builtin_popcount(line)), RedundancyGeometry::GetStripeWidth(type))
                << name(type) << " off " << off;
        }
    }
    // Onto: every block of every data Region holds Zone data.
    const unsigned dataSlots = stripe ? d * q : RedundancyGeometry::kRegionsPerZone;
    EXPECT_EQ(dataBlocks, dataSlots * blocksPerRegion) << name(type);
    // Bytes inside a block follow their block.
    for (uint32_t off : {1u, 0xFFFu, g.zoneSize() - 1, g.zoneSize() / 3 + 77}) {
        const RegionPlace byte = g.dataPlace(off), block = g.dataPlace(off / kBlock * kBlock);
        EXPECT_EQ(byte.slot, block.slot);
        EXPECT_EQ(byte.offset, block.offset + off % kBlock);
    }
}

TEST(RedundancyGeometry, EveryTypeIsABijectionWithCopiesInTheDataRowOnOtherDisks) {
    // Region sizes of 120, 180 and 420 blocks: every code's rows divide them, as
    // they divide the default size's 10920.
    for (uint32_t R : {0x78000u, 0xB4000u})
        for (RT type : kRedundancyTypes)
            for (uint32_t zone : {2u, 3u, 4u}) checkType(type, zone, R);
    for (RT type : kRedundancyTypes) checkType(type, 7, 0x1A4000);
}

TEST(RedundancyGeometry, TypeTable) {
    struct Row {
        RT type;
        unsigned width, dataWidth, regions, order;
    };
    const Row rows[] = {
        {RT::None, 0, 1, 24, 0},       {RT::SelfMirrored, 1, 1, 48, 1}, {RT::Mirrored, 2, 1, 48, 2},
        {RT::HStripe3, 3, 2, 36, 8},   {RT::HStripe4, 4, 3, 32, 9},     {RT::HStripe5, 5, 4, 30, 10},
        {RT::HStripe7, 7, 6, 28, 11},  {RT::HStripe9, 9, 8, 27, 12},    {RT::Mirrored3, 3, 1, 72, 3},
        {RT::DRStripe4, 4, 2, 48, 13}, {RT::DRStripe5, 5, 3, 40, 14},   {RT::DRStripe6, 6, 4, 36, 15},
        {RT::DRStripe8, 8, 6, 32, 16}, {RT::DRStripe10, 10, 8, 30, 17},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(RedundancyGeometry::GetStripeWidth(r.type), r.width) << name(r.type);
        EXPECT_EQ(RedundancyGeometry::GetStripeDataWidth(r.type), r.dataWidth) << name(r.type);
        EXPECT_EQ(RedundancyGeometry::GetRegionCount(r.type), r.regions) << name(r.type);
        EXPECT_EQ(RedundancyGeometry::RedundancyOrder(uint32_t(r.type)), r.order) << name(r.type);
        EXPECT_EQ(RedundancyGeometry::DualRedundancy(r.type), uint32_t(r.type) >= 12) << name(r.type);
    }
    for (uint32_t retired = 3; retired <= 6; ++retired) {
        EXPECT_FALSE(RedundancyGeometry::IsSupported(RT(retired)));
        EXPECT_EQ(RedundancyGeometry::RedundancyOrder(retired), retired + 1);
    }
    EXPECT_EQ(RedundancyGeometry::DecodeRedundancyType(13), "DRStripe4");
    EXPECT_EQ(RedundancyGeometry::DecodeRedundancyType(0x12), "*** ERROR - UNKNOWN REDUNDANCYTYPE (18) ***");
    EXPECT_EQ(RedundancyGeometry::GetRegionCount(RT::Unset), 0u);
}

TEST(RedundancyGeometry, PlacesNamedForParticularTypes) {
    const uint32_t R = kDefaultRegionSize;
    RedundancyGeometry h9(RT::HStripe9, 5, R);  // d = 8, q = 3
    EXPECT_EQ(h9.dataPlace(0x1000).slot, 3u);
    EXPECT_EQ(h9.primaryPlace(0).slot, 24u);
    EXPECT_EQ(RedundancyGeometry(RT::DRStripe10, 5, R).secondaryPlace(0).slot, 27u);
    // Mirrored: even Zones read from slots 0-23, odd from 24-47.
    EXPECT_EQ(RedundancyGeometry(RT::Mirrored, 4, R).dataPlace(0).slot, 0u);
    EXPECT_EQ(RedundancyGeometry(RT::Mirrored, 5, R).dataPlace(0).slot, 24u);
    EXPECT_EQ(RedundancyGeometry(RT::Mirrored, 5, R).primaryPlace(0).slot, 0u);
    // Mirrored3: the data group rotates with zone % 3.
    for (uint32_t zone = 0; zone < 3; ++zone) {
        RedundancyGeometry m3(RT::Mirrored3, zone, R);
        EXPECT_EQ(m3.dataPlace(R).slot, 24 * zone + 1);
        EXPECT_EQ(m3.primaryPlace(R).slot, 24 * ((zone + 1) % 3) + 1);
        EXPECT_EQ(m3.secondaryPlace(R).slot, 24 * ((zone + 2) % 3) + 1);
    }
    EXPECT_EQ(RedundancyGeometry(RT::SelfMirrored, 2, R).primaryPlace(5).slot, 24u);
}

TEST(RedundancyGeometry, NextRegionDeltaWalksEveryDataSlotColumnByColumn) {
    const uint32_t R = 0x78000;
    for (RT type : kRedundancyTypes) {
        RedundancyGeometry g(type, 2, R);
        std::set<unsigned> seen;
        for (uint32_t off = 0; off < g.zoneSize(); off += g.NextRegionDelta(off)) seen.insert(g.dataPlace(off).slot);
        const unsigned expect = RedundancyGeometry::IsStripe(type) ? RedundancyGeometry::GetStripeDataWidth(type) *
                                                                         RedundancyGeometry::SlotsPerColumn(type)
                                                                   : RedundancyGeometry::kRegionsPerZone;
        EXPECT_EQ(seen.size(), expect) << name(type);
    }
    // At the last column of a line the walk goes to the same line of the next Region row.
    RedundancyGeometry h4(RT::HStripe4, 2, R);  // d = 3
    const uint32_t last = 2 * kBlock + 5 * 3 * kBlock;
    EXPECT_EQ(h4.NextRegionDelta(last), R * 3 - 2 * kBlock);
    const RegionPlace from = h4.dataPlace(last), to = h4.dataPlace(last + h4.NextRegionDelta(last));
    EXPECT_EQ(to.slot, 1u);  // column 0, Region row 1
    EXPECT_EQ(to.offset, from.offset);
    EXPECT_EQ(h4.NextRegionDelta(kBlock), kBlock);
}

TEST(RedundancyGeometry, DRStripeRegionRowsHoldWholeSuperstripeLines) {
    const uint32_t lines[] = {0x4000, 0xC000, 0x10000, 0x24000, 0x50000};
    unsigned i = 0;
    for (RT type : {RT::DRStripe4, RT::DRStripe5, RT::DRStripe6, RT::DRStripe8, RT::DRStripe10}) {
        RedundancyGeometry g(type, 2, kDefaultRegionSize);
        EXPECT_EQ(g.GetSuperStripeLineSize(), lines[i++]);
        const uint32_t boundary = g.GetRegionBoundary();
        EXPECT_EQ(boundary % g.GetSuperStripeLineSize(), 0u) << name(type);
        EXPECT_LE(boundary, kDefaultRegionSize * RedundancyGeometry::GetStripeDataWidth(type));
        // At the default Region size the rows hold a whole number of lines exactly.
        EXPECT_EQ(boundary, kDefaultRegionSize * RedundancyGeometry::GetStripeDataWidth(type)) << name(type);
    }
    // A Region size that would cut a superstripe line is refused, not rounded.
    EXPECT_FALSE(RedundancyGeometry(RT::DRStripe8, 2, 20 * kBlock).valid());
    EXPECT_TRUE(RedundancyGeometry(RT::DRStripe4, 2, 20 * kBlock).valid());
    EXPECT_FALSE(RedundancyGeometry(RT::HStripe3, 2, 20 * kBlock + 512).valid());
    EXPECT_TRUE(RedundancyGeometry(RT::Mirrored, 2, 20 * kBlock + 512).valid());
    EXPECT_FALSE(RedundancyGeometry(RT(4), 2, kDefaultRegionSize).valid());
}

}  // namespace
