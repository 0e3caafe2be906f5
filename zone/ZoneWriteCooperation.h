#pragma once
// ZoneWriteCooperation: the write threads' slots, through which the thread
// that holds a line's stripe lock takes the bytes of the same line that a
// neighbouring write thread holds, so that the line is written whole without
// reading old data. One slot per write thread ("tWPThread0".."tWPThread9").
//
// Invariants: a slot's fields are read and changed only under the task lock
// (taken inside the slot's mutex for the short steps of recording, comparing
// and taking; never across I/O or while waiting for a line lock). A slot's
// range is active from recording until its owner's write is done. Others
// only shrink [currentStart, currentEnd), and only bytes of a line whose
// stripe lock they hold, so the owner (blocked on or not yet at that lock)
// sees the change when it gets the lock. A taken byte is written once, by
// the taker, under the line lock.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "util/DataWindow.h"

class ZoneWriteCooperation {
public:
    static constexpr unsigned kSlots = 10;
    static constexpr unsigned kMaxWaiters = 5;

    ZoneWriteCooperation();
    ~ZoneWriteCooperation();
    ZoneWriteCooperation(const ZoneWriteCooperation&) = delete;
    ZoneWriteCooperation& operator=(const ZoneWriteCooperation&) = delete;

    // The calling thread's slot, or -1 when it is no write thread.
    static int slotOfCaller();

    // Records the piece [pos, pos + len) of `zone` held in `window`, then
    // wakes the first waiter whose remaining piece ends at pos.
    void record(int slot, uint32_t zone, uint32_t pos, uint32_t len, DataWindow* window);
    // Under the line lock: what is left of the recorded piece. Returns false
    // when nothing is left (other threads took it all).
    bool remaining(int slot, uint32_t& start, uint32_t& end);
    // Takes from neighbouring slots the bytes that complete the lines of
    // [pos, pos + length): pos and length grow by what was taken, and the
    // active window gets the bytes in front or behind. Waits (bounded) once
    // for a neighbour that has not arrived.
    void completeLine(int slot, uint32_t zone, uint32_t line, uint32_t& pos, uint32_t& length, DataWindow& active);
    void clear(int slot);

    unsigned waiters() const { return mWaiters.load(); }
    // How many bytes cooperation has moved between threads (for Dump and tests).
    uint64_t bytesTaken() const { return mBytesTaken.load(); }
    uint64_t waits() const { return mWaits.load(); }
    void Dump(std::ostream& out);

private:
    struct Slot {
        uint8_t active = 0;
        uint8_t waiting = 0;
        uint32_t zone = 0;
        uint32_t recordedStart = 0, recordedEnd = 0;
        uint32_t currentStart = 0, currentEnd = 0;
        DataWindow* window = nullptr;
        SEM_ID mutex = nullptr;   // "ZM_mutex_<n>"
        SEM_ID wakeup = nullptr;  // given to wake a waiting owner
    };
    // Both ends, once; false for an end still missing.
    void takeMissing(int slot, uint32_t zone, uint32_t line, uint32_t& pos, uint32_t& length, DataWindow& active,
                     bool retry, bool& frontMissing, bool& endMissing);

    Slot mSlots[kSlots];
    std::atomic<unsigned> mWaiters{0};
    std::atomic<uint64_t> mBytesTaken{0};
    std::atomic<uint64_t> mWaits{0};
};
