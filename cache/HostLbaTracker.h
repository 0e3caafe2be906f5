#pragma once
// HostLbaTracker ("hlbat"): the host LBA cache. A set is a LUN, an element one
// 512-byte host sector; its 32 KiB pool blocks lie in the shared region
// "/readbuffer" so that the transport can send read data from them in place.
// For now it is the base cache with the LUN check: reads of missing ranges
// only allocate (the host cache's read path fills them), write-back does
// nothing (J1 owns host writes).
#include "cache/CacheRangeTracker.h"

class HostLbaTracker : public CacheRangeTracker {
public:
    static constexpr uint32_t kPoolBlocks = 0xbf4;
    static constexpr uint32_t kBlockSize = 32768;
    static constexpr uint32_t kMaxLuns = 32;

    static HostLbaTracker* GetInstance();

    const char* CacheName() override { return "HLBAT"; }
    uint32_t GetBlockSize() override { return kBlockSize; }
    uint32_t CacheLockLevel() override { return 20; }
    StatusCode IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) override;

protected:
    HostLbaTracker() : CacheRangeTracker("lHLBATLock", "/readbuffer", kPoolBlocks, kBlockSize) {}
};
