#pragma once
// DiskLBAMetaDataTracker ("dlbat"): the range cache over raw disk sectors. A
// set is a physical disk (slot), an element one 512-byte sector; reads and
// write-backs go to DiskManager. The pack layer keeps its records through it.
#include "cache/MetaDataCacheTracker.h"

class DiskLBAMetaDataTracker : public MetaDataCacheTracker {
public:
    static constexpr uint32_t kPoolBlocks = 0xc80;
    static constexpr uint32_t kBlockSize = 512;

    static DiskLBAMetaDataTracker* GetInstance();
    ~DiskLBAMetaDataTracker() override = default;

    const char* CacheName() override { return "DLBAT"; }
    uint32_t GetBlockSize() override { return kBlockSize; }
    uint32_t CacheLockLevel() override { return 36; }
    StatusCode IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) override;

    StatusCode ReadThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t disk, uint64_t lba,
                                IOTracker& tracker);
    StatusCode WriteThroughCache(unsigned char* buffer, uint32_t sectorCount, uint32_t disk, uint64_t lba, bool noRead,
                                 IOTracker& tracker);

protected:
    DiskLBAMetaDataTracker(const char* lockName, uint32_t blocks) : MetaDataCacheTracker(lockName, blocks, kBlockSize) {}
    StatusCode readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;
    StatusCode writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) override;

    friend class DiskLBAMetaDataTrackerTestAccess;
};
