#pragma once
// ErrorPolicy: the least the start-up and pack load sequence needs for now; it
// takes no action on disk errors yet.
#include "include/ManagerBase.h"

class ErrorPolicy : public ManagerBase {
public:
    static ErrorPolicy* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    ErrorPolicy() = default;
};
