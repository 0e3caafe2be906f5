#include "platform/target/CommandQueueDriver.h"

#include <cstring>
#include <vector>

#include "platform/target/ScsiResponder.h"
#include "platform/target/TdRing.h"
#include "util/Trace.h"

CommandQueueDriver::CommandQueueDriver(const DriverRegions& regions)
    : mRegions(regions),
      mToSystem(msgQOpen("/tdToRtpQ", kQueueDepth, kMaxMessage)),
      mFromSystem(msgQOpen("/tdFromRtpQ", kQueueDepth, kMaxMessage)) {
    // A new driver starts with an empty answer queue: no stale answer is taken for a new command.
    std::vector<uint8_t> stale(kMaxMessage);
    while (msgQReceive(mFromSystem, stale.data(), stale.size(), NO_WAIT) > 0) {
    }
}

CommandQueueDriver::~CommandQueueDriver() { stop(); }

void CommandQueueDriver::start() {
    mStopping = false;
    mThread = std::thread([this] { loop(); });
}

void CommandQueueDriver::stop() {
    if (!mThread.joinable()) return;
    {
        std::lock_guard<std::mutex> g(mLock);
        mStopping = true;
    }
    mWork.notify_all();
    mThread.join();
}

void CommandQueueDriver::submit(TargetCommand& cmd) {
    {
        std::lock_guard<std::mutex> g(mLock);
        mItems.push_back({&cmd, false});
    }
    mWork.notify_one();
}

void CommandQueueDriver::linkEvent(bool connected) {
    {
        std::lock_guard<std::mutex> g(mLock);
        mItems.push_back({nullptr, connected});
    }
    mWork.notify_one();
}

// Management answers point into "/readbuffer" until the next command; the
// queue path has nothing else to give back.
void CommandQueueDriver::release(TargetCommand&) {}

void CommandQueueDriver::loop() {
    for (;;) {
        Item item;
        {
            std::unique_lock<std::mutex> g(mLock);
            mWork.wait(g, [&] { return mStopping || !mItems.empty(); });
            if (mItems.empty()) return;  // stopping with nothing left
            item = mItems.front();
            mItems.pop_front();
        }
        if (item.cmd == nullptr) {
            td::CommandBlock b = {};
            b.flags = td::kCmdLinkOrRelease | (item.connected ? td::kCmdConnected : td::kCmdFlushDisks);
            b.lun = td::kTransportIscsi;
            msgQSend(mToSystem, &b, sizeof b, td::kWaitSlice, MSG_PRI_NORMAL);
            continue;
        }
        exchange(*item.cmd);
    }
}

// Waits for the answer in slices, so that a stop is seen; a system that
// never answers leaves the command failing with NotExecuted at stop.
bool CommandQueueDriver::receiveResponse(uint32_t tag, td::CmdResp& rsp) {
    for (;;) {
        int n = msgQReceive(mFromSystem, &rsp, sizeof rsp, td::kWaitSlice);
        if (n == int(sizeof rsp) && rsp.tag.get() == tag) return true;
        if (n > 0) continue;  // an answer to no command of ours, or a stray payload marker
        std::lock_guard<std::mutex> g(mLock);
        if (mStopping) return false;
    }
}

void CommandQueueDriver::exchange(TargetCommand& cmd) {
    td::CommandBlock b = {};
    uint32_t tag = mNextTag++;
    b.tag = tag;
    b.lun = uint8_t(cmd.lun);
    bool management = cmd.kind == TargetCommand::Kind::Management;
    if (management) {
        size_t cdbLength = scsi::ScsiResponder::cdbLengthFor(cmd.cdb[0]);
        b.flags = td::kCmdManagement | (cmd.dataOutLength == 0 ? td::kCmdMgmtNoPayload : 0);
        b.payloadLength = cmd.dataOutLength;
        b.length = uint32_t(cdbLength);
        msgQSend(mToSystem, &b, sizeof b, td::kWaitSlice, MSG_PRI_NORMAL);
        msgQSend(mToSystem, cmd.cdb, cdbLength, td::kWaitSlice, MSG_PRI_NORMAL);
        if (cmd.dataOutLength) msgQSend(mToSystem, cmd.dataOut, cmd.dataOutLength, td::kWaitSlice, MSG_PRI_NORMAL);
    } else {
        b.flags = td::kCmdSyncCache;
        b.lba = cmd.lba;
        b.length = cmd.blocks;
        msgQSend(mToSystem, &b, sizeof b, td::kWaitSlice, MSG_PRI_NORMAL);
    }
    td::CmdResp rsp = {};
    if (!receiveResponse(tag, rsp)) {
        cmd.status = StatusCode::NotExecuted;
        cmd.completion->commandDone(cmd);
        return;
    }
    cmd.status = rsp.rc == 0 ? StatusCode(StatusCode::Success) : StatusCode(rsp.status.get());
    if (rsp.type == td::kRespPayloadFollows) {
        uint32_t marker = 0;
        msgQReceive(mFromSystem, &marker, sizeof marker, td::kWaitSlice);
        // The answer's data: (length, offset in "/readbuffer") pairs in "/usbSgList".
        const auto* count = reinterpret_cast<const td::UsbSgListHeader*>(mRegions.usbSgList);
        const auto* pairs = reinterpret_cast<const td::UsbSgPair*>(mRegions.usbSgList + sizeof(td::UsbSgListHeader));
        uint32_t n = std::min<uint32_t>(count->count, DriverRegions::kUsbSgPairs);
        // A management answer is a whole buffer of which the residual's worth
        // at the end does not count: the host is given the rest, and its
        // transfer's residual then says the same.
        uint64_t total = 0;
        for (uint32_t i = 0; i < n; ++i) total += pairs[i].length.get();
        uint64_t counted = total > rsp.residual.get() ? total - rsp.residual.get() : 0;
        uint32_t room = uint32_t(std::min<uint64_t>(cmd.dataInLimit, counted));
        for (uint32_t i = 0; i < n && room > 0; ++i) {
            uint64_t end = uint64_t(pairs[i].address.get()) + pairs[i].length.get();
            if (end > mRegions.readBufferSize) {
                cmd.status = StatusCode::InternalError;
                cmd.dataIn.clear();
                break;
            }
            uint32_t len = std::min(room, pairs[i].length.get());
            cmd.dataIn.push_back({mRegions.readBuffer + pairs[i].address.get(), len});
            room -= len;
        }
    }
    cmd.completion->commandDone(cmd);
}
