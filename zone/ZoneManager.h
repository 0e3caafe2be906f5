#pragma once
// ZoneManager: the least the start-up and pack load sequence needs for now; it
// holds no Zones: the Zone layer is not built yet.
#include "include/ManagerBase.h"

class ZoneManager : public ManagerBase {
public:
    static ZoneManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

private:
    ZoneManager() = default;
};
