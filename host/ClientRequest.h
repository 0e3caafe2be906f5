#pragma once
// ClientRequest: one host command on its way through the I/O path, from the
// transport thread that stages it through HRManager's queues, TopEnd and the
// Dispatcher threads down to the map and back to the transport's response.
// HostRequest: the transport-facing object around it; a transport derives
// from it and gives the two operations protoResponse and protoRelease.
//
// Ownership: a HostRequest belongs to its transport's pool from reception to
// release. The window holds the data (a write's store, a read's cache window)
// and its references end with the request; `cto` is the read's range lock on
// the host LBA cache and is unlocked once the response has gone.
//
// Invariants: isHold() means the response went early and the object lives on
// until releaseRequest; a request with isHrmIo() passed through HRManager; a
// cache request (isCache) is never released here.
#include <cstdint>
#include <cstddef>
#include <new>

#include "util/DataStore.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class CacheTrackerObject;
struct J1ReplayTag;

class ClientRequest {
public:
    // flags
    static constexpr uint32_t kValid = 0x00000001;         // staged
    static constexpr uint32_t kRead = 0x00000002;
    static constexpr uint32_t kWrite = 0x00000004;
    static constexpr uint32_t kRespond = 0x00000008;       // a response goes to the transport when it completes
    static constexpr uint32_t kCmdFlag10 = 0x00000010;     // the command flags of the same value, carried along
    static constexpr uint32_t kCmdFlag20 = 0x00000020;
    static constexpr uint32_t kMgmt = 0x00000040;
    static constexpr uint32_t kCache = 0x00000080;         // internal cache I/O, never released here
    static constexpr uint32_t kHold = 0x00000100;          // response sent early; lives until releaseRequest
    static constexpr uint32_t kResponded = 0x00000200;     // a response has been handed to the transport
    static constexpr uint32_t kFromTransport = 0x00000400; // came from a transport receive thread
    static constexpr uint32_t kFastPath = 0x00000800;      // received through the shared ring
    static constexpr uint32_t kWriteAcked = 0x00001000;    // a write acknowledged on reception
    static constexpr uint32_t kHrmIo = 0x00002000;         // passed through HRManager
    static constexpr uint32_t kReleasedEarly = 0x00004000; // the transport released the buffers before the end
    static constexpr uint32_t kAborted = 0x80000000;       // the transport no longer wants the response

    ClientRequest() : iot(READ_ONLY) {}
    ClientRequest(const ClientRequest&) = delete;
    ClientRequest& operator=(const ClientRequest&) = delete;

    uint64_t lba = 0;       // first host LBA
    uint32_t lun = 0;
    uint32_t reserved = 0;  // 0 at reception
    uint32_t len = 0;       // 512-byte sectors (management: bytes)
    uint32_t resid = 0;     // residual count returned in the response
    DataWindow window;      // the scatter view of the data
    DataStore* store = nullptr;          // the write data or management command block
    CacheTrackerObject* cto = nullptr;   // read lock on the host LBA cache
    IOTracker iot;                       // this request's transaction
    StatusCode status = StatusCode::LastStatusCode;
    uint32_t flags = 0;
    J1ReplayTag* tag = nullptr;          // replay tag of a fast-path write (none until the host write journal)
    uint32_t origLen = 0;                // the length as received

    bool isValid() const { return flags & kValid; }
    bool isRead() const { return flags & kRead; }
    bool isWrite() const { return flags & kWrite; }
    bool isMgmt() const { return flags & kMgmt; }
    bool isCache() const { return flags & kCache; }
    bool isHold() const { return flags & kHold; }
    bool isFastPath() const { return flags & kFastPath; }
    bool isHrmIo() const { return flags & kHrmIo; }
    bool isAborted() const { return flags & kAborted; }
    bool fromTransport() const { return flags & kFromTransport; }
    void setFlag(uint32_t f) { flags |= f; }
    void clearFlag(uint32_t f) { flags &= ~f; }

    // Ends the previous transaction of this request and gives it a new one,
    // owned by the calling thread. The old one must hold nothing.
    void newTransaction(iotType type) {
        iot.~IOTracker();
        new (&iot) IOTracker(type);
    }
};

// The transport-facing object around a ClientRequest.
class HostRequest {
public:
    HostRequest() = default;
    virtual ~HostRequest() = default;
    HostRequest(const HostRequest&) = delete;
    HostRequest& operator=(const HostRequest&) = delete;

    // The base class's operations are never meant to run: a request that
    // reaches them was built wrongly.
    virtual void protoResponse();
    virtual void protoRelease();

    // Staged by a transport thread; false when refused (the transport then
    // responds or cleans up).
    bool putRequest();
    bool putMgmtRequest();

    // The HostRequest around a ClientRequest that a transport staged.
    static HostRequest* fromClient(ClientRequest& request) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
        return reinterpret_cast<HostRequest*>(reinterpret_cast<char*>(&request) - offsetof(HostRequest, mRequest));
#pragma GCC diagnostic pop
    }

    ClientRequest mRequest;
    HostRequest* mQueueWord = this;  // the word sent on the queues
};
