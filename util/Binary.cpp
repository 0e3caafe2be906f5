#include "util/Binary.h"

#include <chrono>

Binary* Binary::Create() {
    static bool sized = (ObjectPool<Binary>::Initialize(kPoolEntries), true);
    (void)sized;
    return new Binary;
}

bool Binary::take(long limitMs) {
    std::unique_lock<std::mutex> l(mLock);
    if (limitMs < 0) {
        mCv.wait(l, [this] { return mFull; });
    } else if (!mCv.wait_for(l, std::chrono::milliseconds(limitMs), [this] { return mFull; })) {
        return false;
    }
    mFull = false;
    return true;
}

void Binary::give() {
    std::lock_guard<std::mutex> l(mLock);
    mFull = true;
    mCv.notify_one();
}
