#pragma once
// SystemPolicy (SPMM): turns what the rest of the system reports about slots,
// the pack and the space left into one state per slot and then into the
// colours of the slot lights, the power light and the capacity meter's on/off
// (LEDMan draws them). The lead question it answers is where the next disk
// should go: an empty slot, or the smallest disk that can be swapped without
// harm, lights yellow or red when space runs out.
//
// Owns SlotStatus[8] (bits below), LEDState[8], the last colour given to each
// slot (what the management slot page reports), the system state, the
// watermark word of the capacity daemon, the rebuild and identify flags, and
// the queue of its thread "tSPMM". Every operation takes the reentrant lock
// "Spmm".
//
// Reports from the disk and pack layers may come with their locks held, and
// the light decision calls back into those layers under "Spmm"; so such a
// report is queued and applied on "tSPMM", never under the reporter's locks.
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "system/EventManager.h"
#include "util/ReentrantLockObject.h"
#include "util/StatusCode.h"

class RtosTimer;

class SystemPolicy {
public:
    enum SlotStatusBits : uint16_t {
        SLOT_MOUNTED = 0x01,
        SLOT_BAD_DISK = 0x02,
        SLOT_REBUILDING = 0x04,
        SLOT_LOW_WATERMARK_PROMPT = 0x20,
        SLOT_HI_WATERMARK_PROMPT = 0x40,
    };
    enum LedStateValue : uint16_t { kEmpty = 0, kMounted, kBadDisk, kRebuilding, kLowWatermark, kHighWatermark, kBad };
    enum Colour : uint8_t { Off = 0, Red, Yellow, Green, FlashYellowGreen, FlashRedGreen, FlashRed, FlashRedYellow };
    enum sysStateType { Booting = 0, NoValidDiskSet, ValidDiskSet, Standby, Resuming, PowerOff };
    // Message types on the queue.
    static constexpr uint32_t kIdentify = 1;
    static constexpr uint32_t kRedraw = 0x100;  // internal: run SetLEDState on tSPMM
    static constexpr uint32_t kReport = 0x101;  // internal: a slot report (what << 8 | slot) to apply
    static constexpr int kIdentifySeconds = 10;

    static SystemPolicy* GetInstance();
    static const char* colourName(unsigned colour);
    static const char* ledStateText(unsigned state);

    StatusCode Initialize();
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack();
    void SystemInitialized();
    void DiskSetLoaded();
    void help();
    void DiskMounted(unsigned short slot);
    void RemoveDisk(unsigned short slot);
    void ExpungeDisk(unsigned short slot);
    void DiskFail(unsigned short slot);
    void SetSysState(sysStateType state);
    void SetLEDOverTemp(bool on);
    // After a resume: the lights as at the end of the start, and the meter redrawn.
    void resumeLEDs();
    void Rebuild(unsigned long value);
    void DiskUtilization(unsigned long value);
    // Posts (type, param) on the queue; identify is (1, 1) on, (1, 0) off.
    bool postMessage(uint32_t type, uint32_t param);

    bool AnyBadSlots();
    void GetSlotLEDColors(unsigned char colours[8]);
    unsigned GetSmallestSafeDrive();
    uint16_t slotStatus(unsigned slot);
    sysStateType systemState() const { return mSystemState.load(); }
    bool rebuildInProgress() const { return mRebuildInProgress.load(); }
    bool identifying() const { return mIdentifyingESA.load(); }
    // Decides all lights now (tests, and the thread's redraw).
    void SetLEDState();
    void Dump(std::ostream& out);

private:
    SystemPolicy();
    void policyLoop();
    void redraw();
    enum : uint32_t { kReportHelp = 1, kReportMounted, kReportRemoved, kReportExpunged, kReportFailed };
    void report(uint32_t what, unsigned short slot);
    void applyReport(uint32_t what, unsigned short slot);
    void setSlotLEDcolorByPolicy(unsigned slot);
    void setPowerLEDcolorByPolicy();
    void setCapacityLEDcolorByPolicy();
    unsigned physicalDrives();
    static void DoRebuild(EVENT_TYPE type, void* context, unsigned long value, void*);
    static void DoDiskUtilization(EVENT_TYPE type, void* context, unsigned long value, void*);

    ReentrantLockObject mLock{"Spmm", 0};
    bool mStarted = false;
    MSG_Q_ID mQueue = nullptr;
    std::unique_ptr<RtosTimer> mIdentifyTimer;
    uint32_t mColourTable[7];
    uint16_t mSlotStatus[8] = {};
    uint16_t mLEDState[8] = {};
    uint16_t mSlotColour[8] = {};
    std::atomic<sysStateType> mSystemState{Booting};
    bool mDiskSetLoaded = false;
    uint32_t mDiskUtilizationStatus = 0;
    std::atomic<bool> mRebuildInProgress{false};
    std::atomic<bool> mIdentifyingESA{false};
    bool mOverTemp = false;
};
