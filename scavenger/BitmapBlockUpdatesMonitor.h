#pragma once
// BitmapBlockUpdatesMonitor: the least the start-up and pack load sequence needs for now; it
// snoops no host writes yet.
#include "util/StatusCode.h"

class BitmapBlockUpdatesMonitor {
public:
    static BitmapBlockUpdatesMonitor* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    BitmapBlockUpdatesMonitor() = default;
};
