#pragma once
// ClusterManager: the least the start-up and pack load sequence needs for now; it
// allocates no clusters yet.
#include "include/ManagerBase.h"

class ClusterManager : public ManagerBase {
public:
    static ClusterManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    ClusterManager() = default;
};
