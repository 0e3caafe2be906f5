#pragma once
// ZoneTable::ZoneTableEntry lives here as ZoneTableEntry: one Zone's layout,
// 0x1C0 bytes, the same in memory and on disk (little-endian): its number,
// RedundancyType, the logical disk and Region of each of 72 Region slots
// (Region 0 = no Region) and its flags. The geometry functions turn a byte
// offset in the Zone into a Region slot; they need the pack's Region size.
#include <cstdint>

#include "include/DrivePackInfo.h"
#include "util/StatusCode.h"
#include "zone/RedundancyGeometry.h"

struct ZoneTableEntry {
    static constexpr unsigned kSlots = 72;
    static constexpr uint32_t kMirrorOnly = 0x01, kMetadata = 0x02, kInUse = 0x04, kPreinitialized = 0x08,
                              kInitComplete = 0x10, kInitializing = 0x20;

    uint32_t zoneNumber = 0;
    uint32_t redundancyType = static_cast<uint32_t>(RedundancyType::Unset);
    uint16_t disk[kSlots];
    uint32_t region[kSlots];
    uint32_t flags = 0;
    uint32_t lastWrittenTimestamp = 0;

    RedundancyType type() const { return static_cast<RedundancyType>(redundancyType); }
    bool inUse() const { return flags & kInUse; }
    void clearSlots() {
        for (unsigned i = 0; i < kSlots; ++i) disk[i] = 0, region[i] = 0;
    }

    RedundancyGeometry geometry() const {
        return RedundancyGeometry(type(), zoneNumber,
                                  uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize()));
    }
    // Slot of the data, first and second redundancy of the byte at `offset`;
    // ZM_UnusableRegion when that slot has no Region, BadMetadata for a type
    // this system cannot lay out.
    StatusCode CalculateDataRegion(uint32_t offset, unsigned& slot) const {
        return slotOf(RegionCopy::Data, offset, slot);
    }
    StatusCode CalculatePrimaryRedundancyRegion(uint32_t offset, unsigned& slot) const {
        return slotOf(RegionCopy::Primary, offset, slot);
    }
    StatusCode CalculateSecondaryRedundancyRegion(uint32_t offset, unsigned& slot) const {
        return slotOf(RegionCopy::Secondary, offset, slot);
    }
    uint32_t GetRegionBoundary() const { return geometry().GetRegionBoundary(); }
    uint32_t GetSuperStripeLineSize() const { return geometry().GetSuperStripeLineSize(); }
    uint32_t NextRegionDelta(uint32_t offset) const { return geometry().NextRegionDelta(offset); }
    unsigned GetStripeWidth() const { return RedundancyGeometry::GetStripeWidth(type()); }
    unsigned GetStripeDataWidth() const { return RedundancyGeometry::GetStripeDataWidth(type()); }
    unsigned GetRegionCount() const { return RedundancyGeometry::GetRegionCount(type()); }

private:
    StatusCode slotOf(RegionCopy copy, uint32_t offset, unsigned& slot) const {
        if (!RedundancyGeometry::IsSupported(type())) return StatusCode::BadMetadata;
        RegionPlace place{};
        if (!geometry().place(copy, offset, place)) return StatusCode::BadMetadata;
        slot = place.slot;
        return region[slot] == 0 ? StatusCode::ZM_UnusableRegion : StatusCode::Success;
    }
};
static_assert(sizeof(ZoneTableEntry) == 0x1C0, "a Zone table entry is 0x1C0 bytes on disk");
