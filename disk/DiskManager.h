#pragma once
// DiskManager: the least the start-up and pack load sequence needs for now; it
// finds no disks: the drive layer is not built yet.
#include "include/ManagerStandIn.h"

class DiskManager : public ManagerStandIn {
public:
    static DiskManager* GetInstance();
    StatusCode LoadDiskPack(bool clearDisk);
    // Writes every disk cache out without queueing (assertion path).
    void FlushAllDisksBypassQueue();

private:
    DiskManager() = default;
};
