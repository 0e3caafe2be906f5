#pragma once
// LayoutManager: the least the start-up and pack load sequence needs for now; it
// never re-lays a Zone out yet.
#include "util/StatusCode.h"

class LayoutManager {
public:
    static LayoutManager* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }
    void InitiateBackgroundRepair() {}
    void InitiateAddDisk(unsigned short logicalDisk) { (void)logicalDisk; }
    void InitiateRemoveDisk(unsigned short logicalDisk) { (void)logicalDisk; }

private:
    LayoutManager() = default;
};
