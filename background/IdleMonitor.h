#pragma once
// IdleMonitor: the least the start-up and pack load sequence needs for now; it
// measures no idle time yet.
#include "util/StatusCode.h"

class IdleMonitor {
public:
    static IdleMonitor* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }

private:
    IdleMonitor() = default;
};
