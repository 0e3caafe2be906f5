#include "platform/rtos/BoardClock.h"

#include <cstdlib>
#include <thread>

BoardClock& BoardClock::GetInstance() {
    static BoardClock instance;
    return instance;
}

BoardClock::BoardClock() {
    mRealBase = std::chrono::steady_clock::now();
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    mWallAtStartNs = int64_t(ts.tv_sec) * 1000000000ll + ts.tv_nsec;
    if (const char* env = std::getenv("ESA_CLOCK")) configureFromText(env);
}

void BoardClock::configureFromText(const std::string& text) {
    if (text == "virtual") {
        configure(Mode::Virtual);
    } else if (text.rfind("accel:", 0) == 0) {
        double f = std::atof(text.c_str() + 6);
        configure(Mode::Accelerated, f > 0 ? f : 1.0);
    } else {
        configure(Mode::Real);
    }
}

void BoardClock::configure(Mode mode, double factor) {
    uint64_t now = nanoseconds();
    std::lock_guard<std::mutex> g(mLock);
    mMode = mode;
    mFactor = mode == Mode::Accelerated ? factor : 1.0;
    mRealBase = std::chrono::steady_clock::now();
    mBoardBase = now;
    mVirtualNs = now;
}

uint64_t BoardClock::nanoseconds() const {
    std::lock_guard<std::mutex> g(mLock);
    if (mMode == Mode::Virtual) return mVirtualNs;
    auto real = std::chrono::steady_clock::now() - mRealBase;
    double ns = double(std::chrono::duration_cast<std::chrono::nanoseconds>(real).count()) * mFactor;
    return mBoardBase + uint64_t(ns);
}

timespec BoardClock::realtime() const {
    int64_t ns = mWallAtStartNs + int64_t(nanoseconds());
    {
        std::lock_guard<std::mutex> g(mLock);
        ns += mRealtimeOffsetNs;
    }
    timespec ts;
    ts.tv_sec = ns / 1000000000ll;
    ts.tv_nsec = ns % 1000000000ll;
    return ts;
}

void BoardClock::setRealtime(const timespec& ts) {
    int64_t wanted = int64_t(ts.tv_sec) * 1000000000ll + ts.tv_nsec;
    int64_t base = mWallAtStartNs + int64_t(nanoseconds());
    std::lock_guard<std::mutex> g(mLock);
    mRealtimeOffsetNs = wanted - base;
}

void BoardClock::advance(uint64_t ticks) { advanceNanoseconds(ticksToNs(ticks)); }

void BoardClock::advanceNanoseconds(uint64_t ns) {
    std::lock_guard<std::mutex> g(mLock);
    if (mMode == Mode::Virtual) mVirtualNs += ns;
}

std::chrono::nanoseconds BoardClock::realSliceFor(uint64_t boardNs) const {
    // A virtual clock only moves when a test advances it, and that wakes no
    // condition variable, so virtual waits poll in short real slices. Other
    // waits sleep at most 200 ms at a time (a WAIT_FOREVER deadline is far
    // beyond what a duration can hold).
    if (mMode == Mode::Virtual) return std::chrono::microseconds(500);
    constexpr double kLongest = 200e6;
    double real = double(boardNs) / mFactor;
    if (!(real < kLongest)) return std::chrono::nanoseconds(uint64_t(kLongest));
    return std::chrono::nanoseconds(uint64_t(real) + 1);
}

void BoardClock::sleepTicks(uint64_t ticks) {
    std::mutex m;
    std::condition_variable cv;
    std::unique_lock<std::mutex> lock(m);
    uint64_t deadline = nanoseconds() + ticksToNs(ticks);
    waitUntil(lock, cv, deadline, [] { return false; });
}
