#pragma once
// ZISFormat: the on-disk codec of the Zone table. Each copy of the table sits
// in a Region of its own: a 4,096-byte block whose first 0x38 bytes are the ZIS
// header (little-endian, the rest zero), then the entries from the table
// offset, one every 0x1C0 bytes, with nothing between them.
//
// Writes are always version 8. Reads take every version from 2: versions 2 to
// 6 had another header layout and 0x134-byte entries of 48 slots; version 7 is
// version 8 without the dual-redundancy flag. A header is valid when both
// signature words match and, if a CRC is stored (non-zero), it checks.
#include <cstdint>

#include "util/StatusCode.h"
#include "zone/ZoneTableEntry.h"

struct ZISHeader {
    static constexpr uint32_t kSignature0 = 0x5461626C, kSignature1 = 0x5A6F6E65;
    static constexpr uint32_t kLength = 0x38;
    static constexpr uint32_t kVersion = 8;
    static constexpr uint32_t kBlockSize = 0x1000;
    static constexpr uint32_t kTableOffset = 0x1000;
    static constexpr uint16_t kUseSelfMirroring = 0x8000, kUseDualRedundancy = 0x4000;
    static constexpr unsigned kCopies = 3;

    uint32_t version = kVersion;
    uint32_t generation = 0;
    uint16_t flags = 0;
    uint16_t disk[kCopies] = {};
    uint32_t region[kCopies] = {};
    bool hasTertiary = true;  // versions below 7 knew two copies only
    uint32_t tableOffset = kTableOffset;
    uint32_t entryCount = 0;
    uint32_t zoneSize = 0;

    bool operator==(const ZISHeader&) const = default;
};

namespace ZISFormat {

// The generation after `g`: 0 is never used, so 0xFFFFFFFF is followed by 1.
uint32_t NextGeneration(uint32_t g);
// True when generation a is newer than b, allowing for the wrap: the
// difference is read as a signed 32-bit value.
bool GenerationNewer(uint32_t a, uint32_t b);

// Fills a 4,096-byte block: the version 8 header with its CRC, zeros after.
void EncodeHeader(const ZISHeader& header, uint8_t* block);
// Signatures, and the CRC when one is stored. `block` holds at least the
// header length it states (at most a block).
bool ValidateZIS(const uint8_t* block);
// ValidateZIS, then the fields by version. BadMetadata for an invalid block
// or a version this system cannot read.
StatusCode DecodeHeader(const uint8_t* block, ZISHeader& header);

// Entry size on disk for a table version: 0x1C0 from version 7, 0x134 before.
uint32_t EntrySize(uint32_t version);
// An entry in the current format (0x1C0 bytes).
void EncodeEntry(const ZoneTableEntry& entry, uint8_t* out);
// An entry of the given table version. Old entries fill the first 48 slots,
// the others are cleared.
void DecodeEntry(uint32_t version, const uint8_t* in, ZoneTableEntry& entry);
// The inverse of DecodeEntry for old versions, for tests that make old tables.
void EncodeOldEntry(uint32_t version, const ZoneTableEntry& entry, uint8_t* out);
// An old header, for the same tests.
void EncodeOldHeader(const ZISHeader& header, uint8_t* block);

}  // namespace ZISFormat
