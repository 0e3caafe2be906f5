#include "cache/DiskLBAMetaDataTracker.h"

#include <vector>

#include "disk/DiskManager.h"
#include "disk/DiskSGL.h"

DiskLBAMetaDataTracker* DiskLBAMetaDataTracker::GetInstance() {
    static DiskLBAMetaDataTracker* instance = new DiskLBAMetaDataTracker("lDLBATLock", kPoolBlocks);
    return instance;
}

StatusCode DiskLBAMetaDataTracker::IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) {
    if (set >= uint32_t(DiskManager::kSlots)) return StatusCode::CACHE_InvalidSet;
    StatusCode st = CacheRangeTracker::IsSetAndRangeValid(set, start, length);
    if (st != StatusCode::Success) return st;
    // Disk LBAs are 32 bits wide in the pack layers.
    if (start + length > (uint64_t(1) << 32)) return StatusCode::CACHE_InvalidRange;
    return StatusCode::Success;
}

namespace {
std::vector<DiskPane> panesOf(DataWindow& window) {
    std::vector<DiskPane> panes;
    unsigned char* p = nullptr;
    uint32_t n = 0;
    for (auto it = window.begin(p, n); it != window.end(); it.GetNext(p, n)) panes.push_back({p, n});
    return panes;
}
}  // namespace

StatusCode DiskLBAMetaDataTracker::readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    std::vector<DiskPane> panes = panesOf(window);
    return DiskManager::GetInstance()->ReadData(int(set), panes.data(), panes.size(), start, tracker);
}

StatusCode DiskLBAMetaDataTracker::writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    std::vector<DiskPane> panes = panesOf(window);
    return DiskManager::GetInstance()->WriteData(int(set), panes.data(), panes.size(), start, tracker, 0);
}

StatusCode DiskLBAMetaDataTracker::ReadThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t disk,
                                                    uint64_t lba, IOTracker& tracker) {
    return copyThrough(buffer, sectorCount, disk, lba, false, false, tracker);
}

StatusCode DiskLBAMetaDataTracker::WriteThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t disk,
                                                     uint64_t lba, bool noRead, IOTracker& tracker) {
    return copyThrough(buffer, sectorCount, disk, lba, true, noRead, tracker);
}
