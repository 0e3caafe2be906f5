#pragma once
// DiskPowerManager: the least the start-up and pack load sequence needs for now; it
// keeps every disk awake.
#include "util/StatusCode.h"

class DiskPowerManager {
public:
    static DiskPowerManager* GetInstance();
    void ResumeMonitor() {}

private:
    DiskPowerManager() = default;
};
