#include "platform/target/RamRingResponder.h"

#include <cstring>

#include "platform/target/CommandQueueDriver.h"
#include "platform/target/ScsiResponder.h"
#include "platform/target/TdRing.h"
#include "util/StatusCode.h"

RamRingResponder::RamRingResponder(const DriverRegions& regions, uint32_t luns, uint64_t bytesPerLun)
    : mRegions(regions), mLuns(luns), mBytes(bytesPerLun), mSglCount(regions.sglCount),
      mCommandSem(semOpen("/multicommandsem", SEM_TYPE_BINARY, 0)),
      mResponseSem(semOpen("/multmultiiresponsesem", SEM_TYPE_BINARY, 0)),
      mToSystem(msgQOpen("/tdToRtpQ", CommandQueueDriver::kQueueDepth, CommandQueueDriver::kMaxMessage)),
      mFromSystem(msgQOpen("/tdFromRtpQ", CommandQueueDriver::kQueueDepth, CommandQueueDriver::kMaxMessage)) {
    for (uint32_t i = mSglCount; i-- > 0;) mFreeSgls.push_back(i);
    // A new responder starts with an empty queue: nothing of an earlier one is answered.
    std::vector<uint8_t> stale(CommandQueueDriver::kMaxMessage);
    while (msgQReceive(mToSystem, stale.data(), stale.size(), NO_WAIT) > 0) {
    }
}

RamRingResponder::~RamRingResponder() { stop(); }

void RamRingResponder::start() {
    mStopping = false;
    mThread = std::thread([this] { loop(); });
    mQueueThread = std::thread([this] { queueLoop(); });
}

void RamRingResponder::stop() {
    if (!mThread.joinable()) return;
    mStopping = true;
    semGive(mCommandSem);
    mThread.join();
    td::CommandBlock wake = {};  // wakes the queue thread, which then sees the flag
    msgQSend(mToSystem, &wake, sizeof wake, td::kWaitSlice, MSG_PRI_URGENT);
    mQueueThread.join();
}

void RamRingResponder::loop() {
    for (;;) {
        td::CommandBlock* cmd = nullptr;
        bool any = false;
        while (td::commandRingGetNext(*mRegions.multiCommands, cmd)) {
            serve(*cmd);
            any = true;
        }
        // Stopping only once the ring is empty: the last releases are taken in.
        if (mStopping) return;
        // After a batch, look again briefly before sleeping: under load the
        // next command is usually microseconds away, and a wake-up costs more.
        if (any && td::spinForWork(mRegions.multiCommands->header)) continue;
        Le32& sleeping = td::commandRingSleepWord(*mRegions.multiCommands);
        if (td::prepareToSleep(sleeping, mRegions.multiCommands->header)) semTake(mCommandSem, td::kWaitSlice);
        td::awake(sleeping);
    }
}

void RamRingResponder::answerQueue(const td::CmdResp& rsp) {
    msgQSend(mFromSystem, &rsp, sizeof rsp, td::kWaitSlice, MSG_PRI_NORMAL);
}

void RamRingResponder::queueLoop() {
    std::vector<uint8_t> bytes(CommandQueueDriver::kMaxMessage);
    while (!mStopping) {
        td::CommandBlock b;
        int n = msgQReceive(mToSystem, &b, sizeof b, td::kWaitSlice);
        if (mStopping) break;
        if (n != int(sizeof b)) continue;  // nothing, or out of step: not a command block
        uint32_t flags = b.flags;
        if (flags == 0) continue;  // the wake-up sent at stop
        td::CmdResp rsp = {};
        rsp.tag = b.tag;
        if ((flags & td::kCmdLinkOrRelease) && (flags & (td::kCmdConnected | td::kCmdFlushDisks))) {
            ++((flags & td::kCmdConnected) ? mLinkUps : mLinkDowns);
            mLastTransport = b.lun;
            continue;  // link events have no answer
        }
        if (flags & td::kCmdSyncCache) {
            answerQueue(rsp);  // all zeros but the tag
            continue;
        }
        rsp.rc = uint32_t(-1);
        if (flags & td::kCmdManagement) {
            uint8_t opcode = 0;
            if (msgQReceive(mToSystem, bytes.data(), bytes.size(), td::kWaitSlice) > 0) opcode = bytes[0];
            if (!(flags & td::kCmdMgmtNoPayload)) msgQReceive(mToSystem, bytes.data(), bytes.size(), td::kWaitSlice);
            StatusCode s = opcode == scsi::kVendorManagement ? StatusCode::UnknownScsiRequest : StatusCode::BadCommand;
            rsp.status = s.value();
        } else {
            rsp.status = StatusCode(StatusCode::BadCommand).value();
        }
        answerQueue(rsp);
    }
}

void RamRingResponder::respond(const td::CmdResp& rsp) {
    td::CmdResp* slot = nullptr;
    while (!td::responseRingInsertPoint(*mRegions.multiResponses, slot)) {
        semGive(mResponseSem);  // the ring is full: make sure the driver drains it
        std::this_thread::yield();
    }
    std::memcpy(slot, &rsp, sizeof rsp);
    td::responseRingFinishInsert(*mRegions.multiResponses, sizeof rsp);
    if (td::consumerSleeping(td::responseRingSleepWord(*mRegions.multiResponses))) semGive(mResponseSem);
}

void RamRingResponder::serve(const td::CommandBlock& cmd) {
    uint32_t flags = cmd.flags;
    if (flags & td::kCmdResRelease) {  // the driver has sent a read's data: its SGL is free again
        uint32_t handle = cmd.tag;
        if (handle >= 1 && handle <= mSglCount) mFreeSgls.push_back(handle - 1);
        return;
    }
    td::CmdResp rsp = {};
    rsp.tag = cmd.tag;
    std::memcpy(rsp.context, cmd.context, sizeof rsp.context);
    uint64_t lba = cmd.lba, blocks = cmd.length;
    bool inRange = cmd.lun < mLuns && lba <= mBytes / 512 && blocks <= mBytes / 512 - lba;
    uint64_t at = uint64_t(cmd.lun) * mBytes + lba * 512;
    auto fail = [&](StatusCode s) {
        rsp.type = td::kRespPlain;
        rsp.rc = uint32_t(-1);
        rsp.status = s.value();
        respond(rsp);
    };
    if (flags & td::kCmdWrite) {
        uint64_t bytes = blocks * 512;
        if (!inRange) return fail(StatusCode::CATM_LBAOutOfRange);
        if (uint64_t(cmd.writeData) + bytes > mRegions.journalSize || cmd.payloadLength != bytes)
            return fail(StatusCode::BadCommand);
        std::memcpy(mRegions.readBuffer + at, mRegions.journal + cmd.writeData.get(), bytes);
        rsp.type = td::kRespWriteAck;
        respond(rsp);
    } else if (flags & td::kCmdRead) {
        if (!inRange) return fail(StatusCode::CATM_LBAOutOfRange);
        if (mFreeSgls.empty()) return fail(StatusCode::InternalError);
        uint32_t index = mFreeSgls.back();
        mFreeSgls.pop_back();
        uint32_t offset = index * uint32_t(sizeof(td::InterCoreSgl));
        td::InterCoreSgl* sgl = mRegions.sgl(offset);
        sgl->count = 1;
        sgl->one = 1;
        sgl->total = uint32_t(blocks * 512);
        sgl->elements[0].offset = uint32_t(at);
        sgl->elements[0].length = uint32_t(blocks * 512);
        sgl->elements[0].pool = td::kPoolReadBuffer;
        rsp.type = td::kRespSgl;
        rsp.requestHandle = index + 1;
        rsp.sgl = offset;
        respond(rsp);
    } else {
        fail(StatusCode::BadCommand);  // neither read, write nor release: reported, not fatal
    }
}
