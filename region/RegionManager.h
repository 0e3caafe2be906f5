#pragma once
// RegionManager: the least the start-up and pack load sequence needs for now; it
// holds no Regions: the Region layer is not built yet.
#include "include/ManagerBase.h"

class RegionManager : public ManagerBase {
public:
    static RegionManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

private:
    RegionManager() = default;
};
