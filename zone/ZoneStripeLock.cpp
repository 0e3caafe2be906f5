#include "zone/ZoneStripeLock.h"

#include "cache/CacheTrackerObject.h"
#include "cache/RegionMetaDataTracker.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

unsigned StripeLockRange::arrayLength(RedundancyType type) {
    if (type == RedundancyType::Mirrored) return 2;
    if (type == RedundancyType::Mirrored3) return 3;
    return RedundancyGeometry::GetStripeWidth(type);
}

// The slot whose Region stands for the lines at offset: the data Region of a
// mirror, the parity Region of a stripe. When that slot has lost its Region
// the next copy of the same lines that still has one stands in, in a fixed
// order (mirrors: primary, secondary; stripes: second parity, then the data
// columns), so that readers can still reach the redundancy and every locker
// of the same table state picks the same Region. The copies of a line lie at
// the same offset in their Regions, so the range is the same arithmetic.
StatusCode StripeLockRange::standingSlot(const ZoneTableEntry& entry, uint32_t offset, bool mirror, unsigned& slot) {
    StatusCode st = mirror ? entry.CalculateDataRegion(offset, slot) : entry.CalculatePrimaryRedundancyRegion(offset, slot);
    if (st != StatusCode::ZM_UnusableRegion) return st;
    std::vector<unsigned> others;
    const RedundancyGeometry geometry = entry.geometry();
    RegionPlace place{};
    for (RegionCopy copy : {RegionCopy::Primary, RegionCopy::Secondary})
        if (mirror ? copy != RegionCopy::Data : copy == RegionCopy::Secondary)
            if (geometry.place(copy, offset, place)) others.push_back(place.slot);
    if (!mirror) {
        const unsigned q = RedundancyGeometry::SlotsPerColumn(entry.type());
        for (unsigned c = 0; c < entry.GetStripeDataWidth(); ++c)
            others.push_back(c * q + offset / entry.GetRegionBoundary());
    }
    for (unsigned other : others) {
        if (entry.region[other] == 0) continue;
        slot = other;
        return StatusCode::Success;
    }
    return StatusCode::ZM_UnusableRegion;
}

StatusCode StripeLockRange::compute(const ZoneTableEntry& entry, uint32_t offset, uint32_t length,
                                    StripeLockRange& out, bool& locks) {
    locks = false;
    const RedundancyType type = entry.type();
    if (type == RedundancyType::None || type == RedundancyType::SelfMirrored) return StatusCode::Success;
    const bool mirror = type == RedundancyType::Mirrored || type == RedundancyType::Mirrored3;
    if (!mirror && !RedundancyGeometry::IsStripe(type)) return StatusCode::UnsupportedZoneType;
    const uint32_t b = entry.GetRegionBoundary();
    if (b == 0) {
        tracef(coutTrace, "Zone %lu: regionBoundary = 0\n", (unsigned long)entry.zoneNumber);
        return StatusCode::BadMetadata;
    }
    unsigned slot = 0;
    StatusCode st = standingSlot(entry, offset, mirror, slot);
    if (!st.ok()) return st;
    const uint64_t R = SystemDrivePackInfo::GetInstance()->GetRegionSize();
    const uint64_t base = uint64_t(entry.region[slot]) * R;
    const uint64_t end = uint64_t(offset) + length;
    uint64_t first = 0, last = 0;
    if (mirror) {
        first = offset % b;
        last = end % b;
    } else if (RedundancyGeometry::IsHStripe(type)) {
        const uint64_t line = uint64_t(entry.GetStripeDataWidth()) * ZoneManager::kStripeBlock;
        first = (offset % b) / line * ZoneManager::kStripeBlock;
        last = ((end % b) + line - 1) / line * ZoneManager::kStripeBlock;
    } else {
        // Whole superstripe lines; each line of them maps to its own, never
        // empty, stretch of the parity Region, since a superstripe line has
        // at least as many rows as data columns.
        const uint64_t line = uint64_t(entry.GetStripeDataWidth()) * ZoneManager::kStripeBlock;
        const uint64_t super = entry.GetSuperStripeLineSize();
        auto p = [&](uint64_t x) { return (((x % b) / line) * ZoneManager::kStripeBlock) / line * line; };
        first = p(offset / super * super);
        last = p((end + super - 1) / super * super);
    }
    if (last == 0) last = R;
    out.ld = entry.disk[slot];
    out.region = entry.region[slot];
    out.regionFirst = first;
    out.regionLast = last;
    out.first = base + first;
    out.last = base + last;
    locks = true;
    return StatusCode::Success;
}

StatusCode ZoneManager::LockStripe(uint32_t zone, uint32_t offset, uint32_t length, StripeLockArray& cto,
                                   IOTracker& tracker) {
    cto = nullptr;
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) {
        tracef(coutTrace, "LockStripe: ZoneLookup Failed - %s\n", st.Dump().c_str());
        return st;
    }
    StripeLockRange range;
    bool locks = false;
    st = StripeLockRange::compute(entry, offset, length, range, locks);
    if (!st.ok() || !locks) return st;
    StripeLockArray array = new CacheTrackerObject*[StripeLockRange::arrayLength(entry.type())]();
    st = RegionMetaDataTracker::GetInstance()->LockRange(range.ld, range.first / 512,
                                                         uint32_t((range.last - range.first) / 512), array[0],
                                                         tracker, 0);
    if (!st.ok()) {
        tracef(coutTrace,
               "LockStripe locking failed range: LD=%u, region=%lu, regionOffsetFirst=%lu, regionOffsetLast=%lu, "
               "rangeLength=%lu - %s\n",
               unsigned(range.ld), (unsigned long)range.region, (unsigned long)range.regionFirst,
               (unsigned long)range.regionLast, (unsigned long)(range.last - range.first), st.Dump().c_str());
        tracef(coutTrace, "LockStripe locking failed range: zoneOffset=%lu, length=%lu, regionBoundary=%lu\n",
               (unsigned long)offset, (unsigned long)length, (unsigned long)entry.GetRegionBoundary());
        delete[] array;
        return st;
    }
    cto = array;
    return StatusCode::Success;
}

StatusCode ZoneManager::UnlockStripe(uint32_t zone, StripeLockArray& cto, IOTracker& tracker) {
    (void)tracker;
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->RawLookupZone(zone, entry);
    if (!st.ok()) tracef(coutTrace, "UnlockStripe: ZoneLookup Failed - %s\n", st.Dump().c_str());
    // The lock is given back whatever the lookup says: a Zone that went out of
    // use under a holder must not leave its line locked.
    if (cto) {
        if (cto[0]) RegionMetaDataTracker::GetInstance()->UnlockRange(cto[0]);
        delete[] cto;
        cto = nullptr;
    }
    return st;
}

StatusCode ZoneManager::LockStripes(uint32_t zone, uint64_t offset, uint64_t length, StripeLocks& locks,
                                    IOTracker& tracker) {
    locks.clear();
    const uint64_t zoneSize = SystemDrivePackInfo::GetInstance()->GetZoneSize();
    if (offset + length > zoneSize) {
        tracef(coutTrace, "ZoneOverflow: lock end=%llu\n", (unsigned long long)(offset + length));
        return StatusCode::ZoneOverflow;
    }
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) return st;
    const uint32_t boundary = entry.GetRegionBoundary();
    if (boundary == 0) return StatusCode::BadMetadata;
    forEachRegionPiece(uint32_t(offset), uint32_t(length), boundary, [&](uint32_t pos, uint32_t len) {
        StripeLockArray array = nullptr;
        st = LockStripe(zone, pos, len, array, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "LockStripes - LockStripe failed error = %s\n", st.Dump().c_str());
            return false;
        }
        locks.push_back(array);
        return true;
    });
    if (!st.ok()) {
        // Give back what was taken: the caller holds all of the pieces or none.
        for (StripeLockArray& array : locks) UnlockStripe(zone, array, tracker);
        locks.clear();
    }
    return st;
}

StatusCode ZoneManager::UnlockStripes(uint32_t zone, uint64_t offset, uint64_t length, StripeLocks& locks,
                                      IOTracker& tracker) {
    const uint64_t zoneSize = SystemDrivePackInfo::GetInstance()->GetZoneSize();
    StatusCode result = StatusCode::Success;
    if (offset + length > zoneSize) {
        tracef(coutTrace, "ZoneOverflow: lock end=%u\n", unsigned(offset + length));
        result = StatusCode::ZoneOverflow;
    }
    for (StripeLockArray& array : locks) {
        StatusCode st = UnlockStripe(zone, array, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "UnlockStripes - UnlockStripe failed error = %s\n", st.Dump().c_str());
            result = st;
        }
    }
    locks.clear();
    return result;
}
