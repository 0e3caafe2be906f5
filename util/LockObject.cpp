#include "util/LockObject.h"

#include "util/Assert.h"
#include "util/LockOrderChecker.h"

LockObject::LockObject(const char* name, unsigned long level) : QueuedLock(name, level, Kind::Plain) {
    mListPosition = LockProtection::GetInstance().add(this);
}

LockObject::~LockObject() { LockProtection::GetInstance().remove(this, mListPosition); }

void LockObject::LockExclusive() {
    if (bypass) return;
    LockOrderChecker::checkAcquire(this, 0, nullptr);
    {
        Guard g(*mProtection);
        acquireExclusiveLocked(g, 0);
    }
    LockOrderChecker::noteAcquired(this, 0);
}

void LockObject::lockExclusiveBriefChecked() {
    if (bypass) return;
    LockOrderChecker::checkAcquire(this, 0, nullptr);
    Guard g(*mProtection);
    if (takeBriefLocked()) g.release();  // the protection stays held until LockRelease or Lengthen
    else acquireExclusiveLocked(g, 0);
    LockOrderChecker::noteAcquired(this, 0);
}

void LockObject::Lengthen() {
    if (bypass) return;
    if (mBriefOwner.load(std::memory_order_relaxed) != currentLockTask()) return;  // an ordinary hold already
    mBriefOwner.store(0, std::memory_order_relaxed);
    mProtection->unlock();
}

void LockObject::LockShared() {
    if (bypass) return;
    LockOrderChecker::checkAcquire(this, 0, nullptr);
    {
        Guard g(*mProtection);
        acquireSharedLocked(g, 0);
        mSharedHolders.push_back(currentLockTask());
    }
    LockOrderChecker::noteAcquired(this, 0);
}

void LockObject::releaseOrdinary() {
    if (bypass) return;
    LockTask self = currentLockTask();
    {
        Guard g(*mProtection);
        if (isExclusive()) {
            ESA_ASSERT(mOwner == self);
            releaseExclusiveLocked();
        } else {
            size_t i = mSharedHolders.size();
            while (i > 0 && mSharedHolders[i - 1] != self) --i;
            ESA_ASSERT(i > 0);  // a release by a task that holds nothing
            mSharedHolders.erase(mSharedHolders.begin() + long(i - 1));
            releaseSharedLocked();
        }
    }
    LockOrderChecker::noteReleased(this);
}

bool LockObject::OwnsLock() {
    if (bypass) return true;
    LockTask self = currentLockTask();
    if (mBriefOwner.load(std::memory_order_relaxed) == self) return true;
    Guard g(*mProtection);
    if (!mLocked) return false;
    if (isExclusive()) return mOwner == self;
    for (LockTask t : mSharedHolders)
        if (t == self) return true;
    return false;
}

void LockObject::Dump(std::ostream& out, bool verbose) {
    Guard g(*mProtection, std::defer_lock);
    // The holder of a brief hold has the protection already.
    if (!bypass && mBriefOwner.load(std::memory_order_relaxed) != currentLockTask()) g.lock();
    out << "LockObject (" << mName << "): currently ";
    if (!mLocked) {
        out << "not locked\n";
    } else if (isExclusive()) {
        out << "LOCKED Exclusive by: " << lockTaskName(mOwner) << "\n";
    } else {
        out << "LOCKED Shared by:";
        for (LockTask t : mSharedHolders) out << " " << lockTaskName(t);
        out << "\n There are " << mSharedCount << " active shared locks\n";
    }
    if (verbose || !mPending.empty()) dumpWaiters(out);
}
