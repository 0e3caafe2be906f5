#pragma once
// TrackerLock: the lock of a cache tracker's sets, trees and lists ("lZMDTLock"
// and the like). It is the fair LockObject of the lock layer, for everything
// that changes the sets or waits, plus a gate for the hit path: a hit that
// only looks (a plain tree descent and tries of range locks, never a wait)
// enters the gate instead of taking the lock shared. Entering is one atomic
// step on a counter line of the thread's own, so the hits of many threads
// share no cache line and no lock; a shared hold of the LockObject would make
// every hit of every thread write the same line twice.
//
// Invariants: while the lock is held exclusively the gate is closed and no
// reader is inside it (LockExclusive closes it and waits for the readers in
// it to leave; they never wait for anything while inside). A reader that
// finds the gate closed takes the lock shared instead, so it queues behind
// the exclusive holder as before and never overtakes it.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "util/LockObject.h"

class TrackerLock {
public:
    TrackerLock(const char* name, unsigned long level) : mLock(name, level) {}

    void LockExclusive() {
        mLock.LockExclusive();
        closeGate();
    }
    void LockShared() { mLock.LockShared(); }
    // Releases an exclusive or a shared hold taken here.
    void LockRelease() {
        // An exclusive hold is always this lock's closing of the gate.
        if (mLock.OwnsLock() && mLock.isExclusive()) mClosed.store(false, std::memory_order_release);
        mLock.LockRelease();
    }
    bool OwnsLock() { return mLock.OwnsLock(); }
    void Dump(std::ostream& out, bool verbose) { mLock.Dump(out, verbose); }

    // The hit path. True: the caller is inside the gate and must LeaveGate;
    // false: a writer holds the lock (take it shared instead).
    bool EnterGate() {
        std::atomic<uint32_t>& readers = mSlots[slot()].readers;
        readers.fetch_add(1, std::memory_order_seq_cst);
        if (!mClosed.load(std::memory_order_seq_cst)) return true;
        readers.fetch_sub(1, std::memory_order_release);
        return false;
    }
    void LeaveGate() { mSlots[slot()].readers.fetch_sub(1, std::memory_order_release); }

    class ExclusiveLockInstance {
    public:
        explicit ExclusiveLockInstance(TrackerLock* lock) : mLock(lock) { mLock->LockExclusive(); }
        ~ExclusiveLockInstance() { mLock->LockRelease(); }
        ExclusiveLockInstance(const ExclusiveLockInstance&) = delete;
        ExclusiveLockInstance& operator=(const ExclusiveLockInstance&) = delete;

    private:
        TrackerLock* mLock;
    };

private:
    void closeGate() {
        if (LockObjectBase::bypass) return;  // diagnostics after a fatal assertion: locks do nothing
        mClosed.store(true, std::memory_order_seq_cst);
        for (Slot& s : mSlots)
            for (unsigned spins = 0; s.readers.load(std::memory_order_seq_cst) != 0; ++spins)
                if (spins >= 64) taskDelay(0);  // a reader inside was preempted: let it run
    }
    static unsigned slot() {
        static std::atomic<unsigned> next{0};
        thread_local unsigned mine = next.fetch_add(1, std::memory_order_relaxed) % kSlots;
        return mine;
    }

    static constexpr unsigned kSlots = 16;
    struct alignas(64) Slot {
        std::atomic<uint32_t> readers{0};
    };
    LockObject mLock;
    Slot mSlots[kSlots];
    alignas(64) std::atomic<bool> mClosed{false};
};
