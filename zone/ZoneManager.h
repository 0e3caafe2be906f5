#pragma once
// ZoneManager: the least the start-up and pack load sequence needs for now; it
// holds no Zones: the Zone layer is not built yet.
#include "include/ManagerStandIn.h"

class ZoneManager : public ManagerStandIn {
public:
    static ZoneManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

private:
    ZoneManager() = default;
};
