#pragma once
// DeadlockWatchdog: the least the start-up and pack load sequence needs for now; it
// watches no locks yet.
#include "util/StatusCode.h"

class DeadlockWatchdog {
public:
    static DeadlockWatchdog* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }

private:
    DeadlockWatchdog() = default;
};
