#pragma once
// DiskQueue: the command queue of one disk and the loop its worker thread runs.
// Strict first-in first-out, no sorting or merging, exactly one command in
// flight. Any thread may push; only the worker issues commands to the driver.
// The queue mutex guards the list alone and is never held across a driver
// call. Once closing (shutdown), pushes fail with DiskNotPresent.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>

#include "disk/DiskRequest.h"
#include "util/PerfAccumulator.h"

class DiskQueue {
public:
    DiskQueue() = default;
    ~DiskQueue();
    DiskQueue(const DiskQueue&) = delete;
    DiskQueue& operator=(const DiskQueue&) = delete;

    // writesDone, when given, counts the writes the worker has finished (any status).
    StatusCode Initialize(int slot, std::atomic<uint64_t>* writesDone = nullptr);
    // Enqueues; 1 when queued, 0 when the queue is closing (status DiskNotPresent).
    int PushToQNoWait(__DiskQReqStruct* request);
    // Enqueues a synchronous request and waits for its completion.
    StatusCode PushToQ(__DiskQReqStruct* request);
    // The worker's loop; returns only on shutdown.
    void DoRequestLoop();
    // Ends every queued request with DM_DeviceTimeoutFlush and signals its owner.
    void FlushQ();
    void Shutdown();

    uint32_t GetDiskQueueDepth();
    uint32_t GetDiskQueueMaxDepth();    // reading resets it
    uint32_t GetDiskBusyPercentage();   // reading resets the counters
    void SetPositionDivisor(uint64_t sectors) { mPositionDivisor = sectors ? sectors : 1; }

    // Turns the driver's status into a StatusCode (fixed by the driver's numbering).
    StatusCode DiskErrHandler(__DiskQReqStruct* request, uint32_t driverStatus);
    void Dump(std::ostream& out);

private:
    void HandleRequest(__DiskQReqStruct* request);
    void complete(__DiskQReqStruct* request);
    __DiskQReqStruct* popHead();

    int mSlot = -1;
    std::atomic<uint64_t>* mWritesDone = nullptr;
    std::mutex mMutex;
    SEM_ID mSem = nullptr;
    __DiskQReqStruct* mHead = nullptr;
    __DiskQReqStruct* mTail = nullptr;
    uint32_t mDepth = 0;
    uint32_t mMaxDepth = 0;
    bool mClosing = false;
    std::atomic<bool> mShutdown{false};

    // Statistics; updated by the worker only (lost counts are accepted).
    std::atomic<uint64_t> mBusyUs{0}, mElapsedUs{0};
    uint64_t mLastLoopUs = 0;
    uint64_t mLastEnd = 0;
    uint64_t mPositionDivisor = 1ull << 27;
    DataAccumulator mSeek;
    uint32_t mPosition[32] = {};
    uint64_t mRequests = 0;
};
