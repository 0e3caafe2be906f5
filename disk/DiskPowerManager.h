#pragma once
// DiskPowerManager: the least the disk layer needs for now. Every disk is
// always awake (state 1, spinning), so a wake-up only hands back the normal
// request timeout. Its thread "DiskPwrMgrThr" runs the power loop for slot
// power cycles only: a slot switched off is switched on again after the
// loop's 10 seconds of board time. Spin-down on idle and the staggered
// spin-up are not done yet.
#include <cstdint>

#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

class DiskPowerManager {
public:
    static constexpr uint32_t kDefaultTimeoutSeconds = 20;
    static constexpr unsigned kPowerCycleOffSeconds = 10;

    static DiskPowerManager* GetInstance();
    void ResumeMonitor() {}
    // Starts the power manager (nothing to start while every disk stays awake).
    StatusCode Initialize();
    // The timeout in seconds for the caller's request; slot -1 means all.
    uint32_t WakeupSystem(int slot) {
        (void)slot;
        return kDefaultTimeoutSeconds;
    }
    // 1 or 2: the disks are spinning.
    int GetSystemState() const { return 1; }
    void SlotPowerCycleAsync(int slot);

private:
    DiskPowerManager() = default;
    void powerLoop();
    MSG_Q_ID mQueue = nullptr;
    TASK_ID mThread = nullptr;
};
