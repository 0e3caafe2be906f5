#pragma once
// RegionManager: the least the start-up and pack load sequence needs for now; it
// holds no Regions: the Region layer is not built yet.
#include <cstdint>

#include "include/ManagerStandIn.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

class RegionManager : public ManagerStandIn {
public:
    static RegionManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }
    // Region I/O for the "rmdt" cache: not built yet (FunctionNotImplemented).
    StatusCode ReadData(uint32_t, uint32_t, uint64_t, DataWindow&, IOTracker&) {
        return StatusCode::FunctionNotImplemented;
    }
    StatusCode WriteData(uint32_t, uint32_t, uint64_t, DataWindow&, IOTracker&) {
        return StatusCode::FunctionNotImplemented;
    }
    // Bytes in a Region; 0 until the pack geometry is known.
    uint64_t RegionSizeBytes() const { return 0; }

private:
    RegionManager() = default;
};
