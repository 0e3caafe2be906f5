#include "util/ReentrantLockObject.h"

#include "util/Assert.h"
#include "util/LockOrderChecker.h"

ReentrantLockObject::ReentrantLockObject(const char* name, unsigned long level)
    : LockObjectBase(name, level, Kind::Reentrant) {
    mListPosition = LockProtection::GetInstance().add(this);
}

ReentrantLockObject::~ReentrantLockObject() { LockProtection::GetInstance().remove(this, mListPosition); }

void ReentrantLockObject::Lock() {
    if (bypass) return;
    LockTask self = currentLockTask();
    bool reentry = mOwner.load(std::memory_order_relaxed) == self;
    if (!reentry) LockOrderChecker::checkAcquire(this, 0, nullptr);
    mMutex.lock();
    mOwner.store(self, std::memory_order_relaxed);
    ++mDepth;
    if (!reentry) LockOrderChecker::noteAcquired(this, 0);
}

void ReentrantLockObject::LockRelease() {
    if (bypass) return;
    ESA_ASSERT(mOwner.load(std::memory_order_relaxed) == currentLockTask());
    bool last = --mDepth == 0;
    if (last) mOwner.store(0, std::memory_order_relaxed);
    mMutex.unlock();
    if (last) LockOrderChecker::noteReleased(this);
}

bool ReentrantLockObject::OwnsLock() const {
    if (bypass) return true;
    return mOwner.load(std::memory_order_relaxed) == currentLockTask();
}

void ReentrantLockObject::Dump(std::ostream& out, bool) {
    LockTask owner = mOwner.load();
    out << "ReentrantLockObject (" << mName << "): currently ";
    if (owner) out << "LOCKED Exclusive by: " << lockTaskName(owner) << "\n";
    else out << "not locked\n";
}
