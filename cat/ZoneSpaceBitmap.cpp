#include "cat/ZoneSpaceBitmap.h"

#include <bit>

#include "cache/ZoneMetaDataTracker.h"
#include "util/Assert.h"

namespace {
constexpr uint32_t kSector = 512;
}

ZoneSpaceBitmap::ZoneSpaceBitmap() : mLock("eCMZoneSpaceBitmapLock", 0x1a) {}

void ZoneSpaceBitmap::Attach(uint32_t zone, uint64_t zoneBitmapOffset) {
    mZone = zone;
    mZoneBitmapOffset = zoneBitmapOffset;
}

StatusCode ZoneSpaceBitmap::Initialize(bool create, IOTracker& tracker) {
    ZoneMetaDataTracker* zmdt = ZoneMetaDataTracker::GetInstance();
    mZoneBits.assign(kBytes, 0);
    mSpaceBits.assign(kBytes, 0);
    StatusCode st;
    if (create) {
        st = zmdt->WriteThroughCache(mZoneBits.data(), kBytes / kSector, mZone, mZoneBitmapOffset, tracker);
        if (st == StatusCode::Success)
            st = zmdt->WriteThroughCache(mSpaceBits.data(), kBytes / kSector, mZone, mZoneBitmapOffset + kBytes,
                                         tracker);
        zoneWrites++, spaceWrites++;
    } else {
        st = zmdt->ReadThroughCache(mZoneBits.data(), kBytes / kSector, mZone, mZoneBitmapOffset, tracker);
        if (st == StatusCode::Success)
            st = zmdt->ReadThroughCache(mSpaceBits.data(), kBytes / kSector, mZone, mZoneBitmapOffset + kBytes,
                                        tracker);
        zoneReads++, spaceReads++;
    }
    if (st != StatusCode::Success) Free();
    return st;
}

void ZoneSpaceBitmap::Free() {
    std::vector<uint8_t>().swap(mZoneBits);
    std::vector<uint8_t>().swap(mSpaceBits);
}

void ZoneSpaceBitmap::setBit(std::vector<uint8_t>& map, uint32_t z, bool on) {
    ESA_ASSERT_OP(z, <, kBits);
    if (on) map[z / 8] |= uint8_t(1u << (z % 8));
    else map[z / 8] &= uint8_t(~(1u << (z % 8)));
}

StatusCode ZoneSpaceBitmap::saveSector(const std::vector<uint8_t>& map, uint64_t base, uint32_t zone,
                                       IOTracker& tracker) {
    // The sector of bit z starts at byte (z / 4,096) x 512.
    const uint32_t byte = zone / 4096 * kSector;
    std::vector<uint8_t> sector(map.begin() + byte, map.begin() + byte + kSector);
    return ZoneMetaDataTracker::GetInstance()->WriteThroughCache(sector.data(), 1, mZone, base + byte, tracker);
}

StatusCode ZoneSpaceBitmap::SaveZoneSector(uint32_t zone, IOTracker& tracker) {
    zoneWrites++;
    return saveSector(mZoneBits, mZoneBitmapOffset, zone, tracker);
}

StatusCode ZoneSpaceBitmap::SaveSpaceSector(uint32_t zone, IOTracker& tracker) {
    spaceWrites++;
    return saveSector(mSpaceBits, mZoneBitmapOffset + kBytes, zone, tracker);
}

uint32_t ZoneSpaceBitmap::CountZones(uint32_t limit) const {
    uint32_t count = 0;
    for (uint32_t z = 0; z < limit && z < kBits && !mZoneBits.empty(); ++z) count += ZoneBit(z);
    return count;
}

bool ZoneSpaceBitmap::NthZone(uint32_t n, uint32_t limit, uint32_t& zone) const {
    if (n == 0 || mZoneBits.empty()) return false;
    for (uint32_t z = 0; z < limit && z < kBits; ++z) {
        if (z % 8 == 0 && mZoneBits[z / 8] == 0) {
            z += 7;
            continue;
        }
        if (ZoneBit(z) && --n == 0) {
            zone = z;
            return true;
        }
    }
    return false;
}
