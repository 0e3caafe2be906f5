// Counts over the Zone table that the management pages and the capacity
// daemon read: degraded and SelfMirrored Zones.
#include "zone/ZoneManager.h"

namespace {
// Calls `visit` with each created Zone but Zone 1, the table lock held shared
// around each lookup unless the caller already holds it.
template <typename Visit>
StatusCode forEachZone(ZoneTable& table, IOTracker& tracker, Visit visit) {
    const bool ownsLock = table.tableLock().OwnsLock(tracker);
    const uint32_t created = table.entriesCreated();
    for (uint32_t z = 0; z < created; ++z) {
        if (z == ZoneManager::kZoneOne) continue;
        ZoneTableEntry e;
        StatusCode s = StatusCode::Success;
        if (ownsLock) {
            s = table.LookupZone(z, e);
        } else {
            ExtendingLockObject::SharedLockInstance shared(&table.tableLock(), tracker);
            s = table.LookupZone(z, e);
        }
        if (!s.ok() || !e.inUse()) continue;
        if (!visit(e)) break;
    }
    return StatusCode::Success;
}
}  // namespace

StatusCode ZoneManager::GetDegradedSelfMirroredCount(uint64_t& degraded, uint64_t& selfMirrored, IOTracker& tracker) {
    degraded = 0;
    selfMirrored = 0;
    if (!mPackLoaded) return StatusCode::DiskPackNotLoaded;
    return forEachZone(zoneTable(), tracker, [&](const ZoneTableEntry& e) {
        if (e.type() == RedundancyType::SelfMirrored) ++selfMirrored;
        else if (e.IsDegraded() || e.IsDoubleDegraded()) ++degraded;
        return true;
    });
}

bool ZoneManager::DegradedZones(IOTracker& tracker) {
    if (!mPackLoaded) return false;
    bool found = false;
    forEachZone(zoneTable(), tracker, [&](const ZoneTableEntry& e) {
        found = e.type() != RedundancyType::SelfMirrored && (e.IsDegraded() || e.IsDoubleDegraded());
        return !found;
    });
    return found;
}

bool ZoneManager::SelfMirroredZones(IOTracker& tracker) {
    if (!mPackLoaded) return false;
    bool found = false;
    forEachZone(zoneTable(), tracker, [&](const ZoneTableEntry& e) {
        found = e.type() == RedundancyType::SelfMirrored;
        return !found;
    });
    return found;
}
