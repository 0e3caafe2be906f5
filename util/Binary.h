#pragma once
// Binary: a binary semaphore that parks one lock waiter. Created taken; the
// waiter takes it, the releasing holder gives it. Taken from ObjectPool<Binary>
// only when a waiter has to block.
//
// take() waits for ever in production. Test builds (ESA_LOCK_ORDER_CHECK) wait
// at most waitLimitMs() of real time and then report: a deadlock in a test
// shows the locks' owners instead of hanging the suite.
#include <condition_variable>
#include <mutex>

#include "include/ObjectPool.h"

class Binary : public ObjectPool<Binary> {
public:
    static constexpr size_t kPoolEntries = 256;
    // A waiter's semaphore, created taken; the pool is sized at first use.
    static Binary* Create();


    // True when given; false when the wait limit passed first (test builds).
    bool take(long limitMs);
    void give();

private:
    Binary() = default;
    std::mutex mLock;
    std::condition_variable mCv;
    bool mFull = false;
};
