#include "management/SystemPolicy.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "background/DiskUtilizationDaemon.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "disk/ErrorPolicy.h"
#include "management/LEDMan.h"
#include "platform/rtos/RtosTimer.h"
#include "util/ConsoleCommand.h"
#include "util/IOTracker.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
// The two LED phases of each colour: 0 yellow, 1 red, 2 green, 3 off.
constexpr uint8_t kPhase[8][2] = {{3, 3}, {1, 1}, {0, 0}, {2, 2}, {0, 2}, {1, 2}, {1, 3}, {1, 0}};
constexpr unsigned kSlots = 8;
}  // namespace

SystemPolicy* SystemPolicy::GetInstance() {
    static SystemPolicy instance;
    return &instance;
}

SystemPolicy::SystemPolicy()
    : mColourTable{Off, Green, FlashRed, FlashYellowGreen, Yellow, Red, FlashRed} {}

const char* SystemPolicy::colourName(unsigned colour) {
    static const char* const kNames[] = {"Off",       "Red",          "Yellow",   "Green",
                                         "FlashYellowGreen", "FlashRedGreen", "FlashRed", "FlashRedYellow"};
    return colour < 8 ? kNames[colour] : "Unknown";
}

const char* SystemPolicy::ledStateText(unsigned state) {
    static const char* const kTexts[] = {"( EMPTY )",         "( MOUNTED )",        "( BAD DISK )", "( REBUILDING )",
                                         "( LOW WATERMARK )", "( HIGH WATERMARK )", "( BAD )"};
    return state < 7 ? kTexts[state] : "( UNKNOWN )";
}

StatusCode SystemPolicy::Initialize() {
    ReentrantLockObject::LockInstance g(&mLock);
    if (mStarted) return StatusCode::Success;
    mStarted = true;
    // The system's disk error limits are the policy's to set.
    ErrorPolicy::GetInstance()->limits().setDefaults();
    LEDMan::GetInstance()->Initialize();
    EventManager* em = EventManager::GetInstance();
    em->AddHandlerStart(eRebuild, this, DoRebuild);
    em->AddHandlerStart(eDUDWMark, this, DoDiskUtilization);
    std::memset(mSlotStatus, 0, sizeof mSlotStatus);
    std::memset(mLEDState, 0, sizeof mLEDState);
    mDiskUtilizationStatus = 0;
    mRebuildInProgress = false;
    mIdentifyingESA = false;
    SetLEDState();
    mQueue = msgQCreate(64, 32, 5);
    if (mQueue == nullptr) {
        ESA_CONSOLE("SPMM::SystemPolicy unable to create message queue.");
        return StatusCode::InitFailed;
    }
    if (taskSpawn("tSPMM", 120, [this] { policyLoop(); }) == nullptr) {
        ESA_CONSOLE("SPMM: Thread was not created");
        return StatusCode::InitFailed;
    }
    return StatusCode::Success;
}

bool SystemPolicy::postMessage(uint32_t type, uint32_t param) {
    if (mQueue == nullptr) return false;
    uint32_t m[2] = {type, param};
    return msgQSend(mQueue, m, sizeof m, NO_WAIT, 0) == OK;
}

void SystemPolicy::redraw() {
    if (!postMessage(kRedraw, 0)) SetLEDState();  // no thread yet (start-up, unit tests)
}

void SystemPolicy::policyLoop() {
    mIdentifyTimer = std::make_unique<RtosTimer>("tSPMMtimer", 120);
    mIdentifyTimer->connect([this] { postMessage(kIdentify, 0); });
    for (;;) {
        uint32_t m[2] = {};
        if (msgQReceive(mQueue, m, sizeof m, WAIT_FOREVER) < int(sizeof m)) continue;
        if (m[0] == kRedraw) {
            SetLEDState();
        } else if (m[0] == kReport) {
            applyReport(m[1] >> 8, uint16_t(m[1] & 0xFF));
        } else if (m[0] == kIdentify) {
            ReentrantLockObject::LockInstance g(&mLock);
            if (m[1] == 1) {
                if (mIdentifyingESA) {
                    ESA_CONSOLE("SPMM: received extra IDENTIFYESA event while in identifying state, skip.");
                    continue;
                }
                mIdentifyingESA = true;
                SetLEDState();
                mIdentifyTimer->settime(uint64_t(kIdentifySeconds) * sysClkRateGet(), 0);
            } else {
                mIdentifyingESA = false;
                SetLEDState();
            }
        } else {
            ESA_CONSOLE("SPMM: Unknown received event " << m[0]);
        }
    }
}

// ---- reports ------------------------------------------------------------

StatusCode SystemPolicy::UnloadDiskPack() {
    ReentrantLockObject::LockInstance g(&mLock);
    std::memset(mSlotStatus, 0, sizeof mSlotStatus);
    mDiskUtilizationStatus = 0;
    redraw();
    return StatusCode::Success;
}

void SystemPolicy::SystemInitialized() {
    ReentrantLockObject::LockInstance g(&mLock);
    const unsigned drives = physicalDrives();
    if (drives == 0 || DiskPackManager::GetInstance()->availableDiskCount() > 0) {
        mSystemState = mDiskSetLoaded ? ValidDiskSet : NoValidDiskSet;
    } else {
        ESA_CONSOLE("SPMM: SystemInitialized - No disk set found, and we have bad drives.");
        mSystemState = NoValidDiskSet;
    }
    redraw();
}

void SystemPolicy::DiskSetLoaded() {
    ReentrantLockObject::LockInstance g(&mLock);
    mDiskSetLoaded = true;
    if (mSystemState == NoValidDiskSet) mSystemState = ValidDiskSet;
    redraw();
}

// Reports from the disk and pack layers may come with their locks held, and
// the decision calls back into those layers under "Spmm": such a report is
// queued for "tSPMM", which applies it under the lock and decides. Without
// the thread (start-up, unit tests) it is applied at once.
void SystemPolicy::report(uint32_t what, unsigned short slot) {
    if (!postMessage(kReport, what << 8 | (slot & 0xFF))) applyReport(what, slot);
}

void SystemPolicy::applyReport(uint32_t what, unsigned short slot) {
    ReentrantLockObject::LockInstance g(&mLock);
    switch (what) {
    case kReportHelp:
        ESA_CONSOLE("SP: HELP - no loadable disk pack");
        mSystemState = NoValidDiskSet;
        break;
    case kReportMounted:
        if (slot >= kSlots) return;
        mSlotStatus[slot] = uint16_t((mSlotStatus[slot] & ~SLOT_BAD_DISK) | SLOT_MOUNTED |
                                     (mRebuildInProgress ? SLOT_REBUILDING : 0));
        mLEDState[slot] = kMounted;
        // A mounted disk keeps the present lights until the next utilization report.
        if (!mRebuildInProgress && mDiskUtilizationStatus != 0) return;
        break;
    case kReportRemoved:
        if (slot >= kSlots) return;
        mSlotStatus[slot] &= uint16_t(~0x07);
        break;
    case kReportExpunged:
    case kReportFailed:
        if (slot >= kSlots) return;
        mSlotStatus[slot] = uint16_t((mSlotStatus[slot] & ~(SLOT_MOUNTED | SLOT_REBUILDING)) | SLOT_BAD_DISK);
        if (what == kReportFailed) mLEDState[slot] = kBadDisk;
        break;
    default:
        return;
    }
    SetLEDState();
}

void SystemPolicy::help() { report(kReportHelp, 0); }
void SystemPolicy::DiskMounted(unsigned short slot) { report(kReportMounted, slot); }
void SystemPolicy::RemoveDisk(unsigned short slot) { report(kReportRemoved, slot); }
void SystemPolicy::ExpungeDisk(unsigned short slot) { report(kReportExpunged, slot); }

void SystemPolicy::DiskFail(unsigned short slot) {
    ESA_CONSOLE("SP: disk in slot " << slot << " FAILED");
    report(kReportFailed, slot);
}

void SystemPolicy::SetSysState(sysStateType state) {
    ReentrantLockObject::LockInstance g(&mLock);
    mSystemState = state;
    redraw();
}

void SystemPolicy::SetLEDOverTemp(bool on) {
    ReentrantLockObject::LockInstance g(&mLock);
    mOverTemp = on;
    redraw();
}

void SystemPolicy::resumeLEDs() {
    SystemInitialized();
    DiskUtilizationDaemon::GetInstance()->DUDUpdate(true);
}

void SystemPolicy::DoRebuild(EVENT_TYPE, void* context, unsigned long value, void*) {
    static_cast<SystemPolicy*>(context)->Rebuild(value);
}

void SystemPolicy::DoDiskUtilization(EVENT_TYPE, void* context, unsigned long value, void*) {
    static_cast<SystemPolicy*>(context)->DiskUtilization(value);
}

void SystemPolicy::Rebuild(unsigned long value) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (mSystemState == Booting) {
        ESA_CONSOLE("SPMM::Rebuild(): ERROR! Rebuild event arrived while sysState == Booting ");
        mSystemState = ValidDiskSet;
        SetLEDState();
    }
    const bool on = (value & 0x8000) != 0;
    if (on != mRebuildInProgress) {
        IOTracker tracker(READ_ONLY);
        DiskPackManager::GetInstance()->updateCriticalDiskMap(tracker);
    }
    mRebuildInProgress = on;
    for (unsigned s = 0; s < kSlots; ++s) {
        if (!(mSlotStatus[s] & SLOT_MOUNTED)) continue;
        if (on) mSlotStatus[s] |= SLOT_REBUILDING;
        else mSlotStatus[s] &= uint16_t(~SLOT_REBUILDING);
    }
    SetLEDState();
}

void SystemPolicy::DiskUtilization(unsigned long value) {
    ReentrantLockObject::LockInstance g(&mLock);
    mDiskUtilizationStatus = uint32_t(value);
    SetLEDState();
}

// ---- reads --------------------------------------------------------------

bool SystemPolicy::AnyBadSlots() {
    ReentrantLockObject::LockInstance g(&mLock);
    for (unsigned s = 0; s < kSlots; ++s)
        if (mSlotStatus[s] & SLOT_BAD_DISK) return true;
    return false;
}

void SystemPolicy::GetSlotLEDColors(unsigned char colours[8]) {
    ReentrantLockObject::LockInstance g(&mLock);
    for (unsigned s = 0; s < kSlots; ++s) colours[s] = uint8_t(mSlotColour[s]);
}

uint16_t SystemPolicy::slotStatus(unsigned slot) {
    ReentrantLockObject::LockInstance g(&mLock);
    return slot < kSlots ? mSlotStatus[slot] : 0;
}

unsigned SystemPolicy::physicalDrives() {
    DiskManager* dm = DiskManager::GetInstance();
    unsigned n = 0;
    for (int s = 0; s < int(kSlots); ++s)
        if (dm->DriveIsPresent(s)) ++n;
    return n;
}

// The slot of the smallest disk that is neither failed nor critical; slot 0
// when there is none. A tie keeps the lower slot.
unsigned SystemPolicy::GetSmallestSafeDrive() {
    DiskManager* dm = DiskManager::GetInstance();
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    unsigned best = 0;
    uint64_t smallest = 0xFFFFFFFFull;
    for (unsigned s = 0; s < kSlots; ++s) {
        if (!dm->DriveIsPresent(int(s))) continue;
        const uint64_t capacity = dm->GetDriveCapacity(int(s));
        if (capacity >= smallest) continue;
        uint16_t ld = 0;
        StatusCode st = dpm->getLdNum(uint16_t(s), ld);
        if (!st.ok()) continue;  // 5: the slot contains a FAILED drive
        IOTracker tracker(READ_ONLY);
        if (!ZoneManager::GetInstance()->IsCriticalDisk(ld, false, tracker)) {
            best = s;
            smallest = capacity;
        }
    }
    return best;
}

// ---- the decision -------------------------------------------------------

void SystemPolicy::SetLEDState() {
    ReentrantLockObject::LockInstance g(&mLock);
    bool anyRebuilding = false, anyBad = false;
    int target = -1;
    for (unsigned s = 0; s < kSlots; ++s) {
        mLEDState[s] = uint16_t(mSlotStatus[s] & 3);
        if (mSlotStatus[s] & SLOT_REBUILDING) {
            mLEDState[s] = kRebuilding;
            anyRebuilding = true;
        }
        if (mSlotStatus[s] & SLOT_BAD_DISK) anyBad = true;
        if (mSlotStatus[s] == 0 && target < 0) target = int(s);
    }
    const sysStateType state = mSystemState;
    if (!anyBad && state != Standby && state != Resuming) {
        const uint32_t w = mDiskUtilizationStatus & 7;
        const bool bad = (w & DiskUtilizationDaemon::kNoRedundancyMargin) != 0;
        switch (w) {
        case 0:
            for (unsigned s = 0; s < kSlots; ++s) {
                if (!(mSlotStatus[s] & 0x60)) continue;
                mSlotStatus[s] &= uint16_t(~0x60);
                if (mSlotStatus[s] & SLOT_MOUNTED) mLEDState[s] = kMounted;
            }
            break;
        case 1: case 5:
            if (physicalDrives() == 1) break;
            if (target >= 0) mLEDState[target] = bad && !anyRebuilding ? kHighWatermark : kLowWatermark;
            else if (!anyRebuilding) mLEDState[GetSmallestSafeDrive()] = bad ? kHighWatermark : kLowWatermark;
            break;
        case 4:
            if (anyRebuilding) break;
            mLEDState[target >= 0 ? unsigned(target) : GetSmallestSafeDrive()] = kHighWatermark;
            break;
        default:  // 2, 3, 6, 7: above the high watermark
            if (target >= 0) mLEDState[target] = kHighWatermark;
            else if (!anyRebuilding) mLEDState[GetSmallestSafeDrive()] = kHighWatermark;
            break;
        }
        // A lone disk (one member of the pack present) always asks for a
        // second one; with one disk and no bad
        // slot an empty slot exists.
        if (std::popcount(DiskPackManager::GetInstance()->presentLogicalDisks()) == 1 && target >= 0)
            mLEDState[target] = kHighWatermark;
    }
    setPowerLEDcolorByPolicy();
    setCapacityLEDcolorByPolicy();  // may end a resume: changes the state
    for (unsigned s = 0; s < kSlots; ++s) setSlotLEDcolorByPolicy(s);
}

void SystemPolicy::setSlotLEDcolorByPolicy(unsigned slot) {
    uint8_t colour = Off;
    if (mOverTemp) {
        colour = Off;
    } else if (mIdentifyingESA) {
        colour = FlashRedGreen;
    } else {
        switch (mSystemState.load()) {
        case NoValidDiskSet:
            if (physicalDrives() == 0) colour = slot == 0 ? Red : Off;
            else colour = mSlotStatus[slot] == SLOT_BAD_DISK ? FlashRed : Red;
            break;
        case ValidDiskSet:
            colour = mLEDState[slot] < 7 ? uint8_t(mColourTable[mLEDState[slot]]) : uint8_t(Off);
            break;
        default:  // booting, standby, resuming, powered off
            colour = Off;
            break;
        }
    }
    mSlotColour[slot] = colour;
    LEDMan::GetInstance()->SetSlotLed(slot, kPhase[colour][0], kPhase[colour][1]);
}

void SystemPolicy::setPowerLEDcolorByPolicy() {
    uint8_t c1 = 2, c2 = 2;
    const sysStateType state = mSystemState;
    if (mOverTemp) c1 = c2 = 1;
    else if (state == Standby) c1 = c2 = 3;
    else if (state == Booting || state == Resuming) c1 = 2, c2 = 0;
    else if (state == PowerOff) c1 = 0x43, c2 = 0x40;
    LEDMan::GetInstance()->SetPowerLed(c1, c2);
}

void SystemPolicy::setCapacityLEDcolorByPolicy() {
    const sysStateType state = mSystemState;
    if (mOverTemp || state == Booting || state == Standby || state == PowerOff) {
        LEDMan::GetInstance()->capMeterOff();
        ESA_CONSOLE("SPMM::SetCapacityLEDcolorByPolicy - Turn Off LEDs");
    } else if (state == Resuming) {
        DiskUtilizationDaemon::GetInstance()->WakeDUD();
        mSystemState = mDiskSetLoaded ? ValidDiskSet : NoValidDiskSet;
    }
}

void SystemPolicy::Dump(std::ostream& out) {
    ReentrantLockObject::LockInstance g(&mLock);
    char line[160];
    std::snprintf(line, sizeof line, "SystemPolicy: state %d, disk set loaded %d, utilization 0x%x, rebuild %d, identify %d, over temp %d\n",
                  int(mSystemState.load()), int(mDiskSetLoaded), mDiskUtilizationStatus, int(mRebuildInProgress.load()),
                  int(mIdentifyingESA.load()), int(mOverTemp));
    out << line;
    for (unsigned s = 0; s < kSlots; ++s) {
        std::snprintf(line, sizeof line, "Slot %u:  SlotStatus: 0x%02x  LEDState:   0x%02x %-19s colour %u %s\n", s,
                      mSlotStatus[s], mLEDState[s], ledStateText(mLEDState[s]), unsigned(mSlotColour[s]),
                      colourName(mSlotColour[s]));
        out << line;
    }
}

namespace {
int ledmanCommand(int, char**, std::ostream& out) {
    SystemPolicy::GetInstance()->Dump(out);
    LEDMan::GetInstance()->Dump(out);
    DiskUtilizationDaemon* dud = DiskUtilizationDaemon::GetInstance();
    out << "Capacity meter: " << dud->meterPercent() << "%\n";
    return 0;
}
}  // namespace

ConsoleCommand gLedman("ledman", "List LEDMan states", ledmanCommand);
