#pragma once
// CATLookupTable: the least the start-up and pack load sequence needs for now; it
// holds no map yet.
#include "include/ManagerBase.h"

class CATLookupTable : public ManagerBase {
public:
    static CATLookupTable* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    CATLookupTable() = default;
};
