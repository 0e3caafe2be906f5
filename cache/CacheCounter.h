#pragma once
// CacheCounter: one statistic of a cache (hits, reads, evictions...), counted
// on every operation by every thread. Each thread adds to a slot of its own
// cache line, so that counting never makes the threads' cache hits contend
// for one line; a reader adds the slots up. A slot is counted with a plain
// load and store, not a locked step (three of those cost a cache hit a tenth
// of its time): exact while no more than 16 threads count at once, and a
// statistic may lose a count when two threads that share a slot count at the
// same moment.
#include <atomic>
#include <cstdint>

class CacheCounter {
public:
    void operator++() {
        std::atomic<uint64_t>& v = mSlots[slot()].value;
        v.store(v.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    uint64_t load() const {
        uint64_t sum = 0;
        for (const Slot& s : mSlots) sum += s.value.load(std::memory_order_relaxed);
        return sum;
    }
    operator uint64_t() const { return load(); }
    // Only 0 is meaningful (ClearStats).
    void store(uint64_t) {
        for (Slot& s : mSlots) s.value.store(0, std::memory_order_relaxed);
    }

private:
    static constexpr unsigned kSlots = 16;
    struct alignas(64) Slot {
        std::atomic<uint64_t> value{0};
    };
    static unsigned slot() {
        static std::atomic<unsigned> next{0};
        thread_local unsigned mine = next.fetch_add(1, std::memory_order_relaxed) % kSlots;
        return mine;
    }
    Slot mSlots[kSlots];
};
