#pragma once
// Zone0InfoTableFormat: the directory at byte 0 of Zone 0 ("InfoTabl"): 0x1F8
// bytes, little-endian, in a 4,096-byte block whose remainder is zero. Twenty
// slots (Zone0UserInfo) each say where one owner's area lies in the Zone, its
// version and its 8-byte signature; a slot is in use exactly when its length
// is not zero. The fit rules that place a new area are here too: they depend
// only on the slots and the Zone size.
#include <cstdint>
#include <deque>
#include <utility>

#include "util/StatusCode.h"

struct Zone0UserInfo {
    uint32_t startOffset = 0;
    uint32_t length = 0;  // 0 = slot free
    uint32_t version = 0xFFFFFFFF;
    uint8_t userSignature[8] = {};
    uint32_t zone = 0;

    bool inUse() const { return length != 0; }
    void clear() { *this = Zone0UserInfo{}; }
};

// (first byte, last byte), both inclusive.
using z0itSpaceTracker = std::pair<uint64_t, uint64_t>;

struct Zone0Directory {
    static constexpr char kSignature[9] = "InfoTabl";
    static constexpr uint32_t kSize = 0x1F8;
    static constexpr uint32_t kVersion = 3;
    static constexpr uint32_t kEntries = 20;
    static constexpr uint32_t kBlockSize = 4096;
    static constexpr uint32_t kSlotBytes = 24;

    uint8_t signature[8] = {};
    uint32_t size = 0;
    uint32_t crc = 0;
    uint32_t version = 0;
    uint32_t numEntries = 0;
    Zone0UserInfo entries[kEntries];

    // A new, empty directory (signature, size, version 3, CRC 0, 20 free slots).
    static Zone0Directory Empty();
    bool signatureValid() const;

    // The 0x1F8 bytes as stored; Encode writes the CRC field as it stands.
    void Encode(uint8_t* out) const;
    void Decode(const uint8_t* in);
    // GetCRC over `size` bytes (at most 0x1F8) with the CRC field zero.
    uint32_t ComputeCrc() const;
    void Seal() { crc = 0, crc = ComputeCrc(); }

    // Version 2 to 3: slots 9 to 19 freed, size, version and count set.
    // Nothing else changes, and the CRC is left for the next write.
    void UpgradeFromVersion2();

    // The table's own first 4,096 bytes and every area in use, sorted.
    std::deque<z0itSpaceTracker> getAllocatedSpaceMap() const;
    // Where an area of `required` bytes (a multiple of 512) goes: the first
    // gap that fits exactly, else the last gap that fits, else after the last
    // area if it stays strictly inside the Zone. OutOfSpace otherwise.
    StatusCode findZone0Space(uint64_t required, uint64_t zoneSize, uint64_t& offset) const;
};
