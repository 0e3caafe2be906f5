#pragma once
// MultiIssueTransport: the system's side of the multi-issue data path, the
// command and response rings at 0x2000 and 0x3000 of "/usbCmdResp". It owns
// the thread "multiTx", the pool of InterCoreSGLs in "/SGLD" (guarded by
// "lMultiIoSgl"), the table from request handle to live read (a handle is
// what a response hands the driver and its TD_CMD_RES_RELEASE hands back),
// and the semaphore that orders a read's response against its release.
//
// Invariants: an SGL is in use from its read's response until the request is
// freed; a handle names one live request; a request is freed exactly once.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <vector>

#include "host/TransportBuffers.h"
#include "host/TransportRing.h"
#include "platform/rtos/Rtos.h"
#include "platform/target/TargetDriverRecords.h"
#include "util/LockObject.h"
#include "util/StatusCode.h"

class MultiHostRequest;
class WJMemoryPool;

class MultiIssueTransport {
public:
    static MultiIssueTransport* GetInstance();

    StatusCode Initialize();
    bool initialised() const { return mInitialised; }

    // Waits one tick at a time for a free list.
    td::InterCoreSgl* allocSgl();
    void freeSgl(td::InterCoreSgl* sgl);
    uint32_t sglOffset(const td::InterCoreSgl* sgl) const { return uint32_t(reinterpret_cast<const uint8_t*>(sgl) - mSgld); }

    uint32_t addHandle(MultiHostRequest* request);
    void dropHandle(uint32_t handle);
    MultiHostRequest* lookUpHandle(uint32_t handle);

    void Dump(std::ostream& out);

    // ---- for the request objects
    SEM_ID releaseSem() const { return mReleaseSem; }
    TransportRing& ring() { return mRing; }
    const TransportPools& pools() const { return mPools; }
    WJMemoryPool& writePool() { return *mWritePool; }
    void noteRequestId(uint32_t id) {
        if (id > mHighestRequestId) mHighestRequestId = id;
    }

    std::atomic<int64_t> requestsLive{0};
    std::atomic<uint64_t> commands{0};
    std::atomic<uint64_t> releases{0};

private:
    MultiIssueTransport() : mSglLock("lMultiIoSgl", 0x60) {}
    void loop();

    bool mInitialised = false;
    TransportRing mRing;
    TransportPools mPools;
    uint8_t* mSgld = nullptr;
    uint32_t mSglCount = 0;
    LockObject mSglLock;  // "lMultiIoSgl"
    std::vector<td::InterCoreSgl*> mFreeSgls;
    std::mutex mHandleLock;
    std::vector<MultiHostRequest*> mHandles;  // index = handle - 1
    std::vector<uint32_t> mFreeHandles;
    SEM_ID mReleaseSem = nullptr;
    uint32_t mHighestRequestId = 0;
    WJMemoryPool* mWritePool = nullptr;
};
