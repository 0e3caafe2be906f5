#pragma once
// TransportRing: the system's side of one pair of rings of "/usbCmdResp" (a
// command ring it consumes and a response ring it produces) with the two
// named semaphores the target driver uses to wake each side. Several threads
// respond at once (tHRHThread, tRPThreads, write threads), so response
// inserts are serialised by the ring's own semaphore: taken by
// getNextResponseInsertPoint, given by finish or abort. The command ring has
// one consumer, the transport's receive thread.
#include <cstdint>

#include "platform/rtos/Rtos.h"
#include "platform/target/TargetDriverRecords.h"

// Waits for a full ring to drain: yields first, then a tick at a time.
void waitForRoom(int& attempts);

class TransportRing {
public:
    void attach(td::CommandRing* commands, td::ResponseRing* responses, SEM_ID commandSem, SEM_ID responseSem);
    bool attached() const { return mCommands != nullptr; }

    // UsbQueueGetNextRequest: gives back the slot taken last time and takes
    // the next; null when the ring is empty.
    bool getNextRequest(td::CommandBlock*& cmd);
    // The next command, copied out of its slot; waits until there is one.
    td::CommandBlock takeNextRequest();
    // Blocks on the command semaphore until the ring has a command; false
    // after a wait slice with none (the caller looks at its state and retries).
    bool waitForRequest();
    // UsbQueueGetNextResponseInsertPoint: takes the ring's semaphore; false
    // (semaphore given back) when the ring is full: the caller waits a tick.
    bool getNextResponseInsertPoint(td::CmdResp*& rsp);
    // UsbQueueFinishResponseInsert: publishes the slot, gives the semaphore,
    // and wakes the driver's response thread when it sleeps.
    void finishResponseInsert(uint32_t length);
    // UsbQueueAbortResponseInsert: nothing inserted.
    void abortResponseInsert();
    // Waits one tick at a time for a slot, then fills and publishes `rsp`.
    void respond(const td::CmdResp& rsp);

    uint32_t responsesSent() const { return mSent; }

private:
    td::CommandRing* mCommands = nullptr;
    td::ResponseRing* mResponses_ = nullptr;
    SEM_ID mCommandSem = nullptr;
    SEM_ID mResponseSem = nullptr;
    SEM_ID mInsertLock = nullptr;  // the response ring's semaphore
    uint32_t mSent = 0;
};
