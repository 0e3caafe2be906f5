#pragma once
// TdRing: the ring operations both sides of the data path rely on, over the
// rings of the "/usbCmdResp" region. The system consumes the command ring
// and produces the response ring; the target driver does the opposite. The
// order of operations is the contract:
//  - a command slot is given back only when the consumer asks for the next
//    one (the "processing" word), so the producer never overwrites the
//    command being worked on;
//  - a ring is full when (head + 1) mod 90 equals tail: it holds at most 89;
//  - head and tail are published with release ordering after the slot is
//    written, and read with acquire ordering before the slot is read.
// Response-ring producers serialise through a lock the caller supplies (the
// ring's own semaphore word on the board).
#include <atomic>
#include <cstdint>

#include "platform/target/TargetDriverRecords.h"

namespace td {

// The ring threads sleep on their semaphore in slices of this many ticks and
// look at the ring again after each: a finite wait, so that the stop flag
// is seen even if a wake-up is lost.
constexpr int kWaitSlice = 60;

inline uint32_t nextSlot(uint32_t i) { return (i + 1) % kRingSlots; }

// Producer side of the command ring (the target driver). False when full.
bool commandRingPut(CommandRing& ring, const CommandBlock& cmd);

// Consumer side of the command ring (the system). Gives back the slot taken
// last time, then takes the next: false and null when the ring is empty.
bool commandRingGetNext(CommandRing& ring, CommandBlock*& cmd);

// Producer side of the response ring (the system): the slot at head, or
// false when the ring is full (the caller waits a tick and tries again).
bool responseRingInsertPoint(ResponseRing& ring, CmdResp*& rsp);
// Publishes the slot obtained from responseRingInsertPoint.
void responseRingFinishInsert(ResponseRing& ring, uint32_t length);

// Consumer side of the response ring (the target driver): copies out the
// oldest response and frees its slot; false when empty.
bool responseRingTake(ResponseRing& ring, CmdResp& out);

uint32_t ringCount(const RingHeader& header);
// Polls a ring a short while for new entries; true as soon as there are.
bool spinForWork(const RingHeader& header);

// Wake-ups. A consumer about to sleep on its semaphore first raises its
// ring's sleeping word and looks at the ring once more; a producer gives the
// semaphore only when that word is up, so a busy consumer costs no wake-up.
// The word is the one each ring leaves unused: offset 8 of the command ring,
// offset 12 of the response ring. Both sides order the store and the load
// with a full fence, so a wake-up is never lost.
// Consumer: true when it may sleep (the ring is still empty).
bool prepareToSleep(Le32& sleepingWord, const RingHeader& header);
void awake(Le32& sleepingWord);
// Producer, after publishing an entry: true when the consumer must be woken.
bool consumerSleeping(Le32& sleepingWord);
inline Le32& commandRingSleepWord(CommandRing& r) { return r.header.semaphore; }
inline Le32& responseRingSleepWord(ResponseRing& r) { return r.header.processing; }
void ringReset(RingHeader& header);

}  // namespace td
