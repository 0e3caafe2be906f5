#include "host/MultiIssueTransport.h"

#include "host/HRManager.h"
#include "host/TransportRequests.h"
#include "platform/board/Board.h"
#include "util/WJMemoryPool.h"
#include "host/USBTransport.h"

namespace {
// One InterCoreSGL per request the two rings can hold at once.
constexpr uint32_t kSgls = 2 * td::kRingSlots;
}

MultiIssueTransport* MultiIssueTransport::GetInstance() {
    static MultiIssueTransport instance;
    return &instance;
}

StatusCode MultiIssueTransport::Initialize() {
    if (mInitialised) return StatusCode::InitFailed;
    Board& board = Board::GetInstance();
    auto* rings = static_cast<uint8_t*>(board.openRegion("/usbCmdResp", td::kRingRegionSize));
    size_t sgldSize = 0;
    mSgld = static_cast<uint8_t*>(board.openRegion("/SGLD", size_t(kSgls) * sizeof(td::InterCoreSgl), &sgldSize));
    mPools = TransportPools::open();
    if (rings == nullptr || mSgld == nullptr || mPools.journal == nullptr || mPools.readBuffer == nullptr)
        return StatusCode::InitFailed;
    mSglCount = uint32_t(sgldSize / sizeof(td::InterCoreSgl));
    for (uint32_t i = mSglCount; i-- > 0;)
        mFreeSgls.push_back(reinterpret_cast<td::InterCoreSgl*>(mSgld + size_t(i) * sizeof(td::InterCoreSgl)));
    mRing.attach(reinterpret_cast<td::CommandRing*>(rings + td::kMultiCommandRing),
                 reinterpret_cast<td::ResponseRing*>(rings + td::kMultiResponseRing),
                 semOpen("/multicommandsem", SEM_TYPE_BINARY, 0),
                 semOpen("/multmultiiresponsesem", SEM_TYPE_BINARY, 0));
    mReleaseSem = semBCreate(SEM_Q_FIFO, SEM_FULL);
    mWritePool = new WJMemoryPool(&USBTransport::freeWriteBuffer);
    mInitialised = true;
    taskSpawn("multiTx", 100, [this] { loop(); });
    HRManager::GetInstance()->registerTransport();
    return StatusCode::Success;
}

void MultiIssueTransport::loop() {
    for (;;) {
        while (!HRManager::GetInstance()->isLinkUp()) taskDelay(6);
        if (!mRing.waitForRequest()) continue;
        auto* r = new MultiHostRequest;
        r->rxDataIo();
    }
}

td::InterCoreSgl* MultiIssueTransport::allocSgl() {
    int attempts = 0;
    for (;;) {
        {
            LockObject::ExclusiveLockInstance g(&mSglLock);
            if (!mFreeSgls.empty()) {
                td::InterCoreSgl* s = mFreeSgls.back();
                mFreeSgls.pop_back();
                return s;
            }
        }
        waitForRoom(attempts);
    }
}

void MultiIssueTransport::freeSgl(td::InterCoreSgl* sgl) {
    LockObject::ExclusiveLockInstance g(&mSglLock);
    mFreeSgls.push_back(sgl);
}

uint32_t MultiIssueTransport::addHandle(MultiHostRequest* request) {
    std::lock_guard<std::mutex> g(mHandleLock);
    if (mFreeHandles.empty()) {
        mHandles.push_back(request);
        return uint32_t(mHandles.size());
    }
    uint32_t h = mFreeHandles.back();
    mFreeHandles.pop_back();
    mHandles[h - 1] = request;
    return h;
}

void MultiIssueTransport::dropHandle(uint32_t handle) {
    std::lock_guard<std::mutex> g(mHandleLock);
    if (handle == 0 || handle > mHandles.size() || mHandles[handle - 1] == nullptr) return;
    mHandles[handle - 1] = nullptr;
    mFreeHandles.push_back(handle);
}

MultiHostRequest* MultiIssueTransport::lookUpHandle(uint32_t handle) {
    std::lock_guard<std::mutex> g(mHandleLock);
    if (handle == 0 || handle > mHandles.size()) return nullptr;
    return mHandles[handle - 1];
}

void MultiIssueTransport::Dump(std::ostream& out) {
    size_t freeSgls;
    {
        LockObject::ExclusiveLockInstance g(&mSglLock);
        freeSgls = mFreeSgls.size();
    }
    out << "MultiIssueTransport: requests live " << requestsLive.load() << " SGLs in use " << (mSglCount - freeSgls)
        << "/" << mSglCount << " commands " << commands.load() << " releases " << releases.load()
        << " highest request id " << mHighestRequestId << " responses " << mRing.responsesSent()
        << " write stores out " << (mWritePool ? mWritePool->storesOut() : 0) << " bounced windows "
        << gBouncedWindows.load() << "\n";
}
