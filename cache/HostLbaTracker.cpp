#include "cache/HostLbaTracker.h"

#include <algorithm>
#include <vector>

#include "cache/CacheDiagnostics.h"
#include "cache/CacheTrackerObject.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "host/ClientRequest.h"
#include "journal/writejournal/PostWriteElem.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
Trace tHlbat("Cache", "HLBAT", "Info", false);
}

HostLbaTracker* HostLbaTracker::GetInstance() {
    static HostLbaTracker* instance = new HostLbaTracker();
    return instance;
}

// A LUN past the map's table is refused here. The end of a LUN is not: the
// map checks each stream of a batch against it (CATM_LBAOutOfRange), so that
// one stream past the end fails alone instead of failing the batch's
// all-or-none lock.
StatusCode HostLbaTracker::IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) {
    if (set >= kMaxLuns) return StatusCode::CACHE_InvalidSet;
    CATLookupTable* clt = CATLookupTable::GetInstance();
    if (clt->loaded() && set >= clt->maxLuns()) return StatusCode::CACHE_InvalidSet;
    return CacheRangeTracker::IsSetAndRangeValid(set, start, length);
}

// Reads the CRO's range rounded out to whole clusters through the map: runs
// of contiguous clusters are one Zone read each, a never-written cluster is
// zeros with no Zone I/O. The CRO keeps its range; its store covers the
// rounded one.
StatusCode HostLbaTracker::ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker& tracker, bool) {
    CROContext ctx("ReadRangeNotPresent", *this, set, cro->mStart, cro->mLength);
    const uint64_t start = roundedStart(cro->mStart);
    const uint64_t length = roundedLength(cro->mStart, cro->mLength);
    if (length > 0xFFFFFFFFull) {
        ESA_CONSOLE("Request length too large: " << length << " reduced to 0xFFFFFFFFFF");
        return StatusCode::CACHE_InvalidLength;
    }
    const uint32_t clusters = uint32_t(length / kSectorsPerCluster);
    DataStore* store = pool().GetBlocks((clusters * 4096 + 0x7FFF) >> 15);
    StatusCode st = StatusCode::Success;
    for (uint32_t done = 0; done < clusters && st.ok();) {
        const uint32_t n = std::min(clusters - done, CATLookupTable::kMaxEntries);
        DataWindow window(*store, done * 4096, n * 4096);
        st = CATManager::GetInstance()->ReadClusters(set, start + uint64_t(done) * kSectorsPerCluster, n, window,
                                                     tracker);
        done += n;
    }
    if (!st.ok()) {
        store->DecRef();
        return st;
    }
    attachStore(cro, store);
    cro->mStoredStart = start;
    cro->mStoredLength = uint32_t(length);
    return StatusCode::Success;
}

StatusCode HostLbaTracker::WriteBackRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject* cto,
                                          IOTracker& tracker) {
    PostWriteElem elem;
    elem.numTags = 1;
    elem.checkOnly = true;
    elem.tracker = &tracker;
    elem.totalLength = length;
    elem.items[0] = PostWriteItem{set, start, length, cto, nullptr, &tracker};
    return WriteBackRangeMultiple(elem);
}

StatusCode HostLbaTracker::WriteRangeMultiple(PostWriteElem& elem) {
    StatusCode st = WriteBackRangeMultiple(elem);
    if (!st.ok())
        for (uint32_t i = 0; i < elem.numTags; ++i)
            if (elem.items[i].cto) ClearCTO(elem.items[i].cto);
    return st;
}

StatusCode HostLbaTracker::WriteBackRangeMultiple(PostWriteElem& elem) {
    return CATManager::GetInstance()->WriteBackRangeMultiple(elem);
}

StatusCode HostLbaTracker::LockRangeMultiple(PostWriteElem& elem, IOTracker& tracker) {
    for (uint32_t i = 0; i < elem.numTags; ++i) elem.items[i].cto = nullptr;
    mLock.LockExclusive();
    for (;;) {
        CacheRangeObject* busy = nullptr;
        StatusCode st = StatusCode::Success;
        uint32_t taken = 0;
        for (; taken < elem.numTags; ++taken) {
            PostWriteItem& it = elem.items[taken];
            const uint64_t length = roundedLength(it.lba, it.length);
            if (length == 0 || length > 0xFFFFFFFFull) {
                st = StatusCode::CACHE_InvalidLength;
                break;
            }
            st = LockRangeHelper(it.lun, roundedStart(it.lba), uint32_t(length), it.cto, tracker, busy, 0);
            if (!st.ok()) break;
        }
        if (st.ok()) {
            mLock.LockRelease();
            return st;
        }
        // All or none: give back what was taken.
        for (uint32_t i = 0; i < taken; ++i) {
            UnlockRange(elem.items[i].cto);
            elem.items[i].cto = nullptr;
        }
        if (st != StatusCode::CACHE_LockInUse) {
            mLock.LockRelease();
            return st;
        }
        SyncOnCROAvailable(busy);
    }
}
