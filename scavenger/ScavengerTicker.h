#pragma once
// ScavengerTicker: the least the start-up and pack load sequence needs for now; it
// ticks nothing yet.
#include "util/StatusCode.h"

class ScavengerTicker {
public:
    static ScavengerTicker* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    ScavengerTicker() = default;
};
