#include "host/HRManager.h"

#include <cerrno>
#include <cstdio>

#include "cache/HostLbaTracker.h"
#include "host/MultiIssueTransport.h"
#include "host/TopEnd.h"
#include "host/USBTransport.h"
#include "platform/board/BoardServices.h"
#include "platform/target/TargetDriver.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "util/WriteBuffer.h"

namespace {
Trace tHrm("Host", "HRM", "Info", false);
}

HRManager* HRManager::GetInstance() {
    static HRManager instance;
    return &instance;
}

StatusCode HRManager::Initialize() {
    if (initialised) return StatusCode::InitFailed;
    // CreateDataFastPathSemaphores: the four named semaphores of the data rings.
    struct {
        const char* name;
        const char* what;
    } sems[] = {{"/commandsem", "COMMAND"},
                {"/responsesem", "RESPONSE"},
                {"/multicommandsem", "MULTI COMMAND"},
                {"/multmultiiresponsesem", "MULTI RESPONSE"}};
    for (auto& s : sems) {
        if (semOpen(s.name, SEM_TYPE_BINARY, 0) == nullptr) {
            std::printf("!!!!!! ERROR opening %s semaphore\n", s.what);
            return StatusCode::InitFailed;
        }
    }
    down = msgQCreate(kQueueMessages, sizeof(HostRequest*), 0);
    if (down == nullptr) {
        std::printf("HRManager::Initialise: Can't create 'down' queue, errno=%d\n", errno);
        return StatusCode::InitFailed;
    }
    mgmtDown = msgQCreate(kQueueMessages, sizeof(HostRequest*), 0);
    if (mgmtDown == nullptr) {
        std::printf("HRManager::Initialise: Can't create 'mgmtDown' queue, errno=%d\n", errno);
        return StatusCode::InitFailed;
    }
    initialised = true;
    StatusCode status = USBTransport::GetInstance()->Initialize();
    (void)MultiIssueTransport::GetInstance()->Initialize();  // its result is not looked at
    return status;
}

// ---------------------------------------------------------------- queues

bool HostRequest::putRequest() { return HRManager::GetInstance()->stageRequest(*this); }
bool HostRequest::putMgmtRequest() { return HRManager::GetInstance()->stageMgmtRequest(*this); }

bool HRManager::postOn(MSG_Q_ID queue, HostRequest& request) {
    request.mQueueWord = &request;
    return msgQSend(queue, &request.mQueueWord, sizeof request.mQueueWord, WAIT_FOREVER, MSG_PRI_NORMAL) == OK;
}

bool HRManager::stageRequest(HostRequest& hr) {
    ClientRequest& r = hr.mRequest;
    if (!drivePackReady && !r.isMgmt()) {
        r.status = StatusCode::DiskNotReady;
        ++refused;
        return false;
    }
    if (uint32_t ticks = throttleTicks.load(); ticks != 0 && r.isWrite() && !TopEnd::GetInstance()->oneAtATimeOn())
        taskDelay(int(ticks));
    if (r.len > kMaxInternalIo) {
        std::printf("HostRequest::putRequest: length of %u exceeds MAX_INTERNAL_IO of %u\n", r.len, kMaxInternalIo);
        r.status = StatusCode::InternalError;
        ++refused;
        return false;
    }
    if (!(r.origLen > r.len)) r.setFlag(ClientRequest::kRespond | ClientRequest::kValid);
    r.setFlag(ClientRequest::kHrmIo);
    if (r.isWrite() && r.len >= 9) {
        uint32_t left = corruptHRMWrites.load();
        while (left > 0 && !corruptHRMWrites.compare_exchange_weak(left, left - 1)) {
        }
        if (left > 0) {  // the console's test path: Success without the write being done
            r.status = StatusCode::Success;
            putResponse(r);
            return true;
        }
    }
    ++ioCount;
    if (!postOn(down, hr)) {
        std::printf("HostRequest::stageReq: Failed post to 'down' queue errno=%d\n", errno);
        r.status = StatusCode::InternalError;
        hr.protoResponse();
    }
    return true;
}

bool HRManager::stageMgmtRequest(HostRequest& hr) {
    ClientRequest& r = hr.mRequest;
    if ((r.len >> 9) > kMaxInternalIo) {
        std::printf("HostRequest::putMgmtRequest: length of %u exceeds MAX_INTERNAL_IO of %u\n", r.len, 0x80000u);
        ++refused;
        return false;
    }
    r.setFlag(ClientRequest::kRespond | ClientRequest::kValid | ClientRequest::kHrmIo);
    ++mgmtCount;
    if (!postOn(mgmtDown, hr)) {
        std::printf("HostRequest::stageMgmtReq: Failed post to 'mgmtDown' queue errno=%d\n", errno);
        r.status = StatusCode::InternalError;
        hr.protoResponse();
    }
    return true;
}

ClientRequest* HRManager::getRequest() {
    HostRequest* hr = nullptr;
    int n = msgQReceive(down, &hr, sizeof hr, WAIT_FOREVER);
    if (n != int(sizeof hr) || hr == nullptr) {
        std::printf("HRManager::getRequest: Failed to receive from 'down' queue, errno=%d\n", errno);
        ESA_ASSERT(n == int(sizeof hr) && hr != nullptr);
    }
    return &hr->mRequest;
}

ClientRequest* HRManager::getMgmtRequest() {
    for (;;) {
        HostRequest* hr = nullptr;
        int n = msgQReceive(mgmtDown, &hr, sizeof hr, WAIT_FOREVER);
        if (n <= 0) {
            std::printf("HRManager::getMgmtRequest: rv = %d, errno = %d.  Skip...\n", n, errno);
            continue;
        }
        if (n != int(sizeof hr) || hr == nullptr) {
            std::printf("HRManager::getMgmtRequest: Failed to receive from 'mgmtDown' queue, rv = %d, errno=%d, %s\n",
                        n, errno, "wrong size");
            ESA_ASSERT(n == int(sizeof hr) && hr != nullptr);
        }
        return &hr->mRequest;
    }
}

void HRManager::putResponse(ClientRequest& r) {
    ESA_ASSERT(r.isHrmIo());
    if (r.flags & ClientRequest::kRespond) HostRequest::fromClient(r)->protoResponse();
}

void HRManager::releaseRequest(ClientRequest& r) {
    ESA_ASSERT(r.isHold());
    ESA_ASSERT(r.isRead() || r.isWrite() || r.isMgmt());
    ESA_ASSERT(!r.isCache());
    ESA_ASSERT(r.isHrmIo());
    HostRequest::fromClient(r)->protoRelease();
}

void HRManager::transportChange(int state) {
    if (state == 0) {
        ESA_ASSERT_OP(transportsUp.load(), <, registeredTransports.load());
        ++transportsUp;
    } else {
        ESA_ASSERT_OP(transportsUp.load(), >, 0u);
        --transportsUp;
        // A host that went away must not see stale read-ahead windows. The
        // host LBA cache has no read-ahead windows yet: nothing to drop.
    }
    SystemManager::GetInstance()->transportStateChange(state);
}

bool HRManager::getSerialNumber(char* buffer, int length) {
    return USBTransport::GetInstance()->getSerialNum(buffer, length);
}

bool HRManager::getBattBootState(bool& onBattery) { return USBTransport::GetInstance()->getBattBootState(onBattery); }

// ---------------------------------------------------------------- dumps

void HRManager::stateShow(std::ostream& out) {
    out << "HRM: initialised " << initialised << " drivePackReady " << drivePackReady.load() << " linkUp "
        << linkUp.load() << " maxLun " << unsigned(maxLun) << " transportsUp " << transportsUp.load() << "/"
        << registeredTransports.load() << " throttleTicks " << throttleTicks.load() << "\n";
}

void HRManager::Dump(std::ostream& out) {
    stateShow(out);
    out << "HRM: corruptHRMWrites " << corruptHRMWrites.load() << "\n";
    // Host write buffers of the journal memory: in use in all, and taken by
    // the target for commands it has not yet handed over.
    out << "HRM: write buffers in use " << WriteBuffer::GetInstance().blocksInUse() << " held by the target "
        << TargetDriver::GetInstance().writeBuffersHeld() << "\n";
    USBTransport::GetInstance()->Dump(out);
    MultiIssueTransport::GetInstance()->Dump(out);
}

void HRManager::PerfInfo(std::ostream& out) {
    out << "HRM: ioCount " << ioCount.load() << " mgmtCount " << mgmtCount.load() << " refused " << refused.load()
        << "\n";
}
