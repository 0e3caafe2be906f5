#pragma once
// An independent reader of the pack's on-disk records, written from the
// record tables and sharing no code with the system that writes them: it
// assembles every field from its byte offset and checks the checksums with
// its own bitwise CRC. Tests use it to check what really reached the disks.
#include <cstdint>
#include <cstring>
#include <string>

namespace independent {

inline uint32_t crc(const uint8_t* p, size_t n) {
    uint32_t c = 0;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return c;
}
// The CRC of n bytes as they are stored with their own 4-byte CRC field at
// `field` taken as zero.
inline uint32_t crcWithFieldZero(const uint8_t* p, size_t n, size_t field) {
    std::string copy(reinterpret_cast<const char*>(p), n);
    std::memset(copy.data() + field, 0, 4);
    return crc(reinterpret_cast<const uint8_t*>(copy.data()), n);
}
inline uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
inline uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline std::string text(const uint8_t* p, size_t room) {
    return std::string(reinterpret_cast<const char*>(p), strnlen(reinterpret_cast<const char*>(p), room));
}

struct Dis {
    bool valid = false;  // signatures, version and every checksum the layout has
    uint32_t packId0 = 0, packId1 = 0, generation = 0, logicalDisks = 0, critcalDisks = 0, layout = 0;
    std::string name;
    uint16_t ldNumber = 0;
    uint32_t ldBitmap = 0, flags = 0, iteration = 0, rmLba0 = 0, rmLba1 = 0;
    std::string expungeReason;
};

inline Dis readDis(const uint8_t* s) {
    Dis d;
    d.layout = le32(s + 0x08);
    d.packId0 = le32(s + 0x10);
    d.packId1 = le32(s + 0x14);
    d.generation = le32(s + 0x18);
    d.logicalDisks = le32(s + 0x1C);
    d.critcalDisks = le32(s + 0x20);
    d.name = text(s + 0x24, 32);
    d.ldNumber = le16(s + 0x44);
    d.ldBitmap = le32(s + 0x48);
    d.flags = le32(s + 0x4C);
    d.iteration = le32(s + 0x50);
    d.rmLba0 = le32(s + 0x54);
    d.rmLba1 = le32(s + 0x58);
    bool main = le32(s) == 0xFEEDBEEF && le32(s + 4) == 0x10 && le32(s + 0x5C) == 0xDEADC01D &&
                crc(s, 0x60) == le32(s + 0x60);
    bool ext = d.layout <= 9 || (le32(s + 0x64) == 0xFACEBEAD && crc(s + 0x64, 8) == le32(s + 0x6C));
    if (d.layout > 9) d.expungeReason = text(s + 0x70, 32);
    d.valid = main && ext;
    return d;
}

inline uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }
inline uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

// A Region metadata header: big-endian but for the padding word.
struct RMHeader {
    bool valid = false;  // magic, version 3..6, and the CRC when one is stored
    uint32_t version = 0, regionSectors = 0, copyNumber = 0, generation = 0, metadataLba = 0, bitmapBytes = 0;
    uint16_t savedLd[4] = {};
    uint32_t savedRegion[4] = {};
    uint32_t unavailable = 0, padding = 0, allocBase = 0;
    uint64_t recoveryGeneration = 0;
};

inline RMHeader readRMHeader(const uint8_t* s) {
    RMHeader h;
    h.version = be32(s + 4);
    h.regionSectors = be32(s + 0x0C) & 0xFFFFFF;
    h.copyNumber = be32(s + 0x10);
    h.generation = be32(s + 0x14);
    h.metadataLba = be32(s + 0x18);
    h.bitmapBytes = be32(s + 0x1C);
    for (int i = 0; i < 4; ++i) {
        h.savedLd[i] = be16(s + 0x20 + 8 * i);
        h.savedRegion[i] = be32(s + 0x24 + 8 * i);
    }
    h.unavailable = be32(s + 0x74);
    h.padding = le32(s + 0x78);
    h.recoveryGeneration = uint64_t(be32(s + 0x7C)) << 32 | be32(s + 0x80);
    h.allocBase = be32(s + 0x84);
    uint32_t stored = be32(s + 0x70);
    h.valid = be32(s) == 0x524D4D44 && h.version >= 3 && h.version <= 6 &&
              (stored == 0 || crcWithFieldZero(s, 512, 0x70) == stored);
    return h;
}

// The Region allocation bitmap: is Region r allocated?
inline bool rabmAllocated(const uint8_t* area, uint32_t r) { return area[12 + r / 8] >> (r % 8) & 1; }
inline bool rabmValid(const uint8_t* area, uint32_t areaBytes) {
    uint32_t stored = be32(area + 8);
    return be32(area) == 0x5241424D && (stored == 0 || crcWithFieldZero(area, areaBytes, 8) == stored);
}

}  // namespace independent

namespace independent {
// A RecoveryBlock: 0x88 little-endian bytes at the start of a padding sector.
struct RecoveryRecord {
    bool magic = false, crcValid = false;
    uint32_t crc = 0, version = 0, packId0 = 0, packId1 = 0, regionSize = 0, type = 0, nextMetadata = 0,
             nextUserdata = 0, owner = 0, ownerWords[16] = {}, zone = 0, flags = 0, redundancy = 0;
    uint16_t ld = 0, arrayIndex = 0;
    uint64_t generation = 0;
};

inline RecoveryRecord readRecoveryBlock(const uint8_t* s) {
    RecoveryRecord r;
    r.magic = le32(s) == 0x5245434F;
    r.crc = le32(s + 4);
    r.crcValid = r.crc != 0 && crcWithFieldZero(s, 0x88, 4) == r.crc;
    r.version = le32(s + 8);
    r.packId0 = le32(s + 0x10);
    r.packId1 = le32(s + 0x14);
    r.ld = le16(s + 0x18);
    r.regionSize = le32(s + 0x1C);
    r.type = le32(s + 0x20);
    r.nextMetadata = le32(s + 0x24);
    r.nextUserdata = le32(s + 0x28);
    r.owner = le32(s + 0x2C);
    for (int i = 0; i < 16; ++i) r.ownerWords[i] = le32(s + 0x30 + 4 * i);
    r.zone = le32(s + 0x70);
    r.arrayIndex = le16(s + 0x74);
    r.flags = le32(s + 0x78);
    r.redundancy = le32(s + 0x7C);
    r.generation = uint64_t(le32(s + 0x80)) | uint64_t(le32(s + 0x84)) << 32;
    return r;
}
}  // namespace independent

namespace independent {
// A Zone table copy: the version 8 ZIS header at the start of its Region, and
// the entries that follow at the table offset (0x1C0 bytes each).
struct ZisHeader {
    bool valid = false;  // both signatures, version 8, and the CRC when one is stored
    uint32_t version = 0, generation = 0, tableOffset = 0, entries = 0, zoneSize = 0;
    uint16_t flags = 0, disk[3] = {};
    uint32_t region[3] = {};
};

inline ZisHeader readZisHeader(const uint8_t* s) {
    ZisHeader h;
    uint32_t length = le32(s + 0x0C);
    h.version = le32(s + 0x10);
    h.generation = le32(s + 0x14);
    h.flags = le16(s + 0x18);
    for (int i = 0; i < 3; ++i) {
        h.disk[i] = le16(s + 0x1A + 2 * i);
        h.region[i] = le32(s + 0x20 + 4 * i);
    }
    h.tableOffset = le32(s + 0x2C);
    h.entries = le32(s + 0x30);
    h.zoneSize = le32(s + 0x34);
    bool crcGood = false;
    if (length >= 0x38 && length <= 4096) {
        uint32_t stored = le32(s + 8);
        crcGood = stored == 0 || crcWithFieldZero(s, length, 8) == stored;
    }
    h.valid = le32(s) == 0x5461626C && le32(s + 4) == 0x5A6F6E65 && h.version == 8 && crcGood;
    return h;
}

struct ZoneEntry {
    uint32_t number = 0, type = 0, flags = 0;
    uint16_t disk[72] = {};
    uint32_t region[72] = {};
    bool inUse() const { return flags & 0x04; }
};

inline ZoneEntry readZoneEntry(const uint8_t* e) {
    ZoneEntry z;
    z.number = le32(e);
    z.type = le32(e + 4);
    for (int i = 0; i < 72; ++i) {
        z.disk[i] = le16(e + 8 + 2 * i);
        z.region[i] = le32(e + 0x98 + 4 * i);
    }
    z.flags = le32(e + 0x1B8);
    return z;
}
}  // namespace independent
