#pragma once
// DiskManager: the least the start-up and pack load sequence needs for now; it
// finds no disks: the drive layer is not built yet.
#include "include/ManagerBase.h"

class DiskManager : public ManagerBase {
public:
    static DiskManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
    StatusCode LoadDiskPack(bool clearDisk);
    // Writes every disk cache out without queueing (assertion path).
    void FlushAllDisksBypassQueue();

private:
    DiskManager() = default;
};
