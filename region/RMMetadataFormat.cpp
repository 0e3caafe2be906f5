#include "region/RMMetadataFormat.h"

#include <cstring>

#include "util/Crc.h"
#include "util/Endian.h"

using namespace RMLayout;

uint32_t regionCountFor(uint64_t capacity, uint32_t regionSectors, uint32_t padding) {
    uint64_t stride = uint64_t(regionSectors) + padding;
    if (stride == 0) return 0;
    return uint32_t((capacity + stride - 1) / stride);
}

uint32_t bitmapBytesFor(uint32_t regions) {
    uint32_t bytes = (regions + 7) / 8 + kBitmapHeaderBytes;
    return (bytes + 511) / 512 * 512;
}

void RMMetadataHeader::encode(uint8_t* s) {
    std::memset(s, 0, 512);
    putBE32(s + 0x00, magic);
    putBE32(s + 0x04, version);
    putBE32(s + 0x08, headerSize);
    putBE32(s + 0x0C, regionSize);
    putBE32(s + 0x10, copyNumber);
    putBE32(s + 0x14, generation);
    putBE32(s + 0x18, metadataLba);
    putBE32(s + 0x1C, bitmapBytes);
    for (unsigned i = 0; i < kSavedSlots; ++i) {
        putBE16(s + 0x20 + 8 * i, saved[i].ld);
        putBE32(s + 0x24 + 8 * i, saved[i].region);
    }
    putBE32(s + 0x74, unavailableRegions);
    putLE32(s + 0x78, padding);  // the one field kept in host order (little-endian here)
    putBE64(s + 0x7C, recoveryGeneration);
    putBE32(s + 0x84, metadataAllocBase);
    storedCrc = GetCRC(s, 512);
    putBE32(s + 0x70, storedCrc);
}

RMMetadataHeader::Verdict RMMetadataHeader::decode(const uint8_t* s) {
    magic = getBE32(s + 0x00);
    version = getBE32(s + 0x04);
    headerSize = getBE32(s + 0x08);
    regionSize = getBE32(s + 0x0C);
    copyNumber = getBE32(s + 0x10);
    generation = getBE32(s + 0x14);
    metadataLba = getBE32(s + 0x18);
    bitmapBytes = getBE32(s + 0x1C);
    for (unsigned i = 0; i < kSavedSlots; ++i) {
        saved[i].ld = getBE16(s + 0x20 + 8 * i);
        saved[i].region = getBE32(s + 0x24 + 8 * i);
    }
    storedCrc = getBE32(s + 0x70);
    unavailableRegions = getBE32(s + 0x74);
    padding = getLE32(s + 0x78);
    recoveryGeneration = getBE64(s + 0x7C);
    metadataAllocBase = getBE32(s + 0x84);
    if (magic != kHeaderMagic) return Verdict::BadMagic;
    if (storedCrc != 0) {
        uint8_t copy[512];
        std::memcpy(copy, s, 512);
        std::memset(copy + 0x70, 0, 4);
        if (GetCRC(copy, 512) != storedCrc) return Verdict::BadCrc;
    }
    if (version < kOldestVersion || version > kWriteVersion) return Verdict::BadVersion;
    if ((version == 3 && padding != 0) || padding > 1) return Verdict::BadPadding;
    return Verdict::Good;
}

RMBitmap::RMBitmap(uint32_t physicalRegions) : mRegions(physicalRegions), mBits((physicalRegions + 7) / 8, 0) {}

void RMBitmap::set(uint32_t region, bool on) {
    uint8_t bit = uint8_t(1u << (region % 8));
    if (on) mBits[region / 8] |= bit;
    else mBits[region / 8] &= uint8_t(~bit);
}

void RMBitmap::encode(uint8_t* area) const {
    uint32_t size = sizeBytes();
    std::memset(area, 0, size);
    putBE32(area, kBitmapMagic);
    putBE32(area + 4, mRegions);
    std::memcpy(area + kBitmapHeaderBytes, mBits.data(), mBits.size());
    putBE32(area + 8, GetCRC(area, size));
}

RMBitmap::Verdict RMBitmap::decode(const uint8_t* area, uint32_t areaBytes) {
    mRegions = getBE32(area + 4);
    uint32_t bytes = (mRegions + 7) / 8;
    if (bytes + kBitmapHeaderBytes > areaBytes) bytes = areaBytes - kBitmapHeaderBytes;
    mBits.assign(area + kBitmapHeaderBytes, area + kBitmapHeaderBytes + bytes);
    uint32_t stored = getBE32(area + 8);
    if (stored != 0) {
        std::vector<uint8_t> copy(area, area + areaBytes);
        std::memset(copy.data() + 8, 0, 4);
        if (GetCRC(copy.data(), areaBytes) != stored) return Verdict::BadCrc;
    }
    if (getBE32(area) != kBitmapMagic) return Verdict::BadMagic;
    return Verdict::Good;
}
