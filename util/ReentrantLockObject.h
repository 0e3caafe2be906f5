#pragma once
// ReentrantLockObject: a named mutex that the task holding it may take again.
// Held through LockInstance. The owner and depth are kept for dumps.
#include <atomic>
#include <mutex>
#include <ostream>

#include "util/LockProtection.h"
#include "util/LockTask.h"

class ReentrantLockObject : public LockObjectBase {
public:
    ReentrantLockObject(const char* name, unsigned long level);
    ~ReentrantLockObject() override;

    void Lock();
    void LockRelease();
    bool OwnsLock() const;
    void SetName(const char* name) { setName(name); }
    void Dump(std::ostream& out, bool verbose) override;

    class LockInstance {
    public:
        explicit LockInstance(ReentrantLockObject* lock) : mLock(lock) { mLock->Lock(); }
        ~LockInstance() { mLock->LockRelease(); }
        LockInstance(const LockInstance&) = delete;
        LockInstance& operator=(const LockInstance&) = delete;

    private:
        ReentrantLockObject* mLock;
    };

private:
    std::recursive_mutex mMutex;
    std::atomic<LockTask> mOwner{0};
    unsigned mDepth = 0;  // guarded by mMutex
    LockProtection::Registry::iterator mListPosition;
};
