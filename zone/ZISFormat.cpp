#include "zone/ZISFormat.h"

#include <cstring>

#include "util/Crc.h"
#include "util/Endian.h"
#include "util/Trace.h"

namespace {

Trace tZis("ZM", "ZIS", "Info", false);

constexpr unsigned kOldSlots = 48;

// Where an old header keeps its fields; -1 for a field it does not have.
struct HeaderLayout {
    int generation, flags, disk0, disk1, disk2, region0, region1, region2, tableOffset, count, zoneSize;
};
constexpr HeaderLayout kV2to4{-1, 0x14, 0x16, 0x18, -1, 0x1C, 0x20, -1, 0x24, 0x28, 0x2C};
constexpr HeaderLayout kV5to6{0x14, 0x18, 0x1A, 0x1C, -1, 0x20, 0x24, -1, 0x28, 0x2C, 0x30};
constexpr HeaderLayout kV7to8{0x14, 0x18, 0x1A, 0x1C, 0x1E, 0x20, 0x24, 0x28, 0x2C, 0x30, 0x34};

const HeaderLayout* layoutFor(uint32_t version) {
    if (version >= 2 && version <= 4) return &kV2to4;
    if (version == 5 || version == 6) return &kV5to6;
    if (version == 7 || version == 8) return &kV7to8;
    return nullptr;
}

uint32_t headerLengthFor(uint32_t version) {
    const HeaderLayout* l = layoutFor(version);
    return l ? uint32_t(l->zoneSize + 4) : ZISHeader::kLength;
}

void sealCrc(uint8_t* block) {
    putLE32(block + 0x08, 0);
    putLE32(block + 0x08, GetCRC(block, getLE32(block + 0x0C)));
}

void encodeWithLayout(const ZISHeader& h, const HeaderLayout& l, uint8_t* block) {
    std::memset(block, 0, ZISHeader::kBlockSize);
    putLE32(block + 0x00, ZISHeader::kSignature0);
    putLE32(block + 0x04, ZISHeader::kSignature1);
    putLE32(block + 0x0C, headerLengthFor(h.version));
    putLE32(block + 0x10, h.version);
    if (l.generation >= 0) putLE32(block + l.generation, h.generation);
    putLE16(block + l.flags, h.flags);
    putLE16(block + l.disk0, h.disk[0]);
    putLE16(block + l.disk1, h.disk[1]);
    if (l.disk2 >= 0) putLE16(block + l.disk2, h.disk[2]);
    putLE32(block + l.region0, h.region[0]);
    putLE32(block + l.region1, h.region[1]);
    if (l.region2 >= 0) putLE32(block + l.region2, h.region[2]);
    putLE32(block + l.tableOffset, h.tableOffset);
    putLE32(block + l.count, h.entryCount);
    putLE32(block + l.zoneSize, h.zoneSize);
    sealCrc(block);
}

}  // namespace

namespace ZISFormat {

uint32_t NextGeneration(uint32_t g) { return g == 0xFFFFFFFFu ? 1 : g + 1; }

bool GenerationNewer(uint32_t a, uint32_t b) { return int32_t(a - b) > 0; }

void EncodeHeader(const ZISHeader& header, uint8_t* block) {
    ZISHeader h = header;
    h.version = ZISHeader::kVersion;
    encodeWithLayout(h, kV7to8, block);
}

void EncodeOldHeader(const ZISHeader& header, uint8_t* block) {
    encodeWithLayout(header, *layoutFor(header.version), block);
}

bool ValidateZIS(const uint8_t* block) {
    if (getLE32(block) != ZISHeader::kSignature0 || getLE32(block + 4) != ZISHeader::kSignature1) {
        ESA_TRACE(tZis, "ValidateZIS: bad signature 0x" << std::hex << getLE32(block) << " 0x" << getLE32(block + 4));
        return false;
    }
    const uint32_t stored = getLE32(block + 0x08), length = getLE32(block + 0x0C);
    if (stored == 0) return true;
    if (length < 0x10 || length > ZISHeader::kBlockSize) return false;
    uint8_t copy[ZISHeader::kBlockSize];
    std::memcpy(copy, block, length);
    putLE32(copy + 0x08, 0);
    return GetCRC(copy, length) == stored;
}

StatusCode DecodeHeader(const uint8_t* block, ZISHeader& h) {
    if (!ValidateZIS(block)) return StatusCode::BadMetadata;
    h = ZISHeader{};
    h.version = getLE32(block + 0x10);
    const HeaderLayout* l = layoutFor(h.version);
    if (!l) return StatusCode::BadMetadata;
    h.generation = l->generation >= 0 ? getLE32(block + l->generation) : 1;
    h.flags = getLE16(block + l->flags);
    // Before version 8 the dual-redundancy bit meant nothing.
    if (h.version < 8) h.flags &= uint16_t(~ZISHeader::kUseDualRedundancy);
    h.disk[0] = getLE16(block + l->disk0);
    h.disk[1] = getLE16(block + l->disk1);
    h.region[0] = getLE32(block + l->region0);
    h.region[1] = getLE32(block + l->region1);
    h.hasTertiary = l->disk2 >= 0;
    if (h.hasTertiary) {
        h.disk[2] = getLE16(block + l->disk2);
        h.region[2] = getLE32(block + l->region2);
    }
    h.tableOffset = getLE32(block + l->tableOffset);
    h.entryCount = getLE32(block + l->count);
    h.zoneSize = getLE32(block + l->zoneSize);
    return StatusCode::Success;
}

uint32_t EntrySize(uint32_t version) { return version >= 7 ? 0x1C0 : 0x134; }

void EncodeEntry(const ZoneTableEntry& e, uint8_t* out) {
    putLE32(out + 0x000, e.zoneNumber);
    putLE32(out + 0x004, e.redundancyType);
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        putLE16(out + 0x008 + 2 * s, e.disk[s]);
        putLE32(out + 0x098 + 4 * s, e.region[s]);
    }
    putLE32(out + 0x1B8, e.flags);
    putLE32(out + 0x1BC, e.lastWrittenTimestamp);
}

void DecodeEntry(uint32_t version, const uint8_t* in, ZoneTableEntry& e) {
    e = ZoneTableEntry::Fresh();
    if (version >= 7) {
        e.zoneNumber = getLE32(in + 0x000);
        e.redundancyType = getLE32(in + 0x004);
        for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
            e.disk[s] = getLE16(in + 0x008 + 2 * s);
            e.region[s] = getLE32(in + 0x098 + 4 * s);
        }
        e.flags = getLE32(in + 0x1B8);
        e.lastWrittenTimestamp = getLE32(in + 0x1BC);
        return;
    }
    unsigned disks = 0x0C, regions = 0x6C;
    if (version == 6) {
        e.zoneNumber = getLE32(in + 4);
        e.redundancyType = getLE32(in + 8);
        e.flags = getLE32(in + 300);
    } else {
        e.zoneNumber = getLE32(in + 4) & 0x7FFFFFFF;
        e.redundancyType = getLE32(in + 0x0C);
        disks = 0x10, regions = 0x70;
        if (in[7] & 0x80) e.flags |= ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata;
        if (in[8] & 1) e.flags |= ZoneTableEntry::kInUse;
        if (in[0x130] & 1) e.flags |= ZoneTableEntry::kPreinitialized;
        if (in[0x131] & 1) e.flags |= ZoneTableEntry::kInitComplete;
    }
    for (unsigned s = 0; s < kOldSlots; ++s) {
        e.disk[s] = getLE16(in + disks + 2 * s);
        e.region[s] = getLE32(in + regions + 4 * s);
    }
}

void EncodeOldEntry(uint32_t version, const ZoneTableEntry& e, uint8_t* out) {
    std::memset(out, 0, EntrySize(version));
    if (version >= 7) return EncodeEntry(e, out);
    unsigned disks = 0x0C, regions = 0x6C;
    if (version == 6) {
        putLE32(out + 4, e.zoneNumber);
        putLE32(out + 8, e.redundancyType);
        putLE32(out + 300, e.flags);
    } else {
        putLE32(out + 4, e.zoneNumber & 0x7FFFFFFF);
        putLE32(out + 0x0C, e.redundancyType);
        disks = 0x10, regions = 0x70;
        if (e.flags & (ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata)) out[7] |= 0x80;
        if (e.flags & ZoneTableEntry::kInUse) out[8] |= 1;
        if (e.flags & ZoneTableEntry::kPreinitialized) out[0x130] |= 1;
        if (e.flags & ZoneTableEntry::kInitComplete) out[0x131] |= 1;
    }
    for (unsigned s = 0; s < kOldSlots; ++s) {
        putLE16(out + disks + 2 * s, e.disk[s]);
        putLE32(out + regions + 4 * s, e.region[s]);
    }
}

}  // namespace ZISFormat
