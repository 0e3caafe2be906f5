#pragma once
// CMClusterBitmapManager: where each owned Zone's cluster bitmap lives. One
// bit per cluster (set = allocated), clusters per Zone rounded up to a
// multiple of 8; each bitmap takes clusterBitmapSize bytes (a multiple of
// 512). The bitmaps lie in segments, each {Zone, byte offset, count}: the
// segments in order cover bitmap Zones 0, 1, ... and the bitmap of the i-th
// Zone of a segment is at offset + i x clusterBitmapSize in the segment's Zone.
#include <cstdint>

#include "cat/CMFormat.h"
#include "util/StatusCode.h"

class CMClusterBitmapManager {
public:
    void Reset() { *this = CMClusterBitmapManager(); }
    // A new pack: one segment for `count` Zones at `offset` in `zone`.
    void InitialCreate(uint32_t bitsPerZone, uint32_t clusterBitmapSize, uint32_t zone, uint32_t offset,
                       uint32_t count);
    // An existing pack: the segments of its CIS record.
    void Load(uint32_t bitsPerZone, const cmformat::CisRecord& cis);

    // Where Zone `zone`'s bitmap starts; InvalidZoneNumber when no segment covers it.
    StatusCode Locate(uint32_t zone, uint32_t& bitmapZone, uint64_t& offset) const;
    uint32_t BitmapCount() const;

    uint32_t mBitsPerZone = 0;
    uint32_t mClusterBitmapSize = 0;
    uint32_t mBytesUsed = 0;  // bytes of a bitmap that hold bits
    uint32_t mClusterBitmapSegmentCount = 0;
    cmformat::Segment mSegments[cmformat::kMaxBitmapSegmentCount];
};
