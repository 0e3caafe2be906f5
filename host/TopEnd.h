#pragma once
// TopEnd: the least the start-up and pack load sequence needs for now; it
// answers no host commands yet.
#include "util/StatusCode.h"

class TopEnd {
public:
    static TopEnd* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    TopEnd() = default;
};
