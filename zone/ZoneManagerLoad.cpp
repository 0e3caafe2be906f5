// ZoneManager's part in the pack's life: the Zone table's load, the birth of
// Zones 0 and 1 on a new pack, Zone 1's clean-up, the critical-disk answers
// the pack layer asks for, and the manager's dump.
#include <algorithm>
#include <sstream>

#include "cache/RegionMetaDataTracker.h"
#include "disk/DiskPackManager.h"
#include "include/DrivePackInfo.h"
#include "platform/rtos/Rtos.h"
#include "system/SystemManager.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
Trace tZml("ZM", "Load", "Info", false);
}

StatusCode ZoneManager::LoadDiskPackReadOnly() {
    mReadOnly = true;
    return LoadDiskPack();
}

StatusCode ZoneManager::LoadDiskPack() {
    ZoneTable& table = zoneTable();
    table.setReadOnly(mReadOnly);
    mZoneZeroBorn = false;
    IOTracker tracker(READ_WRITE);
    StatusCode st;
    bool zoneZeroValid;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table.tableLock(), tracker);
        st = table.LoadZoneTable(tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("ZoneManager::LoadDiskPack: Zone table load failed - " << st);
            tracker.commitIfDirty();
            return st;
        }
        zoneZeroValid = table.CheckZoneValid(kZoneZero) == StatusCode::Success;
    }
    if (!zoneZeroValid && mReadOnly && table.entriesCreated() == 0) {
        // A pack whose making was cut before its first Zone: no Zone, so no
        // disk is critical; the read-write load makes Zones 0 and 1.
        tracker.commitIfDirty();
        mPackLoaded = true;
        return StatusCode::Success;
    }
    if (!zoneZeroValid && mReadOnly) {
        ESA_CONSOLE("Unable to load disk pack and read-only mode enabled");
        tracker.commitIfDirty();
        return StatusCode::InvalidZoneNumber;
    }
    if (!zoneZeroValid) {
        // A new pack is being born: Zone 0 for the info table, Zone 1 for relayout.
        ESA_CONSOLE("Creating ZoneZero");
        uint32_t zone = 0xFFFFFFFF;
        st = AllocateMetadataZone(zone, tracker);
        if (st != StatusCode::Success || zone != kZoneZero) {
            ESA_CONSOLE("ZoneManager::LoadDiskPack: Zone 0 came out as " << zone << " - " << st);
            tracker.commitIfDirty();
            return StatusCode::InitFailed;
        }
        mZoneZeroBorn = true;
        // The entry commits first: Zone I/O takes the table lock shared, which
        // the allocation holds exclusive until its transaction commits.
        st = tracker.commit();
        if (st != StatusCode::Success) return st;
        {
            IOTracker first(READ_WRITE);
            DataWindow zeros(512u, 0u, 512u);
            zeros.ZeroInit();
            st = WriteData(kZoneZero, 0, zeros, first);
            StatusCode c = first.commit();
            if (st == StatusCode::Success) st = c;
            if (st != StatusCode::Success) ESA_CONSOLE("ZoneManager::LoadDiskPack: first block of Zone 0 - " << st);
        }
        st = createZoneOne();
        if (st != StatusCode::Success) return st;
    } else {
        tracker.commitIfDirty();
        if (!mReadOnly && table.entriesCreated() == 1) {
            // The start that made Zone 0 was cut before it made Zone 1.
            st = createZoneOne();
            if (st != StatusCode::Success) return st;
        }
    }
    if (!mReadOnly) {
        IOTracker cleanup(READ_WRITE);
        ZoneTableEntry one;
        st = table.RawLookupZone(kZoneOne, one);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("ZoneOne lookup failed - " << st);
        } else if (one.HasRegions()) {
            // Left by a crash in mid relayout, or given to it just now: the
            // Regions no other Zone holds go back.
            ESA_CONSOLE("Freeing ZoneOne regions");
            st = EmptyZoneOne(cleanup);
        }
        StatusCode c = cleanup.commitIfDirty();
        if (st == StatusCode::Success) st = c;
        if (st != StatusCode::Success) return st;
        mPackLoaded = true;
        std::ostringstream out;
        Dump(out);
        ESA_TRACE(tZml, out.str());
    }
    IOTracker probe(READ_ONLY);
    uint64_t potential = 0;
    GetPotentialZoneCount(potential, probe);
    probe.commitIfDirty();
    mPackLoaded = true;
    return StatusCode::Success;
}

StatusCode ZoneManager::createZoneOne() {
    ESA_CONSOLE("Creating ZoneOne");
    IOTracker second(READ_WRITE);
    uint32_t zone = 0xFFFFFFFF;
    StatusCode st = AllocateZone(zone, second);
    StatusCode c = second.commit();
    if (st != StatusCode::Success || zone != kZoneOne) {
        ESA_CONSOLE("ZoneManager::LoadDiskPack: Zone 1 came out as " << zone << " - " << st);
        return StatusCode::InitFailed;
    }
    return c;
}

StatusCode ZoneManager::UnloadDiskPack() {
    {
        ExtendingLockObject::ExclusiveLockInstance lock(&zoneTable().tableLock());
        zoneTable().UnloadZoneTable();
    }
    zoneTable().setReadOnly(false);
    mPackLoaded = false;
    mReadOnly = false;
    mZoneZeroBorn = false;
    SystemDrivePackInfo::GetInstance()->unset(SystemDrivePackInfo::ZoneSize);
    return StatusCode::Success;
}

bool ZoneManager::IsCriticalDisk(uint16_t ld, bool traceReason, IOTracker& tracker) {
    ZoneTable& table = zoneTable();
    const std::vector<uint16_t> missing = ZoneTableEntry::MissingDisks();
    auto isMissing = [&](uint16_t d) { return std::find(missing.begin(), missing.end(), d) != missing.end(); };
    auto critical = [&](const char* why, const ZoneTableEntry* e) {
        if (traceReason) {
            std::ostringstream out;
            out << "LD " << ld << why << "\n";
            if (e) table.DumpEntry(out, *e);
            ESA_CONSOLE(out.str());
        }
        return true;
    };
    uint16_t zisDisk[ZoneTable::kCopies];
    uint32_t region;
    bool located[ZoneTable::kCopies];
    for (unsigned i = 0; i < ZoneTable::kCopies; ++i) located[i] = table.copyLocation(i, zisDisk[i], region);
    for (unsigned i = 0; i < ZoneTable::kCopies; ++i) {
        if (!located[i] || zisDisk[i] != ld) continue;
        bool othersGone = true;
        for (unsigned k = 0; k < ZoneTable::kCopies; ++k)
            if (k != i && located[k] && zisDisk[k] != ld && !isMissing(zisDisk[k])) othersGone = false;
        if (othersGone) return critical(" is deemed Critical as it contains the only remaining ZoneTable", nullptr);
    }
    const bool ownsLock = table.tableLock().OwnsLock(tracker);
    for (uint32_t z = 0; z < table.entriesCreated(); ++z) {
        if (z == kZoneOne) continue;
        ZoneTableEntry e;
        if (ownsLock) {
            if (table.LookupZone(z, e) != StatusCode::Success) continue;
        } else {
            ExtendingLockObject::SharedLockInstance shared(&table.tableLock(), tracker);
            if (table.LookupZone(z, e) != StatusCode::Success) continue;
        }
        if (e.type() == RedundancyType::SelfMirrored && e.UsesDisk(ld))
            return critical(" is deemed Critical since it contains SelfMirrored Zones", &e);
        if (e.state(missing, false).DiskIsCritical(ld))
            return critical(" is deemed Critical since it contains Degraded Zones", &e);
    }
    return false;
}

bool ZoneManager::AllOtherDisksCritical(uint16_t ld, IOTracker& tracker) {
    const std::vector<FreeRegions> disks = freeRegionList(false, tracker);
    if (disks.size() != 8 || IsCriticalDisk(ld, false, tracker)) return false;
    for (const FreeRegions& d : disks)
        if (d.ld != ld && !IsCriticalDisk(d.ld, false, tracker)) return false;
    return true;
}

StatusCode ZoneManager::SetStripingThreshold(unsigned percent) {
    if (percent > 100) return StatusCode::BadCommand;
    mStripingThreshold = uint8_t(percent);
    return StatusCode::Success;
}

void ZoneManager::Dump(std::ostream& out) {
    out << "ZoneManager: pack " << (mPackLoaded ? "loaded" : "not loaded") << (mReadOnly ? ", read-only" : "")
        << "\n";
    out << "StripingThreshold            : " << unsigned(mStripingThreshold) << "%\n";
    out << "Cached potential Zone count  : " << mPotentialZoneCount << "\n";
    if (mPackLoaded) {
        IOTracker t(READ_ONLY);
        IOTrackerCommitter done(t);
        out << "Dual redundancy in force     : " << (DualRedundancyEnabled() ? "yes" : "no") << "\n";
        for (const FreeRegions& f : freeRegionList(false, t)) out << "  LD " << f.ld << " free Regions " << f.count << "\n";
    }
    zoneTable().Dump(out);
}
