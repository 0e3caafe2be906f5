#pragma once
// ClusterScavenger: the least the start-up and pack load sequence needs for now; it
// reclaims nothing yet.
#include "util/StatusCode.h"

class ClusterScavenger {
public:
    static ClusterScavenger* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    ClusterScavenger() = default;
};
