#include "cache/MetaDataCacheTracker.h"

#include "cache/CacheDiagnostics.h"
#include "cache/CacheTrackerObject.h"
#include "util/Trace.h"

namespace {
Trace tMeta("Cache", "MetaData", "Info", false);
}

StatusCode MetaDataCacheTracker::ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker& tracker, bool) {
    CROContext ctx("ReadRangeNotPresent", *this, set, cro->mStart, cro->mLength);
    DataStore* store = pool().GetBlocks(blocksFor(cro->mLength));
    DataWindow window(*store, 0, cro->mLength * GetElementSize());
    StatusCode st = readBelow(set, cro->mStart, window, tracker);
    window.clear();
    if (st != StatusCode::Success) {
        // Bytes that failed to arrive are never cached: the next access reads again.
        store->DecRef();
        return st;
    }
    attachStore(cro, store);
    return st;
}

StatusCode MetaDataCacheTracker::WriteBackRange(uint32_t set, uint64_t start, uint32_t, CacheTrackerObject* cto,
                                                IOTracker& tracker) {
    CTOContext ctx("WriteBackRange", *this, cto);
    IOTracker fork(tracker);
    fork.setCacheTracker(cto);
    fork.flags = uint8_t(fork.flags | IOTracker::kMeta | IOTracker::kReadWrite);
    ESA_TRACE(tMeta, CacheName() << " metadata write set " << set << " start " << start);
    return writeBelow(set, start, cto->mWindow, fork);
}

StatusCode MetaDataCacheTracker::copyThrough(unsigned char* buffer, uint32_t elements, uint32_t set, uint64_t start,
                                             bool toCache, bool noRead, IOTracker& tracker) {
    CacheTrackerObject* cto = nullptr;
    StatusCode st = noRead ? LockAndLookupRangeNoRead(set, start, elements, cto, tracker)
                           : LockAndLookupRange(set, start, elements, cto, tracker);
    if (st != StatusCode::Success) {
        ESA_TRACE(tMeta, "Error during cache lookup " << st);
        return st;
    }
    DataBuffer flat{elements * GetElementSize(), buffer};
    if (toCache) {
        cto->mWindow.Write(flat);
        st = WriteRange(cto, tracker);
    } else {
        cto->mWindow.Read(flat);
    }
    ESA_TRACE(tMeta, "Unlocking data chunk in cache");
    UnlockRange(cto);
    return st;
}
