#pragma once
// RedundancyGeometry: where each byte of a Zone lies. For a Zone of a given
// RedundancyType, number and Region size R (the Zone holds Z = 24 R bytes of
// data) it maps a Zone offset to the Region slot of the Zone table entry and
// the offset in that Region, for the data, for the primary redundancy (the
// mirror copy, or the parity: horizontal parity for DRStripe) and for the
// secondary redundancy (the third copy of Mirrored3, the diagonal parity of
// DRStripe). Pure arithmetic in 32-bit integers, no state beyond its three
// inputs.
//
// Slots are held column by column: a column is the run of slots that Zone
// allocation takes from one disk (24 for mirrors, 48 for SelfMirrored, 24 / d
// for stripes). In a stripe Zone the slots are d data columns, then the
// parity column(s); column c of Region row g (g = offset / boundary) is slot
// c x (24 / d) + g. A copy or parity block always lies at the same offset in
// its Region as the data block it protects.
#include <cstdint>
#include <string>

#include "zone/RedundancyType.h"

struct RegionPlace {
    unsigned slot;    // index into the entry's Region slots
    uint32_t offset;  // byte offset in that Region
};

// Which copy of a byte: the data, the primary or the secondary redundancy.
enum class RegionCopy : unsigned { Data = 0, Primary = 1, Secondary = 2 };

class RedundancyGeometry {
public:
    static constexpr unsigned kRegionsPerZone = 24;
    static constexpr unsigned kMaxSlots = 72;
    static constexpr uint32_t kStripeBlock = 0x1000;

    // Facts of a type. An unknown type traces "Unsupported redundancy type"
    // and gives 0 (width, data width 1 is kept for None).
    static bool IsSupported(RedundancyType type);
    static bool IsHStripe(RedundancyType type);
    static bool IsDRStripe(RedundancyType type);
    static bool IsStripe(RedundancyType type) { return IsHStripe(type) || IsDRStripe(type); }
    static bool DualRedundancy(RedundancyType type);  // Mirrored3 and DRStripe
    static unsigned GetStripeWidth(RedundancyType type);
    static unsigned GetStripeDataWidth(RedundancyType type);
    static unsigned GetRegionCount(RedundancyType type);
    // Columns (disks in allocation order) and the slots of each.
    static unsigned ColumnCount(RedundancyType type);
    static unsigned SlotsPerColumn(RedundancyType type);
    // How many columns the type can lose and still give back its data:
    // 0 for None and SelfMirrored (both copies of SelfMirrored share one disk).
    static unsigned ColumnsItCanLose(RedundancyType type);
    // The ranking of the 18 type values; 4 to 7 mark the retired types 3 to 6.
    static unsigned RedundancyOrder(uint32_t typeValue);
    static std::string DecodeRedundancyType(uint32_t typeValue);

    RedundancyGeometry(RedundancyType type, uint32_t zoneNumber, uint32_t regionSize);

    // A supported type over a Region size it can use: stripes need R in whole
    // stripe blocks, DRStripe in whole rows of its code, so that every Region
    // row holds whole superstripe lines and the Zone fits its Regions.
    bool valid() const;
    RedundancyType type() const { return mType; }
    uint32_t zoneSize() const { return kRegionsPerZone * mRegionSize; }

    uint32_t GetRegionBoundary() const;       // Zone data in one row of Regions
    uint32_t GetSuperStripeLineSize() const;  // DRStripe only; 0 otherwise
    uint32_t NextRegionDelta(uint32_t offset) const;

    RegionPlace dataPlace(uint32_t offset) const;
    RegionPlace primaryPlace(uint32_t offset) const;
    // Mirrored3 and DRStripe only.
    RegionPlace secondaryPlace(uint32_t offset) const;
    // The place of one copy; false when the type has no such copy.
    bool place(RegionCopy copy, uint32_t offset, RegionPlace& out) const;

    unsigned columnOfSlot(unsigned slot) const { return slot / SlotsPerColumn(mType); }

private:
    uint32_t stripeOffsetInRegion(uint32_t offset) const;
    RedundancyType mType;
    uint32_t mZone;
    uint32_t mRegionSize;
};
