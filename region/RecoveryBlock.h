#pragma once
// RecoveryBlock: the record in the padding sector after every Region that says
// what the Region is for (a Zone table copy, a Zone's Region, Region metadata)
// and who owns it, so the pack can be reconstructed from the disks alone.
// In memory these are plain values; the 0x88-byte little-endian on-disk form
// is built and parsed by RegionManager.
#include <cstdint>
#include <ostream>

#include "disk/DiskPackId.h"

enum _RegionType : uint32_t { RegionTypeZIS = 0, RegionTypeZONE = 1, RegionTypeRIS = 2 };

// Who uses a Region: owner 0 "None", 1 "Z0IT" (Index#), 2 "CATM" (Index#,
// LUN#), 3 "CM"; 0x44 bytes on disk: the owner word and 16 owner words.
struct _ZoneOwnership {
    static constexpr uint32_t kNone = 0, kZ0IT = 1, kCATM = 2, kCM = 3;
    uint32_t owner = kNone;
    uint32_t words[16] = {};
};

struct _ZISRecovery {
    _ZoneOwnership ownership;
    uint32_t zoneNumber = 0;
    uint16_t arrayIndex = 0;
    uint32_t zoneFlags = 0;
    uint32_t redundancyType = 0x12;
};

struct _RISRecovery {
    uint32_t nextMetadataRegion = 0;
    uint32_t nextUserdataRegion = 0;
};

struct RecoveryBlock {
    static constexpr uint32_t kMagic = 0x5245434F;
    static constexpr uint32_t kRecordBytes = 0x88;
    uint32_t magic = 0;
    uint32_t crc = 0;
    uint32_t version = 0;
    DiskPackId packId;
    uint16_t logicalDisk = 0;
    uint32_t regionSize = 0;
    uint32_t regionType = 0;
    _RISRecovery ris;
    _ZISRecovery zis;
    uint64_t recoveryGeneration = 0;
};

// The on-disk form: 0x88 bytes, little-endian, at the start of a 512-byte
// sector whose rest is zero. encode() stores the CRC it computes.
namespace RecoveryBlockFormat {
constexpr uint32_t kVersion = 1;
constexpr uint32_t kOwnershipOffset = 0x2C;
constexpr uint32_t kOwnershipBytes = 0x44;
constexpr uint32_t kCrcOffset = 0x04;
void encode(RecoveryBlock& block, uint8_t* sector);
RecoveryBlock decode(const uint8_t* sector);
// The CRC the record should carry (computed with the CRC field zero).
uint32_t expectedCrc(const uint8_t* sector);
void encodeOwnership(const _ZoneOwnership& ownership, uint8_t* at);
_ZoneOwnership decodeOwnership(const uint8_t* at);
// Every field with its label, as the scan prints it.
void print(const RecoveryBlock& block, std::ostream& out);
}  // namespace RecoveryBlockFormat
