#include "cat/CMFormat.h"

#include <cstring>

#include "util/Endian.h"

namespace cmformat {

void CisRecord::Encode(uint8_t* sector) const {
    std::memset(sector, 0, kSector);
    putLE32(sector + 0, magic0);
    putLE32(sector + 4, magic1);
    putLE32(sector + 8, reserved);
    putLE32(sector + 12, cisSize);
    putLE32(sector + 16, version);
    putLE32(sector + 20, zoneSpaceBitmapSize);
    putLE32(sector + 24, clusterBitmapSize);
    putLE32(sector + 28, zoneBitmapSegmentCount);
    for (uint32_t i = 0; i < kMaxBitmapSegmentCount; ++i) {
        uint8_t* p = sector + 32 + i * kSegmentSize;
        putLE32(p + 0, segments[i].zone);
        putLE32(p + 4, segments[i].offset);
        putLE32(p + 8, segments[i].count);
    }
}

void CisRecord::Decode(const uint8_t* sector) {
    magic0 = getLE32(sector + 0);
    magic1 = getLE32(sector + 4);
    reserved = getLE32(sector + 8);
    cisSize = getLE32(sector + 12);
    version = getLE32(sector + 16);
    zoneSpaceBitmapSize = getLE32(sector + 20);
    clusterBitmapSize = getLE32(sector + 24);
    zoneBitmapSegmentCount = getLE32(sector + 28);
    for (uint32_t i = 0; i < kMaxBitmapSegmentCount; ++i) {
        const uint8_t* p = sector + 32 + i * kSegmentSize;
        segments[i] = {getLE32(p + 0), getLE32(p + 4), getLE32(p + 8)};
    }
}

bool CisRecord::Valid(uint32_t areaLength) const {
    if (magic0 != kMagic0 || magic1 != kMagic1 || version != kVersion) return false;
    if (zoneSpaceBitmapSize != kZoneSpaceBitmapSize) return false;
    if (clusterBitmapSize == 0 || clusterBitmapSize % kSector != 0) return false;
    if (zoneBitmapSegmentCount == 0 || zoneBitmapSegmentCount > kMaxBitmapSegmentCount) return false;
    if (cisSize > areaLength) return false;
    uint64_t total = 0;
    for (uint32_t i = 0; i < zoneBitmapSegmentCount; ++i) {
        if (segments[i].offset % kSector != 0 || segments[i].count == 0) return false;
        total += segments[i].count;
    }
    return total <= kMaxBitmapZones;
}

static_assert(32 + kMaxBitmapSegmentCount * kSegmentSize == kRecordSize);

}  // namespace cmformat
