#include "host/USBTransport.h"

#include <cstdio>
#include <cstring>

#include "cache/HostLbaTracker.h"
#include "host/HRManager.h"
#include "host/TransportRequests.h"
#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "platform/target/DriverRegions.h"
#include "platform/target/TargetDriverRecords.h"
#include "util/Assert.h"
#include "util/WJMemoryPool.h"
#include "util/WriteBuffer.h"

USBTransport* USBTransport::GetInstance() {
    static USBTransport instance;
    return &instance;
}

void USBTransport::freeWriteBuffer(unsigned char* address, unsigned long length) {
    // The write-buffer partition lives in this process on this board: the
    // buffer goes straight back to it (the board call records the give-back).
    WriteBuffer::GetInstance().FreeBuffer(address, uint32_t(length));
}

StatusCode USBTransport::Initialize() {
    if (mInitialised) return StatusCode::InitFailed;
    mToRtp = msgQOpen("/tdToRtpQ", kQueueDepth, kMaxMessage);
    if (mToRtp == nullptr) {
        std::printf("USBTransport::Initialize: Failed to open tdToRtpQ queue, errno=%d\n", 0);
        return StatusCode::InitFailed;
    }
    mFromRtp = msgQOpen("/tdFromRtpQ", kQueueDepth, kMaxMessage);
    if (mFromRtp == nullptr) {
        std::printf("USBTransport::Initialize: Failed to open tdFromRtpQ queue, errno=%d\n", 0);
        return StatusCode::InitFailed;
    }
    mPools = TransportPools::open();
    Board& board = Board::GetInstance();
    auto* rings = static_cast<uint8_t*>(board.openRegion("/usbCmdResp", td::kRingRegionSize));
    mUsbSgList = static_cast<uint8_t*>(
        board.openRegion("/usbSgList", sizeof(td::UsbSgListHeader) + DriverRegions::kUsbSgPairs * sizeof(td::UsbSgPair)));
    if (rings == nullptr || mUsbSgList == nullptr || mPools.journal == nullptr || mPools.readBuffer == nullptr)
        return StatusCode::InitFailed;
    mRing.attach(reinterpret_cast<td::CommandRing*>(rings + td::kSingleCommandRing),
                 reinterpret_cast<td::ResponseRing*>(rings + td::kSingleResponseRing),
                 semOpen("/commandsem", SEM_TYPE_BINARY, 0), semOpen("/responsesem", SEM_TYPE_BINARY, 0));
    mWritePool = new WJMemoryPool(&USBTransport::freeWriteBuffer);
    mLastReadSem = semBCreate(SEM_Q_FIFO, SEM_FULL);
    mShimSem = semBCreate(SEM_Q_FIFO, SEM_FULL);
    mInitialised = true;
    taskSpawn("USBtxShim", 100, [this] { shimLoop(); });
    taskSpawn("USBtxData", 100, [this] { dataLoop(); });
    HRManager::GetInstance()->registerTransport();
    return StatusCode::Success;
}

void USBTransport::shimLoop() {
    for (;;) {
        auto* r = new USBHostRequest;
        r->rxCmd();
    }
}

void USBTransport::dataLoop() {
    for (;;) {
        while (!HRManager::GetInstance()->isLinkUp()) taskDelay(6);
        if (!mRing.waitForRequest()) continue;
        auto* r = new USBHostRequest;
        r->rxDataCmd();
    }
}

// ---------------------------------------------------------------- lastRead

void USBTransport::dropLastRead() {
    USBHostRequest* r = lastRead;
    if (r == nullptr) return;
    lastRead = nullptr;
    if (!(r->mRequest.flags & ClientRequest::kResponded) || r->mRequest.isHold()) {
        // The response has not gone out (or the request is still held): the
        // transport no longer wants it; whoever finishes it frees it.
        r->mRequest.setFlag(ClientRequest::kAborted);
        return;
    }
    r->mRequest.window.clear();
    delete r;
}

void USBTransport::cleanUpLastRead() {
    USBHostRequest* r = lastRead;
    if (r == nullptr) return;
    std::printf("USBHostRequest::rxCmd: cleaning up last read I/O on LUN %u\n", r->mRequest.lun);
    lastRead = nullptr;
    if (!r->mRequest.isHold()) {
        r->mRequest.window.clear();
        delete r;
    }
}

// ---------------------------------------------------------------- state pushed to the driver

int USBTransport::rtpState(int state, unsigned long value) {
    return boardSyscall(BoardSyscall::RtpEnableState, state, long(value));
}

void USBTransport::transportEnable(bool allow) {
    if (rtpState(allow ? 0 : 1, 0) >= 0) mEnabled = allow;
}

void USBTransport::fakeTransportEnable(bool allow) { setTransportState(allow ? 2 : 3); }

int USBTransport::setTransportState(int cmd) { return boardSyscall(BoardSyscall::TransportStateCmd, cmd); }

StatusCode USBTransport::mediaAccess(bool allow) {
    if (HRManager::GetInstance()->upTransports() > 0 && mMediaOn != allow) {
        // Drop the transport first so that the host sees a change. A host
        // already logged in stays logged in (the target refuses only new
        // logins while the transport is off); its link-down event, when it
        // comes, is what counts the transport down.
        transportEnable(false);
        taskDelay(5 * sysClkRateGet());
        transportEnable(true);
    }
    if (rtpState(allow ? 3 : 4, 0) < 0) return StatusCode::InternalError;
    mMediaOn = allow;
    return StatusCode::Success;
}

StatusCode USBTransport::setMaxLun(uint8_t lun, uint64_t lastLba) {
    if (lun >= HostLbaTracker::kMaxLuns) return StatusCode::NoMoreLuns;
    if (boardSyscall(BoardSyscall::SetLunLastLba, lun, long(uint32_t(lastLba)), long(uint32_t(lastLba >> 32))) < 0)
        return StatusCode::InternalError;
    if (boardSyscall(BoardSyscall::SetMaxLunCount, HRManager::GetInstance()->currentMaxLun() + 1) < 0)
        return StatusCode::InternalError;
    return StatusCode::Success;
}

StatusCode USBTransport::setMaxLba(uint8_t lun, uint64_t lastLba) {
    if (boardSyscall(BoardSyscall::SetLunLastLba, lun, long(uint32_t(lastLba)), long(uint32_t(lastLba >> 32))) < 0)
        return StatusCode::InternalError;
    return StatusCode::Success;
}

void USBTransport::removeLun(uint8_t lun) {
    // A last LBA of all ones is the driver's "no LUN here".
    boardSyscall(BoardSyscall::SetLunLastLba, lun, long(0xffffffffu), long(0xffffffffu));
}

void USBTransport::setLunCount(uint32_t count) { boardSyscall(BoardSyscall::SetMaxLunCount, long(count)); }

bool USBTransport::getSerialNum(char* buffer, int length) {
    char serial[256] = {};
    if (boardSyscall(BoardSyscall::ReadSerialNumber, intptr_t(serial)) < 0 || length <= 0) return false;
    std::strncpy(buffer, serial, size_t(length) - 1);
    buffer[length - 1] = 0;
    return true;
}

bool USBTransport::getBattBootState(bool& onBattery) {
    int rc = boardSyscall(BoardSyscall::BootedOnBattery);
    if (rc < 0) return false;
    onBattery = rc == 1;
    return true;
}

void USBTransport::sendResponse(const td::CmdResp& rsp) {
    if (msgQSend(mFromRtp, &rsp, sizeof rsp, WAIT_FOREVER, MSG_PRI_NORMAL) != OK) {
        std::printf("USBTransport::sendResponse: Failed to send response on tdFromRtpQ queue, errno=%d\n", 0);
        ESA_ASSERT(!"sendResponse");
    }
}

void USBTransport::sendPayloadMarker() {
    uint32_t one = 1;
    msgQSend(mFromRtp, &one, sizeof one, WAIT_FOREVER, MSG_PRI_NORMAL);
}

void USBTransport::Dump(std::ostream& out) {
    out << "USBTransport: enabled " << mEnabled << " media " << mMediaOn << " requests live " << requestsLive.load()
        << " commands " << commands.load() << " syncCaches " << syncCaches.load() << " linkEvents "
        << linkEvents.load() << " lastRead " << (lastRead ? "set" : "none") << " write stores out "
        << (mWritePool ? mWritePool->storesOut() : 0) << "\n";
}

void USBTransport::profileShow(std::ostream& out) { Dump(out); }
