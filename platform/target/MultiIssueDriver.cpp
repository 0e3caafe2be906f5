#include "platform/target/MultiIssueDriver.h"

#include <cstring>

#include "platform/target/TdRing.h"
#include "util/Assert.h"

namespace {
// The context of a command carries its request id and the id's generation
// check word; the system hands it back unchanged.
constexpr uint32_t kContextMagic = 0x54474954;  // "TIGT"
}

MultiIssueDriver::MultiIssueDriver(const DriverRegions& regions, TargetBackend& fallback)
    : mRegions(regions), mFallback(fallback),
      mCommandSem(semOpen("/multicommandsem", SEM_TYPE_BINARY, 0)),
      mResponseSem(semOpen("/multmultiiresponsesem", SEM_TYPE_BINARY, 0)) {
    // One request id per command the rings can hold in both directions, and
    // one journal slot per request id.
    mRequests.resize(kRequestIds);
    ESA_ASSERT_OP(mRegions.journalSize, >=, kRequestIds * kJournalSlotBytes);
    for (size_t i = mRequests.size(); i-- > 0;) mFreeRequests.push_back(uint32_t(i));
}

MultiIssueDriver::~MultiIssueDriver() { stop(); }

void MultiIssueDriver::start() {
    mStopping = false;
    mRx = std::thread([this] { responseLoop(); });
}

void MultiIssueDriver::stop() {
    if (!mRx.joinable()) return;
    mStopping = true;
    semGive(mResponseSem);
    mRx.join();
}

uint32_t MultiIssueDriver::allocateRequest(TargetCommand& cmd) {
    std::unique_lock<std::mutex> g(mLock);
    mFreed.wait(g, [&] { return !mFreeRequests.empty(); });
    uint32_t id = mFreeRequests.back();
    mFreeRequests.pop_back();
    mRequests[id] = Request{&cmd, 0, true};
    cmd.backendHandle = id + 1;
    return id;
}

uint8_t* MultiIssueDriver::writeBuffer(TargetCommand& cmd) {
    uint32_t id = allocateRequest(cmd);
    return mRegions.journal + size_t(id) * kJournalSlotBytes;
}

bool MultiIssueDriver::flushPendingReleasesLocked() {
    bool posted = false;
    while (!mPendingReleases.empty() && td::commandRingPut(*mRegions.multiCommands, mPendingReleases.front())) {
        mPendingReleases.pop_front();
        posted = true;
    }
    return posted;
}

void MultiIssueDriver::post(const td::CommandBlock& block) {
    for (;;) {
        {
            std::lock_guard<std::mutex> g(mLock);
            flushPendingReleasesLocked();
            if (mPendingReleases.empty() && td::commandRingPut(*mRegions.multiCommands, block)) break;
        }
        std::this_thread::yield();  // the ring is full: the system is behind
    }
    if (td::consumerSleeping(td::commandRingSleepWord(*mRegions.multiCommands))) semGive(mCommandSem);
}

void MultiIssueDriver::submit(TargetCommand& cmd) {
    if (cmd.kind != TargetCommand::Kind::Read && cmd.kind != TargetCommand::Kind::Write) {
        mFallback.submit(cmd);
        return;
    }
    uint32_t id = cmd.backendHandle ? uint32_t(cmd.backendHandle - 1) : allocateRequest(cmd);
    td::CommandBlock b = {};
    b.flags = cmd.kind == TargetCommand::Kind::Write ? td::kCmdWrite : td::kCmdRead;
    b.lba = cmd.lba;
    b.length = cmd.blocks;
    b.tag = id;
    b.lun = uint8_t(cmd.lun);
    if (cmd.kind == TargetCommand::Kind::Write) {
        b.payloadLength = cmd.blocks * 512;
        b.writeData = uint32_t(size_t(id) * kJournalSlotBytes);
    }
    Le32 magic, idWord;
    magic = kContextMagic;
    idWord = id;
    std::memcpy(b.context, magic.b, 4);
    std::memcpy(b.context + 4, idWord.b, 4);
    post(b);
}

void MultiIssueDriver::responseLoop() {
    while (!mStopping) {
        td::CmdResp rsp;
        bool any = false;
        while (td::responseRingTake(*mRegions.multiResponses, rsp)) {
            complete(rsp);
            any = true;
        }
        bool posted;
        {
            std::lock_guard<std::mutex> g(mLock);
            posted = flushPendingReleasesLocked();
        }
        if (posted && td::consumerSleeping(td::commandRingSleepWord(*mRegions.multiCommands))) semGive(mCommandSem);
        if (any && td::spinForWork(mRegions.multiResponses->header)) continue;
        Le32& sleeping = td::responseRingSleepWord(*mRegions.multiResponses);
        if (td::prepareToSleep(sleeping, mRegions.multiResponses->header)) semTake(mResponseSem, td::kWaitSlice);
        td::awake(sleeping);
    }
}

void MultiIssueDriver::complete(const td::CmdResp& rsp) {
    uint32_t id = rsp.tag;
    TargetCommand* cmd = nullptr;
    {
        std::lock_guard<std::mutex> g(mLock);
        if (id < mRequests.size() && mRequests[id].inUse) {
            cmd = mRequests[id].cmd;
            mRequests[id].requestHandle = rsp.requestHandle;
        }
    }
    if (cmd == nullptr) return;  // a response for no command of ours: dropped
    cmd->status = rsp.rc == 0 ? StatusCode(StatusCode::Success) : StatusCode(rsp.status.get());
    if (cmd->status.ok() && rsp.type == td::kRespSgl) {
        const td::InterCoreSgl* sgl = mRegions.sgl(rsp.sgl);
        uint32_t n = std::min<uint32_t>(sgl->count, td::kSglMaxElements);
        for (uint32_t i = 0; i < n; ++i) {
            const uint8_t* p = mRegions.element(sgl->elements[i]);
            if (p == nullptr) {  // a buffer in neither pool: the read fails rather than send stray memory
                cmd->dataIn.clear();
                cmd->status = StatusCode::InternalError;
                break;
            }
            cmd->dataIn.push_back({p, sgl->elements[i].length});
        }
    }
    cmd->completion->commandDone(*cmd);
}

void MultiIssueDriver::release(TargetCommand& cmd) {
    if (cmd.backendHandle == 0) {
        mFallback.release(cmd);
        return;
    }
    uint32_t id = uint32_t(cmd.backendHandle - 1);
    uint32_t handle;
    {
        std::lock_guard<std::mutex> g(mLock);
        Request& r = mRequests[id];
        handle = r.requestHandle;
        r = Request{};
        mFreeRequests.push_back(id);
    }
    cmd.backendHandle = 0;
    mFreed.notify_all();
    if (cmd.kind == TargetCommand::Kind::Read && handle != 0) {
        td::CommandBlock b = {};
        b.flags = td::kCmdResRelease;
        b.tag = handle;
        // Never waits: a full command ring keeps the release for later.
        {
            std::lock_guard<std::mutex> g(mLock);
            flushPendingReleasesLocked();
            if (!mPendingReleases.empty() || !td::commandRingPut(*mRegions.multiCommands, b))
                mPendingReleases.push_back(b);
        }
        if (td::consumerSleeping(td::commandRingSleepWord(*mRegions.multiCommands))) semGive(mCommandSem);
    }
}
