#include "cache/RegionMetaDataTracker.h"

#include "cache/CacheTrackerObject.h"
#include "region/RegionManager.h"
#include "util/Trace.h"

namespace {
Trace tRmdt("Cache", "RMDT", "Info", false);

// Byte address -> (Region, offset in Region); false until a pack gives the geometry.
bool split(uint64_t element, uint32_t& region, uint64_t& offset) {
    uint64_t size = RegionManager::GetInstance()->RegionSizeBytes();
    if (size == 0) return false;
    uint64_t address = element * 512;
    region = uint32_t(address / size);
    offset = address % size;
    return true;
}
}  // namespace

RegionMetaDataTracker* RegionMetaDataTracker::GetInstance() {
    static RegionMetaDataTracker* instance = new RegionMetaDataTracker();
    return instance;
}

StatusCode RegionMetaDataTracker::readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    uint32_t region = 0;
    uint64_t offset = 0;
    if (!split(start, region, offset)) return StatusCode::DiskPackNotLoaded;
    return RegionManager::GetInstance()->ReadData(set, region, offset, window, tracker);
}

StatusCode RegionMetaDataTracker::writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    uint32_t region = 0;
    uint64_t offset = 0;
    if (!split(start, region, offset)) return StatusCode::DiskPackNotLoaded;
    return RegionManager::GetInstance()->WriteData(set, region, offset, window, tracker);
}

StatusCode RegionMetaDataTracker::WriteRangeUserdata(CacheTrackerObject* cto, IOTracker& tracker) {
    ESA_TRACE(tRmdt, "RMDT userdata write set " << cto->mSet << " start " << cto->mStart);
    StatusCode st = writeBelow(cto->mSet, cto->mStart, cto->mWindow, tracker);
    if (st != StatusCode::Success) ClearCTO(cto);
    return st;
}
