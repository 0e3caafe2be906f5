// The ZoneManager tests that relayout and the disk policies judge safety by:
// degraded and self-mirrored Zones, critical disks, unusable Regions, errors
// no I/O path saw, and missing disks that nothing uses any more.
#include <algorithm>
#include <sstream>

#include "cache/RegionMetaDataTracker.h"
#include "disk/DiskPackManager.h"
#include "management/EventLogManager.h"
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"

namespace {

// Calls visit(entry) for every in-use Zone but Zone 1, each looked up under
// the table lock shared, yielding once per Zone.
template <class Visit>
void forEachZone(IOTracker& tracker, Visit&& visit) {
    ZoneTable& table = *ZoneTable::GetInstance();
    for (uint32_t z = 0; z < table.entriesCreated(); ++z) {
        if (z == ZoneManager::kZoneOne) continue;
        taskDelay(0);
        ZoneTableEntry e;
        {
            ExtendingLockObject::SharedLockInstance shared(&table.tableLock(), tracker);
            if (table.LookupZone(z, e) != StatusCode::Success) continue;
        }
        if (!visit(e)) return;
    }
}

// Copies of the byte at `offset` that are gone: no Region, or on a missing disk.
unsigned lostCopiesAt(const ZoneTableEntry& e, uint32_t offset) {
    const std::vector<uint16_t> missing = ZoneTableEntry::MissingDisks();
    unsigned lost = 0;
    const unsigned kinds = e.DualRedundancy() ? 3 : 2;
    for (unsigned kind = 0; kind < kinds; ++kind) {
        unsigned slot = 0;
        StatusCode st = kind == 0   ? e.CalculateDataRegion(offset, slot)
                        : kind == 1 ? e.CalculatePrimaryRedundancyRegion(offset, slot)
                                    : e.CalculateSecondaryRedundancyRegion(offset, slot);
        if (st == StatusCode::ZM_UnusableRegion ||
            (st.ok() && std::find(missing.begin(), missing.end(), e.disk[slot]) != missing.end()))
            ++lost;
    }
    return lost;
}

template <class Pred>
uint64_t countZones(Pred&& pred) {
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    uint64_t n = 0;
    forEachZone(t, [&](const ZoneTableEntry& e) {
        if (pred(e)) ++n;
        return true;
    });
    return n;
}

bool packMember(uint16_t ld) {
    DIS& dis = DiskPackManager::GetInstance()->master();
    ExtendingLockObject::SharedLockInstance g(&dis.globalDISLock);
    return dis.hasLd(ld);
}

}  // namespace

StatusCode ZoneManager::MarkRegionUnusable(uint32_t zone, uint32_t offset, unsigned dataCopy, IOTracker& tracker) {
    // 1.
    if (mReadOnly) {
        tracef(coutTrace, "MarkRegionUnusable: ZoneManager in read only mode - returning error\n");
        return StatusCode::ReadOnlyMode;
    }
    ZoneTableEntry e;
    StatusCode st = zoneTable().LookupZone(zone, e);
    if (!st.ok()) {
        tracef(coutTrace, "MarkRegionUnusable: ZoneLookup Failed - %s\n", st.Dump().c_str());
        return st;
    }
    // 2. The caller's transaction when it already owns the table lock.
    const bool own = zoneTable().tableLock().OwnsLock(tracker) && tracker.isReadWrite();
    IOTracker local(READ_WRITE);
    IOTracker& t = own ? tracker : local;
    // 3.
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&zoneTable().tableLock(), t);
        st = zoneTable().LookupZone(zone, e);
        unsigned slot = 0;
        if (st.ok()) {
            if (dataCopy == 0) st = e.CalculateDataRegion(offset, slot);
            else if (dataCopy == 1) st = e.CalculatePrimaryRedundancyRegion(offset, slot);
            else if (dataCopy == 2) st = e.CalculateSecondaryRedundancyRegion(offset, slot);
            else {
                tracef(coutTrace, "MarkRegionUnusable: unknown dataCopy %u\n", dataCopy);
                st = StatusCode::InternalError;
            }
        }
        // 4.
        const unsigned allowance = e.DualRedundancy() ? 2 : 1;
        if (st == StatusCode::ZM_UnusableRegion) {
            tracef(coutTrace, "MarkRegionUnusable: Zone %lu, ZoneOffset %lu copy #%u is already marked as unusable\n",
                   (unsigned long)zone, (unsigned long)offset, dataCopy);
            st = StatusCode::InternalError;
        } else if (st.ok() && lostCopiesAt(e, offset) >= allowance) {
            tracef(coutTrace,
                   "MarkRegionUnusable: Zone %lu, ZoneOffset %lu copy #%u, unable to mark as unusable as already "
                   "degraded\n",
                   (unsigned long)zone, (unsigned long)offset, dataCopy);
            st = StatusCode::InternalError;
        } else if (st.ok() && AllSlotsWouldBeCritical(e, slot, t)) {
            tracef(coutTrace,
                   "MarkRegionUnusable: Zone %lu, ZoneOffset %lu copy #%u, unable to mark as unusable as all disks "
                   "would be Critical\n",
                   (unsigned long)zone, (unsigned long)offset, dataCopy);
            st = StatusCode::InternalError;
        }
        if (st.ok()) {
            // 5.
            const uint16_t disk = e.disk[slot];
            std::ostringstream event;
            event << "ZM: Marking region (" << disk << ":" << e.region[slot] << ") unusable in zone " << zone
                  << " (offset " << offset << " copy #" << dataCopy << ")";
            EventLogManager::EventLog()->PostEvent(event.str());
            RegionManager* rm = RegionManager::GetInstance();
            if (rm->RecoverySpaceEnabled()) rm->InvalidateRecoveryBlock(disk, e.region[slot], t);
            e.region[slot] = 0;
            st = zoneTable().UpdateZoneTableEntry(zone, e, t);
            if (!st.ok()) {
                tracef(coutTrace, "MarkRegionUnusable: UpdateZoneTableEntry Failed - %s\n", st.Dump().c_str());
            } else {
                DiskPackManager::GetInstance()->updateCriticalDiskMap(t);
                rm->IncrementBadRegionCount(disk, t);
                tracef(coutTrace, "MarkRegionUnusable: Zone %lu, ZoneOffset %lu copy #%u is marked as unusable\n",
                       (unsigned long)zone, (unsigned long)offset, dataCopy);
            }
        }
    }
    if (!own) {
        StatusCode c = local.commitIfDirty();
        if (st.ok()) st = c;
    }
    return st;
}

bool ZoneManager::AllSlotsWouldBeCritical(const ZoneTableEntry& entry, unsigned slot, IOTracker& tracker) {
    if (!IsCriticalDisk(entry.disk[slot], false, tracker)) return false;
    const std::vector<FreeRegions> disks = freeRegionList(false, tracker);
    if (disks.size() != 8) return false;  // an empty slot could take a replacement disk
    for (const FreeRegions& d : disks)
        if (d.ld != entry.disk[slot] && !entry.UsesDisk(d.ld) && !IsCriticalDisk(d.ld, false, tracker)) return false;
    return true;
}

void ZoneManager::outOfBandError(uint16_t disk, uint32_t region, int errorType, StatusCode status) {
    ZoneTable& table = zoneTable();
    // 1. A ZIS copy.
    for (unsigned c = 0; c < ZoneTable::kCopies; ++c) {
        uint16_t ld = 0;
        uint32_t r = 0;
        if (!table.copyLocation(c, ld, r) || ld != disk || r != region) continue;
        IOTracker t(READ_WRITE);
        {
            ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table.tableLock(), t);
            bool good[3] = {c != 0, c != 1, c != 2};
            table.RepairZoneTable(good[0], good[1], good[2], t);
        }
        t.commitIfDirty();
        return;
    }
    // 2. The Zone that holds it.
    IOTracker t(READ_ONLY);
    bool found = false;
    forEachZone(t, [&](const ZoneTableEntry& e) {
        if (!RedundancyGeometry::IsSupported(e.type())) return true;
        const uint32_t size = uint32_t(SystemDrivePackInfo::GetInstance()->GetZoneSize());
        for (uint32_t offset = 0; offset < size;) {
            for (unsigned copy = 0; copy < 3; ++copy) {
                unsigned slot = 0;
                StatusCode st = copy == 0   ? e.CalculateDataRegion(offset, slot)
                                : copy == 1 ? e.CalculatePrimaryRedundancyRegion(offset, slot)
                                            : e.CalculateSecondaryRedundancyRegion(offset, slot);
                if (!st.ok() || e.disk[slot] != disk || e.region[slot] != region) continue;
                tracef(coutTrace, "ZM:outOfBandError: Disk=%u, Region=%u found in ZoneNumber=%u, ZoneOffset=%u, dataCopy=%u\n",
                       unsigned(disk), unsigned(region), unsigned(e.zoneNumber), unsigned(offset), copy);
                IOTracker w(READ_WRITE);
                LayoutManager::GetInstance()->InitiateBackgroundPatch(e.zoneNumber, offset, copy, w);
                w.commitIfDirty();
                found = true;
                return false;
            }
            const uint32_t delta = e.NextRegionDelta(offset);
            if (delta == 0) break;
            offset += delta;
        }
        return true;
    });
    t.commitIfDirty();
    if (!found)
        tracef(coutTrace, "ZM:outOfBandError: disk=%u, Region=%u, type=%u, status=%s : not found in use by any Zone\n",
               unsigned(disk), unsigned(region), unsigned(errorType), status.Dump().c_str());
}

bool ZoneManager::DegradedZones(IOTracker& tracker) {
    bool any = false;
    forEachZone(tracker, [&](const ZoneTableEntry& e) {
        any = e.IsDegraded();
        return !any;
    });
    return any;
}

bool ZoneManager::SelfMirroredZones() { return countZones([](const ZoneTableEntry& e) {
    return e.type() == RedundancyType::SelfMirrored; }) > 0; }

uint64_t ZoneManager::GetDegradedZoneCount() {
    return countZones([](const ZoneTableEntry& e) { return e.IsDegraded(); });
}
uint64_t ZoneManager::GetDoubleDegradedZoneCount() {
    return countZones([](const ZoneTableEntry& e) { return e.IsDoubleDegraded(); });
}
uint64_t ZoneManager::GetSelfMirroredZoneCount() {
    return countZones([](const ZoneTableEntry& e) { return e.type() == RedundancyType::SelfMirrored; });
}
uint64_t ZoneManager::GetMetadataZoneCount() {
    return countZones([](const ZoneTableEntry& e) { return e.isMetadata(); });
}

bool ZoneManager::CheckDiskInUse(uint16_t disk) {
    for (unsigned c = 0; c < ZoneTable::kCopies; ++c) {
        uint16_t ld = 0;
        uint32_t r = 0;
        if (zoneTable().copyLocation(c, ld, r) && ld == disk) return true;
    }
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    bool used = false;
    forEachZone(t, [&](const ZoneTableEntry& e) {
        const unsigned n = RedundancyGeometry::IsSupported(e.type()) ? e.GetRegionCount() : ZoneTableEntry::kSlots;
        for (unsigned s = 0; s < n && !used; ++s) used = e.region[s] != 0 && e.disk[s] == disk;
        return !used;
    });
    return used;
}

void ZoneManager::DeleteUnusedDisks() {
    for (uint16_t ld : ZoneTableEntry::MissingDisks()) {
        if (!packMember(ld)) continue;
        if (CheckDiskInUse(ld)) continue;
        RegionMetaDataTracker::GetInstance()->ClearSet(ld);
        // The pack's membership belongs to the pack layer; the Zone layer is
        // the one that knows when a missing disk holds nothing any more.
        DiskPackManager::GetInstance()->deleteLogicalDisk(ld);
    }
}
