#include "disk/DiskPowerManager.h"

#include <string>

#include "disk/DriveAdapter.h"
#include "platform/rtos/Rtos.h"
#include "util/Trace.h"

DiskPowerManager* DiskPowerManager::GetInstance() {
    static DiskPowerManager instance;
    return &instance;
}

StatusCode DiskPowerManager::Initialize() {
    taskRtpLock();
    if (!mThread) {
        mQueue = msgQCreate(2 * kMaxDriveSlots, sizeof(int), 0);
        mThread = taskSpawn("DiskPwrMgrThr", 101, [this] { powerLoop(); });
    }
    taskRtpUnlock();
    return StatusCode::Success;
}

void DiskPowerManager::SlotPowerCycleAsync(int slot) {
    ESA_CONSOLE("SlotPowerCycleAsync " << slot << " ");
    Initialize();
    SlotPowerSwitch(slot, false);
    while (msgQSend(mQueue, &slot, sizeof slot, sysClkRateGet(), MSG_PRI_NORMAL) != OK) {
    }
}

void DiskPowerManager::powerLoop() {
    const int offTicks = int(kPowerCycleOffSeconds) * sysClkRateGet();
    uint64_t due[kMaxDriveSlots] = {};  // tick at which a slot gets its power back; 0 none
    for (;;) {
        int slot = -1;
        if (msgQReceive(mQueue, &slot, sizeof slot, offTicks) == int(sizeof slot) && slot >= 0 &&
            slot < kMaxDriveSlots)
            due[slot] = tick64Get() + uint64_t(offTicks);
        uint64_t now = tick64Get();
        for (int s = 0; s < kMaxDriveSlots; ++s)
            if (due[s] && now >= due[s]) {
                due[s] = 0;
                SlotPowerSwitch(s, true);
            }
    }
}
