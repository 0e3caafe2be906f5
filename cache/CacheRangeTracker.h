#pragma once
// CacheRangeTracker: the range cache, which is at once the metadata cache, the
// range lock manager and the place where journalled metadata waits in memory
// until the journal no longer needs it. Ranges of fixed-size elements are
// cached per numbered set; every access locks its range and gets a
// CacheTrackerObject (CTO) holding the range locks and a window on the data.
//
// What it owns: the sets (an address-ordered list and a top-down splay tree of
// CacheRangeObjects each), the memory pool the stores come from, and the
// tracker lock mLock that guards the sets, trees and lists.
//
// Invariants (under mLock): CROs of a set never overlap; the list is in
// ascending mStart; tree and list hold the same CROs; a CRO with a store is on
// the pool's LRU except while its destroyer holds it; a CRO without a store is
// always locked by the CTO that made it. No thread ever waits for a range
// lock while it holds mLock: a range held by another transaction makes the
// locker back off (CACHE_LockInUse) and wait in SyncOnCROAvailable.
//
// Subclasses say what a set is and how a missing range is read
// (ReadRangeNotPresent) and a dirty one written (WriteBackRange).
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <memory>
#include <ostream>
#include <string>

#include "cache/CacheCounter.h"
#include "cache/TrackerLock.h"
#include "include/ObjectPool.h"
#include "util/DataStore.h"
#include "util/DataWindow.h"
#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/MemoryPool.h"
#include "util/PerfAccumulator.h"
#include "util/StatusCode.h"
#include "util/dList.h"

class CacheTrackerObject;

class CacheRangeTracker : private LruOwner {
public:
    class SplayNode {
    public:
        virtual ~SplayNode() = default;
        SplayNode* left = nullptr;
        SplayNode* right = nullptr;
    };

    class CacheRangeObject;
    using CROList = dList<CacheRangeObject>;

    // A CRO's entry on its pool's LRU list.
    class DL_CRO_NODE : public LruNode {
    public:
        explicit DL_CRO_NODE(CacheRangeObject& cro) : mCro(cro) {}
        DataStore* lruStore() override;
        bool lruEvictable(bool evictDirty) override;
        void lruEvict() override;
        CacheRangeObject& mCro;
    };

    // One cached (or just locked) range of a set. Several CROs may share one
    // store after a split: element e stands at byte (e - mStoredStart) x
    // element size of the store.
    class CacheRangeObject : public SplayNode, public dNode, public ObjectPool<CacheRangeObject> {
    public:
        CacheRangeObject(CacheRangeTracker& tracker, uint32_t set, uint64_t start, uint32_t length,
                         uint64_t creatingId);
        ~CacheRangeObject() override;

        uint64_t end() const { return mStart + mLength; }
        void PreventEviction();
        void AllowEviction();
        // Renames the range lock after the range changed.
        void nameLock();

        uint64_t mStoredStart;
        uint32_t mStoredLength;
        uint64_t mStart;
        uint32_t mLength;
        uint32_t mDirtyCount = 0;
        DataStore* pStore = nullptr;
        DL_CRO_NODE mLRUNode;
        MemoryPool* mMemoryPool;
        CROList& mList;
        SplayNode*& mRoot;
        CacheRangeTracker* mTracker;
        ExtendingLockObject mLock;
        uint64_t mCreatingId;
        uint32_t mSet;
        // Threads waiting in SyncOnCROAvailable: while any wait, the CRO is
        // not freed; a destroyer only unlinks it (mZombie) and the last
        // waiter frees it.
        uint32_t mSyncWaiters = 0;
        bool mZombie = false;
    };

    // A private pool from the heap.
    CacheRangeTracker(const char* lockName, uint32_t numBlocks, uint32_t blockSize);
    // A SharedMemoryPool in the board's named shared region.
    CacheRangeTracker(const char* lockName, const char* sharedRegionName, uint32_t numBlocks, uint32_t blockSize);
    virtual ~CacheRangeTracker();
    CacheRangeTracker(const CacheRangeTracker&) = delete;
    CacheRangeTracker& operator=(const CacheRangeTracker&) = delete;

    // ---- the virtual operations, in slot order
    virtual void ClearStats();
    virtual void StatsShow(std::ostream& out, bool verbose);
    virtual void Dump(std::ostream& out, bool verbose);
    virtual StatusCode ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker& tracker, bool queued);
    virtual StatusCode WriteBackRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject* cto,
                                      IOTracker& tracker);
    virtual uint32_t GetElementSize() { return 512; }
    virtual uint32_t GetBlockSize() { return 512; }
    virtual StatusCode IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length);
    virtual const char* CacheName() { return "Base"; }
    // Lock-order levels: declared, not consulted (the order checker goes by name).
    virtual uint32_t CacheLockLevel() { return 0; }
    virtual uint32_t CacheSetLockLevel() { return 48; }

    // ---- range operations
    StatusCode LockRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto, IOTracker& tracker,
                         uint32_t roundTo = 0);
    StatusCode LockAndLookupRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                                  IOTracker& tracker, uint32_t roundTo = 0);
    StatusCode LockAndLookupRangeNoRead(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                                        IOTracker& tracker, uint32_t roundTo = 0);
    StatusCode LookupRange(CacheTrackerObject* cto, IOTracker& tracker);
    StatusCode LookupRangeQueued(CacheTrackerObject* cto, IOTracker& tracker);
    void UnlockRange(CacheTrackerObject* cto);
    StatusCode WriteRange(CacheTrackerObject* cto, IOTracker& tracker);
    StatusCode AddRange(uint32_t set, uint64_t start, uint32_t length, DataStore* store, IOTracker& tracker);
    StatusCode InvalidateRange(uint32_t set, uint64_t start, uint32_t length, IOTracker& tracker);
    void ClearSet(uint32_t set);
    void Flush(int flag = 0);
    // The named instances call it at pack load and unload.
    void flush() { Flush(0); }
    CROList& FindSet(uint32_t set);
    // Drops the stores of a CTO whose write-back failed (see ClearCTO in the .cpp).
    void ClearCTO(CacheTrackerObject* cto);

    // ---- diagnostics
    void PerfInfo(std::ostream& out);
    // Reads every clean, unlocked CRO back and compares; false on a mismatch.
    bool internalConsistencyCheck(std::ostream& out);
    // Prints `count` elements of a set through the cache.
    StatusCode dumpSectors(std::ostream& out, uint32_t set, uint64_t start, uint32_t count);

    // ---- inspection (tests, dumps)
    MemoryPool& pool() { return *mMemoryPool; }
    uint32_t croCount(uint32_t set);
    uint32_t setCount();
    // Every CRO of a set as (start, length, has store), in list order.
    struct CroView {
        uint64_t start;
        uint32_t length;
        bool hasStore;
        DataStore* store;
        uint64_t creatingId;
        uint32_t dirtyCount;
    };
    std::vector<CroView> view(uint32_t set);
    // Sets that the tree and the list hold the same CROs in order; asserts.
    void checkSetInvariants(uint32_t set);

    // The CAT lookup table's chunk, in elements: a rounded lock never crosses
    // into a chunk after the one holding the last requested element. 0: no cut.
    static void setSectorsPerChunk(uint32_t sectors) { sSectorsPerChunk = sectors; }

    struct Stats {
        CacheCounter locks, lookups, hits, misses, reads, readFailures, writes, writeFailures, adds, invalidates,
            backoffs, evictions;
    };
    Stats& stats() { return mStats; }

protected:
    friend class CacheTrackerObject;
    friend class DL_CRO_NODE;

    // The number of pool blocks a range of `elements` needs.
    uint32_t blocksFor(uint32_t elements) { return (elements * GetElementSize() + GetBlockSize() - 1) / GetBlockSize(); }
    // Gives a storeless CRO a store of its range and puts it on the LRU.
    void attachStore(CacheRangeObject* cro, DataStore* store);
    // Window over a CRO's whole range (for reads and consistency checks).
    void rangeWindow(CacheRangeObject* cro, DataWindow& window);

    uint64_t roundedLimit(uint64_t start, uint64_t end, uint32_t roundTo, CacheRangeObject* next);

    // ---- splay tree (splay.cpp)
    static SplayNode* splay(SplayNode* root, uint64_t key);
    void insertAfterSplay(SplayNode*& root, CacheRangeObject* cro);
    void eraseAndSplay(SplayNode*& root, CacheRangeObject* cro);
    static CacheRangeObject* asCro(SplayNode* n) { return static_cast<CacheRangeObject*>(n); }
    static CacheRangeObject* nextCro(CacheRangeObject* cro) {
        dNode* n = static_cast<dNode*>(cro)->next;
        return n ? static_cast<CacheRangeObject*>(n) : nullptr;
    }
    // The first CRO that overlaps or follows `start`, or null.
    CacheRangeObject* firstAtOrAfter(uint32_t set, uint64_t start);

    // ---- helpers under mLock
    CacheRangeObject* newCro(uint32_t set, uint64_t start, uint32_t length, IOTracker& tracker,
                             CacheRangeObject* before);
    // Unlinks and frees a CRO whose range lock the caller holds exclusively
    // (released here, with LockReleaseExtending when `extending`).
    void destroyCro(CacheRangeObject* cro, bool extending);
    // True when a range lock is held by any transaction other than `transId`
    // or without one: the locker must back off.
    static bool busyFor(CacheRangeObject* cro, uint64_t transId);
    // Ends this call chain's hold of a range lock, with its extension unless
    // the transaction keeps the range for its commit.
    static void releaseHold(CacheRangeObject* cro, IOTracker& tracker);
    // LockRange without its diagnostic context (the public callers have one).
    StatusCode lockRangeInternal(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                                 IOTracker& tracker, uint32_t roundTo);
    // The hit path, under mLock shared: when every element of the range is
    // cached in CROs whose range locks can be taken at once, takes them and
    // builds the CTO without changing the sets. False (nothing held) when
    // the exclusive path must do it: a gap, a missing store, a busy lock.
    bool lockCachedRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                         IOTracker& tracker);
    // Gives back the range locks a CTO took and frees it (a backed-out lock).
    void backOut(CacheTrackerObject* cto, IOTracker& tracker);
    StatusCode LockRangeHelper(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject*& cto,
                               IOTracker& tracker, CacheRangeObject*& busy, uint32_t roundTo);
    // Called with mLock held; returns with it held again, having waited for
    // the busy CRO's range lock with mLock released. Only the first waiter of
    // a CRO queues on its lock; later ones wait (briefly, bounded) for that
    // waiter to be done. Two waiters queued on one lock would each be handed
    // it in turn and each find it held by the other's wait when they look
    // again, and so hand it back and forth for as long as both keep trying.
    void SyncOnCROAvailable(CacheRangeObject* busy);
    StatusCode LookupRangeInternal(CacheTrackerObject* cto, bool noRead, bool queued, IOTracker& tracker);
    StatusCode ModifyRange(uint32_t set, uint64_t start, uint32_t length, CacheRangeObject*& iterator,
                           DataStore* store, bool addNew, IOTracker& tracker);
    // Drops every CRO of a set (ClearSet/Flush); false when a busy CRO was met
    // and waited for, so the caller restarts.
    bool dropSetLocked(uint32_t set, uint32_t maxCros, bool& emptied);
    StatusCode addOrInvalidate(uint32_t set, uint64_t start, uint32_t length, DataStore* store, IOTracker& tracker,
                               bool addNew);
    void placeNewRange(uint32_t set, uint64_t start, uint32_t length, DataStore* store, IOTracker& tracker,
                       CacheRangeObject* before);

    // LruOwner: the eviction pass holds mLock.
    void lruLock() override { mLock.LockExclusive(); }
    void lruUnlock() override { mLock.LockRelease(); }

    std::unique_ptr<MemoryPool> mMemoryPool;
    TrackerLock mLock;
    // Woken when a waiter of SyncOnCROAvailable has had its CRO's lock.
    std::mutex mSyncMutex;
    std::condition_variable mSyncDone;
    bool mOwnsPool = false;
    std::deque<CROList> mSets;
    std::deque<SplayNode*> mRoots;
    Stats mStats;
    PerfAccumulator mLookupPerf;
    PerfAccumulator mLockPerf;
    PerfAccumulator mLockMultiplePerf;
    PerfAccumulator mUnlockPerf;
    PerfAccumulator mAddPerf;
    PerfAccumulator mInvalidatePerf;
    std::string mConsoleName;  // lower case: "zmdt"; range locks are named after it

    static inline std::atomic<uint32_t> sSectorsPerChunk{0};

public:
    const std::string& consoleName() const { return mConsoleName; }
    void setConsoleName(const std::string& n) { mConsoleName = n; }
};
