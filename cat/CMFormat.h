#pragma once
// CMFormat: the cluster manager's area in Zone 0 (slot 1, "MretsulC",
// version 1) and its CIS record, little-endian. From the area's offset L in
// its Zone:
//   L            16,384  CIS area; the 152-byte record stands in the first
//                        sector, which is always written whole
//   L + 16,384   16,384  Zone bitmap (bit z: Zone z belongs to the manager)
//   L + 32,768   16,384  space bitmap (bit z: Zone z has free clusters)
//   L + 49,152   32,000 x clusterBitmapSize: the cluster bitmaps, Zone z's at
//                        z x clusterBitmapSize (bit c: cluster c allocated)
// Bit n of any bitmap is bit n % 8 of byte n / 8. Where the cluster bitmaps
// lie is said by the record's segments ({Zone, byte offset, count}); a new
// pack has one segment covering all 32,000 Zones.
#include <cstdint>

namespace cmformat {

constexpr unsigned kZone0Entry = 1;
constexpr uint32_t kZone0Version = 1;
constexpr const char* kZone0Signature = "MretsulC";

constexpr uint32_t kMagic0 = 0x7465724d;  // "Mret"
constexpr uint32_t kMagic1 = 0x436c7573;  // "sulC"
constexpr uint32_t kVersion = 1;
constexpr uint32_t kSector = 512;
constexpr uint32_t kCisAreaSize = 16384;
constexpr uint32_t kBitmapAreaSize = 16384;             // each of the Zone and space bitmaps
constexpr uint32_t kZoneSpaceBitmapSize = 32768;        // both together
constexpr uint32_t kZoneBitmapOffset = kCisAreaSize;     // from L
constexpr uint32_t kSpaceBitmapOffset = kCisAreaSize + kBitmapAreaSize;
constexpr uint32_t kClusterBitmapsOffset = kCisAreaSize + kZoneSpaceBitmapSize;  // 49,152
constexpr uint32_t kMaxBitmapZones = 32000;             // mZone0BitmapCount of a new pack
constexpr uint32_t kMaxBitmapSegmentCount = 10;         // "MAX_BITMAP_SEGMENT_COUNT"
constexpr uint32_t kRecordSize = 152;
constexpr uint32_t kSegmentSize = 12;

struct Segment {
    uint32_t zone = 0;
    uint32_t offset = 0;  // byte offset of the first bitmap in that Zone
    uint32_t count = 0;   // bitmaps, one per Zone from the segment's first
};

struct CisRecord {
    uint32_t magic0 = kMagic0;
    uint32_t magic1 = kMagic1;
    uint32_t reserved = 0;
    uint32_t cisSize = 0;  // length of the whole area
    uint32_t version = kVersion;
    uint32_t zoneSpaceBitmapSize = kZoneSpaceBitmapSize;
    uint32_t clusterBitmapSize = 0;  // bytes per Zone
    uint32_t zoneBitmapSegmentCount = 0;
    Segment segments[kMaxBitmapSegmentCount];

    // The 512-byte first sector: the record, then zeros.
    void Encode(uint8_t* sector) const;
    void Decode(const uint8_t* sector);
    // Magic, version, sizes and segments make sense for an area of
    // `areaLength` bytes at offset L.
    bool Valid(uint32_t areaLength) const;
};

// Bytes of one Zone's cluster bitmap: clusters rounded up to a multiple of 8,
// as bytes, rounded up to a multiple of 512.
constexpr uint32_t ClusterBitmapSize(uint32_t clustersPerZone) {
    return ((clustersPerZone + 7) / 8 + kSector - 1) / kSector * kSector;
}
// Length of the whole area.
constexpr uint64_t AreaSize(uint32_t clusterBitmapSize) {
    return uint64_t(kClusterBitmapsOffset) + uint64_t(kMaxBitmapZones) * clusterBitmapSize;
}

}  // namespace cmformat
