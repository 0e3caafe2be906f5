#pragma once
// LockOrderChecker: the lock-order check of test builds. It knows the system's
// lock order as chains, outermost first (pack, Zone layer, map and journal, J1
// replay, filesystem awareness); a lock named in a chain must never be taken
// while a lock later in the same chain is held. Names ending in '*' stand for
// every lock whose name starts with the rest (the range locks of a cache).
// Locks of different chains, and locks in no chain, are not ordered here.
//
// What a thread holds is kept per thread; what a transaction holds extended is
// kept by its IOTracker, since forks spread one transaction over several
// threads. An acquire that carries a tracker is checked against both.
//
// A violation is reported with both lock names and both holders: by default as
// a console line and a fatal assertion; tests may take the reports instead.
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class LockObjectBase;

class LockOrderChecker {
public:
    // One lock a transaction holds extended, as the checker sees it.
    struct TransactionLock {
        const LockObjectBase* lock;
        uint64_t transId;
    };

    static bool enabled() { return sEnabled.load(std::memory_order_relaxed); }
    static void setEnabled(bool on) { sEnabled = on; }

    // Called before `lock` is taken by the calling thread; transactionLocks are
    // the extended locks of the tracker the acquire carries, if any.
    static void checkAcquire(const LockObjectBase* lock, uint64_t transId,
                             const std::vector<TransactionLock>* transactionLocks) {
        if (enabled()) check(lock, transId, transactionLocks);
    }
    static void noteAcquired(const LockObjectBase* lock, uint64_t transId) {
        if (enabled()) noteHeld(lock, transId);
    }
    // Forgets one hold of `lock` by the calling thread (no-op if it has none).
    static void noteReleased(const LockObjectBase* lock) {
        if (enabled()) forget(lock);
    }
    // True when the calling thread holds `lock` (reentry of a reentrant lock).
    static bool threadHolds(const LockObjectBase* lock);

    // Position of a name in the order: chain and rank; false for no position.
    static bool position(const std::string& name, int& chain, int& rank);

    using Reporter = std::function<void(const std::string& report)>;
    // Replaces the reporter; returns the previous one. An empty one restores the default.
    static Reporter setReporter(Reporter reporter);

private:
    static void check(const LockObjectBase* lock, uint64_t transId,
                      const std::vector<TransactionLock>* transactionLocks);
    static void noteHeld(const LockObjectBase* lock, uint64_t transId);
    static void forget(const LockObjectBase* lock);

    static std::atomic<bool> sEnabled;
};
