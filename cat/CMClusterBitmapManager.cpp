#include "cat/CMClusterBitmapManager.h"

void CMClusterBitmapManager::InitialCreate(uint32_t bitsPerZone, uint32_t clusterBitmapSize, uint32_t zone,
                                           uint32_t offset, uint32_t count) {
    Reset();
    mBitsPerZone = bitsPerZone;
    mClusterBitmapSize = clusterBitmapSize;
    mBytesUsed = (bitsPerZone + 7) / 8;
    mClusterBitmapSegmentCount = 1;
    mSegments[0] = {zone, offset, count};
}

void CMClusterBitmapManager::Load(uint32_t bitsPerZone, const cmformat::CisRecord& cis) {
    Reset();
    mBitsPerZone = bitsPerZone;
    mClusterBitmapSize = cis.clusterBitmapSize;
    mBytesUsed = (bitsPerZone + 7) / 8;
    mClusterBitmapSegmentCount = cis.zoneBitmapSegmentCount;
    for (uint32_t i = 0; i < mClusterBitmapSegmentCount; ++i) mSegments[i] = cis.segments[i];
}

StatusCode CMClusterBitmapManager::Locate(uint32_t zone, uint32_t& bitmapZone, uint64_t& offset) const {
    uint32_t first = 0;
    for (uint32_t i = 0; i < mClusterBitmapSegmentCount; ++i) {
        const cmformat::Segment& s = mSegments[i];
        if (zone < first + s.count) {
            bitmapZone = s.zone;
            offset = uint64_t(s.offset) + uint64_t(zone - first) * mClusterBitmapSize;
            return StatusCode::Success;
        }
        first += s.count;
    }
    return StatusCode::InvalidZoneNumber;
}

uint32_t CMClusterBitmapManager::BitmapCount() const {
    uint32_t n = 0;
    for (uint32_t i = 0; i < mClusterBitmapSegmentCount; ++i) n += mSegments[i].count;
    return n;
}
