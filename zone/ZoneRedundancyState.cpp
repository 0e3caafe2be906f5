#include "zone/ZoneRedundancyState.h"

#include <algorithm>

ZoneRedundancyState::ZoneRedundancyState(const ZoneSlotsView& zone, uint32_t regionSize,
                                         const std::vector<uint16_t>& missingDisks, bool dualRedundancyMode)
    : mZone(zone), mGeometry(zone.type, zone.zoneNumber, regionSize), mMissing(missingDisks),
      mDualMode(dualRedundancyMode),
      mSlots(RedundancyGeometry::IsSupported(zone.type) ? RedundancyGeometry::GetRegionCount(zone.type) : 0) {}

bool ZoneRedundancyState::missing(uint16_t ld) const {
    return std::find(mMissing.begin(), mMissing.end(), ld) != mMissing.end();
}

bool ZoneRedundancyState::slotLost(unsigned slot) const {
    return mZone.regions[slot] == 0 || missing(mZone.disks[slot]);
}

unsigned ZoneRedundancyState::lostDisks(int except) const {
    std::vector<uint16_t> seen;
    for (unsigned s = 0; s < mSlots; ++s)
        if (slotLost(s) && int(mZone.disks[s]) != except &&
            std::find(seen.begin(), seen.end(), mZone.disks[s]) == seen.end())
            seen.push_back(mZone.disks[s]);
    return unsigned(seen.size());
}

bool ZoneRedundancyState::IsDegraded() const {
    if (!mZone.inUse) return false;
    if (mDualMode && !RedundancyGeometry::DualRedundancy(mZone.type)) return false;
    for (unsigned s = 0; s < mSlots; ++s)
        if (slotLost(s)) return true;
    return false;
}

bool ZoneRedundancyState::IsDoubleDegraded() const {
    if (!mZone.inUse || !mDualMode) return false;
    if (!RedundancyGeometry::DualRedundancy(mZone.type)) return lostDisks(-1) > 0;
    return lostDisks(-1) >= 2;
}

bool ZoneRedundancyState::IsDegradedRegion(uint32_t offset, RegionCopy copy) const {
    RegionPlace place;
    if (!mGeometry.valid() || !mGeometry.place(copy, offset, place)) return false;
    return slotLost(place.slot);
}

bool ZoneRedundancyState::UsesDisk(uint16_t ld) const {
    for (unsigned s = 0; s < mSlots; ++s)
        if (mZone.regions[s] != 0 && mZone.disks[s] == ld) return true;
    return false;
}

bool ZoneRedundancyState::UsesMissingDisk() const {
    for (unsigned s = 0; s < mSlots; ++s)
        if (mZone.regions[s] != 0 && missing(mZone.disks[s])) return true;
    return false;
}

bool ZoneRedundancyState::DiskIsCritical(uint16_t ld) const {
    return UsesDisk(ld) && lostDisks(ld) >= RedundancyGeometry::ColumnsItCanLose(mZone.type);
}
