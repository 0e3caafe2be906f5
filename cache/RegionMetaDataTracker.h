#pragma once
// RegionMetaDataTracker ("rmdt"): the range cache over Region space of the
// logical disks. A set is a logical disk, an element 512 bytes at byte address
// element x 512, split into (Region, offset) for RegionManager. A failed read
// caches nothing, as in the other metadata caches. The stripe locks of the Zone layer are range locks of this cache.
#include "cache/MetaDataCacheTracker.h"

class RegionMetaDataTracker : public MetaDataCacheTracker {
public:
    static constexpr uint32_t kPoolBlocks = 400;
    static constexpr uint32_t kBlockSize = 512;

    static RegionMetaDataTracker* GetInstance();

    const char* CacheName() override { return "RMDT"; }
    uint32_t GetBlockSize() override { return kBlockSize; }
    uint32_t CacheLockLevel() override { return 30; }

    // The write-back of user data: the caller's tracker, unforked.
    StatusCode WriteRangeUserdata(CacheTrackerObject* cto, IOTracker& tracker);

protected:
    RegionMetaDataTracker() : MetaDataCacheTracker("lRMDTLock", kPoolBlocks, kBlockSize) {}
    StatusCode readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;
    StatusCode writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;
};
