#include "platform/rtos/RtosTimer.h"

#include "platform/rtos/BoardClock.h"

RtosTimer::RtosTimer(const std::string& taskName, int priority) {
    taskSpawn(taskName, priority, [this] { run(); });
}

RtosTimer::~RtosTimer() {
    std::unique_lock<std::mutex> l(mLock);
    mStopping = true;
    mChanged.notify_all();
    mStoppedCv.wait(l, [this] { return mStopped; });
}

void RtosTimer::connect(Handler handler) {
    std::lock_guard<std::mutex> g(mLock);
    mHandler = std::move(handler);
}

void RtosTimer::settime(uint64_t initialTicks, uint64_t intervalTicks) {
    std::lock_guard<std::mutex> g(mLock);
    mDeadlineNs = initialTicks ? BoardClock::GetInstance().nanoseconds() + BoardClock::ticksToNs(initialTicks) : 0;
    mIntervalNs = BoardClock::ticksToNs(intervalTicks);
    mGeneration++;
    mChanged.notify_all();
}

bool RtosTimer::armed() {
    std::lock_guard<std::mutex> g(mLock);
    return mDeadlineNs != 0;
}

uint64_t RtosTimer::expiries() {
    std::lock_guard<std::mutex> g(mLock);
    return mExpiries;
}

void RtosTimer::run() {
    BoardClock& clock = BoardClock::GetInstance();
    std::unique_lock<std::mutex> l(mLock);
    while (!mStopping) {
        if (mDeadlineNs == 0) {
            mChanged.wait(l, [this] { return mStopping || mDeadlineNs != 0; });
            continue;
        }
        uint64_t generation = mGeneration;
        uint64_t deadline = mDeadlineNs;
        bool changed = clock.waitUntil(l, mChanged, deadline,
                                       [this, generation] { return mStopping || mGeneration != generation; });
        if (changed) continue;
        // Expired with the setting unchanged.
        mExpiries++;
        mDeadlineNs = mIntervalNs ? deadline + mIntervalNs : 0;
        Handler handler = mHandler;
        l.unlock();
        if (handler) handler();
        l.lock();
    }
    mStopped = true;
    mStoppedCv.notify_all();
}
