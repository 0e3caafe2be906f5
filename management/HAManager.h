#pragma once
// HAManager: the least the start-up and pack load sequence needs for now; it
// answers no management requests yet.
#include "include/ManagerBase.h"

class HAManager : public ManagerBase {
public:
    static HAManager* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    HAManager() = default;
};
