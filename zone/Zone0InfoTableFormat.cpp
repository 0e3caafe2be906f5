#include "zone/Zone0InfoTableFormat.h"

#include <algorithm>
#include <cstring>

#include "util/Crc.h"
#include "util/Endian.h"
#include "util/Trace.h"

namespace {
Trace tZ0itFit("Z0IT", "Fit", "Info", false);
}

Zone0Directory Zone0Directory::Empty() {
    Zone0Directory d;
    std::memcpy(d.signature, kSignature, 8);
    d.size = kSize;
    d.version = kVersion;
    d.numEntries = kEntries;
    return d;
}

bool Zone0Directory::signatureValid() const { return std::memcmp(signature, kSignature, 8) == 0; }

void Zone0Directory::Encode(uint8_t* out) const {
    std::memset(out, 0, kSize);
    std::memcpy(out, signature, 8);
    putLE32(out + 8, size);
    putLE32(out + 12, crc);
    putLE32(out + 16, version);
    putLE32(out + 20, numEntries);
    for (unsigned i = 0; i < kEntries; ++i) {
        uint8_t* p = out + 24 + i * kSlotBytes;
        putLE32(p + 0, entries[i].startOffset);
        putLE32(p + 4, entries[i].length);
        putLE32(p + 8, entries[i].version);
        std::memcpy(p + 12, entries[i].userSignature, 8);
        putLE32(p + 20, entries[i].zone);
    }
}

void Zone0Directory::Decode(const uint8_t* in) {
    std::memcpy(signature, in, 8);
    size = getLE32(in + 8);
    crc = getLE32(in + 12);
    version = getLE32(in + 16);
    numEntries = getLE32(in + 20);
    for (unsigned i = 0; i < kEntries; ++i) {
        const uint8_t* p = in + 24 + i * kSlotBytes;
        entries[i].startOffset = getLE32(p + 0);
        entries[i].length = getLE32(p + 4);
        entries[i].version = getLE32(p + 8);
        std::memcpy(entries[i].userSignature, p + 12, 8);
        entries[i].zone = getLE32(p + 20);
    }
}

uint32_t Zone0Directory::ComputeCrc() const {
    uint8_t raw[kSize];
    Zone0Directory copy = *this;
    copy.crc = 0;
    copy.Encode(raw);
    return GetCRC(raw, std::min(size, kSize));
}

void Zone0Directory::UpgradeFromVersion2() {
    for (unsigned i = 9; i < kEntries; ++i) entries[i].clear();
    size = kSize;
    version = kVersion;
    numEntries = kEntries;
}

std::deque<z0itSpaceTracker> Zone0Directory::getAllocatedSpaceMap() const {
    std::deque<z0itSpaceTracker> map;
    map.emplace_back(0, kBlockSize - 1);
    for (const Zone0UserInfo& e : entries)
        if (e.inUse()) map.emplace_back(e.startOffset, uint64_t(e.startOffset) + e.length - 1);
    std::sort(map.begin(), map.end());
    return map;
}

StatusCode Zone0Directory::findZone0Space(uint64_t required, uint64_t zoneSize, uint64_t& offset) const {
    const std::deque<z0itSpaceTracker> map = getAllocatedSpaceMap();
    bool found = false;
    for (size_t i = 0; i + 1 < map.size(); ++i) {
        const uint64_t next = map[i + 1].first, last = map[i].second;
        // Overlapping areas leave no gap (the sum would wrap below zero).
        const uint64_t gap = next > last + 1 ? next - last - 1 : 0;
        if (gap == 0) {
            ESA_TRACE(tZ0itFit, "Z0IT: No gap after entry start 0x" << std::hex << map[i].first);
            continue;
        }
        if (required <= gap) {
            offset = last + 1;
            found = true;
            ESA_TRACE(tZ0itFit, "Z0IT: Fitting into gap after entry start 0x" << std::hex << map[i].first);
            if (required == gap) return StatusCode::Success;
        }
    }
    if (found) return StatusCode::Success;
    const uint64_t last = map.back().second;
    if (zoneSize > last + 1 && required < zoneSize - last - 1) {
        offset = last + 1;
        ESA_TRACE(tZ0itFit, "Z0IT: Fitting after end entry start 0x" << std::hex << map.back().first);
        return StatusCode::Success;
    }
    ESA_CONSOLE("Z0IT: NO SPACE");
    return StatusCode::OutOfSpace;
}
