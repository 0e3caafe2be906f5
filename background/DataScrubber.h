#pragma once
// DataScrubber: the least the start-up and pack load sequence needs for now; it
// scrubs nothing yet.
#include "include/ManagerBase.h"

class DataScrubber : public ManagerBase {
public:
    static DataScrubber* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

private:
    DataScrubber() = default;
};
