#pragma once
// IOTracker: one transaction as one thread sees it. It carries the transaction
// id, the flags, the extended locks the transaction holds and the shared state
// of all its copies (reference, dirty and commit counts).
//
// A copy made with the copy constructor is a fork: same id, same lock list,
// same shared state, so a worker thread can run part of the transaction and
// locks any fork takes extended belong to the one transaction. Only the last
// copy to go ends the transaction: a read-only one commits the extended locks
// it still holds, a read-write one must have committed ("mLockObjectList->
// empty()" otherwise). Every operation's tracker ends in commit or
// commitIfDirty.
//
// The journal plugs in through JournalHooks; until it does, commit writes
// straight through: there is no journal set to place, so a commit only counts
// itself and releases the extended locks.
#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "include/ObjectPool.h"
#include "util/LockOrderChecker.h"
#include "util/LockTask.h"
#include "util/StatusCode.h"

class ExtendingLockObject;
class CacheTrackerObject;

enum iotType { READ_ONLY = 0, READ_WRITE = 1 };

class IOTracker {
public:
    static constexpr uint8_t kReadWrite = 0x08;
    static constexpr uint8_t kMeta = 0x04;
    static constexpr uint32_t kFailNextIo = 0x40;  // inject an error into the next disk I/O
    static constexpr uint8_t kPrivate = 0x80;      // belongs to one copy only

    // What the metadata journal provides. Unset entries take the
    // write-through behaviour described above.
    struct JournalHooks {
        StatusCode (*commit)(IOTracker&) = nullptr;
        StatusCode (*setFlushFlag)(IOTracker&) = nullptr;
        uint32_t (*getMaxPayloadNeeded)(IOTracker&) = nullptr;
        void (*addClid)(IOTracker&, CacheTrackerObject*) = nullptr;
    };
    static JournalHooks journal;

    explicit IOTracker(iotType type);
    IOTracker(IOTracker& other);  // a fork
    IOTracker& operator=(const IOTracker&) = delete;
    ~IOTracker();

    StatusCode commit();
    StatusCode commitIfDirty();
    StatusCode setFlushFlag();
    // Commits every extended lock of the transaction, front first.
    void lockRelease();

    uint64_t getID() const { return mId; }
    std::list<ExtendingLockObject*>* getLockObjects() { return mLockObjectList; }
    bool isMeta() const { return flags & kMeta; }
    bool isReadWrite() const { return flags & kReadWrite; }
    LockTask ownerTask() const { return mOwnerTask; }

    // Journal bookkeeping: metadata changed in this transaction / commits made.
    void markDirty() { countShared(mShared->dirty); }
    uint32_t dirtyCount() const { return mShared->dirty.load(std::memory_order_relaxed); }
    uint32_t commitCount() const { return mShared->commits.load(std::memory_order_relaxed); }
    uint32_t copies() const { return mShared->refs.load(std::memory_order_relaxed); }

    uint32_t getMaxPayloadNeeded();
    void addClid();
    CacheTrackerObject* cacheTracker() const { return mCacheTracker; }
    void setCacheTracker(CacheTrackerObject* cto) { mCacheTracker = cto; }

    // The extended-lock list, for ExtendingLockObject: guarded by the shared state.
    void addExtendedLock(ExtendingLockObject* lock);
    void removeExtendedLock(ExtendingLockObject* lock);
    ExtendingLockObject* frontExtendedLock();
    bool hasExtendedLocks();
    // The extended locks as the lock-order checker sees them.
    std::vector<LockOrderChecker::TransactionLock> lockOrderSnapshot();

    // The last id handed out (ids never repeat in a run and are never 0).
    static uint64_t lastId() { return iotGlobalId.load(); }
    // A fresh id, newer than every transaction so far (the range cache ages
    // the ranges it installs with one).
    static uint64_t takeId() { return nextId(); }

    uint8_t flags = 0;  // kReadWrite, kMeta, kFailNextIo, kPrivate

private:
    struct SharedState : ObjectPool<SharedState> {
        std::atomic<uint32_t> refs{1};
        std::atomic<uint32_t> dirty{0};
        std::atomic<uint32_t> commits{0};
        std::mutex listLock;
        std::list<ExtendingLockObject*> locks;
        std::atomic<uint32_t> lockCount{0};  // locks.size(), readable without listLock
    };
    // Adds 1 to a counter of the shared state. A sole copy has no other
    // writer (see ListGuard): no atomic step.
    void countShared(std::atomic<uint32_t>& counter) {
        if (mShared->refs.load(std::memory_order_acquire) == 1)
            counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        else
            counter.fetch_add(1, std::memory_order_relaxed);
    }
    static uint64_t nextId();
    struct SpareState;
    class ListGuard;
    static SpareState& spare();
    static SharedState* newSharedState();
    // The last copy is done with it: kept as this thread's spare, or freed.
    static void endSharedState(SharedState* s);
    static constexpr size_t kDefaultSharedStates = 1024;

    SharedState* mShared;
    uint64_t mId;
    CacheTrackerObject* mCacheTracker = nullptr;
    std::list<ExtendingLockObject*>* mLockObjectList;
    LockTask mOwnerTask;

    static std::atomic<uint64_t> iotGlobalId;
};

// A scope helper: commits the tracker at the end of the scope unless the
// owner has committed it already.
class IOTrackerCommitter {
public:
    explicit IOTrackerCommitter(IOTracker& tracker) : mTracker(tracker), mCommitsAtStart(tracker.commitCount()) {}
    ~IOTrackerCommitter() {
        if (mTracker.commitCount() == mCommitsAtStart) mTracker.commitIfDirty();
    }
    IOTrackerCommitter(const IOTrackerCommitter&) = delete;
    IOTrackerCommitter& operator=(const IOTrackerCommitter&) = delete;

private:
    IOTracker& mTracker;
    uint32_t mCommitsAtStart;
};
