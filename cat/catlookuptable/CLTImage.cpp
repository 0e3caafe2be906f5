#include "cat/catlookuptable/CLTImage.h"

#include <cstring>

#include "util/Crc.h"

CLTGeometry CLTGeometry::compute(uint64_t regionSize, uint64_t zoneSize) {
    CLTGeometry g;
    g.zoneSize = zoneSize;
    g.sectorsPerCatZone = uint32_t(zoneSize / 512);
    g.entriesPerCatZone = uint64_t(kEntriesPerSector) * g.sectorsPerCatZone;
    g.chunksPerZone = regionSize <= 0xD20000 ? 0x600 : 0xF00;
    g.sectorsPerChunk = uint32_t(zoneSize / g.chunksPerZone / 512);
    // The CAT zones that 16 TiB of clusters needs.
    const uint64_t clustersPerGiB = (uint64_t(1) << 30) / 4096;
    g.maxCatZonesPerLun = uint32_t(((clustersPerGiB & 0x3FFFFF) << 4) / (g.entriesPerCatZone >> 10) + 1);
    g.tableBytes = g.maxCatZonesPerLun * 4;
    g.chunkMapBytes = g.chunksPerZone * g.maxCatZonesPerLun / 8;
    return g;
}

uint32_t CLTGeometry::catZonesFor(uint64_t maxLba) const {
    const uint64_t terabytes = (maxLba + (uint64_t(1) << 31) - 1) >> 31;
    return uint32_t(terabytes * ((uint64_t(1) << 30) / 4096) / (entriesPerCatZone >> 10) + 1);
}

void CLTImage::init(const CLTGeometry& g, uint32_t maxLuns) {
    mMaxLuns = maxLuns;
    mTableBytes = g.tableBytes;
    mMapBytes = g.chunkMapBytes;
    const uint32_t bytes = headerSectors() * 512 + maxLuns * (mTableBytes + mMapBytes);
    mData.assign((bytes + 511) / 512 * 512, 0);
}

void CLTImage::clearHeader() {
    std::memset(mData.data(), 0, headerSectors() * 512);
    std::memcpy(mData.data(), kName, 4);
    putLE16(mData.data() + 0x08, uint16_t(headerLength()));
    setVersion(kVersion);
    putLE32(mData.data() + 0x0C, mMaxLuns);
}

bool CLTImage::signatureMatches() const { return std::memcmp(mData.data(), kName, 4) == 0; }

uint32_t CLTImage::computeCrc() const {
    std::vector<uint8_t> h(mData.begin(), mData.begin() + headerLength());
    putLE32(h.data() + flagsOffset() + 8, 0);
    return GetCRC(h.data(), h.size());
}

void CLTImage::sealCrc() { putLE32(mData.data() + flagsOffset() + 8, computeCrc()); }

uint64_t CLTImage::maxLba(uint32_t lun) const {
    return uint64_t(getLE32(rec(lun) + 12)) | uint64_t(getLE32(mData.data() + highWordOffset() + 4 * lun)) << 32;
}

void CLTImage::setMaxLba(uint32_t lun, uint64_t maxLba) {
    putLE32(rec(lun) + 12, uint32_t(maxLba));
    putLE32(mData.data() + highWordOffset() + 4 * lun, uint32_t(maxLba >> 32));
}

void CLTImage::clearBlock(uint32_t lun) { std::memset(mData.data() + blockOffset(lun), 0, mTableBytes + mMapBytes); }
