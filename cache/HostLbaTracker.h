#pragma once
// HostLbaTracker ("hlbat"): the host LBA cache. A set is a LUN, an element one
// 512-byte host sector; its 32 KiB pool blocks lie in the shared region
// "/readbuffer" so that the transport can send read data from them in place.
//
// A missing range is read through the cluster map, whole clusters at a time
// (a never-written cluster is zeros, with no Zone I/O); a written range goes
// back through the map's write-back (WriteBackRangeMultiple): the map decides
// the clusters, commits them, then the data go to the Zones.
//
// Read-ahead is not built yet: reads are served as they come.
#include "cache/CacheRangeTracker.h"

struct PostWriteElem;

class HostLbaTracker : public CacheRangeTracker {
public:
    static constexpr uint32_t kPoolBlocks = 0xbf4;
    static constexpr uint32_t kBlockSize = 32768;
    static constexpr uint32_t kMaxLuns = 32;
    static constexpr uint32_t kSectorsPerCluster = 8;

    static HostLbaTracker* GetInstance();

    const char* CacheName() override { return "HLBAT"; }
    uint32_t GetBlockSize() override { return kBlockSize; }
    uint32_t CacheLockLevel() override { return 20; }
    StatusCode IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) override;

    StatusCode ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker& tracker, bool queued) override;
    // A one-item, check-only batch: the range keeps the clusters it has.
    StatusCode WriteBackRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject* cto,
                              IOTracker& tracker) override;
    // Writes a batch whose items are locked and looked up; on failure the
    // items' cached data are dropped (ClearCTO).
    StatusCode WriteRangeMultiple(PostWriteElem& elem);
    StatusCode WriteBackRangeMultiple(PostWriteElem& elem);
    // Locks every item's range rounded out to clusters, all or none: when one
    // is held by another transaction, everything taken is given back and the
    // call waits for that range before it starts again.
    StatusCode LockRangeMultiple(PostWriteElem& elem, IOTracker& tracker);

    // A cluster-aligned range covering [lba, lba + length).
    static uint64_t roundedStart(uint64_t lba) { return lba & ~uint64_t(kSectorsPerCluster - 1); }
    static uint64_t roundedLength(uint64_t lba, uint64_t length) {
        return ((lba + length + kSectorsPerCluster - 1) & ~uint64_t(kSectorsPerCluster - 1)) - roundedStart(lba);
    }

protected:
    HostLbaTracker() : CacheRangeTracker("lHLBATLock", "/readbuffer", kPoolBlocks, kBlockSize) {}
};
