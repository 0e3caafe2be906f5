#pragma once
// Mutex: the protection of one lock object, with a name. Lock objects are
// counted in thousands (one per cached range), so mutexes come from
// ObjectPool<Mutex>; the pool is sized at first use.
//
// A protection is held for a few dozen instructions at a time (the state of
// one lock object, never across a wait: waiters park on their own Binary), so
// it is a spin lock: taking it is one atomic exchange, giving it back one
// release store, where a platform mutex costs two atomic steps. A taker that
// finds it held spins briefly, then yields the processor, so that a holder
// that was preempted gets to run.
#include <atomic>
#include <string>

#include "include/ObjectPool.h"

class Mutex : public ObjectPool<Mutex> {
public:
    static constexpr size_t kPoolEntries = 13000;

    // Sizes the pool before the first mutex is made.
    static Mutex* Create(const std::string& name);

    void lock() {
        if (!mHeld.exchange(true, std::memory_order_acquire)) return;
        lockContended();
    }
    void unlock() { mHeld.store(false, std::memory_order_release); }
    bool try_lock() { return !mHeld.load(std::memory_order_relaxed) && !mHeld.exchange(true, std::memory_order_acquire); }
    const std::string& name() const { return mName; }

private:
    explicit Mutex(const std::string& name) : mName(name) {}
    void lockContended();
    std::atomic<bool> mHeld{false};
    std::string mName;
};
