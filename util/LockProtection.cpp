#include "util/LockProtection.h"

LockProtection& LockProtection::GetInstance() {
    // Never destroyed: locks with static storage unregister during exit.
    static LockProtection* instance = new LockProtection;
    return *instance;
}

LockProtection::Registry& LockProtection::listFor(LockObjectBase::Kind kind) {
    switch (kind) {
    case LockObjectBase::Kind::Plain: return mLockObjects;
    case LockObjectBase::Kind::Extending: return mExtendingLockObjects;
    case LockObjectBase::Kind::Reentrant: break;
    }
    return mReentrantLockObjects;
}

LockProtection::Registry::iterator LockProtection::add(LockObjectBase* lock) {
    std::lock_guard<std::mutex> g(mLock);
    Registry& r = listFor(lock->kind());
    return r.insert(r.end(), lock);
}

void LockProtection::remove(LockObjectBase* lock, Registry::iterator position) {
    std::lock_guard<std::mutex> g(mLock);
    listFor(lock->kind()).erase(position);
}

void LockProtection::forEach(const std::function<void(LockObjectBase&)>& visit) {
    std::lock_guard<std::mutex> g(mLock);
    for (Registry* r : {&mLockObjects, &mExtendingLockObjects, &mReentrantLockObjects})
        for (LockObjectBase* l : *r) visit(*l);
}
