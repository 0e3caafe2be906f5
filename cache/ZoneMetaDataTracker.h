#pragma once
// ZoneMetaDataTracker ("zmdt"): the range cache over Zone space. A set is a
// Zone number, an element 512 bytes at byte address element x 512 of the
// Zone; reads and write-backs go to ZoneManager.
#include "cache/MetaDataCacheTracker.h"

class ZoneMetaDataTracker : public MetaDataCacheTracker {
public:
    static constexpr uint32_t kPoolBlocks = 0x2ee;
    static constexpr uint32_t kBlockSize = 4096;

    static ZoneMetaDataTracker* GetInstance();

    const char* CacheName() override { return "ZMDT"; }
    uint32_t GetBlockSize() override { return kBlockSize; }
    uint32_t CacheLockLevel() override { return 25; }

    StatusCode ReadThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t zone, uint64_t byteOffset,
                                IOTracker& tracker);
    StatusCode WriteThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t zone, uint64_t byteOffset,
                                 IOTracker& tracker);
    // Drops the section from the cache and writes zeros straight to the Zone.
    StatusCode ClearZoneSection(uint32_t zone, uint64_t start, uint32_t length, IOTracker& tracker);

protected:
    ZoneMetaDataTracker() : MetaDataCacheTracker("lZMDTLock", kPoolBlocks, kBlockSize) {}
    StatusCode readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;
    StatusCode writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;
};
