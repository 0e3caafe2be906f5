#pragma once
// HRManager: the least the start-up and pack load sequence needs for now; it
// serves no host requests yet.
#include "include/ManagerStandIn.h"

class HRManager : public LifecycleStandIn {
public:
    static HRManager* GetInstance();
    // Whether the board booted on battery; false when the board cannot tell.
    bool getBattBootState(bool& onBattery);

private:
    HRManager() = default;
};
