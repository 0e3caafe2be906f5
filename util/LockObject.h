#pragma once
// LockObject: a fair shared/exclusive lock with a FIFO queue of waiters.
// Shared holds are recorded by task, so OwnsLock is exact in both modes and a
// release by a task that holds nothing is a broken invariant. Held only
// through the scope helpers ExclusiveLockInstance, SharedLockInstance and
// BriefExclusiveLockInstance.
//
// A brief hold (LockExclusiveBrief) is for a few dozen instructions that never
// wait, on the hottest paths (every metadata commit takes two): when the lock
// is free and nobody queues, the protection stays held for the whole hold, so
// that the release is one store instead of a second atomic exchange. A taker
// that comes meanwhile spins on the protection for that moment rather than
// parking in the queue; the queue order holds for every ordinary hold. A
// holder that must do something that may wait first calls Lengthen, which
// makes the hold an ordinary one.
#include <atomic>
#include <ostream>
#include <vector>

#include "util/LockOrderChecker.h"
#include "util/LockProtection.h"
#include "util/QueuedLock.h"

class LockObject : public QueuedLock {
public:
    LockObject(const char* name, unsigned long level);
    ~LockObject() override;

    void LockExclusive();
    // The brief take and release are inline: they are the hot path of every
    // metadata commit.
    void LockExclusiveBrief() {
        if (!bypass && !LockOrderChecker::enabled()) {
            mProtection->lock();
            if (takeBriefLocked()) return;  // the protection stays held until LockRelease or Lengthen
            mProtection->unlock();
        }
        lockExclusiveBriefChecked();
    }
    void Lengthen();
    void LockShared();
    void LockRelease() {
        if (!bypass && mBriefOwner.load(std::memory_order_relaxed) == currentLockTask()) {
            // Nobody can have queued: the protection was held all along.
            mBriefOwner.store(0, std::memory_order_relaxed);
            mLocked = false;
            mOwner = 0;
            mProtection->unlock();
            LockOrderChecker::noteReleased(this);
            return;
        }
        releaseOrdinary();
    }
    bool OwnsLock();
    void Dump(std::ostream& out, bool verbose) override;
    void SetName(const char* name) { setName(name); }

    class ExclusiveLockInstance {
    public:
        explicit ExclusiveLockInstance(LockObject* lock) : mLock(lock) { mLock->LockExclusive(); }
        ~ExclusiveLockInstance() { mLock->LockRelease(); }
        ExclusiveLockInstance(const ExclusiveLockInstance&) = delete;
        ExclusiveLockInstance& operator=(const ExclusiveLockInstance&) = delete;

    private:
        LockObject* mLock;
    };

    class SharedLockInstance {
    public:
        explicit SharedLockInstance(LockObject* lock) : mLock(lock) { mLock->LockShared(); }
        ~SharedLockInstance() { mLock->LockRelease(); }
        SharedLockInstance(const SharedLockInstance&) = delete;
        SharedLockInstance& operator=(const SharedLockInstance&) = delete;

    private:
        LockObject* mLock;
    };

    class BriefExclusiveLockInstance {
    public:
        explicit BriefExclusiveLockInstance(LockObject* lock) : mLock(lock) { mLock->LockExclusiveBrief(); }
        ~BriefExclusiveLockInstance() { mLock->LockRelease(); }
        void lengthen() { mLock->Lengthen(); }
        BriefExclusiveLockInstance(const BriefExclusiveLockInstance&) = delete;
        BriefExclusiveLockInstance& operator=(const BriefExclusiveLockInstance&) = delete;

    private:
        LockObject* mLock;
    };

private:
    // With the protection held: when the lock is free and nobody queues, it
    // becomes the caller's brief hold (true).
    bool takeBriefLocked() {
        if (mLocked || !mPending.empty()) return false;
        mLocked = true;
        mOwner = currentLockTask();
        mBriefOwner.store(mOwner, std::memory_order_relaxed);
        return true;
    }
    void lockExclusiveBriefChecked();
    void releaseOrdinary();
    // The task in a brief hold, which keeps the protection held; 0 for none.
    // Written only with the protection held; read without it only by a task
    // that holds the lock, when no brief hold by another task can exist.
    std::atomic<LockTask> mBriefOwner{0};
    std::vector<LockTask> mSharedHolders;
    LockProtection::Registry::iterator mListPosition;
};
