// SystemManager: the two ways out that the board's hot-plug messages ask for,
// an over-temperature halt and the power switch. Until standby exists they
// reach a quiet pack the way safeReboot does, by unloading it (which drains
// J1, flushes J2 and the disks); the battery switch-off, the lights and the
// drain time limits come with standby.
#include <string>

#include "disk/DiskManager.h"
#include "disk/DriveAdapter.h"
#include "host/USBTransport.h"
#include "management/EventLogManager.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/Rtos.h"
#include "system/SystemManager.h"
#include "util/ConsoleCommand.h"
#include "util/Trace.h"

void SystemManager::overTempHalt() {
    mSystemState = 2;
    USBTransport::GetInstance()->transportEnable(false);
    EventLogManager::EventLog()->PostEvent("******** HALTING SYSTEM DUE TO OVERTEMP CONDITION ********");
    {
        ReentrantLockObject::LockInstance g(&rStandbyLock);
        if (mPackLoaded) UnloadDiskPack();
    }
    ESA_CONSOLE("OverTempHalt: Flush all disks .....");
    DiskManager::GetInstance()->FlushAllDisksBypassQueue();
    ESA_CONSOLE("OverTempHalt: power off all disks .....");
    mHotPlugIgnore = true;
    for (int slot = 0; slot < DiskManager::kSlots; ++slot) SlotPowerSwitch(slot, false);
    ESA_CONSOLE("***** SYSTEM OVERTEMP SHUTDOWN COMPLETE *****");
}

void SystemManager::powerSwitchShutdown() {
    EventLogManager::EventLog()->PostEvent("Power switch shutdown request : SYSTEM SHUTTING DOWN");
    SetLastRebootReason("Power switch shutdown request FAILED");
    USBTransport::GetInstance()->transportEnable(false);
    {
        ReentrantLockObject::LockInstance g(&rStandbyLock);
        mInStandby = true;
        mHotPlugIgnore = true;
        if (mPackLoaded) UnloadDiskPack();
    }
    SetLastRebootReason("Power switch shutdown request completed");
    ESA_CONSOLE("System shutdown complete - turning off power");
    taskDelay(sysClkRateGet() / 10);
    boardSyscall(BoardSyscall::Pmu, PmuOp::PowerOff, 0);
    ESA_CONSOLE("Waiting for power to go...");
    for (;;) taskDelay(sysClkRateGet());
}

namespace {
int setOvertemp(int, char**, std::ostream&) {
    SystemManager::GetInstance()->overTempHalt();
    return 0;
}
ConsoleCommand gSetOvertemp("setOvertemp", "Signal the system that an over-temperature alarm has occurred.",
                            setOvertemp);
}  // namespace
