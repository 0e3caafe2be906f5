// CacheRangeTracker: construction, CROs, locking, lookup and unlock.
#include "cache/CacheRangeTracker.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "cache/CacheDiagnostics.h"
#include "cache/CacheTrackerObject.h"
#include "util/Assert.h"
#include "util/SharedMemoryPool.h"
#include "util/Trace.h"

namespace {
Trace tCache("Cache", "RangeTracker", "Info", false);

// Adds the elapsed board time of its scope to an accumulator, for one
// operation in 64 per thread: the timings are a distribution, and reading the
// clock twice on every cache hit would cost a visible share of the hit.
class ScopeTimer {
public:
    explicit ScopeTimer(PerfAccumulator& acc) : mAcc(acc) {
        thread_local uint32_t tick = 0;
        mSampled = (tick++ & 63) == 0;
        if (mSampled) mStart = getTimebase();
    }
    ~ScopeTimer() {
        if (mSampled) mAcc.add(getTimebase() - mStart);
    }

private:
    PerfAccumulator& mAcc;
    uint64_t mStart = 0;
    bool mSampled;
};

std::string lowerName(const char* lockName) {
    // "lZMDTLock" -> "zmdt"
    std::string s(lockName);
    if (!s.empty() && s[0] == 'l') s.erase(0, 1);
    if (s.size() > 4 && s.compare(s.size() - 4, 4, "Lock") == 0) s.erase(s.size() - 4);
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}
}  // namespace

// ---- CRO

CacheRangeTracker::CacheRangeObject::CacheRangeObject(CacheRangeTracker& tracker, uint32_t set, uint64_t start,
                                                      uint32_t length, uint64_t creatingId)
    : mStoredStart(start),
      mStoredLength(length),
      mStart(start),
      mLength(length),
      mLRUNode(*this),
      mMemoryPool(tracker.mMemoryPool.get()),
      mList(tracker.mSets[set]),
      mRoot(tracker.mRoots[set]),
      mTracker(&tracker),
      mLock("", 0),
      mCreatingId(creatingId),
      mSet(set) {
    nameLock();
}

CacheRangeTracker::CacheRangeObject::~CacheRangeObject() {
    if (mLRUNode.active) mMemoryPool->lru().RemoveFromLRU(mLRUNode);
    if (pStore) pStore->DecRef();
    pStore = nullptr;
}

void CacheRangeTracker::CacheRangeObject::nameLock() {
    char name[160];
    std::snprintf(name, sizeof name, "%s %lu 0x%16.16llx - 0x%16.16llx (0x%16.16llx)",
                  mTracker->mConsoleName.c_str(), (unsigned long)mSet, (unsigned long long)mStart,
                  (unsigned long long)(mStart + mLength - 1), (unsigned long long)mCreatingId);
    mLock.SetName(name);
}

void CacheRangeTracker::CacheRangeObject::PreventEviction() {
    if (pStore) pStore->IncRef();
}

void CacheRangeTracker::CacheRangeObject::AllowEviction() {
    if (pStore) pStore->DecRef();
}

// ---- LRU entry: the pool calls these with the tracker's lock taken through lruLockOwner.

DataStore* CacheRangeTracker::DL_CRO_NODE::lruStore() { return mCro.pStore; }

bool CacheRangeTracker::DL_CRO_NODE::lruEvictable(bool evictDirty) {
    if (LockObjectBase::bypass) return false;
    if (mCro.mDirtyCount != 0 && !evictDirty) return false;
    if (mCro.mSyncWaiters != 0) return false;
    return !mCro.mLock.isLocked();
}

void CacheRangeTracker::DL_CRO_NODE::lruEvict() {
    CacheRangeTracker* t = mCro.mTracker;
    mCro.mLock.LockExclusive();
    ++t->mStats.evictions;
    t->destroyCro(&mCro, false);
}


// ---- tracker

CacheRangeTracker::CacheRangeTracker(const char* lockName, uint32_t numBlocks, uint32_t blockSize)
    : mMemoryPool(std::make_unique<MemoryPool>((std::string(lockName) + "MemPool").c_str(), numBlocks, blockSize)),
      mLock(lockName, 0),
      mOwnsPool(true),
      mConsoleName(lowerName(lockName)) {
    mMemoryPool->lru().setOwner(this);
}

CacheRangeTracker::CacheRangeTracker(const char* lockName, const char* sharedRegionName, uint32_t numBlocks,
                                     uint32_t blockSize)
    : mMemoryPool(std::make_unique<SharedMemoryPool>(sharedRegionName, (std::string(lockName) + "MemPool").c_str(),
                                                     numBlocks, blockSize)),
      mLock(lockName, 0),
      mOwnsPool(true),
      mConsoleName(lowerName(lockName)) {
    mMemoryPool->lru().setOwner(this);
}

CacheRangeTracker::~CacheRangeTracker() { Flush(0); }

StatusCode CacheRangeTracker::IsSetAndRangeValid(uint32_t, uint64_t start, uint32_t length) {
    if (start + length < start || (length & 0x80000000u)) return StatusCode::CACHE_InvalidRange;
    return StatusCode::Success;
}

CacheRangeTracker::CROList& CacheRangeTracker::FindSet(uint32_t set) {
    while (mSets.size() <= set) {
        mSets.emplace_back();
        mRoots.push_back(nullptr);
    }
    return mSets[set];
}

uint32_t CacheRangeTracker::croCount(uint32_t set) {
    TrackerLock::ExclusiveLockInstance g(&mLock);
    if (set >= mSets.size()) return 0;
    uint32_t n = 0;
    for (auto it = mSets[set].begin(); it != mSets[set].end(); ++it) ++n;
    return n;
}

uint32_t CacheRangeTracker::setCount() {
    TrackerLock::ExclusiveLockInstance g(&mLock);
    return uint32_t(mSets.size());
}

std::vector<CacheRangeTracker::CroView> CacheRangeTracker::view(uint32_t set) {
    TrackerLock::ExclusiveLockInstance g(&mLock);
    std::vector<CroView> out;
    if (set >= mSets.size()) return out;
    for (auto it = mSets[set].begin(); it != mSets[set].end(); ++it)
        out.push_back({it->mStart, it->mLength, it->pStore != nullptr, it->pStore, it->mCreatingId, it->mDirtyCount});
    return out;
}

bool CacheRangeTracker::busyFor(CacheRangeObject* cro, uint64_t transId) {
    if (!cro->mLock.isLocked()) return false;
    return cro->mLock.transID() != transId || transId == 0;
}

CacheRangeTracker::CacheRangeObject* CacheRangeTracker::newCro(uint32_t set, uint64_t start, uint32_t length,
                                                               IOTracker& tracker, CacheRangeObject* before) {
    CacheRangeObject* cro = new CacheRangeObject(*this, set, start, length, tracker.getID());
    insertAfterSplay(mRoots[set], cro);
    mSets[set].insertBefore(before, cro);
    return cro;
}

void CacheRangeTracker::destroyCro(CacheRangeObject* cro, bool extending) {
    eraseAndSplay(mRoots[cro->mSet], cro);
    mSets[cro->mSet].remove(cro);
    if (cro->mSyncWaiters != 0) {
        // Someone waits on this lock: leave the object to the last waiter.
        cro->mZombie = true;
        if (cro->mLRUNode.active) mMemoryPool->lru().RemoveFromLRU(cro->mLRUNode);
        if (cro->pStore) cro->pStore->DecRef();
        cro->pStore = nullptr;
        if (extending) cro->mLock.LockReleaseExtending();
        else cro->mLock.LockRelease();
        return;
    }
    if (extending) cro->mLock.LockReleaseExtending();
    else cro->mLock.LockRelease();
    delete cro;
}

void CacheRangeTracker::SyncOnCROAvailable(CacheRangeObject* busy) {
    ++mStats.backoffs;
    const bool firstWaiter = busy->mSyncWaiters++ == 0;
    mLock.LockRelease();
    if (firstWaiter) {
        busy->mLock.LockExclusive();
        busy->mLock.LockRelease();
        std::lock_guard<std::mutex> g(mSyncMutex);
        mSyncDone.notify_all();
    } else {
        // A wake that came before this wait began is made up for by the bound.
        std::unique_lock<std::mutex> g(mSyncMutex);
        mSyncDone.wait_for(g, std::chrono::milliseconds(2));
    }
    mLock.LockExclusive();
    if (--busy->mSyncWaiters == 0 && busy->mZombie) delete busy;
}

uint64_t CacheRangeTracker::roundedLimit(uint64_t start, uint64_t end, uint32_t roundTo, CacheRangeObject* next) {
    if (roundTo == 0) return end;
    uint64_t limit = (end + roundTo - 1) / roundTo * roundTo;
    if (next && next->mStart < limit) limit = next->mStart;
    uint32_t chunk = sSectorsPerChunk.load(std::memory_order_relaxed);
    if (chunk) {
        // Never into a chunk after the one that holds the last requested element.
        uint64_t chunkEnd = ((end - 1) / chunk + 1) * chunk;
        if (limit > chunkEnd) limit = chunkEnd;
    }
    (void)start;
    return std::max(limit, end);
}

void CacheRangeTracker::releaseHold(CacheRangeObject* cro, IOTracker& tracker) {
    // Only this call chain's extension is given back: one the transaction
    // holds for a range it dirtied (through another CTO) lasts until commit,
    // and a transaction that committed before it unlocked holds the lock no
    // longer extended, so only the plain release is left.
    cro->mLock.ReleaseHold(tracker, cro->mDirtyCount == 0);
}

StatusCode CacheRangeTracker::LockRangeHelper(uint32_t set, uint64_t start, uint32_t length,
                                              CacheTrackerObject*& cto, IOTracker& tracker, CacheRangeObject*& busy,
                                              uint32_t roundTo) {
    if (length == 0) return StatusCode::CACHE_InvalidLength;
    StatusCode st = IsSetAndRangeValid(set, start, length);
    if (st != StatusCode::Success) return st;
    const uint64_t end = start + length;
    const uint32_t es = GetElementSize();
    const uint64_t id = tracker.getID();
    FindSet(set);
    CacheTrackerObject* c = new CacheTrackerObject(*this, set, start, length, tracker);
    bool complete = true;

    CacheRangeObject* cur = firstAtOrAfter(set, start);
    if (!cur) {
        // Nothing cached at or after the range: exactly the request.
        cur = newCro(set, start, length, tracker, nullptr);
        complete = false;
    } else if (cur->mStart >= end) {
        // The next cached range lies beyond: the request, rounded up to it at most.
        cur = newCro(set, start, uint32_t(roundedLimit(start, end, roundTo, cur) - start), tracker, cur);
        complete = false;
    } else if (cur->mStart > start) {
        cur = newCro(set, start, uint32_t(cur->mStart - start), tracker, cur);
        complete = false;
    }
    uint64_t pos = start;
    while (cur && cur->mStart < end) {
        if (busyFor(cur, id)) {
            // All or nothing: give back what this CTO holds, then wait outside mLock.
            for (CacheRangeObject* held : c->mCROs) {
                if (!held->pStore && held->mLock.extendCount() == 1) {
                    held->mLock.UnextendLock(tracker);
                    destroyCro(held, true);
                } else {
                    releaseHold(held, tracker);
                }
            }
            // Storeless CROs made for this request and never locked.
            c->mCROs.clear();
            delete c;
            busy = cur;
            return StatusCode::CACHE_LockInUse;
        }
        cur->mLock.LockExclusiveExtending(tracker);
        c->mCROs.push_back(cur);
        uint64_t ovEnd = std::min(end, cur->end());
        if (complete) {
            if (!cur->pStore) {
                complete = false;
                c->mWindow.clear();
            } else {
                c->mWindow.add(*cur->pStore, uint32_t((pos - cur->mStoredStart) * es), uint32_t((ovEnd - pos) * es));
            }
        }
        if (cur->mLRUNode.active) mMemoryPool->lru().MarkMostRecentlyUsed(cur->mLRUNode);
        pos = ovEnd;
        CacheRangeObject* next = nextCro(cur);
        uint64_t gapEnd = std::min(end, next ? next->mStart : end);
        if (cur->end() < gapEnd) {
            uint64_t limit = gapEnd == end ? roundedLimit(cur->end(), end, roundTo, next) : gapEnd;
            next = newCro(set, cur->end(), uint32_t(limit - cur->end()), tracker, next);
            complete = false;
            c->mWindow.clear();
        }
        cur = next;
    }
    cto = c;
    return StatusCode::Success;
}

bool CacheRangeTracker::lockCachedRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                                        IOTracker& tracker) {
    if (set >= mSets.size()) return false;
    // A plain descent, no splay: readers share the tree and must not reshape it.
    CacheRangeObject* cur = nullptr;
    for (SplayNode* n = mRoots[set]; n;) {
        CacheRangeObject* c = asCro(n);
        if (start < c->mStart) n = n->left;
        else if (start >= c->end()) n = n->right;
        else {
            cur = c;
            break;
        }
    }
    if (!cur) return false;
    const uint64_t end = start + length;
    const uint32_t es = GetElementSize();
    CacheTrackerObject* c = new CacheTrackerObject(*this, set, start, length, tracker);
    uint64_t pos = start;
    for (;;) {
        // Only a lock that is free (or already this transaction's) is taken:
        // waiting is for the exclusive path, outside the tracker lock.
        if (!cur->mLock.TryLockExclusiveExtending(tracker)) {
            backOut(c, tracker);
            return false;
        }
        c->mCROs.push_back(cur);
        if (!cur->pStore) {
            backOut(c, tracker);
            return false;
        }
        uint64_t ovEnd = std::min(end, cur->end());
        c->mWindow.add(*cur->pStore, uint32_t((pos - cur->mStoredStart) * es), uint32_t((ovEnd - pos) * es));
        pos = ovEnd;
        if (pos >= end) break;
        cur = nextCro(cur);
        if (!cur || cur->mStart != pos) {  // a gap: a new CRO is needed
            backOut(c, tracker);
            return false;
        }
    }
    // A range already among the newest on the LRU is left in place: the list
    // and its lock are shared by every thread's hits.
    for (CacheRangeObject* cro : c->mCROs)
        if (cro->mLRUNode.active) mMemoryPool->lru().MarkRecentlyUsed(cro->mLRUNode);
    cto = c;
    return true;
}

void CacheRangeTracker::backOut(CacheTrackerObject* c, IOTracker& tracker) {
    c->mWindow.clear();
    for (CacheRangeObject* held : c->mCROs) {
        releaseHold(held, tracker);
    }
    c->mCROs.clear();
    delete c;
}

StatusCode CacheRangeTracker::LockRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                                        IOTracker& tracker, uint32_t roundTo) {
    CRTRangeContext ctx("LockRange", *this, set, start, length);
    return lockRangeInternal(set, start, length, cto, tracker, roundTo);
}

StatusCode CacheRangeTracker::lockRangeInternal(uint32_t set, uint64_t start, uint32_t length,
                                                CacheTrackerObject*& cto, IOTracker& tracker, uint32_t roundTo) {
    ScopeTimer timer(mLockPerf);
    ++mStats.locks;
    cto = nullptr;
    // A hit changes nothing the tracker lock guards: it is looked up inside
    // the lock's gate (or with the lock shared while a writer holds it), so
    // hits of different ranges go on side by side and never queue behind one
    // another. Anything else takes the lock exclusively.
    if (length != 0 && IsSetAndRangeValid(set, start, length) == StatusCode::Success) {
        bool hit;
        if (mLock.EnterGate()) {
            hit = lockCachedRange(set, start, length, cto, tracker);
            mLock.LeaveGate();
        } else {
            mLock.LockShared();
            hit = lockCachedRange(set, start, length, cto, tracker);
            mLock.LockRelease();
        }
        if (hit) return StatusCode::Success;
    }
    mLock.LockExclusive();
    for (;;) {
        CacheRangeObject* busy = nullptr;
        StatusCode st = LockRangeHelper(set, start, length, cto, tracker, busy, roundTo);
        if (st != StatusCode::CACHE_LockInUse) {
            mLock.LockRelease();
            return st;
        }
        SyncOnCROAvailable(busy);
    }
}

StatusCode CacheRangeTracker::LockAndLookupRange(uint32_t set, uint64_t start, uint32_t length,
                                                 CacheTrackerObject*& cto, IOTracker& tracker, uint32_t roundTo) {
    CRTRangeContext ctx("LockAndLookupRange", *this, set, start, length);
    StatusCode st = lockRangeInternal(set, start, length, cto, tracker, roundTo);
    if (st != StatusCode::Success) return st;
    st = LookupRangeInternal(cto, false, false, tracker);
    if (st != StatusCode::Success) {
        UnlockRange(cto);
        cto = nullptr;
    }
    return st;
}

StatusCode CacheRangeTracker::LockAndLookupRangeNoRead(uint32_t set, uint64_t start, uint32_t length,
                                                       CacheTrackerObject*& cto, IOTracker& tracker,
                                                       uint32_t roundTo) {
    CRTRangeContext ctx("LockAndLookupRangeNoRead", *this, set, start, length);
    StatusCode st = lockRangeInternal(set, start, length, cto, tracker, roundTo);
    if (st != StatusCode::Success) return st;
    st = LookupRangeInternal(cto, true, false, tracker);
    if (st != StatusCode::Success) {
        UnlockRange(cto);
        cto = nullptr;
    }
    return st;
}

StatusCode CacheRangeTracker::LookupRange(CacheTrackerObject* cto, IOTracker& tracker) {
    CTOContext ctx("LookupRange", *this, cto);
    return LookupRangeInternal(cto, false, false, tracker);
}

StatusCode CacheRangeTracker::LookupRangeQueued(CacheTrackerObject* cto, IOTracker& tracker) {
    CTOContext ctx("LookupRangeQueued", *this, cto);
    return LookupRangeInternal(cto, false, true, tracker);
}

void CacheRangeTracker::attachStore(CacheRangeObject* cro, DataStore* store) {
    ESA_ASSERT(cro->pStore == nullptr);
    cro->pStore = store;
    cro->mStoredStart = cro->mStart;
    cro->mStoredLength = cro->mLength;
    mMemoryPool->lru().AddToLRU(cro->mLRUNode);
}

void CacheRangeTracker::rangeWindow(CacheRangeObject* cro, DataWindow& window) {
    const uint32_t es = GetElementSize();
    window.clear();
    window.add(*cro->pStore, uint32_t((cro->mStart - cro->mStoredStart) * es), cro->mLength * es);
}

StatusCode CacheRangeTracker::LookupRangeInternal(CacheTrackerObject* cto, bool noRead, bool queued,
                                                  IOTracker& tracker) {
    ScopeTimer timer(mLookupPerf);
    ++mStats.lookups;
    if (cto->mWindow.paneCount() != 0) {
        ++mStats.hits;
        return StatusCode::Success;
    }
    ++mStats.misses;
    StatusCode first = StatusCode::Success;
    for (CacheRangeObject* cro : cto->mCROs) {
        if (cro->pStore) continue;
        cro->mStoredStart = cro->mStart;
        cro->mStoredLength = cro->mLength;
        if (noRead) {
            attachStore(cro, mMemoryPool->GetBlocks(blocksFor(cro->mLength)));
            continue;
        }
        ++mStats.reads;
        StatusCode st = ReadRangeNotPresent(cto->mSet, cro, tracker, queued);
        if (st != StatusCode::Success) {
            ++mStats.readFailures;
            if (first == StatusCode::Success) first = st;
        }
    }
    if (first != StatusCode::Success) return first;
    const uint32_t es = GetElementSize();
    uint64_t pos = cto->mStart;
    const uint64_t end = cto->mStart + cto->mLen;
    cto->mWindow.clear();
    for (CacheRangeObject* cro : cto->mCROs) {
        ESA_ASSERT_PTR(cro->pStore, !=, nullptr);
        uint64_t ovEnd = std::min(end, cro->end());
        cto->mWindow.add(*cro->pStore, uint32_t((pos - cro->mStoredStart) * es), uint32_t((ovEnd - pos) * es));
        pos = ovEnd;
    }
    ESA_ASSERT_OP(pos, ==, end);
    return StatusCode::Success;
}

StatusCode CacheRangeTracker::ReadRangeNotPresent(uint32_t, CacheRangeObject* cro, IOTracker&, bool) {
    attachStore(cro, mMemoryPool->GetBlocks(blocksFor(cro->mStoredLength)));
    return StatusCode::Success;
}

StatusCode CacheRangeTracker::WriteBackRange(uint32_t, uint64_t, uint32_t, CacheTrackerObject*, IOTracker&) {
    return StatusCode::Success;
}

void CacheRangeTracker::UnlockRange(CacheTrackerObject* cto) {
    if (!cto) return;
    CTOContext ctx("UnlockRange", *this, cto);
    ScopeTimer timer(mUnlockPerf);
    cto->mWindow.clear();
    size_t kept = 0;  // the CROs the CTO keeps move to the front of its list
    for (size_t i = 0, n = cto->mCROs.size(); i < n; ++i) {
        CacheRangeObject* cro = cto->mCROs[i];
        if (cto->mDirty && cro->mDirtyCount != 0) {
            // The transaction keeps its extended lock until commit.
            cro->mLock.LockReleaseExtending();
            cto->mCROs[kept++] = cro;
            continue;
        }
        if (!cro->pStore) {
            bool held = mLock.OwnsLock();
            if (!held) mLock.LockExclusive();
            if (cro->mLock.extendCount() == 1) {
                if (cro->mLock.transID() == cto->mTracker.getID()) cro->mLock.UnextendLock(cto->mTracker);
                destroyCro(cro, true);
            } else {
                cro->mLock.LockReleaseExtending();
            }
            if (!held) mLock.LockRelease();
            continue;
        }
        releaseHold(cro, cto->mTracker);
    }
    cto->mCROs.shrink(kept);
    if (cto->ReleaseByCaller()) delete cto;
}

StatusCode CacheRangeTracker::WriteRange(CacheTrackerObject* cto, IOTracker& tracker) {
    CTOContext ctx("WriteRange", *this, cto);
    ++mStats.writes;
    StatusCode st = WriteBackRange(cto->mSet, cto->mStart, cto->mLen, cto, tracker);
    if (st != StatusCode::Success) {
        ++mStats.writeFailures;
        ClearCTO(cto);
    }
    return st;
}

void CacheRangeTracker::ClearCTO(CacheTrackerObject* cto) {
    // Memory that failed to reach the disk or the journal must not be served
    // later: drop the stores that nobody but the LRU (and this CTO's window) holds.
    cto->mWindow.clear();
    TrackerLock::ExclusiveLockInstance g(&mLock);
    for (CacheRangeObject* cro : cto->mCROs) {
        if (!cro->pStore) continue;
        if (cro->pStore->refCount() != cro->pStore->lruCount() || cro->mDirtyCount != 0) {
            ESA_TRACE(tCache, "ClearCTO: Skipping a non-evictable CRO");
            continue;
        }
        if (cro->mLRUNode.active) mMemoryPool->lru().RemoveFromLRU(cro->mLRUNode);
        cro->pStore->DecRef();
        cro->pStore = nullptr;
    }
}
