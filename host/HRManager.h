#pragma once
// HRManager: the least the start-up and pack load sequence needs for now; it
// serves no host requests yet.
#include "util/StatusCode.h"

class HRManager {
public:
    static HRManager* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }
    // Whether the board booted on battery; false when the board cannot tell.
    bool getBattBootState(bool& onBattery);

private:
    HRManager() = default;
};
