#pragma once
// The on-disk form of a logical disk's Region metadata: a 512-byte header
// (big-endian, except the padding word, which is stored in host order) and the
// allocation bitmap "RABM" in the sectors after it. Two copies stand on every
// disk; encode() computes both checksums, decode() checks them and the
// signatures and versions a reader accepts.
#include <cstdint>
#include <vector>

namespace RMLayout {
constexpr uint32_t kHeaderMagic = 0x524D4D44;  // "RMMD"
constexpr uint32_t kBitmapMagic = 0x5241424D;  // "RABM"
constexpr uint32_t kWriteVersion = 6;
constexpr uint32_t kOldestVersion = 3;
constexpr uint32_t kHeaderSizeField = 12;
constexpr uint32_t kDefaultRegionBytes = 0x2AA8000;
constexpr uint32_t kSmallRegionBytes = 0xD20000;  // the old small Regions, refused
constexpr uint32_t kMetadataGap = 0x400;           // sectors between a DIS range and the metadata
constexpr uint32_t kBitmapHeaderBytes = 12;
constexpr unsigned kSavedSlots = 4;
}  // namespace RMLayout

// Regions of a disk: the last one may be partial. The one count used
// everywhere (creating a disk and checking its bitmap size alike).
uint32_t regionCountFor(uint64_t capacity, uint32_t regionSectors, uint32_t padding);
// Bytes of the bitmap area for `regions` Regions: whole sectors.
uint32_t bitmapBytesFor(uint32_t regions);

struct RMSavedMetadata {
    uint16_t ld = 0;
    uint32_t region = 0;
    bool empty() const { return ld == 0 && region == 0; }
    bool operator==(const RMSavedMetadata&) const = default;
};

struct RMMetadataHeader {
    uint32_t magic = RMLayout::kHeaderMagic;
    uint32_t version = RMLayout::kWriteVersion;
    uint32_t headerSize = RMLayout::kHeaderSizeField;
    uint32_t regionSize = 0;  // Rlba, sectors; only the low 24 bits are significant
    uint32_t copyNumber = 0;
    uint32_t generation = 0;
    uint32_t metadataLba = 0;  // RM LBA[0]
    uint32_t bitmapBytes = 0;
    RMSavedMetadata saved[RMLayout::kSavedSlots];
    uint32_t storedCrc = 0;
    uint32_t unavailableRegions = 0;
    uint32_t padding = 1;
    uint64_t recoveryGeneration = 0;
    uint32_t metadataAllocBase = 0;

    uint32_t regionSectors() const { return regionSize & 0xFFFFFF; }

    enum class Verdict { Good, BadMagic, BadCrc, BadVersion, BadPadding };
    void encode(uint8_t* sector);  // stores the CRC it computes
    Verdict decode(const uint8_t* sector);
};

// The allocation bitmap: one bit a Region, least significant bit first.
class RMBitmap {
public:
    RMBitmap() = default;
    explicit RMBitmap(uint32_t physicalRegions);

    uint32_t physicalRegions() const { return mRegions; }
    bool allocated(uint32_t region) const { return mBits[region / 8] >> (region % 8) & 1; }
    void set(uint32_t region, bool allocated);
    uint32_t sizeBytes() const { return bitmapBytesFor(mRegions); }

    enum class Verdict { Good, BadMagic, BadCrc };
    // Writes the whole area (sizeBytes()) with magic, count and CRC.
    void encode(uint8_t* area) const;
    Verdict decode(const uint8_t* area, uint32_t areaBytes);
    bool operator==(const RMBitmap&) const = default;

private:
    uint32_t mRegions = 0;
    std::vector<uint8_t> mBits;
};
