#pragma once
// HAManager (HAM): the host application's management path. It reads
// HRManager's `mgmtDown` queue on its thread "tMgmt" and answers each
// command: vendor MODE SENSE(10) pages with binary records, vendor MODE
// SELECT(10) pages that change settings, and the vendor command 0xEA whose
// system operations change the appliance (HAManagerSysOps.cpp).
//
// Owns the "/mgmtpool" buffers (32 blocks of 1,024 bytes: each answer takes
// one), its saved state in Zone 0 (entry 14, "HAM-Z0IT": a 512-byte state
// sector, then `numSecs` sectors that are the host application's own store),
// the `rebuilding` flag fed by event type 6, and the pending transport reset,
// reboot and power-off flags that act after a response has gone.
//
// Records on the wire are big-endian except where a page says otherwise;
// their byte positions are binding for host programs. All commands run one at
// a time on "tMgmt", so the handlers need no lock against each other.
//
// Not done yet: firmware install and status, diagnostics upload and host
// console commands (0x04, 0x0A with the host command allowed, 0x70, 0x71
// answer FunctionNotImplemented); the FAT32 format jobs of the worker (0x0C,
// 0x10 answer FunctionNotImplemented; 0x0E reports no format running); and
// of the locked diagnostics stream (0x07) only its event log section is
// built, by this class instead of the console thread.
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "include/ManagerBase.h"
#include "system/EventManager.h"
#include "util/LockObject.h"
#include "util/StatusCode.h"

class ClientRequest;
class DataStore;
class RtosTimer;
class SharedMemoryPool;

class HAManager : public ManagerBase {
public:
    static constexpr uint8_t kModeSense10 = 0x5A, kModeSelect10 = 0x55, kVendorUnique10 = 0xEA;
    static constexpr uint32_t kBlockSize = 0x400;
    static constexpr unsigned kZone0Entry = 14;
    static constexpr uint32_t kZone0Version = 2;
    static constexpr uint32_t kZone0Size = 0x10200;
    static constexpr const char* kZone0Name = "HAM-Z0IT";
    static constexpr uint32_t kStateMagic = 0x48414D01;
    static constexpr uint32_t kDefaultNumSecs = 128;
    static constexpr uint8_t kProtocolMajor = 0, kProtocolMinor = 0x0B;

    static HAManager* GetInstance();
    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;

    // One command; request.status and resid are set.
    void ProcessMgmtReq(ClientRequest& request);
    StatusCode modeSense(ClientRequest& request, const uint8_t* command);
    StatusCode modeSelect(ClientRequest& request, const uint8_t* command);
    StatusCode systemOperation(ClientRequest& request, const uint8_t* command);

    // Saved state (Zone 0 entry 14).
    StatusCode openZone0();
    StatusCode createZone0();
    void saveState();
    void loadSavedState();
    StatusCode SetSpindownTime(uint32_t seconds);
    void PrintGMTOffset(std::ostream& out) const;

    bool packLoaded() const { return mPackLoaded.load(); }
    bool rebuilding() const { return mRebuilding.load(); }
    bool autoLunCreate() const { return mAutoLunCreate.load(); }
    uint32_t numSecs() const { return mNumSecs; }
    uint32_t timeToStandby() const { return mTimeToStandby; }
    bool pendingTransportReset() const { return mPendingTransportReset.load(); }
    bool pendingReboot() const { return mPendingReboot.load(); }
    bool pendingPowerOff() const { return mPendingPowerOff.load(); }
    uint64_t commandsServed() const { return mServed.load(); }
    void setRequestDelay(uint32_t seconds) { mRequestDelay = seconds; }
    uint32_t requestDelay() const { return mRequestDelay.load(); }
    void Dump(std::ostream& out);

private:
    HAManager();
    void HostDispatcher();
    static void doRebuild(EVENT_TYPE type, void* context, unsigned long value, void*);

    // An answer: one block of the pool in the request's window, cleared.
    uint8_t* answerBlock(ClientRequest& request, uint32_t windowLength);
    // The data block of a MODE SELECT or 0xEA (the second block of the store); null if none.
    static const uint8_t* dataBlock(ClientRequest& request, uint32_t& length);

    // ---- pages (HAManagerPages.cpp)
    StatusCode GetConfigInfo(ClientRequest& r);
    StatusCode GetCapacityInfo(ClientRequest& r);
    StatusCode GetSlotInfo(ClientRequest& r);
    StatusCode GetLunInfo(ClientRequest& r);
    StatusCode GetLunInfo2(ClientRequest& r);
    StatusCode GetSystemInfo(ClientRequest& r);
    StatusCode GetProtocolVersion(ClientRequest& r);
    StatusCode GetFirmwareInfo(ClientRequest& r);
    StatusCode GetStatusInfo(ClientRequest& r);
    StatusCode GetDiskPackInfo(ClientRequest& r);
    StatusCode GetOptions(ClientRequest& r);
    StatusCode GetOptions2(ClientRequest& r);
    StatusCode DiskOp(ClientRequest& r, uint8_t page, uint8_t slot);
    // ---- settings (HAManagerOptions.cpp)
    StatusCode SetOptions(const uint8_t* data, uint32_t length);
    StatusCode SetOptions2(const uint8_t* data, uint32_t length);
    StatusCode SetSystemInfo(const uint8_t* data, uint32_t length);
    // ---- system operations (HAManagerSysOps.cpp)
    StatusCode accessGuiData(ClientRequest& r, const uint8_t* command, bool write);
    void scheduleOperation(int ticks, void (*handler)(HAManager*));
    static void Reboot(HAManager*);
    static void ClearDiskReboot(HAManager*);
    void postEvent(const std::string& text);
    // 0x07: the next part of the locked diagnostics stream.
    StatusCode lockedDiagnostics(ClientRequest& r, const uint8_t* command);

    LockObject mLock{"lHAMLock", 0};
    bool mStarted = false;
    std::unique_ptr<SharedMemoryPool> mMgmtPool;
    int mEsaRegisterFd = -1;
    std::atomic<bool> mPackLoaded{false};
    std::atomic<bool> mRebuilding{false};
    std::atomic<bool> mFirmwareStaged{false};
    std::atomic<uint32_t> mRequestDelay{0};
    bool mEncryptDiag = true;
    uint32_t mDemoMode = 0;
    uint32_t mScaleFactor = 1;
    std::atomic<bool> mAutoLunCreate{true};
    uint32_t mNumSecs = kDefaultNumSecs;
    uint32_t mTimeToStandby = 0;  // seconds; the disk power manager does not spin disks down yet
    int16_t mGmtOffset = 0;
    bool mFirstTimeSet = true;
    char mDefaultName[32] = {};
    std::atomic<bool> mPendingTransportReset{false};
    std::atomic<bool> mPendingPowerOff{false};
    std::atomic<bool> mPendingReboot{false};
    std::unique_ptr<RtosTimer> mRebootTimer;
    void (*mTimerHandler)(HAManager*) = nullptr;
    std::atomic<uint64_t> mServed{0};
    // The present command's data (MODE SELECT record, operation data).
    std::vector<uint8_t> mCommandData;
    bool mHasCommandData = false;
    // The locked diagnostics stream being read, its read position, the
    // scrambling generator, and whether an empty answer is still owed.
    std::string mDiagStream;
    size_t mDiagPosition = 0;
    uint32_t mDiagGenerator = 0;
    bool mDiagActive = false;
    bool mDiagSendEmpty = false;
};
