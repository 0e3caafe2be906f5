#include "util/ExtendingLockObject.h"

#include "util/Assert.h"
#include "util/IOTracker.h"
#include "util/LockOrderChecker.h"
#include "util/Trace.h"

ExtendingLockObject::ExtendingLockObject(const char* name, unsigned long level)
    : QueuedLock(name, level, Kind::Extending) {
    mListPosition = LockProtection::GetInstance().add(this);
}

ExtendingLockObject::~ExtendingLockObject() { LockProtection::GetInstance().remove(this, mListPosition); }

namespace {
void checkOrder(const LockObjectBase* lock, uint64_t transId, IOTracker* iot) {
    if (!LockOrderChecker::enabled()) return;
    if (iot) {
        auto held = iot->lockOrderSnapshot();
        LockOrderChecker::checkAcquire(lock, transId, &held);
    } else {
        LockOrderChecker::checkAcquire(lock, transId, nullptr);
    }
}
}  // namespace

ExtendingLockObject::SharedHolder* ExtendingLockObject::findHolder(LockTask task, uint64_t transId) {
    for (SharedHolder& h : mSharedHolders)
        if (h.task == task && h.transId == transId) return &h;
    return nullptr;
}

StatusCode ExtendingLockObject::LockExclusive() {
    if (bypass) return StatusCode::Success;
    checkOrder(this, 0, nullptr);
    {
        Guard g(*mProtection);
        acquireExclusiveLocked(g, 0);
    }
    LockOrderChecker::noteAcquired(this, 0);
    return StatusCode::Success;
}

StatusCode ExtendingLockObject::lockSharedFor(uint64_t transId, IOTracker* iot) {
    LockTask self = currentLockTask();
    {
        Guard g(*mProtection);
        // The transaction already holds it exclusively.
        if (transId != 0 && mExtended && mTransID == transId) return StatusCode::Success;
        // Shared holds nest per task and transaction without queueing.
        if (mSharedCount != 0) {
            if (SharedHolder* h = findHolder(self, transId)) {
                ++h->count;
                ++mSharedCount;
                return StatusCode::Success;
            }
        }
    }
    checkOrder(this, transId, iot);
    {
        Guard g(*mProtection);
        acquireSharedLocked(g, transId);
        mSharedHolders.push_back(SharedHolder{self, transId, 1});
    }
    LockOrderChecker::noteAcquired(this, transId);
    return StatusCode::Success;
}

StatusCode ExtendingLockObject::LockShared() {
    if (bypass) return StatusCode::Success;
    return lockSharedFor(0, nullptr);
}

StatusCode ExtendingLockObject::LockShared(IOTracker& iot) {
    if (bypass) return StatusCode::Success;
    return lockSharedFor(iot.getID(), &iot);
}

StatusCode ExtendingLockObject::releaseSharedFor(uint64_t transId) {
    LockTask self = currentLockTask();
    bool last = false;
    {
        Guard g(*mProtection);
        if (mSharedCount == 0) return StatusCode::Success;
        SharedHolder* h = findHolder(self, transId);
        if (!h) {
            ESA_CONSOLE("LockObject::LockRelease(IOTracker) - shared lock not found");
            return StatusCode::InternalError;
        }
        if (--h->count == 0) {
            mSharedHolders.erase(mSharedHolders.begin() + (h - mSharedHolders.data()));
            last = true;
        }
        releaseSharedLocked();
    }
    if (last) LockOrderChecker::noteReleased(this);
    return StatusCode::Success;
}

StatusCode ExtendingLockObject::LockRelease() {
    if (bypass) return StatusCode::Success;
    {
        Guard g(*mProtection);
        if (isExclusive()) {
            ESA_ASSERT(!mExtended);
            ESA_ASSERT(mOwner == currentLockTask());
            releaseExclusiveLocked();
            g.unlock();
            LockOrderChecker::noteReleased(this);
            return StatusCode::Success;
        }
        ESA_ASSERT(mSharedCount != 0);  // a release by a task that holds nothing
    }
    return releaseSharedFor(0);
}

StatusCode ExtendingLockObject::LockRelease(IOTracker& iot) {
    if (bypass) return StatusCode::Success;
    {
        Guard g(*mProtection);
        if (mExtended) {
            // The paired LockShared(iot) found the lock held by this very
            // transaction and took nothing.
            ESA_ASSERT_OP(mTransID, ==, iot.getID());
            return StatusCode::Success;
        }
    }
    return releaseSharedFor(iot.getID());
}

bool ExtendingLockObject::OwnsLock() {
    if (bypass) return true;
    LockTask self = currentLockTask();
    Guard g(*mProtection);
    if (!mLocked) return false;
    if (isExclusive()) return mOwner == self;
    for (const SharedHolder& h : mSharedHolders)
        if (h.task == self) return true;
    return false;
}

bool ExtendingLockObject::OwnsLock(IOTracker& iot) {
    if (bypass) return true;
    LockTask self = currentLockTask();
    Guard g(*mProtection);
    if (!mLocked) return false;
    if (mExtended && mTransID == iot.getID()) return true;
    if (isExclusive()) return mOwner == self;
    return findHolder(self, iot.getID()) != nullptr;
}

StatusCode ExtendingLockObject::LockExclusiveExtending(IOTracker& iot) {
    if (bypass) return StatusCode::Success;
    uint64_t id = iot.getID();
    {
        Guard g(*mProtection);
        if (mTransID == id) {
            ++mExtendCount;
            g.unlock();
            LockOrderChecker::noteAcquired(this, id);
            return StatusCode::Success;
        }
    }
    checkOrder(this, id, &iot);
    {
        Guard g(*mProtection);
        acquireExclusiveLocked(g, id);
        ++mExtendCount;
        mTransID = id;
        mExtended = true;
    }
    iot.addExtendedLock(this);
    LockOrderChecker::noteAcquired(this, id);
    return StatusCode::Success;
}

bool ExtendingLockObject::TryLockExclusiveExtending(IOTracker& iot) {
    if (bypass) return true;
    uint64_t id = iot.getID();
    {
        Guard g(*mProtection);
        if (mTransID == id) {
            ++mExtendCount;
        } else {
            if (mLocked || !mPending.empty()) return false;
            acquireExclusiveLocked(g, id);  // free and no one queued: no wait
            ++mExtendCount;
            mTransID = id;
            mExtended = true;
            g.unlock();
            iot.addExtendedLock(this);
        }
    }
    // A try never waits, so it cannot close a cycle: only the hold is noted.
    LockOrderChecker::noteAcquired(this, id);
    return true;
}

StatusCode ExtendingLockObject::LockReleaseExtending() {
    if (bypass) return StatusCode::Success;
    {
        Guard g(*mProtection);
        ESA_ASSERT(this->isExclusive());
        ESA_ASSERT_OP(mExtendCount, >, 0);
        --mExtendCount;
        // Still extended: the lock now belongs to the transaction until commit.
        if (!mExtended && mExtendCount == 0) releaseExclusiveLocked();
    }
    LockOrderChecker::noteReleased(this);
    return StatusCode::Success;
}

StatusCode ExtendingLockObject::ReleaseHold(IOTracker& iot, bool giveBack) {
    if (bypass) return StatusCode::Success;
    {
        Guard g(*mProtection);
        ESA_ASSERT(this->isExclusive());
        ESA_ASSERT_OP(mExtendCount, >, 0);
        if (giveBack && mExtendCount == 1 && mExtended && mTransID == iot.getID()) {
            // Off the transaction's list before the lock can pass to another.
            iot.removeExtendedLock(this);
            mTransID = 0;
            mExtended = false;
        }
        --mExtendCount;
        if (!mExtended && mExtendCount == 0) releaseExclusiveLocked();
    }
    LockOrderChecker::noteReleased(this);
    return StatusCode::Success;
}

void ExtendingLockObject::CommitExtendedLock(IOTracker& iot) {
    if (bypass) return;
    ESA_ASSERT(iot.frontExtendedLock() == this);
    iot.removeExtendedLock(this);
    Guard g(*mProtection);
    ESA_ASSERT_OP(mTransID, ==, iot.getID());
    mTransID = 0;
    mExtended = false;
    // With a count left, a function is still inside its scope: its
    // LockReleaseExtending releases the lock.
    if (mExtendCount == 0) releaseExclusiveLocked();
}

void ExtendingLockObject::UnextendLock(IOTracker& iot) {
    if (bypass) return;
    bool unextend = false;
    {
        Guard g(*mProtection);
        ESA_ASSERT_OP(mTransID, ==, iot.getID());
        if (mExtendCount == 1) {
            mTransID = 0;
            mExtended = false;
            unextend = true;
        }
    }
    if (unextend) iot.removeExtendedLock(this);
}

bool ExtendingLockObject::isExtended() {
    Guard g(*mProtection);
    return mExtended;
}

uint64_t ExtendingLockObject::transID() {
    Guard g(*mProtection);
    return mTransID;
}

uint32_t ExtendingLockObject::extendCount() {
    Guard g(*mProtection);
    return mExtendCount;
}

void ExtendingLockObject::Dump(std::ostream& out, bool verbose) {
    Guard g(*mProtection, std::defer_lock);
    if (!bypass) g.lock();
    out << "ExtendingLockObject (" << mName << "): currently ";
    if (!mLocked) {
        out << "not locked\n";
    } else if (isExclusive()) {
        out << "LOCKED Exclusive by: " << lockTaskName(mOwner);
        if (mTransID) out << " for TransID " << mTransID << "\n";
        else out << " - not associated with a transaction\n";
    } else {
        out << "LOCKED Shared by:";
        for (const SharedHolder& h : mSharedHolders) {
            out << " " << lockTaskName(h.task);
            if (h.transId) out << " for TransID " << h.transId;
            else out << " - not associated with a transaction";
            if (h.count > 1) out << " (x" << h.count << ")";
        }
        out << "\n There are " << mSharedCount << " active shared locks\n";
    }
    if (mExtended) out << " Lock is currently extended for TransID " << mTransID << "\n";
    else out << " Lock is not currently extended\n";
    out << " Lock has " << mExtendCount << " current explicit user locks\n";
    if (verbose || !mPending.empty()) dumpWaiters(out);
}
