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
void ringReset(RingHeader& header);

}  // namespace td
