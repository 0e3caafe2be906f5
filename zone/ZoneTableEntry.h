#pragma once
// ZoneTable::ZoneTableEntry lives here as ZoneTableEntry: one Zone's layout,
// 0x1C0 bytes, the same in memory and on disk (little-endian, written through
// ZISFormat's explicit codec): its number, RedundancyType, the logical disk and
// Region of each of 72 Region slots (Region 0 = no Region) and its flags. The
// geometry functions turn a byte offset in the Zone into a Region slot; they
// need the pack's Region size. The degraded and critical predicates read the
// pack's present disks and its dual-redundancy switch; their forms that take
// a missing list and the switch are pure.
#include <cstdint>
#include <vector>

#include "include/DrivePackInfo.h"
#include "util/StatusCode.h"
#include "zone/RedundancyGeometry.h"
#include "zone/ZoneRedundancyState.h"

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
    bool isMetadata() const { return flags & kMetadata; }
    bool isMirrorOnly() const { return flags & kMirrorOnly; }
    bool isPreinitialized() const { return flags & kPreinitialized; }
    void clearSlots() {
        for (unsigned i = 0; i < kSlots; ++i) disk[i] = 0, region[i] = 0;
    }
    // A fresh entry: type unset, no flags, no Regions.
    static ZoneTableEntry Fresh() {
        ZoneTableEntry e;
        e.clearSlots();
        return e;
    }

    // ---- what the entry holds
    // Regions in the first GetRegionCount slots for each LD (counts of 24).
    void GetRegionsPerLogicalDisk(uint32_t counts[24]) const;
    bool UsesDisk(uint16_t ld) const { return state({}, false).UsesDisk(ld); }
    // True unless slots 0 and 1 are both empty in disk and Region.
    bool HasRegions() const { return !(disk[0] == 0 && region[0] == 0 && disk[1] == 0 && region[1] == 0); }
    // Some slot within the type's Region count has no Region.
    bool HasUnusableRegions() const;
    // The type ranks at least Mirrored and the Zone is not Zone 0.
    bool CanPatch() const;
    // Byte comparison, LastWrittenTimestamp ignored.
    bool Matches(const ZoneTableEntry& other) const;
    bool DualRedundancy() const { return RedundancyGeometry::DualRedundancy(type()); }

    // ---- degraded and critical, against the pack as it stands (present
    // disks from the pack layer, dual-redundancy switch from the Zone table)
    bool IsDegraded() const;
    bool IsDoubleDegraded() const;
    // kind: 0 data, 1 first code, 2 second code at `offset`.
    bool IsDegradedRegion(uint32_t offset, unsigned kind) const;
    bool UsesMissingDisk() const;
    bool DiskIsCritical(uint16_t ld) const;

    // ---- the same against a given missing list and switch
    ZoneRedundancyState state(const std::vector<uint16_t>& missing, bool dualMode) const {
        return ZoneRedundancyState(ZoneSlotsView{type(), zoneNumber, inUse(), disk, region}, knownRegionSize(),
                                   missing, dualMode);
    }
    // The LDs (0 to 23) that the pack layer does not report present now.
    static std::vector<uint16_t> MissingDisks();

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
    static uint32_t knownRegionSize() {
        SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
        return info->isSet(SystemDrivePackInfo::RegionSize) ? uint32_t(info->GetRegionSize()) : 0;
    }
    StatusCode slotOf(RegionCopy copy, uint32_t offset, unsigned& slot) const {
        if (!RedundancyGeometry::IsSupported(type())) return StatusCode::BadMetadata;
        RegionPlace place{};
        if (!geometry().place(copy, offset, place)) return StatusCode::BadMetadata;
        slot = place.slot;
        return region[slot] == 0 ? StatusCode::ZM_UnusableRegion : StatusCode::Success;
    }
};
static_assert(sizeof(ZoneTableEntry) == 0x1C0, "a Zone table entry is 0x1C0 bytes on disk");
