#pragma once
// DiskUtilizationDaemon: the least the start-up and pack load sequence needs for now; it
// tracks no capacity yet.
#include "include/ManagerBase.h"

class DiskUtilizationDaemon : public ManagerBase {
public:
    static DiskUtilizationDaemon* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
    void PostEventCapacity() {}

private:
    DiskUtilizationDaemon() = default;
};
