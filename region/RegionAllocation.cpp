// The allocation bitmap, its cursors and counts, and the saved Zone table
// locations in the headers.
#include <algorithm>
#include <vector>

#include "region/RegionInternal.h"
#include "region/RegionManager.h"

using SharedMap = ExtendingLockObject::SharedLockInstance;
using DiskChange = ExtendingLockObject::ExtendingExclusiveLockInstance;

// A change whose write failed part way may have reached copy 0 and not copy
// 1, and copy 0 would win the next load's vote. With the map in memory put
// back, both copies are written again so that the disk says what the caller
// was told (a freed Region that came back must never look free later).
void RegionManager::RestoreOnDisk(LogicalDiskMap& m, IOTracker& tracker) {
    StatusCode st = WriteRMMD(m, 0, 0xFFFF, tracker, false);
    if (st != StatusCode::Success)
        ESA_CONSOLE("RM: LD #" << m.ld << " metadata could not be put back after a failed change: " << st);
}

StatusCode RegionManager::AllocateRegions(uint16_t ld, uint32_t count, uint32_t* regions, bool metadata,
                                          IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    DiskChange d(&m->lock, tracker);
    if (count == 0) return StatusCode::Success;
    // Shortage is found before anything changes: never half an allocation.
    if (m->freeRegions < count) {
        ESA_TRACE(tRM,
                  "RM::AllocateRegions: LD #" << ld << " has " << m->freeRegions << " free, " << count << " asked");
        return StatusCode::RM_NotEnoughFree;
    }
    uint32_t& cursor = metadata ? m->firstFreeMD : m->firstFree;
    uint32_t total = m->regions();
    uint32_t taken = 0, r = cursor < total ? cursor : 0;
    uint32_t low = total, high = 0;
    for (uint32_t scanned = 0; scanned < total && taken < count; ++scanned, r = (r + 1) % total) {
        if (m->bitmap.allocated(r)) continue;
        m->bitmap.set(r, true);
        regions[taken++] = r;
        low = std::min(low, r);
        high = std::max(high, r);
    }
    if (taken < count) {
        ESA_CONSOLE("<<<< RM::AllocateRegions: LD #" << ld
                                                     << " failed to allocate all required regions after a rescan. "
                                                        "We hit the end of the bitmap!");
        for (uint32_t i = 0; i < taken; ++i) m->bitmap.set(regions[i], false);
        return StatusCode::InternalError;
    }
    uint32_t oldCursor = cursor;
    cursor = r;
    m->freeRegions -= count;
    StatusCode st = WriteBitmapChange(*m, low, high, tracker);
    if (st != StatusCode::Success) {
        // Nothing handed out: the bitmap in memory goes back to what the disks hold.
        for (uint32_t i = 0; i < count; ++i) m->bitmap.set(regions[i], false);
        m->freeRegions += count;
        cursor = oldCursor;
        RestoreOnDisk(*m, tracker);
        return st;
    }
    ++mAllocations;
    return StatusCode::Success;
}

StatusCode RegionManager::FreeRegions(uint16_t ld, uint32_t count, const uint32_t* regions, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    DiskChange d(&m->lock, tracker);
    for (uint32_t i = count; i-- > 0;) {
        if (regions[i] >= m->regions()) {
            ESA_CONSOLE("<<<< RM::FreeRegions: LD #" << ld << " Region " << regions[i] << " too large!");
            return StatusCode::RM_RegionNumberInvalid;
        }
        if (!m->bitmap.allocated(regions[i])) {
            ESA_CONSOLE("<<<< RM::FreeRegions: LD #" << ld << " Region " << regions[i] << " is not allocated");
            return StatusCode::RM_RegionNotAllocated;
        }
    }
    // The same Region twice in one call is freed once.
    std::vector<uint32_t> distinct(regions, regions + count);
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    if (distinct.empty()) return StatusCode::Success;
    for (uint32_t r : distinct) m->bitmap.set(r, false);
    uint32_t oldFirst = m->firstFree;
    m->freeRegions += uint32_t(distinct.size());
    m->firstFree = std::min(m->firstFree, distinct.front());
    StatusCode st = WriteBitmapChange(*m, distinct.front(), distinct.back(), tracker);
    if (st != StatusCode::Success) {
        for (uint32_t r : distinct) m->bitmap.set(r, true);
        m->freeRegions -= uint32_t(distinct.size());
        m->firstFree = oldFirst;
        RestoreOnDisk(*m, tracker);
        return st;
    }
    ++mFrees;
    return StatusCode::Success;
}

StatusCode RegionManager::SetAsAllocated(uint16_t ld, uint32_t region, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (region >= m->regions()) return StatusCode::RM_RegionNumberInvalid;
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    DiskChange d(&m->lock, tracker);
    if (m->bitmap.allocated(region)) return StatusCode::Success;
    m->bitmap.set(region, true);
    --m->freeRegions;
    StatusCode st = WriteBitmapChange(*m, region, region, tracker);
    if (st != StatusCode::Success) {
        m->bitmap.set(region, false);
        ++m->freeRegions;
        RestoreOnDisk(*m, tracker);
    }
    return st;
}

StatusCode RegionManager::IsAllocated(uint16_t ld, uint32_t region, bool& allocated, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (region >= m->regions()) return StatusCode::RM_RegionNumberInvalid;
    allocated = m->bitmap.allocated(region);
    return StatusCode::Success;
}

StatusCode RegionManager::GetFreeRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    count = m->freeRegions;
    return StatusCode::Success;
}

StatusCode RegionManager::GetAvailableRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    uint32_t unavailable = m->header.unavailableRegions;
    for (unsigned i = 0; i < 3; ++i)
        if (!m->header.saved[i].empty() && m->header.saved[i].ld == ld) ++unavailable;
    count = m->regions() > unavailable ? m->regions() - unavailable : 0;
    return StatusCode::Success;
}

StatusCode RegionManager::IncrementBadRegionCount(uint16_t ld, IOTracker& tracker) {
    SharedMap g(&mMapLock, tracker);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    DiskChange d(&m->lock, tracker);
    ++m->header.unavailableRegions;
    StatusCode st = WriteRMMD(*m, 0, 0, tracker, false);
    if (st != StatusCode::Success) {
        --m->header.unavailableRegions;
        RestoreOnDisk(*m, tracker);
    }
    return st;
}

StatusCode RegionManager::SetMetaData(unsigned instance, uint16_t ld, uint32_t region, IOTracker& tracker) {
    if (instance >= kSavedMetaDataSlots) return StatusCode::RM_BadOffset;
    SharedMap g(&mMapLock, tracker);
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    if (region == 0) ESA_TRACE(tRM, "RM::SetMetadata: Save MD# " << instance << " set to LD: " << ld << " region 0");
    RMSavedMetadata value{ld, region};
    StatusCode result = StatusCode::Success;
    for (auto& m : mMaps) {
        if (!m || m->header.saved[instance] == value) continue;
        DiskChange d(&m->lock, tracker);
        RMSavedMetadata old = m->header.saved[instance];
        m->header.saved[instance] = value;
        StatusCode st = WriteRMMD(*m, 0, 0, tracker, false);
        if (st != StatusCode::Success) {
            m->header.saved[instance] = old;
            RestoreOnDisk(*m, tracker);
            ESA_CONSOLE("RM::SetMetadata: Save MD# " << instance << " failed for logical disk " << m->ld << ": " << st
                                                     << ". Continuing!");
            result = st;
        }
    }
    return result;
}

StatusCode RegionManager::GetMetaData(unsigned instance, uint16_t& ld, uint32_t& region, IOTracker& tracker) {
    if (instance >= kSavedMetaDataSlots) return StatusCode::RM_BadOffset;
    SharedMap g(&mMapLock, tracker);
    // Every disk holds the same slots; the first that has the slot set answers.
    for (auto& m : mMaps)
        if (m && !m->header.saved[instance].empty()) {
            ld = m->header.saved[instance].ld;
            region = m->header.saved[instance].region;
            return StatusCode::Success;
        }
    return StatusCode::RM_ZISInvalidRegion;
}
