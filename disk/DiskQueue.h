#pragma once
// DiskQueue: the command queue of one disk and the loop its worker thread runs.
// Strict first-in first-out, no sorting or merging, exactly one command in
// flight. Any thread may push. The queue mutex guards the list and the
// in-flight claim, and is never held across a driver call. Once closing
// (shutdown), pushes and claims fail with DiskNotPresent.
//
// Who issues a command: the worker, for everything queued; or a synchronous
// caller itself, when the disk is idle (nothing queued, nothing in flight):
// it claims the disk and runs its own request on its own thread, which saves
// the two thread hand-offs that otherwise make up most of a small I/O. The
// claim is the one-command-in-flight token: while it is held the worker takes
// nothing from the queue, and requests pushed meanwhile wait in order behind
// it, so no request ever overtakes another. Shutdown waits for a claim to end.
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
    // Claims an idle disk for a synchronous request: true when nothing is
    // queued or in flight and the queue is open; the caller must then call
    // RunClaimed. False leaves everything as it was (push it instead).
    bool ClaimIdle();
    // Serves a request on the calling thread under the claim, then gives the
    // claim back (waking the worker when requests queued meanwhile). No
    // semaphore is given: the caller is the waiter. The queue must not be
    // touched after this returns unless its owner keeps it alive.
    void RunClaimed(__DiskQReqStruct* request);
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
    // HandleRequest and the bookkeeping around it (write count, busy time, slow service).
    void serve(__DiskQReqStruct* request);
    void complete(__DiskQReqStruct* request);
    // Under mMutex: unlinks the head.
    __DiskQReqStruct* popHeadLocked();
    // The head, claimed for the worker; null when the queue is empty or a
    // caller's claim is in flight (`claimedElsewhere` tells which).
    __DiskQReqStruct* claimHead(bool& claimedElsewhere);
    void releaseClaim();

    int mSlot = -1;
    std::atomic<uint64_t>* mWritesDone = nullptr;
    std::mutex mMutex;
    SEM_ID mSem = nullptr;
    __DiskQReqStruct* mHead = nullptr;
    __DiskQReqStruct* mTail = nullptr;
    uint32_t mDepth = 0;
    uint32_t mMaxDepth = 0;
    bool mClosing = false;
    bool mInFlight = false;  // the claim: a command is being served (by the worker or a caller)
    std::atomic<bool> mShutdown{false};

    // Statistics; updated under the claim only (lost counts are accepted).
    std::atomic<uint64_t> mBusyUs{0};
    std::atomic<uint64_t> mIntervalStartUs{0};  // start of the busy-percentage interval
    uint64_t mLastEnd = 0;
    uint64_t mPositionDivisor = 1ull << 27;
    DataAccumulator mSeek;
    uint32_t mPosition[32] = {};
    uint64_t mRequests = 0;
};
