#pragma once
// USBTransport: the system's side of the target driver's command queues and
// single-issue ring. It owns the management path, the link events and the
// single-issue data path: the queues "/tdToRtpQ" (commands in) and
// "/tdFromRtpQ" (answers out), the threads "USBtxShim" (queue) and
// "USBtxData" (single-issue ring), `lastRead` (the last read whose buffers
// the driver may still use) and its semaphore, and the state it pushes to
// the driver through the board calls: LUN count and last LBAs, transport
// and media state.
//
// Invariants: only the two threads consume their queue and ring; `lastRead`
// is read and changed only under its semaphore.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "host/TransportBuffers.h"
#include "host/TransportRing.h"
#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

class USBHostRequest;
class WJMemoryPool;
namespace td {
struct CmdResp;
}

class USBTransport {
public:
    static constexpr int kQueueDepth = 64;
    static constexpr int kMaxMessage = 0x80000 + 512;

    static USBTransport* GetInstance();

    StatusCode Initialize();
    void transportEnable(bool allow);
    bool enabled() const { return mEnabled; }
    StatusCode mediaAccess(bool allow);
    void fakeTransportEnable(bool allow);
    // Tells the driver that LUN `lun` exists with last LBA `lastLba` (and
    // raises the LUN count to cover it).
    StatusCode setMaxLun(uint8_t lun, uint64_t lastLba);
    // A new last LBA for an existing LUN.
    StatusCode setMaxLba(uint8_t lun, uint64_t lastLba);
    // A deleted LUN: the driver no longer shows it.
    void removeLun(uint8_t lun);
    void setLunCount(uint32_t count);
    int rtpState(int state, unsigned long value);
    int setTransportState(int transportStateCmd);
    bool getSerialNum(char* buffer, int length);
    bool getBattBootState(bool& onBattery);
    void sendResponse(const td::CmdResp& rsp);
    void sendPayloadMarker();
    static void freeWriteBuffer(unsigned char* address, unsigned long length);

    void Dump(std::ostream& out);
    void profileShow(std::ostream& out);

    // ---- for the request objects
    MSG_Q_ID toRtp() const { return mToRtp; }
    SEM_ID lastReadSem() const { return mLastReadSem; }
    USBHostRequest* lastRead = nullptr;  // guarded by lastReadSem
    // Deals with `lastRead` on a link event or a release of the last read.
    void dropLastRead();
    // A new command: the previous read's buffers are no longer used.
    void cleanUpLastRead();
    TransportRing& ring() { return mRing; }
    const TransportPools& pools() const { return mPools; }
    uint8_t* usbSgList() const { return mUsbSgList; }
    WJMemoryPool& writePool() { return *mWritePool; }

    std::atomic<int64_t> requestsLive{0};
    std::atomic<uint64_t> commands{0};
    std::atomic<uint64_t> syncCaches{0};
    std::atomic<uint64_t> linkEvents{0};

private:
    USBTransport() = default;
    void shimLoop();
    void dataLoop();

    bool mInitialised = false;
    bool mEnabled = false;
    bool mMediaOn = false;
    MSG_Q_ID mToRtp = nullptr;
    MSG_Q_ID mFromRtp = nullptr;
    SEM_ID mLastReadSem = nullptr;
    SEM_ID mShimSem = nullptr;
    TransportRing mRing;
    TransportPools mPools;
    uint8_t* mUsbSgList = nullptr;
    WJMemoryPool* mWritePool = nullptr;
};
