// CacheRangeTracker: changing what is cached: AddRange, InvalidateRange and
// their common ModifyRange, ClearSet and Flush.
#include <algorithm>

#include "cache/CacheDiagnostics.h"
#include "cache/CacheRangeTracker.h"
#include "platform/rtos/Rtos.h"
#include "util/Assert.h"

namespace {
// A transaction may change a range only if it is not older than the range's
// creator; the signed difference keeps a wrapped counter in order.
bool ageOk(uint64_t id, uint64_t creatingId) { return int64_t(id - creatingId) >= 0; }
}  // namespace

void CacheRangeTracker::placeNewRange(uint32_t set, uint64_t start, uint32_t length, DataStore* store,
                                      IOTracker& tracker, CacheRangeObject* before) {
    CacheRangeObject* cro = new CacheRangeObject(*this, set, start, length, tracker.getID());
    insertAfterSplay(mRoots[set], cro);
    mSets[set].insertBefore(before, cro);
    attachStore(cro, store);
}

StatusCode CacheRangeTracker::ModifyRange(uint32_t set, uint64_t start, uint32_t length,
                                          CacheRangeObject*& iterator, DataStore* store, bool addNew,
                                          IOTracker& tracker) {
    // `tracker`'s id is the age of the change. AddRange installs the newest
    // data there are, so every CRO gives way to it, even one a transaction
    // that began after the call made while this one waited for a lock.
    const uint64_t end = start + length;
    const uint64_t id = tracker.getID();
    CacheRangeObject* cro = iterator;
    while (cro && cro->mStart < end) {
        CacheRangeObject* next = nextCro(cro);
        if (cro->end() <= start) {
            cro = next;
            continue;
        }
        if (!addNew && !ageOk(id, cro->mCreatingId)) {
            // It holds newer data than this transaction knows: leave it.
            cro = next;
            continue;
        }
        if (cro->mLock.isLocked()) {
            if (!addNew && cro->mLock.isExtended() && cro->mLock.transID() == id) {
                // This transaction's own locked range: its CTO still views it.
                cro = next;
                continue;
            }
            // Held by another transaction: wait outside mLock and repeat.
            iterator = cro;
            return StatusCode::CACHE_LockInUse;
        }
        cro->mLock.LockExclusive();
        if (cro->mStart < start && cro->end() > end) {
            // Split: the clone shares the store and keeps the tail.
            CacheRangeObject* clone = new CacheRangeObject(*this, set, end, uint32_t(cro->end() - end), cro->mCreatingId);
            clone->mStoredStart = cro->mStoredStart;
            clone->mStoredLength = cro->mStoredLength;
            cro->mLength = uint32_t(start - cro->mStart);
            cro->nameLock();
            insertAfterSplay(mRoots[set], clone);
            mSets[set].insertBefore(next, clone);
            if (cro->pStore) {
                cro->pStore->IncRef();
                clone->pStore = cro->pStore;
                mMemoryPool->lru().AddToLRU(clone->mLRUNode);
            }
            cro->mLock.LockRelease();
            next = clone;
            break;
        }
        if (cro->mStart < start) {
            cro->mLength = uint32_t(start - cro->mStart);
            cro->mLock.LockRelease();
        } else if (cro->end() > end) {
            // Order among the ranges is unchanged, so the tree stays valid.
            cro->mLength = uint32_t(cro->end() - end);
            cro->mStart = end;
            cro->mLock.LockRelease();
        } else {
            destroyCro(cro, false);
        }
        cro = next;
    }
    if (addNew) {
        CacheRangeObject* before = firstAtOrAfter(set, start);
        ESA_ASSERT(before == nullptr || before->mStart >= end);
        placeNewRange(set, start, length, store, tracker, before);
    }
    return StatusCode::Success;
}

StatusCode CacheRangeTracker::addOrInvalidate(uint32_t set, uint64_t start, uint32_t length, DataStore* store,
                                              IOTracker& tracker, bool addNew) {
    if (length == 0) return StatusCode::CACHE_InvalidLength;
    StatusCode st = IsSetAndRangeValid(set, start, length);
    if (st != StatusCode::Success) return st;
    if (LockObjectBase::bypass) return StatusCode::Success;
    const uint64_t end = start + length;
    LockObject::ExclusiveLockInstance g(&mLock);
    FindSet(set);
    for (;;) {
        CacheRangeObject* it = firstAtOrAfter(set, start);
        if (!it || it->mStart >= end) {
            if (addNew) placeNewRange(set, start, length, store, tracker, it);
            return StatusCode::Success;
        }
        st = ModifyRange(set, start, length, it, store, addNew, tracker);
        if (st != StatusCode::CACHE_LockInUse) return st;
        SyncOnCROAvailable(it);
    }
}

StatusCode CacheRangeTracker::AddRange(uint32_t set, uint64_t start, uint32_t length, DataStore* store,
                                       IOTracker& tracker) {
    CRTRangeContext ctx("AddRange", *this, set, start, length);
    ++mStats.adds;
    // The installed range is the newest data: it is aged with a fresh id, so
    // it replaces every overlapping range, and nothing older can touch it.
    (void)tracker;
    IOTracker fresh(READ_ONLY);
    return addOrInvalidate(set, start, length, store, fresh, true);
}

StatusCode CacheRangeTracker::InvalidateRange(uint32_t set, uint64_t start, uint32_t length, IOTracker& tracker) {
    CRTRangeContext ctx("InvalidateRange", *this, set, start, length);
    ++mStats.invalidates;
    return addOrInvalidate(set, start, length, nullptr, tracker, false);
}

bool CacheRangeTracker::dropSetLocked(uint32_t set, uint32_t maxCros, bool& emptied) {
    emptied = false;
    CROList& list = mSets[set];
    for (uint32_t n = 0; n < maxCros; ++n) {
        CacheRangeObject* cro = list.front();
        if (!cro) {
            emptied = true;
            return true;
        }
        if (cro->mLock.isLocked() || cro->mSyncWaiters != 0) {
            SyncOnCROAvailable(cro);
            return false;
        }
        cro->mLock.LockExclusive();
        destroyCro(cro, false);
    }
    emptied = list.empty();
    return true;
}

void CacheRangeTracker::ClearSet(uint32_t set) {
    CRTRangeContext ctx("ClearSet", *this, set, 0, 0);
    if (LockObjectBase::bypass) return;
    for (;;) {
        mLock.LockExclusive();
        if (set >= mSets.size()) {
            mLock.LockRelease();
            return;
        }
        bool emptied = false;
        bool finishedBatch = dropSetLocked(set, 20, emptied);
        mLock.LockRelease();
        if (emptied) return;
        // After a batch of 20, give the I/O path a tick.
        if (finishedBatch) taskDelay(1);
    }
}

void CacheRangeTracker::Flush(int) {
    if (LockObjectBase::bypass) return;
    LockObject::ExclusiveLockInstance g(&mLock);
restart:
    for (uint32_t set = 0; set < mSets.size(); ++set) {
        for (;;) {
            bool emptied = false;
            if (!dropSetLocked(set, 0xFFFFFFFFu, emptied)) goto restart;
            if (emptied) break;
        }
    }
    mSets.clear();
    mRoots.clear();
}
