#pragma once
// MultiIssueDriver: the target driver's side of the multi-issue data path.
// Reads and writes leave as TD_COMMAND_BLOCKs on the command ring of
// "/usbCmdResp" (write data already in "/SHJ1", at the offset the block
// names), the system's tdCmdResps come back on the response ring, and read
// data are sent straight from the memory their InterCoreSGL describes. When
// the target has sent a read's data it posts TD_CMD_RES_RELEASE with the
// request handle, so the system may reuse the buffers.
//
// Owns: the table from request id to command, the journal slot of each id
// (write data are received into the slot of their command's id; each slot is
// as large as the largest command), and the response thread. Commands that do not
// travel on this ring (cache synchronisation and management, which belong on
// the command queue) go to the fallback backend.
//
// Invariant: a request id (and so its journal slot) is in use from
// writeBuffer or submit until release, and never given to two commands at once.
// A journal slot is free again when its command ends: right for a system that
// has taken the data out of "/SHJ1" by then (the ring responder).
//
// With the write-buffer partition (the appliance's own system behind the
// rings), write data are received into a buffer of the partition instead of
// a fixed slot, and the buffer passes to the system when the command is
// posted: the system gives it back to the partition when it is done with the
// data (which, with the host write journal, is after they are on disk). A
// command that is never posted (the host went away first) gives its buffer
// back at its release.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/rtos/Rtos.h"
#include "platform/target/DriverRegions.h"
#include "platform/target/TargetBackend.h"

class MultiIssueDriver : public TargetBackend {
public:
    static constexpr size_t kJournalSlotBytes = 0x400 * 512;  // the largest data command
    static constexpr uint32_t kRequestIds = 2 * td::kRingSlots;
    static constexpr size_t kJournalBytes = kRequestIds * kJournalSlotBytes;

    MultiIssueDriver(const DriverRegions& regions, TargetBackend& fallback);
    ~MultiIssueDriver() override;
    MultiIssueDriver(const MultiIssueDriver&) = delete;
    MultiIssueDriver& operator=(const MultiIssueDriver&) = delete;

    void start();
    void stop();
    // Write data into buffers of the write-buffer partition in "/SHJ1",
    // owned by the system once posted (call before start).
    void useWriteBufferPartition() { mPartition = true; }
    uint32_t partitionBuffersHeld();

    uint8_t* writeBuffer(TargetCommand& cmd) override;
    void submit(TargetCommand& cmd) override;
    void release(TargetCommand& cmd) override;
    void linkEvent(bool connected) override { mFallback.linkEvent(connected); }

private:
    struct Request {
        TargetCommand* cmd = nullptr;
        uint32_t requestHandle = 0;  // from the response, for the release
        bool inUse = false;
        uint8_t* buffer = nullptr;   // partition mode: the write's buffer, ours until posted
        uint32_t bufferBytes = 0;
        bool posted = false;
    };
    uint32_t allocateRequest(TargetCommand& cmd);  // waits while every id is in use
    void post(const td::CommandBlock& block);
    void responseLoop();
    void complete(const td::CmdResp& rsp);

    DriverRegions mRegions;
    TargetBackend& mFallback;
    SEM_ID mCommandSem;
    SEM_ID mResponseSem;
    std::mutex mLock;  // request table, journal slots, ring posting
    std::condition_variable mFreed;
    std::vector<Request> mRequests;
    std::vector<uint32_t> mFreeRequests;
    // Releases that found the command ring full. The response thread must
    // never wait for room in the command ring: the system side may itself be
    // waiting for room in the response ring, which only this thread drains.
    std::deque<td::CommandBlock> mPendingReleases;
    bool flushPendingReleasesLocked();
    std::thread mRx;
    std::atomic<bool> mStopping{false};
    bool mPartition = false;
};
