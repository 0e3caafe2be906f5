#pragma once
// RamRingResponder: the system's side of the multi-issue data path for
// memory-backed LUNs, until the host path of the system takes its place. It
// consumes the command ring of "/usbCmdResp", serves each command from LUN
// memory that lies inside "/readbuffer" (so a read's InterCoreSGL points
// straight at the data and nothing is copied), copies write data out of
// their "/SHJ1" slot, and answers on the response ring. A read's SGL stays
// allocated until the driver's TD_CMD_RES_RELEASE.
//
// It also answers the command queue "/tdToRtpQ" as the system's queue thread
// does: link events are counted, cache synchronisation succeeds at once
// (memory has no cache), management commands are refused (no management
// pages here).
//
// Owns: the LUN memory layout in "/readbuffer", the SGL pool of "/SGLD", the
// thread that consumes the command ring and the one that serves the queue.
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "platform/rtos/Rtos.h"
#include "platform/target/DriverRegions.h"

class RamRingResponder {
public:
    RamRingResponder(const DriverRegions& regions, uint32_t luns, uint64_t bytesPerLun);
    ~RamRingResponder();
    RamRingResponder(const RamRingResponder&) = delete;
    RamRingResponder& operator=(const RamRingResponder&) = delete;

    void start();
    void stop();

    // Bytes of "/readbuffer" needed for the LUNs.
    static size_t readBufferBytes(uint32_t luns, uint64_t bytesPerLun) { return size_t(luns) * bytesPerLun; }
    uint32_t sglsInUse() const { return uint32_t(mSglCount - mFreeSgls.size()); }
    int linkUps() const { return mLinkUps.load(); }
    int linkDowns() const { return mLinkDowns.load(); }
    int lastLinkTransport() const { return mLastTransport.load(); }

private:
    void loop();
    void queueLoop();
    void answerQueue(const td::CmdResp& rsp);
    void serve(const td::CommandBlock& cmd);
    void respond(const td::CmdResp& rsp);

    DriverRegions mRegions;
    uint32_t mLuns;
    uint64_t mBytes;
    uint32_t mSglCount;
    std::vector<uint32_t> mFreeSgls;  // SGL indexes; touched by the responder thread only
    SEM_ID mCommandSem;
    SEM_ID mResponseSem;
    std::thread mThread;
    std::thread mQueueThread;
    MSG_Q_ID mToSystem;
    MSG_Q_ID mFromSystem;
    std::atomic<int> mLinkUps{0}, mLinkDowns{0}, mLastTransport{-1};
    std::atomic<bool> mStopping{false};
};
