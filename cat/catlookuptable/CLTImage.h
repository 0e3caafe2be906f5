#pragma once
// CLTImage: the "CATLooku" Zone 0 area as it stands in memory and on disk.
// A header (one of two layouts, told apart by the number of LUN records:
// 16 or 32), then from the first sector boundary one block per LUN: its CAT
// zone table (a 32-bit Zone number per CAT zone, 0 = not created yet) and its
// chunk map (one bit per chunk, set = zeroed on disk and may hold entries).
// Every multi-byte field is little-endian and written byte by byte.
//
// Invariant: the image length is a whole number of sectors; a LUN record
// with zone count 0 is free whatever its other fields say.
#include <cstdint>
#include <vector>

#include "util/Endian.h"

struct CLTGeometry {
    static constexpr uint32_t kEntriesPerSector = 73;
    static constexpr uint32_t kSectorsPerCluster = 8;
    uint64_t zoneSize = 0;
    uint32_t sectorsPerCatZone = 0;
    uint64_t entriesPerCatZone = 0;
    uint32_t chunksPerZone = 0;
    uint32_t sectorsPerChunk = 0;
    uint32_t maxCatZonesPerLun = 0;
    uint32_t tableBytes = 0;     // CAT zone table of one LUN
    uint32_t chunkMapBytes = 0;  // chunk map of one LUN

    static CLTGeometry compute(uint64_t regionSize, uint64_t zoneSize);
    // CAT zones a LUN of last LBA maxLba is given at creation.
    uint32_t catZonesFor(uint64_t maxLba) const;
    // Byte of entry `w` (counted from the first slot of a sector) in a run
    // of CAT sectors: 73 entries of 7 bytes to a sector, the last byte of
    // each sector unused, so no entry crosses a sector boundary.
    static uint32_t entryByte(uint32_t w) { return (w / kEntriesPerSector) * 512 + (w % kEntriesPerSector) * 7; }
    // LBAs one chunk's entries cover.
    uint64_t lbasPerChunk() const { return uint64_t(kSectorsPerCluster) * sectorsPerChunk * kEntriesPerSector; }
};

class CLTImage {
public:
    static constexpr char kName[9] = "CATLooku";
    static constexpr uint32_t kVersion = 3;
    static constexpr uint32_t kFlagRecoveryWritten = 1, kFlagUpgradeInProgress = 2;
    static constexpr uint16_t kFirstUniqueId = 1000;

    void init(const CLTGeometry& g, uint32_t maxLuns);
    // Header length: 0x17E for 16 LUNs, 0x2DE for 32.
    static uint32_t headerLength(uint32_t maxLuns) { return maxLuns == 32 ? 0x2DE : 0x17E; }
    uint32_t headerLength() const { return headerLength(mMaxLuns); }
    uint32_t headerSectors() const { return (headerLength() + 511) / 512; }
    uint32_t length() const { return uint32_t(mData.size()); }
    uint8_t* data() { return mData.data(); }
    const uint8_t* data() const { return mData.data(); }
    uint32_t maxLuns() const { return mMaxLuns; }

    // ---- the header
    void clearHeader();
    bool signatureMatches() const;
    uint32_t version() const { return getLE16(mData.data() + 0x0A); }
    void setVersion(uint32_t v) { putLE16(mData.data() + 0x0A, uint16_t(v)); }
    uint32_t flags() const { return getLE32(mData.data() + flagsOffset()); }
    void setFlags(uint32_t f) { putLE32(mData.data() + flagsOffset(), f); }
    uint32_t chunksPerZone() const { return getLE32(mData.data() + flagsOffset() + 4); }
    void setChunksPerZone(uint32_t n) { putLE32(mData.data() + flagsOffset() + 4, n); }
    uint32_t storedCrc() const { return getLE32(mData.data() + flagsOffset() + 8); }
    uint32_t computeCrc() const;
    void sealCrc();

    uint32_t zoneCount(uint32_t lun) const { return getLE32(rec(lun)); }
    void setZoneCount(uint32_t lun, uint32_t n) { putLE32(rec(lun), n); }
    void setLunIndex(uint32_t lun) { putLE32(rec(lun) + 8, lun); }
    uint64_t maxLba(uint32_t lun) const;
    void setMaxLba(uint32_t lun, uint64_t maxLba);
    uint16_t uniqueId(uint32_t lun) const { return getLE16(mData.data() + idOffset() + 2 * lun); }
    void setUniqueId(uint32_t lun, uint16_t id) { putLE16(mData.data() + idOffset() + 2 * lun, id); }
    uint16_t nextUniqueId() const { return getLE16(mData.data() + idOffset() + 2 * mMaxLuns); }
    void setNextUniqueId(uint16_t id) { putLE16(mData.data() + idOffset() + 2 * mMaxLuns, id); }

    // ---- the LUN blocks
    uint32_t blockOffset(uint32_t lun) const { return headerSectors() * 512 + lun * (mTableBytes + mMapBytes); }
    uint32_t tableOffset(uint32_t lun, uint32_t index) const { return blockOffset(lun) + 4 * index; }
    uint32_t catZone(uint32_t lun, uint32_t index) const { return getLE32(mData.data() + tableOffset(lun, index)); }
    void setCatZone(uint32_t lun, uint32_t index, uint32_t zone) {
        putLE32(mData.data() + tableOffset(lun, index), zone);
    }
    // Byte of the image that holds chunk `chunk`'s bit.
    uint32_t chunkByteOffset(uint32_t lun, uint64_t chunk) const {
        return blockOffset(lun) + mTableBytes + uint32_t(chunk / 32) * 4 + uint32_t(chunk % 32) / 8;
    }
    bool chunkWritten(uint32_t lun, uint64_t chunk) const {
        return mData[chunkByteOffset(lun, chunk)] & (1u << (chunk % 8));
    }
    void setChunkWritten(uint32_t lun, uint64_t chunk) { mData[chunkByteOffset(lun, chunk)] |= uint8_t(1u << (chunk % 8)); }
    void clearBlock(uint32_t lun);

private:
    uint8_t* rec(uint32_t lun) { return mData.data() + 0x10 + 16 * lun; }
    const uint8_t* rec(uint32_t lun) const { return mData.data() + 0x10 + 16 * lun; }
    uint32_t flagsOffset() const { return 0x10 + 16 * mMaxLuns; }
    uint32_t highWordOffset() const { return flagsOffset() + 12; }
    uint32_t idOffset() const { return highWordOffset() + 4 * mMaxLuns; }

    std::vector<uint8_t> mData;
    uint32_t mMaxLuns = 16;
    uint32_t mTableBytes = 0;
    uint32_t mMapBytes = 0;
};
