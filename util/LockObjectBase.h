#pragma once
// LockObjectBase: what all lock classes share: the name ("l", "e" or "r" for
// LockObject, ExtendingLockObject, ReentrantLockObject), the declared level
// (kept for dumps only: the order that is checked is the lock-order table of
// LockOrderChecker), and the global switches.
//
// `bypass` is set when the system is being dumped after an assertion, or
// around one console command in standby: every lock operation then returns at
// once and OwnsLock answers true, so that a dump never blocks on a lock that a
// halted thread holds. Code running with it set must expect torn state.
#include <atomic>
#include <ostream>
#include <string>

class LockObjectBase {
public:
    enum class Kind { Plain, Extending, Reentrant };

    static std::atomic<bool> bypass;

    LockObjectBase(const char* name, unsigned long level, Kind kind);
    virtual ~LockObjectBase() = default;
    LockObjectBase(const LockObjectBase&) = delete;
    LockObjectBase& operator=(const LockObjectBase&) = delete;

    const std::string& GetName() const { return mName; }
    unsigned long level() const { return mLevel; }
    Kind kind() const { return mKind; }
    virtual void Dump(std::ostream& out, bool verbose) = 0;

    // Test builds: how long a blocked waiter waits (real time) before the
    // lock's owner, transaction and waiters are dumped and the wait is
    // reported as a deadlock. Negative: wait for ever (production).
    static long waitLimitMs() { return sWaitLimitMs.load(std::memory_order_relaxed); }
    static void setWaitLimitMs(long ms) { sWaitLimitMs = ms; }

protected:
    void setName(const char* name) { mName = name ? name : ""; }
    // A waiter passed the wait limit: dump this lock and stop with an assertion.
    [[noreturn]] void reportStuckWait();

    std::string mName;
    unsigned long mLevel;
    Kind mKind;

private:
    static std::atomic<long> sWaitLimitMs;
};
