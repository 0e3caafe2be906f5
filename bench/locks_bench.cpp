// The lock, transaction, event and buffer figures, each measured beside its
// standard-library reference in the same run:
//   locks.lockobject       uncontended LockObject take and release    ref std::mutex
//   locks.iotracker        IOTracker begin and commit, no journal      ref std::mutex
//   locks.newevent         EventManager::NewEvent                      ref std::mutex
//   locks.datawindow_copy  1 MiB out of a window of 32 KiB blocks      ref memcpy of 1 MiB
// Every figure is the best of several rounds, so a noisy machine still gives
// a fair ratio. The program never fails on a slow machine.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/rtos/Rtos.h"
#include "system/EventManager.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/LockOrderChecker.h"

namespace {
using Clock = std::chrono::steady_clock;

// Nanoseconds per operation of `op` run `n` times, the best of `rounds`.
template <class Op>
double bestNsPerOp(long n, int rounds, Op op) {
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        auto t0 = Clock::now();
        for (long i = 0; i < n; ++i) op();
        double ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / double(n);
        best = std::min(best, ns);
    }
    return best;
}

void figure(const char* name, double value, const char* unit, const char* refName, double ref) {
    std::printf("figure %s %.3f %s ref %s %.3f %s ratio %.3f\n", name, value, unit, refName, ref, unit,
                ref > 0 ? value / ref : 0.0);
}

std::mutex gRefMutex;
void mutexRoundTrip() {
    gRefMutex.lock();
    gRefMutex.unlock();
}

void noHandler(EVENT_TYPE, void*, unsigned long, void*) {}
}  // namespace

int main() {
    // Every thread of the system is a task.
    taskRegisterSelf("tLocksBench", 120);
    // The figures are of the production paths: no lock-order bookkeeping.
    LockOrderChecker::setEnabled(false);
    constexpr int kRounds = 7;
    double mutexNs = bestNsPerOp(2000000, kRounds, mutexRoundTrip);

    LockObject lock("lBenchLock", 0);
    double lockNs = bestNsPerOp(2000000, kRounds, [&] {
        lock.LockExclusive();
        lock.LockRelease();
    });
    figure("locks.lockobject", lockNs, "ns", "std::mutex", mutexNs);

    double trackerNs = bestNsPerOp(1000000, kRounds, [] {
        IOTracker t(READ_WRITE);
        t.commit();
    });
    figure("locks.iotracker", trackerNs, "ns", "std::mutex", mutexNs);

    EventManager* em = EventManager::GetInstance();
    em->Initialize();
    em->AddHandlerEnd(eSysInit, nullptr, noHandler);
    em->EnableEventHandling();
    double eventNs = bestNsPerOp(200000, kRounds, [em] { em->NewEvent(eSysInit, false, 1ul); });
    figure("locks.newevent", eventNs, "ns", "std::mutex", mutexNs);

    constexpr uint32_t kMiB = 1u << 20;
    DataWindow window(kMiB, 0, kMiB);  // 32 blocks of 32 KiB
    window.PatternFill(0x5A5AA5A5);
    std::vector<unsigned char> flat(kMiB), source(kMiB, 0x11);
    DataBuffer out{kMiB, flat.data()};
    double windowUs = bestNsPerOp(200, kRounds, [&] { window.Read(out); }) / 1000.0;
    double memcpyUs = bestNsPerOp(200, kRounds, [&] {
        std::memcpy(flat.data(), source.data(), kMiB);
        asm volatile("" ::: "memory");
    }) / 1000.0;
    figure("locks.datawindow_copy", windowUs, "us", "memcpy", memcpyUs);
    return 0;
}
