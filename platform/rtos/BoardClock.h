#pragma once
// BoardClock: the one clock of the simulated board. Every tick, timebase and
// calendar reading of the system comes from here.
//
// Modes (ESA_CLOCK): "real" follows the host's monotonic clock; "virtual" moves
// only when a test calls advance(); "accel:N" runs N times faster than real time.
// Invariants: board time never runs backwards; every timed wait in the platform
// layer is measured in board time, so a virtual clock turns a 5 s debounce into
// a test step that takes no real time.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

class BoardClock {
public:
    enum class Mode { Real, Virtual, Accelerated };
    static constexpr unsigned kTicksPerSecond = 60;

    static BoardClock& GetInstance();

    // Reconfigures the clock; board time continues from where it stands.
    void configure(Mode mode, double factor = 1.0);
    void configureFromText(const std::string& text);  // "real", "virtual", "accel:N"
    Mode mode() const { return mSetting.load(std::memory_order_acquire)->mode; }
    double factor() const { return mSetting.load(std::memory_order_acquire)->factor; }

    uint64_t nanoseconds() const;  // board time since the board started
    uint64_t ticks() const { return nanoseconds() / (1000000000ull / kTicksPerSecond); }
    uint64_t microseconds() const { return nanoseconds() / 1000; }

    // Calendar time: the host's wall clock at start plus board time elapsed,
    // moved by setRealtime() (clock_settime on the board).
    timespec realtime() const;
    void setRealtime(const timespec& ts);

    // Virtual mode only: moves board time forward and wakes timed waits.
    void advance(uint64_t ticks);
    void advanceNanoseconds(uint64_t ns);

    // Sleeps for the given board time.
    void sleepTicks(uint64_t ticks);

    // Waits on cv (lock held) until pred() or board time reaches deadlineNs.
    // Returns pred() at the end.
    template <class Pred>
    bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   uint64_t deadlineNs, Pred pred) {
        while (!pred()) {
            uint64_t now = nanoseconds();
            if (now >= deadlineNs) return pred();
            cv.wait_for(lock, realSliceFor(deadlineNs - now));
        }
        return true;
    }

    static uint64_t ticksToNs(uint64_t ticks) { return ticks * (1000000000ull / kTicksPerSecond); }

private:
    BoardClock();
    std::chrono::nanoseconds realSliceFor(uint64_t boardNs) const;

    // Every reading of the clock is lock-free: a setting is immutable once
    // published, and a reconfiguration publishes a new one (old ones are kept,
    // so a reader never sees freed memory; there are only a handful in a run).
    struct Setting {
        Mode mode;
        double factor;
        std::chrono::steady_clock::time_point realBase;  // real time at which boardBase was board time
        uint64_t boardBase;
    };
    std::atomic<const Setting*> mSetting{nullptr};
    std::mutex mConfigureLock;
    std::atomic<uint64_t> mVirtualNs{0};
    std::atomic<int64_t> mRealtimeOffsetNs{0};
    int64_t mWallAtStartNs = 0;
};
