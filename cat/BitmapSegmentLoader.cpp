#include "cat/BitmapSegmentLoader.h"

#include "cache/CacheTrackerObject.h"
#include "cache/ZoneMetaDataTracker.h"
#include "cat/CMFormat.h"
#include "util/Assert.h"

StatusCode ClusterManager::BitmapSegmentLoader::Load(ClusterManager& manager, uint32_t zone, uint32_t firstBit,
                                                     uint32_t lastBit, IOTracker& tracker, bool noRead) {
    Unload();
    if (zone >= cmformat::kMaxBitmapZones) return StatusCode::InvalidZoneNumber;
    uint32_t bitmapZone = 0;
    uint64_t offset = 0;
    StatusCode st = manager.mBitmapManager.Locate(zone, bitmapZone, offset);
    if (st != StatusCode::Success) return st;
    const uint64_t firstSector = (offset + firstBit / 8) / cmformat::kSector;
    const uint64_t lastSector = (offset + lastBit / 8) / cmformat::kSector;
    const uint32_t sectors = uint32_t(lastSector - firstSector + 1);
    ZoneMetaDataTracker* zmdt = ZoneMetaDataTracker::GetInstance();
    st = noRead ? zmdt->LockAndLookupRangeNoRead(bitmapZone, firstSector, sectors, mCto, tracker)
                : zmdt->LockAndLookupRange(bitmapZone, firstSector, sectors, mCto, tracker);
    if (st != StatusCode::Success) {
        mCto = nullptr;
        return st;
    }
    // The window's extents, by bitmap byte: byte 0 is the bitmap's first.
    uint64_t at = firstSector * cmformat::kSector - offset;
    unsigned char* data = nullptr;
    uint32_t length = 0;
    for (auto it = mCto->mWindow.begin(data, length); it != mCto->mWindow.end(); it.GetNext(data, length)) {
        mExtents.push_back({at, length, data});
        at += length;
    }
    mCurrent = 0;
    return StatusCode::Success;
}

uint8_t* ClusterManager::BitmapSegmentLoader::GetAddress(uint32_t bit) {
    const uint64_t byte = bit / 8;
    const Extent* e = &mExtents[mCurrent];
    if (byte < e->start || byte >= e->start + e->length) {
        size_t i = 0;
        while (i < mExtents.size() && byte >= mExtents[i].start + mExtents[i].length) ++i;
        ESA_ASSERT_OP(i, <, mExtents.size());
        mCurrent = i;
        e = &mExtents[i];
    }
    return e->data + (byte - e->start);
}

StatusCode ClusterManager::BitmapSegmentLoader::Write(IOTracker& tracker) {
    ESA_ASSERT_PTR(mCto, !=, nullptr);
    return ZoneMetaDataTracker::GetInstance()->WriteRange(mCto, tracker);
}

void ClusterManager::BitmapSegmentLoader::Unload() {
    if (mCto) ZoneMetaDataTracker::GetInstance()->UnlockRange(mCto);
    mCto = nullptr;
    mExtents.clear();
    mCurrent = 0;
}
