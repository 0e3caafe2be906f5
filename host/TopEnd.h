#pragma once
// TopEnd: the one thread, "tHRHThread", that takes host requests off
// HRManager's `down` queue in order, gives each its transaction, and starts
// it on its way: a write into the write journal, a read onto the read queue
// for the read threads (or answered at once from the host LBA cache). The
// order in which requests leave `down` is the order in which they enter the
// journal and the read queue (mSequence). It also keeps the one-at-a-time
// mode, the throughput counts and their history.
//
// Invariants: the read queue is guarded by "lTopEnd" and its depth is
// mReadQueueDepth; the read semaphore counts its entries; the counts and
// flags are plain words written by one thread each.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "util/LockObject.h"
#include "util/StatusCode.h"

class ClientRequest;
class HRManager;
class WriteJournal;
class HostLbaTracker;

// Read-ahead to do after a read (the host LBA cache's read-ahead windows).
struct _readahead_element {
    uint32_t lun = 0;
    uint64_t lba = 0;
    uint32_t length = 0;
    uint32_t flags = 0;
};
static_assert(sizeof(_readahead_element) == 24);

class TopEnd {
public:
    static constexpr uint32_t kReadQueueLimit = 100;
    static constexpr unsigned kHistory = 120;

    static TopEnd* GetInstance();

    StatusCode Initialize();
    StatusCode LoadDiskPack();
    StatusCode UnloadDiskPack();

    void setOneAtATime();
    void clearOneAtATime() { mOneAtATime = false; }
    void setForceOneAtATime(bool on) { mForceOneAtATime = on; }
    bool oneAtATimeOn() const { return mOneAtATime || mForceOneAtATime; }
    void setDemoMode(bool on) { mDemoMode = on; }

    StatusCode ProcessHostRead(ClientRequest& request, unsigned long sequence);
    bool PopFromReadQueue(ClientRequest** request, _readahead_element& element, unsigned long* sequence);
    void ReleaseRequest(ClientRequest& request);
    void RecordThroughputHistory();
    SEM_ID readSemaphore() const { return mReadSem; }

    void throughput(std::ostream& out);
    void throughputHistory(std::ostream& out);
    void onAtATimeCount(std::ostream& out);
    uint32_t readQueueDepth() const { return mReadQueueDepth.load(); }

    std::atomic<uint64_t> mThrottledWrites{0};
    std::atomic<uint64_t> mOneAtATimeWrites{0};

private:
    TopEnd() : mLock("lTopEnd", 0x70) {}
    void HostRequestHandlerLoop();
    void handle(ClientRequest& request);

    struct ReadQueueEntry {
        ReadQueueEntry* next = nullptr;
        ReadQueueEntry* previous = nullptr;
        unsigned long sequence = 0;
        ClientRequest* request = nullptr;
        _readahead_element readahead;
    };

    std::atomic<unsigned long> mSequence{0};
    std::atomic<uint32_t> mReadQueueDepth{0};
    TASK_ID mThread = nullptr;
    HRManager* mHrm = nullptr;
    WriteJournal* mJournal = nullptr;
    HostLbaTracker* mCache = nullptr;
    LockObject mLock;  // "lTopEnd": the read queue
    ReadQueueEntry* mHead = nullptr;  // newest
    ReadQueueEntry* mTail = nullptr;  // oldest: the pop end
    SEM_ID mReadSem = nullptr;
    std::atomic<bool> mPackLoaded{false};
    bool mDemoMode = false;
    std::atomic<bool> mOneAtATime{true};
    std::atomic<bool> mForceOneAtATime{false};
    std::atomic<uint64_t> mReadBytes{0};
    std::atomic<uint64_t> mWriteBytes{0};
    uint8_t mReadHistory[kHistory] = {};
    uint8_t mWriteHistory[kHistory] = {};
    unsigned mHistoryIndex = 0;
    uint32_t mStampTick = 0;
    uint64_t mStampRead = 0;
    uint64_t mStampWrite = 0;
};
