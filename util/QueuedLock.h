#pragma once
// QueuedLock: the fair shared/exclusive queue under LockObject and
// ExtendingLockObject. It owns the protection mutex, the exclusive owner, the
// locked flag, the shared count and the FIFO of waiters.
//
// Invariants (under the protection): the lock is exclusive when locked with a
// shared count of 0; a free lock has no waiters; a waiter is woken only when
// the lock is handed to it (exclusive release, last shared release) or when a
// shared waiter ahead of it got in and it is shared too. A release never
// clears `locked` while someone waits, so nothing can slip in between; and a
// reader that finds anyone queued queues behind them, which is how a reader
// never overtakes a queued writer.
#include <cstdint>
#include <mutex>
#include <ostream>

#include "util/Binary.h"
#include "util/LockObjectBase.h"
#include "util/LockTask.h"
#include "util/Mutex.h"
#include "util/dList.h"

class QueuedLock : public LockObjectBase {
public:
    bool isExclusive() const { return mLocked && mSharedCount == 0; }
    bool isLocked() const { return mLocked; }
    uint16_t sharedCount() const { return mSharedCount; }
    LockTask owner() const { return mOwner; }
    // Number of waiters (for tests and dumps).
    unsigned waiters();

protected:
    QueuedLock(const char* name, unsigned long level, Kind kind);
    ~QueuedLock() override;

    struct PendingLockObject : dNode {
        Binary* sem = nullptr;
        bool exclusive = false;
        bool woken = false;
        LockTask task = 0;
        uint64_t transId = 0;
    };

    using Guard = std::unique_lock<Mutex>;
    // With the protection held: wait until the lock may be taken in this mode,
    // then record the hold (owner for exclusive, count for shared).
    void acquireExclusiveLocked(Guard& g, uint64_t transId);
    void acquireSharedLocked(Guard& g, uint64_t transId);
    // With the protection held: drop one shared hold / the exclusive hold.
    void releaseSharedLocked();
    void releaseExclusiveLocked();

    // Prints the waiters' part of a dump.
    void dumpWaiters(std::ostream& out);

    Mutex* mProtection;
    LockTask mOwner = 0;
    bool mLocked = false;
    uint16_t mSharedCount = 0;
    dList<PendingLockObject> mPending;

private:
    void waitInQueue(Guard& g, bool exclusive, uint64_t transId);
    void wake(PendingLockObject* p);
};
