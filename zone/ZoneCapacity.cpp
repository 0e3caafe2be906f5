// Capacity figures: how many Zones the pack could still allocate, and would
// hold if empty, by simulating the type choice over free Region counts.
#include <mutex>

#include "platform/rtos/Rtos.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

StatusCode ZoneManager::GetPhysicalFreeZoneCount(uint64_t& count, IOTracker& tracker) {
    StatusCode st = ZoneAllocationRules::SimulateZoneCount(freeRegionList(false, tracker), switches(tracker), false,
                                                           false, count);
    if (st != StatusCode::Success) ESA_CONSOLE("Failed to GetPhysicalFreeZoneCount : " << st);
    return st;
}

StatusCode ZoneManager::GetPotentialZoneCount(uint64_t& count, IOTracker& tracker) {
    std::vector<FreeRegions> v = freeRegionList(true, tracker);
    uint64_t metadataZones = 0;
    ZoneTable& table = zoneTable();
    const uint32_t want = ZoneTableEntry::kInUse | ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata;
    for (uint32_t z = 0; z < table.entriesCreated(); ++z) {
        if (z == kZoneOne) continue;
        ZoneTableEntry e;
        {
            ExtendingLockObject::SharedLockInstance shared(&table.tableLock(), tracker);
            if (table.RawLookupZone(z, e) != StatusCode::Success) break;
        }
        taskDelay(0);
        if ((e.flags & want) != want) continue;
        ++metadataZones;
        for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
            if (e.region[s] == 0) continue;
            for (FreeRegions& f : v)
                if (f.ld == e.disk[s] && f.count > 0) --f.count;
        }
    }
    StatusCode st = ZoneAllocationRules::SimulateZoneCount(v, switches(tracker), false, false, count);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Failed to get potential Zone Counts - " << st);
        return st;
    }
    count += metadataZones;
    taskRtpLock();
    mPotentialZoneCount = count;
    taskRtpUnlock();
    return StatusCode::Success;
}

StatusCode ZoneManager::GetFreeZoneCount(uint64_t& count, IOTracker& tracker) {
    StatusCode st = GetPhysicalFreeZoneCount(count, tracker);
    if (st == StatusCode::Success) count += zoneTable().entriesPreinitialized();
    return st;
}

StatusCode ZoneManager::GetAllocatedZoneCount(uint64_t& count) {
    ZoneTable& table = zoneTable();
    count = uint64_t(table.entriesInUse()) - table.entriesPreinitialized();
    // Zone 1 counts only while it holds a relayout's Regions.
    if (count > 0 && !table.ZoneOneHasRegions()) --count;
    return StatusCode::Success;
}

StatusCode ZoneManager::GetZoneCounts(uint64_t& potential, uint64_t& allocated, IOTracker& tracker) {
    GetAllocatedZoneCount(allocated);
    return GetPotentialZoneCount(potential, tracker);
}

StatusCode ZoneManager::GetSelfMirroredZoneTotal(uint64_t& count) {
    IOTracker tracker(READ_ONLY);
    IOTrackerCommitter done(tracker);
    return ZoneAllocationRules::SimulateZoneCount(freeRegionList(true, tracker), switches(tracker), true, true, count);
}
