#pragma once
// HRManager (HRM): stands between the transports and everything below them.
// It owns the `down` queue (data requests, one reader: tHRHThread) and the
// `mgmtDown` queue (management requests, read by the host app thread), the
// response entry back to the transports, the count of transports that are
// up, and the LUN table the host sees: how many LUNs there are, the size the
// transport is told for each, and their creation and deletion. The table's
// persistent part is the Zone 0 record "HRM-" "Z0IT" (HrmZone0Record.h).
//
// Invariants: drivePackReady gates data I/O (a data request before the pack
// is loaded is refused with DiskNotReady, management still passes); maxLun
// is the highest LUN number in use and changes only from the management
// path or the pack load; transportsUp never exceeds registeredTransports.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "host/ClientRequest.h"
#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

class HRManager {
public:
    static constexpr uint32_t kMaxInternalIo = 0x400;           // sectors: one request is at most 512 KiB
    static constexpr int kQueueMessages = 300;
    static constexpr uint64_t kMaxLunSectors = 0x800000000ull;  // 16 TiB
    static constexpr unsigned kZone0Entry = 6;
    static constexpr uint32_t kZone0Version = 1;
    static constexpr uint32_t kZone0Size = 0x2000;
    static constexpr const char* kZone0Name = "HRM-Z0IT";

    static HRManager* GetInstance();

    StatusCode Initialize();
    StatusCode LoadDiskPack();
    StatusCode UnloadDiskPack();

    // ---- the queues
    // Staging by a transport thread (HostRequest::putRequest, putMgmtRequest).
    bool stageRequest(HostRequest& request);
    bool stageMgmtRequest(HostRequest& request);
    // Block until a request arrives; never time out.
    ClientRequest* getRequest();
    ClientRequest* getMgmtRequest();
    void putResponse(ClientRequest& request);
    void releaseRequest(ClientRequest& request);
    // 0 up, 1 down.
    void transportChange(int transportState);
    void registerTransport() { ++registeredTransports; }

    // ---- the LUN table
    StatusCode createLun(unsigned long long size, bool keep);
    StatusCode createLunDeferred(unsigned long long size);
    StatusCode deleteLun(unsigned long lun, unsigned short key);
    StatusCode saveMaxLun(IOTracker& tracker);
    StatusCode clearPendingLunCreates();
    // The size a new LUN of `size` sectors gets (0: the default), after the
    // rule that no LUN ends in the last 135 sectors below 2^31 or 2^32.
    static uint64_t adjustLunSize(uint64_t size);

    bool getSerialNumber(char* buffer, int length);
    bool getBattBootState(bool& onBattery);

    void Dump(std::ostream& out);
    void stateShow(std::ostream& out);
    void PerfInfo(std::ostream& out);

    bool packReady() const { return drivePackReady.load(); }
    bool isLinkUp() const { return linkUp.load(); }
    uint8_t currentMaxLun() const { return maxLun; }
    uint32_t throttle() const { return throttleTicks.load(); }
    void setThrottleTicks(uint32_t ticks) { throttleTicks = ticks; }
    uint32_t upTransports() const { return transportsUp.load(); }
    // Console test path: that many writes of 9 sectors or more get Success without being done.
    std::atomic<uint32_t> corruptHRMWrites{0};

private:
    HRManager() = default;
    bool postOn(MSG_Q_ID queue, HostRequest& request);
    ClientRequest* receiveFrom(MSG_Q_ID queue);
    // Reads the record into `block` (512 bytes); false when the entry has no record.
    StatusCode readRecord(uint8_t* block, bool& present);
    StatusCode writeRecord(const uint8_t* block);
    StatusCode pushLunsToTransport();

    bool initialised = false;
    std::atomic<bool> drivePackReady{false};
    std::atomic<bool> linkUp{false};
    MSG_Q_ID down = nullptr;
    MSG_Q_ID mgmtDown = nullptr;
    uint8_t maxLun = 0;
    std::atomic<uint32_t> throttleTicks{0};  // "ThrottleTicks"
    std::atomic<uint32_t> transportsUp{0};
    std::atomic<uint32_t> registeredTransports{0};
    std::atomic<uint64_t> ioCount{0};
    std::atomic<uint64_t> mgmtCount{0};
    std::atomic<uint64_t> refused{0};
};
