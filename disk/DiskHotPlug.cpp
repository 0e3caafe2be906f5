#include "disk/DiskHotPlug.h"

#include "disk/DriveAdapter.h"
#include "disk/ErrorPolicy.h"
#include "system/EventManager.h"
#include "util/Trace.h"

DiskHotPlug* DiskHotPlug::GetInstance() {
    static DiskHotPlug instance;
    return &instance;
}

bool DiskHotPlug::Initialize() {
    if (mThread) return true;
    if (SetupHotPlug(&DiskHotPlug::CheckDebounceTimers) == 1) return false;
    mThread = taskSpawn("tHotPlug", 119, [this] { MainLoop(); });
    return true;
}

void DiskHotPlug::Shutdown() { mShutdown = true; }

void DiskHotPlug::CheckDebounceTimers() {}

void DiskHotPlug::postEvent(int slot, bool add) {
    unsigned long value = (unsigned long)(add ? 1u : 2u) << 16 | unsigned(slot);
    EventManager::GetInstance()->NewEvent(eHotplugDisk, false, value);
}

void DiskHotPlug::InsertDisk(int slot) {
    if (OpenDrive(slot) < 0) return;
    ESA_CONSOLE("-------------- CALLING SYSTEM_ADD_DISK_EVENT for physical disk " << slot);
    postEvent(slot, true);
}

void DiskHotPlug::RemoveDisk(int slot) {
    ESA_CONSOLE("-------------- CALLING SYSTEM_REMOVE_DISK_EVENT for physical disk " << slot);
    SlotPowerSwitch(slot, false);
    postEvent(slot, false);
}

std::vector<HotPlugMessage> DiskHotPlug::recentMessages() {
    std::lock_guard<std::mutex> g(mLock);
    return {mRecent.begin(), mRecent.end()};
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
        case HotPlugEvent::DiskChangeDetected: {
            SlotPowerRecord r{};
            ReadSlotPowerRecord(&r);
            uint32_t act = r.diskDetected & ~r.slotPowered;
            for (int s = 0; s < kMaxDriveSlots; ++s)
                if (act >> s & 1) {
                    ESA_CONSOLE("-------------- Powering up physical disk " << s);
                    SlotPowerSwitch(s, true);
                }
            break;
        }
        case HotPlugEvent::StartFailure:
            ESA_CONSOLE("Drive " << slot << " Start Failure reported .");
            ErrorPolicy::GetInstance()->blockError(ErrorPolicy::DiskStartFailure, StatusCode::DiskError,
                                                   uint16_t(slot), 0, 1, 0, false);
            break;
        case HotPlugEvent::TemperatureAlert:
            ESA_CONSOLE("****++++++System Temperature Threshold Crossing Alert : SYSTEM SHUTTING DOWN");
            break;
        case HotPlugEvent::PowerSwitch:
        case HotPlugEvent::AdapterFailure:
            ESA_CONSOLE("DiskHotPlug: event " << m.event << " is left to the system manager");
            break;
        default:
            ESA_CONSOLE("Unknown hotplug message code: " << m.event);
            break;
        }
    }
}
