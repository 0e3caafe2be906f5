#pragma once
// Dispatcher: the pool of worker threads that do the slow part of host I/O:
// ten write threads ("tWPThread0" to "tWPThread9") that take writes from the
// write journal and write them through the map, and six read threads
// ("tRPThread0" to "tRPThread5") that take reads from TopEnd's read queue
// and read them through the map. Also the mapping of write failures to what
// the host is told. The threads start at Initialize and never stop; they
// idle on their queues until a pack is loaded.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

class ClientRequest;

class Dispatcher {
public:
    static constexpr int kWriteThreads = 10;
    static constexpr int kReadThreads = 6;

    static Dispatcher* GetInstance();
    StatusCode Initialize();
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

    // What the host is told of a failed write: the space failures as "out of
    // space", anything else as a write error.
    static StatusCode hostWriteStatus(StatusCode status);

    void threadActivity(std::ostream& out);

private:
    Dispatcher() = default;
    void ProcessReadTransactions();
    void ProcessWriteTransactions();

    bool mStarted = false;
    SEM_ID mHoldOff = nullptr;
    std::atomic<uint16_t> mActiveWrites{0};
    std::atomic<uint16_t> mActiveReads{0};
    std::atomic<uint64_t> mReads{0};
    std::atomic<uint64_t> mWrites{0};
    std::atomic<uint64_t> mFailedWrites{0};
};
