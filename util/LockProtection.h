#pragma once
// LockProtection: the registry of every live lock object, for dumps. It holds
// the mutex "lLockProtection" and three lists (LockObject,
// ExtendingLockObject, ReentrantLockObject); each lock adds itself when it is
// constructed and removes itself when it is destroyed, so the mutex is taken
// only then and by dumps, never on a lock's acquire or release.
#include <functional>
#include <list>
#include <mutex>

#include "util/LockObjectBase.h"

class LockProtection {
public:
    using Registry = std::list<LockObjectBase*>;

    static LockProtection& GetInstance();
    std::mutex& GetProtectionLock() { return mLock; }

    Registry::iterator add(LockObjectBase* lock);
    void remove(LockObjectBase* lock, Registry::iterator position);
    // Calls `visit` for every live lock, with the registry locked.
    void forEach(const std::function<void(LockObjectBase&)>& visit);
    // The same, unless the registry is busy (a halted thread may hold it): false then.
    bool tryForEach(const std::function<void(LockObjectBase&)>& visit);

private:
    LockProtection() = default;
    Registry& listFor(LockObjectBase::Kind kind);

    std::mutex mLock;  // "lLockProtection"
    Registry mLockObjects, mExtendingLockObjects, mReentrantLockObjects;
};
