#pragma once
// LockObject: a fair shared/exclusive lock with a FIFO queue of waiters.
// Shared holds are recorded by task, so OwnsLock is exact in both modes and a
// release by a task that holds nothing is a broken invariant. Held only
// through the scope helpers ExclusiveLockInstance and SharedLockInstance.
#include <ostream>
#include <vector>

#include "util/LockProtection.h"
#include "util/QueuedLock.h"

class LockObject : public QueuedLock {
public:
    LockObject(const char* name, unsigned long level);
    ~LockObject() override;

    void LockExclusive();
    void LockShared();
    void LockRelease();
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

private:
    std::vector<LockTask> mSharedHolders;
    LockProtection::Registry::iterator mListPosition;
};
