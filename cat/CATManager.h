#pragma once
// CATManager: the least the start-up and pack load sequence needs for now; it
// maps no LUNs yet.
#include "include/ManagerBase.h"

class CATManager : public ManagerBase {
public:
    static CATManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    CATManager() = default;
};
