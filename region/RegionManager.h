#pragma once
// RegionManager: the least the start-up and pack load sequence needs for now; it
// holds no Regions: the Region layer is not built yet.
#include "include/ManagerStandIn.h"

class RegionManager : public ManagerStandIn {
public:
    static RegionManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

private:
    RegionManager() = default;
};
