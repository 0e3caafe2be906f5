#include "zone/ZoneTableEntry.h"

#include <cstring>

#include "disk/DiskPackManager.h"
#include "zone/ZoneTable.h"

namespace {
bool dualMode() { return ZoneTable::GetInstance()->DualRedundancyMode(); }
}  // namespace

std::vector<uint16_t> ZoneTableEntry::MissingDisks() {
    const uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    std::vector<uint16_t> missing;
    for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld)
        if (!(present >> ld & 1)) missing.push_back(ld);
    return missing;
}

void ZoneTableEntry::GetRegionsPerLogicalDisk(uint32_t counts[24]) const {
    for (unsigned ld = 0; ld < 24; ++ld) counts[ld] = 0;
    const unsigned n = RedundancyGeometry::IsSupported(type()) ? GetRegionCount() : 0;
    for (unsigned s = 0; s < n && s < kSlots; ++s)
        if (region[s] != 0 && disk[s] < 24) ++counts[disk[s]];
}

bool ZoneTableEntry::HasUnusableRegions() const {
    const unsigned n = RedundancyGeometry::IsSupported(type()) ? GetRegionCount() : 0;
    for (unsigned s = 0; s < n && s < kSlots; ++s)
        if (region[s] == 0) return true;
    return false;
}

bool ZoneTableEntry::CanPatch() const {
    return zoneNumber != 0 && RedundancyGeometry::RedundancyOrder(redundancyType) >=
                                  RedundancyGeometry::RedundancyOrder(uint32_t(RedundancyType::Mirrored));
}

bool ZoneTableEntry::Matches(const ZoneTableEntry& other) const {
    if (zoneNumber != other.zoneNumber || redundancyType != other.redundancyType || flags != other.flags) return false;
    return std::memcmp(disk, other.disk, sizeof disk) == 0 && std::memcmp(region, other.region, sizeof region) == 0;
}

bool ZoneTableEntry::IsDegraded() const { return state(MissingDisks(), dualMode()).IsDegraded(); }
bool ZoneTableEntry::IsDoubleDegraded() const { return state(MissingDisks(), dualMode()).IsDoubleDegraded(); }
bool ZoneTableEntry::UsesMissingDisk() const { return state(MissingDisks(), false).UsesMissingDisk(); }
bool ZoneTableEntry::DiskIsCritical(uint16_t ld) const { return state(MissingDisks(), false).DiskIsCritical(ld); }
bool ZoneTableEntry::IsDegradedRegion(uint32_t offset, unsigned kind) const {
    if (kind > 2) return false;
    return state(MissingDisks(), false).IsDegradedRegion(offset, RegionCopy(kind));
}
