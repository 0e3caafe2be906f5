#include "platform/target/MultiIssueDriver.h"

#include <cstring>

#include "platform/target/TdRing.h"
#include "util/Assert.h"
#include "util/WriteBuffer.h"

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
    for (size_t i = mRequests.size(); i-- > 0;) mFreeRequests.push_back(uint32_t(i));
}

MultiIssueDriver::~MultiIssueDriver() { stop(); }

void MultiIssueDriver::start() {
    if (!mPartition) ESA_ASSERT_OP(mRegions.journalSize, >=, kRequestIds * kJournalSlotBytes);
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
    if (!mPartition) return mRegions.journal + size_t(id) * kJournalSlotBytes;
    uint32_t bytes = cmd.blocks * 512;
    uint8_t* buf = bytes ? WriteBuffer::GetInstance().AllocateBuffer(bytes, true) : nullptr;
    std::lock_guard<std::mutex> g(mLock);
    mRequests[id].buffer = buf;
    mRequests[id].bufferBytes = buf ? bytes : 0;
    return buf;  // null: the target receives into its own memory, copied at submit
}

uint32_t MultiIssueDriver::partitionBuffersHeld() {
    std::lock_guard<std::mutex> g(mLock);
    uint32_t n = 0;
    for (const Request& r : mRequests)
        if (r.inUse && r.buffer && !r.posted) ++n;
    return n;
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
        if (!mPartition) {
            b.writeData = uint32_t(size_t(id) * kJournalSlotBytes);
        } else {
            uint8_t* buf;
            {
                std::lock_guard<std::mutex> g(mLock);
                buf = mRequests[id].buffer;
            }
            uint32_t bytes = cmd.blocks * 512;
            if (buf == nullptr && bytes > 0) {
                buf = WriteBuffer::GetInstance().AllocateBuffer(bytes, true);
                if (buf) std::memcpy(buf, cmd.dataOut, bytes);
            }
            std::lock_guard<std::mutex> g(mLock);
            mRequests[id].buffer = nullptr;  // the system's from here on
            mRequests[id].posted = true;
            b.writeData = buf ? uint32_t(buf - mRegions.journal) : 0;
            if (buf == nullptr) b.payloadLength = 0;  // no buffer: the system refuses the write
        }
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
    uint8_t* unposted = nullptr;
    uint32_t unpostedBytes = 0;
    {
        std::lock_guard<std::mutex> g(mLock);
        Request& r = mRequests[id];
        handle = r.requestHandle;
        unposted = r.buffer;
        unpostedBytes = r.bufferBytes;
        r = Request{};
        mFreeRequests.push_back(id);
    }
    // A write buffer that never reached the system goes back to the partition here.
    if (unposted) WriteBuffer::GetInstance().FreeBuffer(unposted, unpostedBytes);
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
