#include "host/TransportRing.h"

#include <cstring>
#include <thread>

#include "platform/target/TdRing.h"

void TransportRing::attach(td::CommandRing* commands, td::ResponseRing* responses, SEM_ID commandSem,
                           SEM_ID responseSem) {
    mCommands = commands;
    mResponses_ = responses;
    mCommandSem = commandSem;
    mResponseSem = responseSem;
    mInsertLock = semBCreate(SEM_Q_FIFO, SEM_FULL);
}

bool TransportRing::getNextRequest(td::CommandBlock*& cmd) { return td::commandRingGetNext(*mCommands, cmd); }

td::CommandBlock TransportRing::takeNextRequest() {
    td::CommandBlock* slot = nullptr;
    while (!getNextRequest(slot)) waitForRequest();
    return *slot;
}

bool TransportRing::waitForRequest() {
    if (td::ringCount(mCommands->header) != 0) return true;
    if (td::spinForWork(mCommands->header)) return true;
    Le32& sleeping = td::commandRingSleepWord(*mCommands);
    if (td::prepareToSleep(sleeping, mCommands->header)) semTake(mCommandSem, td::kWaitSlice);
    td::awake(sleeping);
    return td::ringCount(mCommands->header) != 0;
}

bool TransportRing::getNextResponseInsertPoint(td::CmdResp*& rsp) {
    semTake(mInsertLock, WAIT_FOREVER);
    if (!td::responseRingInsertPoint(*mResponses_, rsp)) {
        semGive(mInsertLock);
        // The driver drains the ring: make sure it is awake.
        semGive(mResponseSem);
        return false;
    }
    return true;
}

void TransportRing::finishResponseInsert(uint32_t length) {
    td::responseRingFinishInsert(*mResponses_, length);
    ++mSent;
    semGive(mInsertLock);
    if (td::consumerSleeping(td::responseRingSleepWord(*mResponses_))) semGive(mResponseSem);
}

void TransportRing::abortResponseInsert() { semGive(mInsertLock); }

// The driver drains a full ring within microseconds of being woken, and a
// board tick is 16 ms: a full ring is first waited out by yielding, and a
// tick at a time only when it stays full.
void waitForRoom(int& attempts) {
    if (++attempts < 1000)
        std::this_thread::yield();
    else
        taskDelay(1);
}

void TransportRing::respond(const td::CmdResp& rsp) {
    td::CmdResp* slot = nullptr;
    int attempts = 0;
    while (!getNextResponseInsertPoint(slot)) waitForRoom(attempts);
    std::memcpy(slot, &rsp, sizeof rsp);
    finishResponseInsert(sizeof rsp);
}
