// Zone allocation: the type choice over the pack's free Regions, Region
// selection, creation, reuse and death of Zones, and the freeing of Regions
// that a relayout may share between two Zones.
#include <algorithm>

#include "disk/DiskPackManager.h"
#include "journal/j2/J2Manager.h"
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {

Trace tZa("ZM", "Allocation", "Info", false);
using RT = RedundancyType;

bool sameRegion(const ZoneTableEntry& a, unsigned sa, const ZoneTableEntry& b, unsigned sb) {
    return a.disk[sa] == b.disk[sb] && a.region[sa] == b.region[sb];
}

// Whether `b` holds the Region of slot s of `a` (same slot first, then any).
bool holds(const ZoneTableEntry& b, const ZoneTableEntry& a, unsigned s) {
    if (sameRegion(a, s, b, s)) return true;
    for (unsigned t = 0; t < ZoneTableEntry::kSlots; ++t)
        if (b.region[t] != 0 && sameRegion(a, s, b, t)) return true;
    return false;
}

unsigned slotCount(const ZoneTableEntry& e) {
    return RedundancyGeometry::IsSupported(e.type()) ? e.GetRegionCount() : ZoneTableEntry::kSlots;
}

}  // namespace

std::vector<FreeRegions> ZoneManager::freeRegionList(bool available, IOTracker& tracker) {
    std::vector<FreeRegions> v;
    RegionManager* rm = RegionManager::GetInstance();
    const uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        uint32_t count = 0;
        StatusCode st = available ? rm->GetAvailableRegionCount(ld, count, tracker)
                                  : rm->GetFreeRegionCount(ld, count, tracker);
        if (st == StatusCode::Success) v.push_back({ld, count});
    }
    return v;
}

AllocationSwitches ZoneManager::switches(IOTracker& tracker) {
    AllocationSwitches sw;
    sw.selfMirroringBit = zoneTable().UseSelfMirrored();
    sw.dualBit = zoneTable().DualRedundancyMode();
    sw.allOtherDisksCritical = [this, &tracker](uint16_t ld) { return AllOtherDisksCritical(ld, tracker); };
    return sw;
}

bool ZoneManager::DualRedundancyEnabled() {
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    return ZoneAllocationRules::DualMode(switches(t), freeRegionList(false, t).size());
}

StatusCode ZoneManager::CanUseStripedZones(bool& can, IOTracker&) {
    can = true;
    return StatusCode::Success;
}

StatusCode ZoneManager::CalcBestRedundancyUsingArray(std::vector<FreeRegions>& freeRegions, RedundancyType& type,
                                                     IOTracker& tracker, bool allowStripes, bool allowSelfMirrored) {
    return ZoneAllocationRules::ChooseRedundancy(freeRegions, switches(tracker), allowStripes, allowSelfMirrored,
                                                 type);
}

StatusCode ZoneManager::CalcBestRedundancy(RedundancyType& type, IOTracker& tracker, bool ignoreReserve,
                                           bool metadata) {
    std::vector<FreeRegions> v = freeRegionList(false, tracker);
    if (ignoreReserve)
        for (FreeRegions& f : v) f.count += ZoneAllocationRules::kReserve;
    return CalcBestRedundancyUsingArray(v, type, tracker, !metadata, false);
}

StatusCode ZoneManager::SelectRegions(RedundancyType& type, Region* regions, uint16_t& count, IOTracker& tracker,
                                      bool mirrorOnly, bool ignoreReserve, bool metadata) {
    StatusCode st = CalcBestRedundancy(type, tracker, ignoreReserve, metadata);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Out of space - Zone allocation failed - " << st);
        return st;
    }
    std::vector<FreeRegions> v = freeRegionList(false, tracker);
    std::stable_sort(v.begin(), v.end(), FreeRegionsComparer());
    return SelectRegionsWithArray(type, v, regions, count, tracker, mirrorOnly, metadata);
}

StatusCode ZoneManager::SelectRegionsWithArray(RedundancyType& type, std::vector<FreeRegions>& freeRegions,
                                               Region* regions, uint16_t& count, IOTracker& tracker, bool mirrorOnly,
                                               bool metadata) {
    if (mirrorOnly)
        type = ZoneAllocationRules::NarrowForMirrorOnly(
            type, ZoneAllocationRules::DualMode(switches(tracker), freeRegions.size()));
    if (!RedundancyGeometry::IsSupported(type)) {
        ESA_CONSOLE("Unsupported redundancy type - Zone allocation failed");
        return StatusCode::UnsupportedZoneType;
    }
    const unsigned disks = ZoneAllocationRules::DisksFor(type), share = ZoneAllocationRules::SharePerDisk(type);
    if (freeRegions.size() < disks) return StatusCode::InternalError;
    count = uint16_t(RedundancyGeometry::GetRegionCount(type));
    uint32_t numbers[kMaxRegions];
    unsigned filled = 0;
    for (unsigned d = 0; d < disks; ++d) {
        const uint16_t ld = freeRegions[d].ld;
        StatusCode st = RegionManager::GetInstance()->AllocateRegions(ld, share, numbers, metadata, tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("Allocation failed for " << share << " regions from LogicalDisk " << ld
                                                 << " for redundancy type " << uint32_t(type) << " - " << st);
            return st;
        }
        for (unsigned i = 0; i < share; ++i) regions[filled++] = Region{ld, numbers[i]};
    }
    ESA_ASSERT_OP(filled, ==, unsigned(count));
    return StatusCode::Success;
}

namespace {
void placeRegions(ZoneTableEntry& e, RedundancyType type, const Region* regions, uint16_t count) {
    e.clearSlots();
    e.redundancyType = uint32_t(type);
    for (unsigned i = 0; i < count; ++i) e.disk[i] = regions[i].ld, e.region[i] = regions[i].region;
}
}  // namespace

StatusCode ZoneManager::CreateZone(uint32_t& zone, IOTracker& tracker, bool metadata, bool mirrorOnly) {
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
    ZoneTableEntry e = ZoneTableEntry::Fresh();
    Region regions[kMaxRegions];
    uint16_t count = 0;
    RedundancyType type = RT::Unset;
    StatusCode st = SelectRegions(type, regions, count, tracker, mirrorOnly, false, metadata);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Zone allocate failed - error allocating Regions - " << st);
        return st;
    }
    e.flags = ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
    if (metadata) e.flags |= ZoneTableEntry::kMetadata;
    if (mirrorOnly) e.flags |= ZoneTableEntry::kMirrorOnly;
    placeRegions(e, type, regions, count);
    // InsertEntry numbers the entry and writes it, as UpdateZoneTableEntry does.
    st = zoneTable().InsertEntry(e, tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("ZoneTableEntry write back failed - " << st);
        // The Regions go back: the entry that would have named them was never written.
        std::vector<bool> keep(ZoneTableEntry::kSlots, false);
        freeRegionsOf(e, keep, tracker);
        return st;
    }
    zone = e.zoneNumber;
    return StatusCode::Success;
}

StatusCode ZoneManager::AllocateMetadataZone(uint32_t& zone, IOTracker& tracker) {
    if (mReadOnly) {
        ESA_CONSOLE("AllocateMetadataZone: ZoneManager in read only mode - returning error");
        return StatusCode::ReadOnlyMode;
    }
    StatusCode st = CreateZone(zone, tracker, true, true);
    if (st != StatusCode::Success) ESA_CONSOLE("AllocateMetadataZone: Mirrored Zone allocation failed - " << st);
    return st;
}

StatusCode ZoneManager::reuseEntry(uint32_t zone, IOTracker& tracker) {
    ZoneTableEntry e;
    zoneTable().RawLookupZone(zone, e);
    if (e.zoneNumber != zone) {
        ESA_CONSOLE("AllocateZone: ZoneTableEntry contains bad ZoneNumber (" << e.zoneNumber << ") expected " << zone
                                                                             << " - repairing");
        e.zoneNumber = zone;
    }
    if (e.HasRegions()) {
        ESA_TRACE(tZa, "Freeing current Regions for Zone before reusing");
        std::vector<bool> keep(ZoneTableEntry::kSlots, false);
        StatusCode st = freeRegionsOf(e, keep, tracker);
        if (st != StatusCode::Success) return st;
        e.clearSlots();
    }
    Region regions[kMaxRegions];
    uint16_t count = 0;
    RedundancyType type = RT::Unset;
    StatusCode st = SelectRegions(type, regions, count, tracker, false, false, false);
    if (st != StatusCode::Success) return st;
    placeRegions(e, type, regions, count);
    e.flags &= ~(ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata | ZoneTableEntry::kPreinitialized |
                 ZoneTableEntry::kInitializing);
    e.flags |= ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
    return zoneTable().UpdateZoneTableEntry(zone, e, tracker);
}

StatusCode ZoneManager::AllocateZone(uint32_t& zone, IOTracker& tracker) {
    if (mReadOnly) {
        ESA_CONSOLE("AllocateZone: ZoneManager in read only mode - returning error");
        return StatusCode::ReadOnlyMode;
    }
    StatusCode st = StatusCode::InternalError;
    unsigned attempt = 0;
    for (; attempt < 3; ++attempt) {
        if (attempt > 0) taskDelay(0);
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
        ZoneTable& table = zoneTable();
        if (table.entriesPreinitialized() > 0) {
            bool found = false;
            for (uint32_t z = table.entriesCreated(); z-- > 1;) {
                ZoneTableEntry e;
                table.RawLookupZone(z, e);
                if (!e.isPreinitialized()) continue;
                e.flags &= ~(ZoneTableEntry::kPreinitialized | ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata);
                e.flags |= ZoneTableEntry::kInUse;
                st = table.UpdateZoneTableEntry(z, e, tracker);
                if (st == StatusCode::Success) ESA_TRACE(tZa, "Using preinitialized Zone");
                zone = z;
                found = true;
                break;
            }
            if (found) {
                if (st == StatusCode::Success) break;
                continue;
            }
        }
        if (table.entriesInUse() < table.entriesCreated()) {
            uint32_t z = 0;
            for (; z < table.entriesCreated(); ++z) {
                ZoneTableEntry e;
                table.RawLookupZone(z, e);
                if (!e.inUse()) break;
            }
            if (z < table.entriesCreated()) {
                ESA_TRACE(tZa, "Using existing but not inuse Zone");
                st = reuseEntry(z, tracker);
                if (st == StatusCode::Success) {
                    zone = z;
                    break;
                }
                continue;
            }
        }
        st = CreateZone(zone, tracker, false, false);
        if (st == StatusCode::Success) break;
        // Out of space will not change by trying again at once.
        if (st == StatusCode::OutOfSpace || st == StatusCode::ZoneOverflow) break;
    }
    if (attempt > 0)
        ESA_CONSOLE("AllocateZone: Allocation " << (st == StatusCode::Success ? "passed on" : "failed after")
                                                << " attempt number " << attempt + 1);
    return st;
}

StatusCode ZoneManager::DeallocateZone(uint32_t zone, IOTracker& tracker) {
    if (zone < 2) {
        ESA_CONSOLE("Deallocation of reserved Zone " << zone << " not allowed");
        return StatusCode::InvalidZoneNumber;
    }
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
    ZoneTableEntry e;
    StatusCode st = zoneTable().LookupZone(zone, e);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Lookup of Zone to be deallocated failed - " << st);
        return st;
    }
    uint32_t one = kZoneOne;
    st = FreeNonMatchingRegions(zone, one, tracker);
    if (st != StatusCode::Success) ESA_CONSOLE("FreeUniqueRegions for Zone failed - " << st);
    e.clearSlots();
    e.flags &= ~(ZoneTableEntry::kInUse | ZoneTableEntry::kPreinitialized | ZoneTableEntry::kInitComplete |
                 ZoneTableEntry::kInitializing);
    st = zoneTable().UpdateZoneTableEntry(zone, e, tracker);
    if (st != StatusCode::Success) ESA_CONSOLE("Zone wipe ZoneUpdate failed - " << st);
    return StatusCode::Success;
}

StatusCode ZoneManager::freeRegionsOf(const ZoneTableEntry& e, const std::vector<bool>& keep, IOTracker& tracker) {
    RegionManager* rm = RegionManager::GetInstance();
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        if (e.region[s] == 0 || keep[s]) continue;
        // A slot that repeats an earlier slot's Region is freed once.
        bool repeated = false;
        for (unsigned t = 0; t < s && !repeated; ++t) repeated = !keep[t] && sameRegion(e, s, e, t);
        if (repeated) continue;
        if (rm->RecoverySpaceEnabled()) rm->InvalidateRecoveryBlock(e.disk[s], e.region[s], tracker);
        StatusCode st = rm->FreeRegions(e.disk[s], 1, &e.region[s], tracker);
        if (st != StatusCode::Success)
            ESA_CONSOLE("Free of LD:RN " << e.disk[s] << ":" << e.region[s] << " for Zone " << e.zoneNumber
                                         << " failed - " << st);
    }
    return StatusCode::Success;
}

StatusCode ZoneManager::FreeNonMatchingRegions(uint32_t& zoneA, uint32_t& zoneB, IOTracker& tracker) {
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
    J2Manager::GetInstance()->forceFlush(false);
    ZoneTableEntry a, b;
    StatusCode st = zoneTable().RawLookupZone(zoneA, a);
    if (st != StatusCode::Success) return st;
    if (zoneTable().RawLookupZone(zoneB, b) != StatusCode::Success) b = ZoneTableEntry::Fresh();
    std::vector<bool> keep(ZoneTableEntry::kSlots, false);
    const bool sameCount = RedundancyGeometry::IsSupported(a.type()) && RedundancyGeometry::IsSupported(b.type()) &&
                           a.GetRegionCount() == b.GetRegionCount();
    if (sameCount)
        for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) keep[s] = a.region[s] != 0 && holds(b, a, s);
    return freeRegionsOf(a, keep, tracker);
}

StatusCode ZoneManager::FreeUniqueRegions(uint32_t& zone, IOTracker& tracker) {
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
    ZoneTableEntry a;
    StatusCode st = zoneTable().RawLookupZone(zone, a);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Unable to FreeUniqueRegions, Zone " << zone << " is not valid - " << st);
        return st;
    }
    std::vector<bool> keep(ZoneTableEntry::kSlots, false);
    const unsigned n = slotCount(a);
    for (uint32_t z = 0; z < zoneTable().entriesCreated(); ++z) {
        if (z == zone) continue;
        ZoneTableEntry b;
        if (zoneTable().LookupZone(z, b) != StatusCode::Success) continue;
        if (z == kZoneOne && !b.HasRegions()) continue;
        taskDelay(0);
        // Regions shared during a relayout lie in Zones whose layouts differ;
        // every slot of the other Zone is looked at.
        for (unsigned s = 0; s < n && s < ZoneTableEntry::kSlots; ++s)
            if (a.region[s] != 0 && !keep[s] && holds(b, a, s)) keep[s] = true;
    }
    return freeRegionsOf(a, keep, tracker);
}

StatusCode ZoneManager::emptyZoneOneLocked(IOTracker& tracker) {
    ZoneTableEntry one;
    StatusCode st = zoneTable().RawLookupZone(kZoneOne, one);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Unable to EmptyZoneOne, ZoneOne lookup failed - " << st);
        return st;
    }
    uint32_t z = kZoneOne;
    st = FreeUniqueRegions(z, tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Freeing of ZoneOne regions failed - " << st);
        return st;
    }
    one.clearSlots();
    st = zoneTable().UpdateZoneTableEntry(kZoneOne, one, tracker);
    if (st != StatusCode::Success) ESA_CONSOLE("ZoneOne update failed - " << st);
    return st;
}

StatusCode ZoneManager::EmptyZoneOne(IOTracker& tracker) {
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), tracker);
    return emptyZoneOneLocked(tracker);
}

StatusCode ZoneManager::SetZoneOwnership(uint32_t zone, const _ZoneOwnership& ownership, IOTracker& tracker) {
    RegionManager* rm = RegionManager::GetInstance();
    if (!rm->RecoverySpaceEnabled()) return StatusCode::Success;
    ZoneTableEntry e;
    StatusCode st = zoneTable().RawLookupZone(zone, e);
    if (st != StatusCode::Success) return st;
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        if (e.region[s] == 0) continue;
        st = rm->SetZoneOwnership(e.disk[s], e.region[s], ownership, tracker);
        if (st != StatusCode::Success && st != StatusCode::DiskNotPresent) return st;
    }
    return StatusCode::Success;
}

StatusCode ZoneManager::SelectZoneUsingDiskWithExclusion(uint16_t& disk, uint16_t& excludedDisk, uint32_t& zone) {
    ZoneTable& table = zoneTable();
    for (uint32_t z = 0; z < table.entriesCreated(); ++z) {
        if (z == kZoneOne) continue;
        ZoneTableEntry e;
        if (table.LookupZone(z, e) != StatusCode::Success) continue;
        taskDelay(0);
        if (!RedundancyGeometry::IsSupported(e.type())) continue;
        // Every slot in the type's Region count is a data, first or second
        // code Region of some offset: the walk by NextRegionDelta meets them all.
        bool seen = false, excluded = false;
        for (unsigned s = 0; s < e.GetRegionCount(); ++s) {
            if (e.region[s] == 0) continue;
            seen = seen || e.disk[s] == disk;
            excluded = excluded || e.disk[s] == excludedDisk;
        }
        if (seen && !excluded) {
            zone = z;
            return StatusCode::Success;
        }
    }
    return StatusCode::InvalidZoneNumber;
}
