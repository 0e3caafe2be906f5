// The request objects of the two transports: reception from the command
// queue and the rings, the responses, and the releases.
#include "host/TransportRequests.h"

#include <cstdio>
#include <cstring>

#include "cache/HostLbaTracker.h"
#include "host/HRManager.h"
#include "host/MultiIssueTransport.h"
#include "host/TopEnd.h"
#include "host/USBTransport.h"
#include "journal/writejournal/J1Replay.h"
#include "journal/writejournal/J1Tag.h"
#include "management/EventLogManager.h"
#include "platform/board/Board.h"
#include "platform/target/DriverRegions.h"
#include "util/Assert.h"
#include "util/WJMemoryPool.h"

namespace {
PerfAccumulator readClientReqPerfAccumulator;
PerfAccumulator writeClientReqPerfAccumulator;
PerfAccumulator mgmtClientReqPerfAccumulator;
constexpr uint64_t kLongRequestMicroseconds = 3000000;

const char* transportName(uint8_t id) {
    switch (id) {
    case td::kTransportUsb: return "USB";
    case td::kTransportFireWire: return "FireWire";
    case td::kTransportSata: return "SATA/eSATA";
    case td::kTransportPcie: return "PICe";
    case td::kTransportIscsi: return "iSCSI";
    default: return "Unknown";
    }
}

// The time a request took, into its accumulator; a long one is reported.
void sampleRequest(const ClientRequest& r, uint64_t start) {
    if (start == 0) return;
    uint64_t took = getTimebase() - start;
    PerfAccumulator& acc = r.isMgmt() ? mgmtClientReqPerfAccumulator
                           : r.isRead() ? readClientReqPerfAccumulator
                                        : writeClientReqPerfAccumulator;
    acc.add(took);
    if (took > kLongRequestMicroseconds)
        std::printf("%s%llu\n", r.isMgmt() ? "Long HRM Mgmt detected, duration = " : "Long HRM Read detected, duration = ",
                    (unsigned long long)took);
}

void unlockCto(ClientRequest& r) {
    if (r.cto == nullptr) return;
    HostLbaTracker::GetInstance()->UnlockRange(r.cto);
    r.cto = nullptr;
}

// Wraps a write's data, received by the driver into the journal memory, in a
// store of the transport's journal pool; the window holds its one reference.
bool wrapWriteData(ClientRequest& r, const TransportPools& pools, WJMemoryPool& pool, uint32_t offset,
                   uint32_t bytes) {
    if (bytes != r.len * 512u || uint64_t(offset) + bytes > pools.journalSize) return false;
    if (bytes == 0) return true;
    DataStore* store = pool.CreateStore(pools.journal + offset, bytes);
    r.window.InitializeAndTransferStore(*store, 0, bytes);
    r.store = store;
    return true;
}

void dropWriteData(ClientRequest& r) {
    r.window.clear();
    r.store = nullptr;
}

void copyDataFields(ClientRequest& r, const td::CommandBlock& b) {
    r.lba = b.lba;
    r.lun = b.lun;
    r.reserved = 0;
    r.len = r.origLen = b.length;
    r.flags |= b.flags.get() & (ClientRequest::kCmdFlag10 | ClientRequest::kCmdFlag20);
}

void reportFailedIo(const ClientRequest& r) {
    std::printf("USBHostRequest::protoFastPathResponse: Request Type: %s on LUN %u had an error. HLBA: 0x%llx Len: 0x%x\n",
                r.isWrite() ? "Write" : "Read", r.lun, (unsigned long long)r.lba, r.len);
}

bool earlyAcknowledgement(const ClientRequest& r) {
    return r.tag != nullptr && !TopEnd::GetInstance()->oneAtATimeOn();
}
}  // namespace

// ================================================================ HostRequest

void HostRequest::protoResponse() {
    std::printf("HostRequest::protoResponse: STUB CALLED! this=%p is malformed\n", static_cast<void*>(this));
    ESA_ASSERT(!"HostRequest::protoResponse");
}

void HostRequest::protoRelease() {
    std::printf("HostRequest::protoRelease: STUB CALLED! this=%p is malformed\n", static_cast<void*>(this));
    ESA_ASSERT(!"HostRequest::protoRelease");
}

// ================================================================ USBHostRequest

USBHostRequest::USBHostRequest() { ++USBTransport::GetInstance()->requestsLive; }
USBHostRequest::~USBHostRequest() { --USBTransport::GetInstance()->requestsLive; }

void USBHostRequest::stageData(const td::CommandBlock& b, bool fastPath) {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    copyDataFields(r, b);
    cmdTag = b.tag;
    uint32_t f = b.flags;
    if (f & td::kCmdWrite) {
        r.setFlag(ClientRequest::kWrite);
        writeData = t->pools().journal + b.writeData.get();
        payloadLength = b.payloadLength;
        if (!wrapWriteData(r, t->pools(), t->writePool(), b.writeData, b.payloadLength)) {
            r.status = StatusCode::BadCommand;
            r.setFlag(ClientRequest::kRespond);
            protoResponse();
            return;
        }
        if (fastPath) {
            r.tag = J1Replay::GetInstance()->allocateTag(r);
            if (earlyAcknowledgement(r)) {
                r.setFlag(ClientRequest::kWriteAcked);
                protoFastPathResponse(true);
            }
        }
    } else {
        startTime = getTimebase();
        r.setFlag(ClientRequest::kRead);
        semTake(t->lastReadSem(), WAIT_FOREVER);
        if (fastPath) t->cleanUpLastRead();
        t->lastRead = this;
        semGive(t->lastReadSem());
    }
    r.setFlag(ClientRequest::kValid);
    bool acked = r.flags & ClientRequest::kWriteAcked;
    if (!putRequest()) {
        if (!fastPath) std::printf("USBHostRequest::rxCmd: I/O rejected by scheduler\n");
        if (r.tag) J1Replay::GetInstance()->abortTag(r);
        if (r.isWrite()) dropWriteData(r);
        if (!acked) protoResponse();
    }
}

void USBHostRequest::rxCmd() {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    r.setFlag(ClientRequest::kFromTransport);
    td::CommandBlock b;
    int n = msgQReceive(t->toRtp(), &b, sizeof b, WAIT_FOREVER);
    ESA_ASSERT_OP(n, ==, int(sizeof b));
    ++t->commands;
    uint32_t f = b.flags;
    if ((f & 0x48) == 0x48 || (f & 0x88) == 0x88) {
        ++t->linkEvents;
        bool connected = f & td::kCmdConnected;
        std::printf("USBHostRequest::rxCmd: %s Stack %s\n", transportName(b.lun), connected ? "Connected" : "Disconnected");
        if (connected) {
            HRManager::GetInstance()->transportChange(0);
        } else {
            semTake(t->lastReadSem(), WAIT_FOREVER);
            t->dropLastRead();
            semGive(t->lastReadSem());
            HRManager::GetInstance()->transportChange(1);
        }
        delete this;
        return;
    }
    semTake(t->lastReadSem(), WAIT_FOREVER);
    if (f & td::kCmdFlushDisks) {
        std::printf("USBHostRequest::rxCmd: FlushDisks - flushing disks\n");
        J1Tag::GetInstance()->FlushDisks();
        semGive(t->lastReadSem());
        delete this;
        return;
    }
    if (f & td::kCmdSyncCache) {
        std::printf("USBHostRequest::rxCmd: SyncCache - flushing J1 & disks\n");
        ++t->syncCaches;
        StatusCode s = J1Tag::GetInstance()->WaitForJ1Empty();
        if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent("HRM: SYNCCACHE completed");
        td::CmdResp rsp = {};
        rsp.tag = b.tag;
        // A flush that failed is not reported as done: the host must not
        // believe its writes durable.
        if (!s.ok()) {
            rsp.rc = uint32_t(-1);
            rsp.status = s.value();
        }
        t->sendResponse(rsp);
        semGive(t->lastReadSem());
        delete this;
        return;
    }
    if ((f & 0x108) == 0x108) {
        t->dropLastRead();
        semGive(t->lastReadSem());
        delete this;
        return;
    }
    t->cleanUpLastRead();
    semGive(t->lastReadSem());
    if (f & td::kCmdManagement) {
        startTime = getTimebase();
        copyDataFields(r, b);
        cmdTag = b.tag;
        r.setFlag(ClientRequest::kMgmt);
        // The command bytes, then (unless the top flag bit says there is none) the payload.
        uint32_t cdbBytes = (b.length + 511) & ~511u;
        auto* store = new DataStore(1, cdbBytes ? cdbBytes : 512);
        unsigned char* p = nullptr;
        uint32_t room = 0;
        store->begin(0, p, room);
        int got = msgQReceive(t->toRtp(), p, room, WAIT_FOREVER);
        ESA_ASSERT_OP(got, >=, 0);
        payloadLength = b.payloadLength;
        if (!(f & td::kCmdMgmtNoPayload) && payloadLength > 0) {
            uint32_t payloadBytes = (payloadLength + 511) & ~511u;
            DataStore payload(1, payloadBytes);
            unsigned char* q = nullptr;
            uint32_t qroom = 0;
            payload.begin(0, q, qroom);
            int pgot = msgQReceive(t->toRtp(), q, qroom, WAIT_FOREVER);
            if (pgot < int(payloadLength)) {
                std::printf("USBHostRequest::rxCmd: Failed to receive management payload of %u\n", payloadLength);
                ESA_ASSERT_OP(pgot, >=, int(payloadLength));
            }
            store->move(payload);
        }
        // The window covers the command's block and the payload's bytes, not
        // its rounded blocks: the management path tells a short record by it.
        const uint32_t counted = !(f & td::kCmdMgmtNoPayload) && payloadLength > 0
                                     ? store->GetLength() - ((payloadLength + 511) & ~511u) + payloadLength
                                     : store->GetLength();
        r.window.InitializeAndTransferStore(*store, 0, counted);
        r.store = store;
        r.setFlag(ClientRequest::kValid);
        std::printf("USBHostRequest::rxCmd: Staging MANAGEMENT I/O with len = 0x%x\n", r.len);
        if (!putMgmtRequest()) {
            std::printf("USBHostRequest::rxCmd: Management I/O rejected by scheduler\n");
            r.status = StatusCode::InternalError;
            protoResponse();
        }
        return;
    }
    if (!(f & (td::kCmdWrite | td::kCmdRead))) {
        std::printf("USBHostRequest::rxCmd: Unknown command type, cmd.flags=0x%x\n", f);
        ESA_ASSERT(!"rxCmd: unknown command type");
    }
    stageData(b, false);
}

void USBHostRequest::rxDataCmd() {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    r.setFlag(ClientRequest::kFromTransport | ClientRequest::kFastPath);
    td::CommandBlock b = t->ring().takeNextRequest();
    ++t->commands;
    uint32_t f = b.flags;
    if ((f & 0x108) == 0x108) {
        semTake(t->lastReadSem(), WAIT_FOREVER);
        t->dropLastRead();
        semGive(t->lastReadSem());
        delete this;
        return;
    }
    if (!(f & 0x103)) {
        std::printf("USBHostRequest::rxDataCmd: bad flags 0x%x\n", f);
        copyDataFields(r, b);
        cmdTag = b.tag;
        r.status = StatusCode::BadCommand;
        r.setFlag(ClientRequest::kRespond);
        protoResponse();
        return;
    }
    stageData(b, true);
}

void USBHostRequest::finishSentResponse(bool ok) {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    if (ok && r.isRead()) {
        // Build "/usbSgList" from the window: the driver sends the data from there.
        std::vector<BufferPiece> pieces;
        uint32_t bytes = r.isMgmt() ? r.window.GetLength() : r.len * 512u;
        bool described = describeWindow(r, t->pools(), bytes, DriverRegions::kUsbSgPairs, pieces);
        auto* count = reinterpret_cast<td::UsbSgListHeader*>(t->usbSgList());
        auto* pairs = reinterpret_cast<td::UsbSgPair*>(t->usbSgList() + sizeof(td::UsbSgListHeader));
        uint32_t n = 0;
        for (const BufferPiece& p : pieces) {
            if (!described || p.pool != td::kPoolReadBuffer) break;  // "/usbSgList" names "/readbuffer" only
            pairs[n].length = p.length;
            pairs[n].address = p.offset;
            ++n;
        }
        count->count = n;
        sampleRequest(r, startTime);
        startTime = 0;
        unlockCto(r);
        return;
    }
    sampleRequest(r, startTime);
    if (!ok) {
        std::printf("USBHostRequest::protoResponse: response contained an error, %s\n", r.status.Dump().c_str());
        unlockCto(r);
        r.window.clear();
        if (t->lastRead == this) t->lastRead = nullptr;
        if (!r.isHold()) delete this;
        return;
    }
    if (!r.isHold()) {
        dropWriteData(r);
        delete this;
    }
}

void USBHostRequest::protoResponse() {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    if (r.flags & ClientRequest::kWriteAcked) {
        if (!r.isHold()) {
            dropWriteData(r);
            delete this;
        }
        return;
    }
    if (r.isFastPath()) {
        protoFastPathResponse(false);
        return;
    }
    td::CmdResp rsp = {};
    bool ok = r.status.ok();
    semTake(t->lastReadSem(), WAIT_FOREVER);
    if (r.isMgmt() && ok && r.window.GetLength() > 0) {
        t->lastRead = this;
        r.setFlag(ClientRequest::kRead);
        rsp.type = td::kRespPayloadFollows;
    }
    rsp.residual = r.resid;
    rsp.status = r.status.value();
    rsp.rc = ok ? 0 : uint32_t(-1);
    if (r.isAborted()) {
        if (r.isRead() && ok) unlockCto(r);
        if (!r.isHold()) r.window.clear();
        semGive(t->lastReadSem());
        if (!r.isHold()) delete this;
        return;
    }
    rsp.tag = cmdTag;
    r.setFlag(ClientRequest::kResponded);
    t->sendResponse(rsp);
    if (rsp.type == td::kRespPayloadFollows) {
        finishSentResponse(true);
        t->sendPayloadMarker();
        semGive(t->lastReadSem());
        return;
    }
    finishSentResponse(ok);
    semGive(t->lastReadSem());
}

void USBHostRequest::protoFastPathResponse(bool writeAck) {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    td::CmdResp* rsp = nullptr;
    int attempts = 0;
    while (!t->ring().getNextResponseInsertPoint(rsp)) waitForRoom(attempts);
    std::memset(rsp, 0, sizeof *rsp);
    rsp->residual = r.resid;
    rsp->tag = cmdTag;
    if (writeAck) {
        r.setFlag(ClientRequest::kWriteAcked);
        t->ring().finishResponseInsert(sizeof *rsp);
        return;
    }
    bool ok = r.status.ok();
    rsp->status = r.status.value();
    rsp->rc = ok ? 0 : uint32_t(-1);
    semTake(t->lastReadSem(), WAIT_FOREVER);
    if (r.isAborted()) {
        t->ring().abortResponseInsert();
        if (r.isRead() && ok) unlockCto(r);
        if (!r.isHold()) r.window.clear();
        semGive(t->lastReadSem());
        if (!r.isHold()) delete this;
        return;
    }
    if (!ok)
        reportFailedIo(r);
    r.setFlag(ClientRequest::kResponded);
    if (ok && r.isRead()) finishSentResponse(true);  // "/usbSgList" before the slot is published
    t->ring().finishResponseInsert(sizeof *rsp);
    if (!(ok && r.isRead())) finishSentResponse(ok);
    semGive(t->lastReadSem());
}

void USBHostRequest::protoRelease() {
    USBTransport* t = USBTransport::GetInstance();
    ClientRequest& r = mRequest;
    if (r.isWrite()) {
        dropWriteData(r);
        delete this;
        return;
    }
    semTake(t->lastReadSem(), WAIT_FOREVER);
    if (t->lastRead == this) {
        r.clearFlag(ClientRequest::kHold);  // the next command cleans it up
        semGive(t->lastReadSem());
        return;
    }
    semGive(t->lastReadSem());
    unlockCto(r);
    r.window.clear();
    delete this;
}

// ================================================================ MultiHostRequest

MultiHostRequest::MultiHostRequest() { ++MultiIssueTransport::GetInstance()->requestsLive; }

MultiHostRequest::~MultiHostRequest() {
    MultiIssueTransport* t = MultiIssueTransport::GetInstance();
    if (handle) t->dropHandle(handle);
    if (sgl) t->freeSgl(sgl);
    unlockCto(mRequest);
    mRequest.window.clear();
    --t->requestsLive;
}

void MultiHostRequest::rxDataIo() {
    MultiIssueTransport* t = MultiIssueTransport::GetInstance();
    ClientRequest& r = mRequest;
    r.setFlag(ClientRequest::kFromTransport | ClientRequest::kFastPath);
    td::CommandBlock b = t->ring().takeNextRequest();
    uint32_t f = b.flags;
    if (f & td::kCmdResRelease) {
        // The driver has sent a read's data: its buffers may go.
        ++t->releases;
        semTake(t->releaseSem(), WAIT_FOREVER);
        MultiHostRequest* done = t->lookUpHandle(b.tag);
        if (done != nullptr) {
            if (!done->mRequest.isHold()) {
                delete done;
            } else {
                done->mRequest.setFlag(ClientRequest::kReleasedEarly);  // protoRelease finishes the job
            }
        }
        semGive(t->releaseSem());
        delete this;
        return;
    }
    ++t->commands;
    requestId = b.tag;
    std::memcpy(context, b.context, sizeof context);
    t->noteRequestId(requestId);
    copyDataFields(r, b);
    if (f & td::kCmdWrite) {
        r.setFlag(ClientRequest::kWrite);
        if (!wrapWriteData(r, t->pools(), t->writePool(), b.writeData, b.payloadLength)) {
            r.status = StatusCode::BadCommand;
            protoFastPathResponse(false);
            return;
        }
        r.tag = J1Replay::GetInstance()->allocateTag(r);
        if (earlyAcknowledgement(r)) protoFastPathResponse(true);
    } else if (f & td::kCmdRead) {
        startTime = getTimebase();
        r.setFlag(ClientRequest::kRead);
    } else {
        // Neither read nor write: reported and refused, not fatal.
        std::printf("MultiHostRequest::rxDataIo: bad flags 0x%x\n", f);
        r.status = StatusCode::BadCommand;
        protoFastPathResponse(false);
        return;
    }
    r.setFlag(ClientRequest::kValid);
    bool acked = r.flags & ClientRequest::kWriteAcked;
    if (!putRequest()) {
        if (r.tag) J1Replay::GetInstance()->abortTag(r);
        if (r.isWrite()) dropWriteData(r);
        if (!acked) protoFastPathResponse(false);
    }
}

void MultiHostRequest::protoResponse() {
    ClientRequest& r = mRequest;
    if (r.flags & ClientRequest::kWriteAcked) {
        if (!r.isHold()) delete this;
        return;
    }
    protoFastPathResponse(false);
}

void MultiHostRequest::protoFastPathResponse(bool writeAck) {
    MultiIssueTransport* t = MultiIssueTransport::GetInstance();
    ClientRequest& r = mRequest;
    td::CmdResp rsp = {};
    rsp.residual = r.resid;
    rsp.tag = requestId;
    std::memcpy(rsp.context, context, sizeof context);
    if (writeAck) {
        rsp.type = td::kRespWriteAck;
        r.setFlag(ClientRequest::kWriteAcked | ClientRequest::kResponded);
        t->ring().respond(rsp);
        return;
    }
    bool sendData = r.isRead() && r.status.ok() && !r.isAborted() && r.len > 0;
    std::vector<BufferPiece> pieces;
    if (sendData && !describeWindow(r, t->pools(), r.len * 512u, td::kSglMaxElements, pieces)) {
        r.status = StatusCode::InternalError;
        sendData = false;
    }
    // Taken before the release semaphore: a free SGL may need a release that
    // the receive thread handles under it.
    if (sendData) sgl = t->allocSgl();
    semTake(t->releaseSem(), WAIT_FOREVER);
    if (r.isAborted()) {
        semGive(t->releaseSem());
        if (!r.isHold()) delete this;
        return;
    }
    bool ok = r.status.ok();
    rsp.status = r.status.value();
    rsp.rc = ok ? 0 : uint32_t(-1);
    if (sendData) {
        sgl->count = uint32_t(pieces.size());
        sgl->one = 1;
        sgl->total = r.len * 512u;
        for (size_t i = 0; i < pieces.size(); ++i) {
            sgl->elements[i].offset = pieces[i].offset;
            sgl->elements[i].length = pieces[i].length;
            sgl->elements[i].pool = pieces[i].pool;
        }
        rsp.type = td::kRespSgl;
        rsp.sgl = t->sglOffset(sgl);
        handle = t->addHandle(this);
        rsp.requestHandle = handle;
    } else if (!ok) {
        reportFailedIo(r);
    }
    sampleRequest(r, startTime);
    startTime = 0;
    // The cache range lock goes before the response: once the response is
    // out, the release may free the request at any moment.
    unlockCto(r);
    r.setFlag(ClientRequest::kResponded);
    t->ring().respond(rsp);
    bool keep = sendData || r.isHold();
    semGive(t->releaseSem());
    if (!keep) delete this;  // a write, an empty read or a failure: no release will come
}

void MultiHostRequest::protoRelease() {
    MultiIssueTransport* t = MultiIssueTransport::GetInstance();
    ClientRequest& r = mRequest;
    if (!r.isRead()) {
        delete this;
        return;
    }
    semTake(t->releaseSem(), WAIT_FOREVER);
    bool released = r.flags & ClientRequest::kReleasedEarly;
    // Without the driver's release only the hold goes: the release will come.
    if (!released) r.clearFlag(ClientRequest::kHold);
    // A held read that never sent data (no handle) gets no release.
    bool free = released || handle == 0;
    semGive(t->releaseSem());
    if (free) delete this;
}
