#pragma once
// MetaDataCacheTracker: what the three metadata caches ("zmdt", "rmdt",
// "dlbat") share: a missing range is read into a store of whole pool blocks
// through the layer below, and a write-back goes out under a fork of the
// caller's transaction that carries the CTO and the metadata mark, so that
// the layer below can divert it to the journal as a metadata write of the
// same transaction. Each subclass names the layer (readBelow, writeBelow).
#include "cache/CacheRangeTracker.h"
#include "util/DataWindow.h"

class MetaDataCacheTracker : public CacheRangeTracker {
public:
    using CacheRangeTracker::CacheRangeTracker;

    StatusCode ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker& tracker, bool queued) override;
    StatusCode WriteBackRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject* cto,
                              IOTracker& tracker) override;

protected:
    // I/O of `window` at element `start` of `set` in the layer below.
    virtual StatusCode readBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) = 0;
    virtual StatusCode writeBelow(uint32_t set, uint64_t start, DataWindow& window, IOTracker& tracker) = 0;

    // Copies between a flat buffer and the range through the cache: the
    // read-through and write-through wrappers.
    StatusCode copyThrough(unsigned char* buffer, uint32_t elements, uint32_t set, uint64_t start, bool toCache,
                           bool noRead, IOTracker& tracker);
};
