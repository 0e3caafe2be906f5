#include "disk/DiskHotPlug.h"

#include <string>

#include "disk/DriveAdapter.h"
#include "disk/ErrorPolicy.h"
#include "system/EventManager.h"
#include "system/SystemManager.h"
#include "util/ManagerRegistry.h"
#include "util/Trace.h"

DiskHotPlug* DiskHotPlug::GetInstance() {
    static DiskHotPlug instance;
    return &instance;
}

DiskHotPlug::DiskHotPlug() { resetStates(); }

void DiskHotPlug::resetStates() {
    for (int s = 0; s < kMaxDriveSlots; ++s) mStates[s] = DebounceState{kIdle, uint16_t(s), 0};
    mNextPowerUpTick = tickGet();
}

bool DiskHotPlug::Initialize() {
    if (mThread) return true;
    resetStates();
    if (SetupHotPlug(&DiskHotPlug::CheckDebounceTimers) == 1) return false;
    mThread = taskSpawn("tHotPlug", 119, [this] { MainLoop(); });
    return true;
}

void DiskHotPlug::Shutdown() { mShutdown = true; }

void DiskHotPlug::postEvent(int slot, bool add) {
    (add ? mAdds : mRemoves)[slot]++;
    unsigned long value = (unsigned long)(add ? 1u : 2u) << 16 | unsigned(slot);
    EventManager::GetInstance()->NewEvent(eHotplugDisk, false, value);
}

bool DiskHotPlug::admitted(int slot, const char* operation) {
    SystemManager* sm = SystemManager::GetInstance();
    const std::string what = std::string("HOT ") + operation + " ON SLOT";
    if (sm->hotPlugIgnore()) {
        ESA_CONSOLE("-------------- IGNORING " << what << " " << slot << " DUE TO SLOT POWER OPERATION");
        return false;
    }
    // Standby is not expected to see disks come or go: the system starts afresh.
    if (!sm->hotPlugAllowed()) {
        ESA_CONSOLE("-------------- " << what << " " << slot << " DURING HOT-PLUG LOCKOUT ... REBOOTING");
        sm->Reboot((what + " DURING HOT-PLUG LOCKOUT").c_str());
    }
    return true;
}

void DiskHotPlug::InsertDisk(int slot) {
    if (!admitted(slot, "ADD")) return;
    if (OpenDrive(slot) < 0) return;  // DiskNotPresent: nothing to debounce
    DebounceState& d = mStates[slot];
    ESA_CONSOLE("-------------- DEBOUNCING SYSTEM_ADD_DISK_EVENT for physical disk " << slot);
    ESA_CONSOLE("StartDebounce DriveNumber: " << slot << ", OldState : " << d.state << ", NewState : " << kDebouncing);
    // A further insert during a debounce does not restart it.
    if (d.state != kDebouncing) {
        d.state = kDebouncing;
        d.tick = tickGet();
    }
}

void DiskHotPlug::RemoveDisk(int slot) {
    if (!admitted(slot, "REMOVE")) return;
    if (mStates[slot].state != kIdle) return;  // the add being debounced fails on its own
    ESA_CONSOLE("-------------- CALLING SYSTEM_REMOVE_DISK_EVENT for physical disk " << slot);
    SlotPowerSwitch(slot, false);
    postEvent(slot, false);
}

void DiskHotPlug::DelayPowerUp() {
    if (!SystemManager::GetInstance()->hotPlugAllowed()) return;  // ignored in standby
    SlotPowerRecord r{};
    ReadSlotPowerRecord(&r);
    const uint32_t act = r.diskDetected & ~r.slotPowered;
    const uint32_t rate = uint32_t(sysClkRateGet());
    for (int s = 0; s < kMaxDriveSlots; ++s) {
        if (!(act >> s & 1)) continue;
        ESA_CONSOLE("-------------- DELAYING BSP_EVENT_DISK_CHANGE_DETECTED for physical disk " << s);
        DebounceState& d = mStates[s];
        if (d.state == kPowerUpDelayed) continue;
        const uint32_t now = tickGet();
        // Disks found at once power up 8 seconds apart, the first after 1
        // second: the next turn is counted from this slot's own, so the
        // second disk comes at 9 seconds, not 8 (an even spacing of the
        // inrush currents).
        if (int32_t(mNextPowerUpTick - now) >= 0) d.tick = mNextPowerUpTick;
        else d.tick = now + kPowerUpFirstSeconds * rate;
        mNextPowerUpTick = d.tick + kPowerUpSpacingSeconds * rate;
        d.state = kPowerUpDelayed;
    }
}

void DiskHotPlug::CheckDebounceTimers() { GetInstance()->checkTimers(); }

void DiskHotPlug::checkTimers() {
    const uint32_t now = tickGet();
    const uint32_t rate = uint32_t(sysClkRateGet());
    for (int s = 0; s < kMaxDriveSlots; ++s) {
        DebounceState& d = mStates[s];
        switch (d.state) {
        case kIdle:
            break;
        case kDebouncing:
            if (now - d.tick < kDebounceSeconds * rate) break;
            ESA_CONSOLE("-------------- CALLING SYSTEM_ADD_DISK_EVENT for physical disk " << s);
            postEvent(s, true);
            d.state = kIdle;
            d.tick = 0;
            break;
        case kPowerUpDelayed:
            if (int32_t(now - d.tick) < 0) break;
            ESA_CONSOLE("-------------- Powering up physical disk " << s);
            SlotPowerSwitch(s, true);
            d.state = kIdle;
            d.tick = 0;
            break;
        default:
            ESA_CONSOLE("-------------- BAD DEBOUNCE STATE (" << d.state << ") for physical disk " << s);
            d.state = kIdle;
            d.tick = 0;
            break;
        }
    }
}

std::vector<HotPlugMessage> DiskHotPlug::recentMessages() {
    std::lock_guard<std::mutex> g(mLock);
    return {mRecent.begin(), mRecent.end()};
}

void DiskHotPlug::Dump(std::ostream& out) {
    static const char* names[] = {"ADD DEBOUNCE", "POWER-UP DELAYED", "IDLE"};
    const uint32_t now = tickGet();
    for (int s = 0; s < kMaxDriveSlots; ++s) {
        const DebounceState& d = mStates[s];
        out << "slot " << s << ": " << (d.state <= kIdle ? names[d.state] : "BAD");
        if (d.state != kIdle) out << " (tick " << d.tick << ", now " << now << ")";
        out << ", adds " << mAdds[s] << ", removes " << mRemoves[s] << "\n";
    }
}

void DiskHotPlug::MainLoop() {
    for (;;) {
        HotPlugMessage m{};
        mvCheckHotPlug(&m);
        if (mShutdown) {
            ESA_CONSOLE("****++++++Shutdown flag set - Suspending thread " << taskName(nullptr));
            taskSuspend(nullptr);
            continue;
        }
        {
            std::lock_guard<std::mutex> g(mLock);
            mRecent.push_back(m);
            if (mRecent.size() > 64) mRecent.pop_front();
        }
        int slot = -1;
        if (m.event != HotPlugEvent::TemperatureAlert && m.event != HotPlugEvent::PowerSwitch &&
            m.event != HotPlugEvent::DiskChangeDetected &&
            MapToDriveNumber(int(m.adapterId), int(m.driveId), &slot) != 0) {
            ESA_CONSOLE("DiskHotPlug::MainLoop, Mapping of adapterID " << m.adapterId << " driveID " << m.driveId
                                                                       << " to DriveNumber failed");
            continue;
        }
        switch (m.event) {
        case HotPlugEvent::Inserted:
            InsertDisk(slot);
            break;
        case HotPlugEvent::Removed:
            RemoveDisk(slot);
            break;
        case HotPlugEvent::DiskChangeDetected:
            DelayPowerUp();
            break;
        case HotPlugEvent::StartFailure:
            ESA_CONSOLE("Drive " << slot << " Start Failure reported .");
            ErrorPolicy::GetInstance()->blockError(ErrorPolicy::DiskStartFailure, StatusCode::DiskError,
                                                   uint16_t(slot), 0, 1, 0, false);
            break;
        case HotPlugEvent::TemperatureAlert:
            ESA_CONSOLE("****++++++System Temperature Threshold Crossing Alert : SYSTEM SHUTTING DOWN");
            SystemManager::GetInstance()->overTempHalt();
            for (;;) taskDelay(sysClkRateGet() * 3600);
        case HotPlugEvent::PowerSwitch:
            SystemManager::GetInstance()->powerSwitchShutdown();
        case HotPlugEvent::AdapterFailure:
            ESA_CONSOLE("Drive Adapter Failure reported: Rebooting.....");
            SystemManager::GetInstance()->Reboot("Drive Adapter Failure reported");
        default:
            ESA_CONSOLE("Unknown hotplug message code: " << m.event);
            break;
        }
    }
}

namespace {
struct Registration {
    Registration() {
        ManagerRegistry::add("DiskHotPlug", [](std::ostream& out) { DiskHotPlug::GetInstance()->Dump(out); },
                             [](std::ostream&) {});
    }
} gRegistration;
}  // namespace
