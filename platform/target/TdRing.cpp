#include "platform/target/TdRing.h"

#include <cstring>

namespace td {
namespace {

// Head and tail are 32-bit words in shared memory written by one side each:
// word-sized atomic access with acquire/release ordering.
uint32_t loadAcquire(const Le32& w) {
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(w.b), __ATOMIC_ACQUIRE);
}
void storeRelease(Le32& w, uint32_t v) {
    __atomic_store_n(reinterpret_cast<uint32_t*>(w.b), v, __ATOMIC_RELEASE);
}
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "ring words are shared little-endian words");

}  // namespace

bool commandRingPut(CommandRing& ring, const CommandBlock& cmd) {
    uint32_t head = loadAcquire(ring.header.head);
    uint32_t tail = loadAcquire(ring.header.tail);
    if (nextSlot(head) == tail) return false;
    std::memcpy(&ring.slots[head], &cmd, sizeof cmd);
    storeRelease(ring.header.head, nextSlot(head));
    return true;
}

bool commandRingGetNext(CommandRing& ring, CommandBlock*& cmd) {
    uint32_t head = loadAcquire(ring.header.head);
    uint32_t tail = loadAcquire(ring.header.tail);
    if (loadAcquire(ring.header.processing) != 0 && head != tail) {
        tail = nextSlot(tail);
        storeRelease(ring.header.tail, tail);
    }
    if (head != tail) {
        storeRelease(ring.header.processing, 1);
        cmd = &ring.slots[tail];
        return true;
    }
    cmd = nullptr;
    storeRelease(ring.header.processing, 0);
    return false;
}

bool responseRingInsertPoint(ResponseRing& ring, CmdResp*& rsp) {
    uint32_t head = loadAcquire(ring.header.head);
    if (nextSlot(head) == loadAcquire(ring.header.tail)) return false;
    rsp = &ring.slots[head];
    return true;
}

void responseRingFinishInsert(ResponseRing& ring, uint32_t length) {
    uint32_t head = loadAcquire(ring.header.head);
    ring.lengths[head] = length;
    storeRelease(ring.header.head, nextSlot(head));
}

bool responseRingTake(ResponseRing& ring, CmdResp& out) {
    uint32_t tail = loadAcquire(ring.header.tail);
    if (tail == loadAcquire(ring.header.head)) return false;
    std::memcpy(&out, &ring.slots[tail], sizeof out);
    storeRelease(ring.header.tail, nextSlot(tail));
    return true;
}

uint32_t ringCount(const RingHeader& h) {
    uint32_t head = loadAcquire(h.head), tail = loadAcquire(h.tail);
    return (head + kRingSlots - tail) % kRingSlots;
}

// A few microseconds: long enough to catch the next command of a queue-deep
// stream, short enough not to take the CPU from the threads that feed it.
constexpr int kSpinRounds = 64;
bool spinForWork(const RingHeader& h) {
    for (int i = 0; i < kSpinRounds; ++i) {
        if (loadAcquire(h.head) != loadAcquire(h.tail)) return true;
        __builtin_ia32_pause();
    }
    return false;
}

void ringReset(RingHeader& h) {
    storeRelease(h.head, 0);
    storeRelease(h.tail, 0);
    storeRelease(h.processing, 0);
    storeRelease(h.semaphore, 0);
}

bool prepareToSleep(Le32& word, const RingHeader& h) {
    __atomic_store_n(reinterpret_cast<uint32_t*>(word.b), 1, __ATOMIC_SEQ_CST);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    if (loadAcquire(h.head) != loadAcquire(h.tail)) {
        awake(word);
        return false;
    }
    return true;
}

void awake(Le32& word) { __atomic_store_n(reinterpret_cast<uint32_t*>(word.b), 0, __ATOMIC_SEQ_CST); }

bool consumerSleeping(Le32& word) {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return __atomic_load_n(reinterpret_cast<uint32_t*>(word.b), __ATOMIC_SEQ_CST) != 0;
}

}  // namespace td
