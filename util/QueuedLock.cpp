#include "util/QueuedLock.h"

#include "util/Assert.h"

QueuedLock::QueuedLock(const char* name, unsigned long level, Kind kind)
    : LockObjectBase(name, level, kind), mProtection(Mutex::Create(name ? name : "")) {}

QueuedLock::~QueuedLock() { delete mProtection; }

unsigned QueuedLock::waiters() {
    Guard g(*mProtection);
    unsigned n = 0;
    for (auto it = mPending.begin(); it != mPending.end(); ++it) ++n;
    return n;
}

void QueuedLock::wake(PendingLockObject* p) {
    if (p->woken) return;
    p->woken = true;
    p->sem->give();
}

void QueuedLock::waitInQueue(Guard& g, bool exclusive, uint64_t transId) {
    PendingLockObject p;
    p.sem = Binary::Create();
    p.exclusive = exclusive;
    p.task = currentLockTask();
    p.transId = transId;
    mPending.push_back(&p);
    g.unlock();
    bool given = p.sem->take(waitLimitMs());
    g.lock();
    if (!given) {
        g.unlock();
        reportStuckWait();
    }
    mPending.remove(&p);
    delete p.sem;
}

void QueuedLock::acquireExclusiveLocked(Guard& g, uint64_t transId) {
    if (mLocked || !mPending.empty()) waitInQueue(g, true, transId);
    mLocked = true;
    mOwner = currentLockTask();
}

void QueuedLock::acquireSharedLocked(Guard& g, uint64_t transId) {
    if (!mPending.empty() || isExclusive()) waitInQueue(g, false, transId);
    ESA_ASSERT_OP(mSharedCount, <, 0xFFFF);
    ++mSharedCount;
    mLocked = true;
    mOwner = 0;
    // Shared waiters at the head of the queue wake one another in a chain.
    if (!mPending.empty() && !mPending.front()->exclusive) wake(mPending.front());
}

void QueuedLock::releaseSharedLocked() {
    ESA_ASSERT_OP(mSharedCount, >, 0);
    if (--mSharedCount != 0) return;
    if (mPending.empty()) mLocked = false;
    else wake(mPending.front());
}

void QueuedLock::releaseExclusiveLocked() {
    if (mPending.empty()) {
        mLocked = false;
        mOwner = 0;
        return;
    }
    // The lock passes straight to the head of the queue.
    mOwner = mPending.front()->task;
    wake(mPending.front());
}

void QueuedLock::dumpWaiters(std::ostream& out) {
    unsigned n = 0;
    for (auto it = mPending.begin(); it != mPending.end(); ++it) ++n;
    out << " There are " << n << " other tasks blocked on this LockObject\n";
    for (auto it = mPending.begin(); it != mPending.end(); ++it)
        out << "  Blocked Lock type is " << (it->exclusive ? "Exclusive" : "Shared")
            << ", Blocked ThreadID = " << lockTaskName(it->task)
            << (it->transId ? " for TransID " + std::to_string(it->transId) : std::string()) << "\n";
}
