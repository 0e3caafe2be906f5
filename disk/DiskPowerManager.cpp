#include "disk/DiskPowerManager.h"

#include <string>

#include "disk/DriveAdapter.h"
#include "platform/rtos/Rtos.h"
#include "util/Trace.h"

DiskPowerManager* DiskPowerManager::GetInstance() {
    static DiskPowerManager instance;
    return &instance;
}

void DiskPowerManager::SlotPowerCycleAsync(int slot) {
    ESA_CONSOLE("SlotPowerCycleAsync " << slot << " ");
    SlotPowerSwitch(slot, false);
    taskSpawn("tSlotPwrCycle" + std::to_string(slot), 101, [slot] {
        taskDelay(int(kPowerCycleOffSeconds) * sysClkRateGet());
        SlotPowerSwitch(slot, true);
    });
}
