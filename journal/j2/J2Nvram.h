#pragma once
// J2Nvram: the one way J2 stores to battery-backed memory. Atomicity of a set
// over several journalettes rests on the order of these stores (the record
// body, the next record's head cleared, `clean`, then the marks slot by
// slot), so each store is finished, with a release fence, before the next
// begins, and none is merged or reordered by the compiler.
//
// Every store, and every disk write or flush of a spill, is a named cut
// point: CrashPoint(name) ends the process there when armed, and a test hook
// decides whether power is still on. Once the hook has said "off", later
// stores are dropped, exactly as if the board had lost power at that point.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <atomic>
#include <functional>

#include "util/CrashPoint.h"
#include "util/Endian.h"

class J2Nvram {
public:
    // The test hook: called at every cut point with its name; returns false
    // when power is off from this point on.
    using CutHook = std::function<bool(const char* point)>;
    static void setCutHook(CutHook hook);

    // True when the work at `point` may go ahead (power is on). With no test
    // hook and no crash point armed, that is one test of two flags.
    static bool reached(const char* point) {
        if (!sHooked.load(std::memory_order_relaxed) && !crashPointArmed()) return true;
        return reachedChecked(point);
    }

    // The small stores are inline: a commit makes half a dozen of them.
    static void store16(void* at, uint16_t value, const char* point) {
        if (!reached(point)) return;
        putLE16(static_cast<uint8_t*>(at), value);
        std::atomic_thread_fence(std::memory_order_release);
    }
    static void store32(void* at, uint32_t value, const char* point) {
        if (!reached(point)) return;
        putLE32(static_cast<uint8_t*>(at), value);
        std::atomic_thread_fence(std::memory_order_release);
    }
    static void store64(void* at, uint64_t value, const char* point) {
        if (!reached(point)) return;
        putLE64(static_cast<uint8_t*>(at), value);
        std::atomic_thread_fence(std::memory_order_release);
    }
    static void storeBytes(void* at, const void* from, size_t bytes, const char* point);
    // A small record of fixed size (a transaction entry, a cleared head), in
    // one inline copy.
    template <class Record>
    static void storeRecord(void* at, const Record& record, const char* point) {
        if (!reached(point)) return;
        std::memcpy(at, &record, sizeof record);
        std::atomic_thread_fence(std::memory_order_release);
    }
    static void zero(void* at, size_t bytes, const char* point);

private:
    static bool reachedChecked(const char* point);
    static inline std::atomic<bool> sHooked{false};
};
