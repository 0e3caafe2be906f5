#pragma once
// RtosTimer: a one-shot or repeating timer on the board clock, in ticks. Its
// handler runs on the timer's own task (named at creation), never on the
// thread that armed it. Re-arming replaces the previous setting; cancelling
// stops a pending expiry; a handler that is already running finishes.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/rtos/Rtos.h"

class RtosTimer {
public:
    using Handler = std::function<void()>;

    RtosTimer(const std::string& taskName, int priority);
    ~RtosTimer();
    RtosTimer(const RtosTimer&) = delete;
    RtosTimer& operator=(const RtosTimer&) = delete;

    void connect(Handler handler);
    // First expiry after `initialTicks` (0 disarms), then every
    // `intervalTicks` (0: one shot).
    void settime(uint64_t initialTicks, uint64_t intervalTicks);
    void cancel() { settime(0, 0); }
    bool armed();
    uint64_t expiries();

private:
    void run();

    std::mutex mLock;
    std::condition_variable mChanged;
    Handler mHandler;
    uint64_t mDeadlineNs = 0;  // 0: disarmed
    uint64_t mIntervalNs = 0;
    uint64_t mGeneration = 0;
    uint64_t mExpiries = 0;
    bool mStopping = false;
    bool mStopped = false;
    std::condition_variable mStoppedCv;
};
