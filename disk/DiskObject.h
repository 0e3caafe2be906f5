#pragma once
// DiskObject: one slot's disk, alive for the whole run whether a disk is
// present or not. It owns the slot's DiskQueue while a disk is initialised
// (null while shut down), a table of 32 synchronisation semaphores for
// synchronous callers (so no more than 32 can wait on one disk), the scratch
// sector, the test-read buffers, the disk's identity, capacity and state, and
// the activity ticks. State 8 (failed) survives Shutdown; any other state
// returns to 0 there. "HotPlugSerialLck" keeps an add and a remove of one slot
// from overlapping; "rDOLock<slot>" is held briefly to take or return a
// semaphore, and across Initialize and Shutdown.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>

#include "disk/DiskIdentifier.h"
#include "disk/DiskQueue.h"
#include "disk/DiskSGL.h"

class DiskObject {
public:
    enum DiskState : uint16_t { StateNone = 0, StateFailed = 8, StateUnderTest = 0x11, StateReady = 0xff };
    static constexpr int kSyncSemaphores = 32;
    static constexpr uint32_t kTestBlocks = 8;
    static constexpr uint32_t kDefaultTimeoutSeconds = 20;

    explicit DiskObject(int slot);
    ~DiskObject();

    bool Initialize();
    void Shutdown();
    bool verifyDiskIdentifier();
    // Reads (only) up to 8 sectors at a time through the queue; stops at the first failure.
    StatusCode ReadWriteSectorTest(uint64_t lba, uint32_t sectors);

    StatusCode ReadData(void* buffer, uint64_t lba, uint32_t sectors);
    StatusCode ReadSGLData(DiskSGL* list, uint64_t lba, uint32_t sectors);
    StatusCode WriteSGLData(DiskSGL* list, uint64_t lba, uint32_t sectors);
    // Fill the DiskSGL the caller put in request->data; push without waiting.
    StatusCode ReadDataNoWait(const DiskPane* panes, size_t paneCount, uint64_t lba, __DiskQReqStruct* request);
    StatusCode WriteDataNoWait(const DiskPane* panes, size_t paneCount, uint64_t lba, __DiskQReqStruct* request);
    // The same, except that an idle disk is claimed for the caller instead of
    // queueing the request: `claimed` is then the queue, and the caller must
    // serve the request with claimed->RunClaimed(request) (it is the last
    // request of a parallel batch, served while the workers serve the rest).
    StatusCode IssueOrClaim(bool write, const DiskPane* panes, size_t paneCount, uint64_t lba,
                            __DiskQReqStruct* request, DiskQueue*& claimed);
    // No write since the last good flush: DM_DiskAlreadyFlushed. With a
    // semaphore the flush is queued and given to it (call FlushCompleted after
    // the wait); without one it is waited for here.
    StatusCode FlushWriteCacheSync(__DiskQReqStruct* request, SEM_ID semaphore);
    void FlushCompleted(const __DiskQReqStruct* request);
    StatusCode FlushWriteCacheAsync(bool wake);
    StatusCode ResetDriveNoWait(__DiskQReqStruct* request);
    StatusCode SpinupDrive();
    StatusCode ResetPhysicalDrive();
    void SetDiskState(uint16_t state) { mState = state; }

    uint16_t state() const { return mState; }
    bool initialized() const { return mInitialized; }
    int slot() const { return mSlot; }
    uint64_t capacity() const { return mCapacity; }
    const DiskIdentifier& identifier() const { return mIdentifier; }
    DiskQueue* queue() { return mQueue.get(); }
    uint8_t temperature() const { return mTemperature; }
    void setTemperature(uint8_t t) { mTemperature = t; }
    uint32_t lastFlushSeconds() const { return mLastFlushSeconds; }
    uint64_t lastIoTick() const { return mLastIoTick; }
    std::mutex& hotPlugSerialLock() { return mHotPlugSerialLck; }
    void Dump(std::ostream& out);

private:
    StatusCode syncRequest(uint16_t command, void* data, uint64_t lba, uint32_t sectors, uint32_t timeout);
    StatusCode noWait(uint16_t command, const DiskPane* panes, size_t paneCount, uint64_t lba, __DiskQReqStruct* r,
                      DiskQueue** claimed = nullptr);
    int takeSemaphore();
    void giveSemaphore(int index);

    struct SyncSemaphore {
        bool free = true;
        SEM_ID sem = nullptr;
    };
    const int mSlot;
    SyncSemaphore mSemaphores[kSyncSemaphores];
    std::mutex mHotPlugSerialLck;     // "HotPlugSerialLck", level 0x25
    std::recursive_mutex mDOLock;     // "rDOLock<slot>", level 0x2a
    alignas(32) uint8_t mScratch[kSectorSize];
    std::unique_ptr<uint8_t[], void (*)(void*)> mTestBuffer{nullptr, nullptr};
    std::unique_ptr<DiskQueue> mQueue;
    std::atomic<bool> mInitialized{false};
    std::atomic<uint16_t> mState{StateNone};
    uint64_t mCapacity = 0;
    std::atomic<uint8_t> mTemperature{0};
    std::atomic<uint64_t> mLastIoTick{0}, mLastWriteTick{0}, mLastFlushRequestTick{0};
    std::atomic<uint32_t> mLastFlushSeconds{0};
    // Writes finished by the queue, and how many of them the last good flush
    // covered: "no write since the last flush" is decided on these counts, not
    // on ticks, which cannot tell a write from a flush in the same tick.
    std::atomic<uint64_t> mWritesDone{0}, mWritesFlushed{0};
    DiskIdentifier mIdentifier;
};
