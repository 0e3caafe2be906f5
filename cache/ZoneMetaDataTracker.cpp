#include "cache/ZoneMetaDataTracker.h"

#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
Trace tZmdt("Cache", "ZMDT", "Info", true);
}

ZoneMetaDataTracker* ZoneMetaDataTracker::GetInstance() {
    static ZoneMetaDataTracker* instance = new ZoneMetaDataTracker();
    return instance;
}

StatusCode ZoneMetaDataTracker::readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    return ZoneManager::GetInstance()->ReadData(set, start * 512, window, tracker);
}

StatusCode ZoneMetaDataTracker::writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) {
    return ZoneManager::GetInstance()->WriteData(set, start * 512, window, tracker);
}

StatusCode ZoneMetaDataTracker::ReadThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t zone,
                                                 uint64_t byteOffset, IOTracker& tracker) {
    return copyThrough(buffer, sectorCount, zone, byteOffset / 512, false, false, tracker);
}

StatusCode ZoneMetaDataTracker::WriteThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t zone,
                                                  uint64_t byteOffset, IOTracker& tracker) {
    return copyThrough(buffer, sectorCount, zone, byteOffset / 512, true, false, tracker);
}

StatusCode ZoneMetaDataTracker::ClearZoneSection(uint32_t zone, uint64_t start, uint32_t length, IOTracker& tracker) {
    StatusCode st = InvalidateRange(zone, start, length, tracker);
    if (st != StatusCode::Success) return st;
    // 128 elements (64 KiB) of zeros a write.
    DataWindow zeros(65536u, 0u, 65536u);
    zeros.ZeroInit();
    for (uint64_t e = start; e < start + length; e += 128) {
        uint32_t n = uint32_t(std::min<uint64_t>(128, start + length - e));
        DataWindow piece(zeros, 0, n * 512);
        st = ZoneManager::GetInstance()->WriteData(zone, e * 512, piece, tracker);
        if (st != StatusCode::Success) {
            ESA_TRACE(tZmdt, "Clearing zone - write failed " << st);
            return st;
        }
    }
    st = ZoneManager::GetInstance()->FlushZone(zone);
    if (st != StatusCode::Success) ESA_TRACE(tZmdt, "Clearing zone - flush failed " << st);
    return st;
}
