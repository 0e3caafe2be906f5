#pragma once
// ExtendingLockObject: a LockObject whose exclusive hold can outlive the code
// that took it. Taken with LockExclusiveExtending inside a transaction, the
// lock belongs to that transaction (mTransID) until the transaction commits
// (CommitExtendedLock, from IOTracker::commit), so no other transaction sees
// metadata that has not yet reached the journal. Forks of one IOTracker share
// the transaction id, so any of them may re-take or commit the lock.
//
// Shared holds record (task, transaction, count) and nest per task and
// transaction without queueing. The extend count is the number of
// LockExclusiveExtending calls not yet matched by LockReleaseExtending.
#include <cstdint>
#include <ostream>
#include <vector>

#include "util/LockProtection.h"
#include "util/QueuedLock.h"
#include "util/StatusCode.h"

class IOTracker;

class ExtendingLockObject : public QueuedLock {
public:
    ExtendingLockObject(const char* name, unsigned long level);
    ~ExtendingLockObject() override;

    StatusCode LockExclusive();
    StatusCode LockShared();
    StatusCode LockRelease();
    bool OwnsLock();

    StatusCode LockShared(IOTracker& iot);
    StatusCode LockRelease(IOTracker& iot);
    bool OwnsLock(IOTracker& iot);

    StatusCode LockExclusiveExtending(IOTracker& iot);
    // LockExclusiveExtending when it needs no wait: the lock is free with no
    // one queued, or this transaction holds it already. False, with nothing
    // taken, otherwise; so it never waits and never overtakes a waiter.
    bool TryLockExclusiveExtending(IOTracker& iot);
    StatusCode LockReleaseExtending();
    // LockReleaseExtending that, when `giveBack` and this is the
    // transaction's only hold, also gives the extension back (UnextendLock),
    // all in one step: the end of a range lock's use by one call chain.
    StatusCode ReleaseHold(IOTracker& iot, bool giveBack);
    void CommitExtendedLock(IOTracker& iot);
    void UnextendLock(IOTracker& iot);

    void SetName(const char* name) { setName(name); }
    void Dump(std::ostream& out, bool verbose) override;

    bool isExtended();
    uint64_t transID();
    uint32_t extendCount();

    class ExclusiveLockInstance {
    public:
        explicit ExclusiveLockInstance(ExtendingLockObject* lock) : mLock(lock) { mLock->LockExclusive(); }
        ~ExclusiveLockInstance() { mLock->LockRelease(); }
        ExclusiveLockInstance(const ExclusiveLockInstance&) = delete;
        ExclusiveLockInstance& operator=(const ExclusiveLockInstance&) = delete;

    private:
        ExtendingLockObject* mLock;
    };

    class SharedLockInstance {
    public:
        explicit SharedLockInstance(ExtendingLockObject* lock) : mLock(lock), mTracker(nullptr) {
            mLock->LockShared();
        }
        SharedLockInstance(ExtendingLockObject* lock, IOTracker& iot) : mLock(lock), mTracker(&iot) {
            mLock->LockShared(iot);
        }
        ~SharedLockInstance() {
            if (mTracker) mLock->LockRelease(*mTracker);
            else mLock->LockRelease();
        }
        SharedLockInstance(const SharedLockInstance&) = delete;
        SharedLockInstance& operator=(const SharedLockInstance&) = delete;

    private:
        ExtendingLockObject* mLock;
        IOTracker* mTracker;
    };

    class ExtendingExclusiveLockInstance {
    public:
        ExtendingExclusiveLockInstance(ExtendingLockObject* lock, IOTracker& iot) : mLock(lock) {
            mLock->LockExclusiveExtending(iot);
        }
        ~ExtendingExclusiveLockInstance() { mLock->LockReleaseExtending(); }
        ExtendingExclusiveLockInstance(const ExtendingExclusiveLockInstance&) = delete;
        ExtendingExclusiveLockInstance& operator=(const ExtendingExclusiveLockInstance&) = delete;

    private:
        ExtendingLockObject* mLock;
    };

private:
    struct SharedHolder {
        LockTask task;
        uint64_t transId;
        uint32_t count;
    };
    StatusCode lockSharedFor(uint64_t transId, IOTracker* iot);
    StatusCode releaseSharedFor(uint64_t transId);
    SharedHolder* findHolder(LockTask task, uint64_t transId);

    std::vector<SharedHolder> mSharedHolders;
    bool mExtended = false;
    uint64_t mTransID = 0;
    uint32_t mExtendCount = 0;
    LockProtection::Registry::iterator mListPosition;
};
