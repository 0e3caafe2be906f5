#pragma once
// ZoneManager: the least the start-up and pack load sequence needs for now; it
// holds no Zones: the Zone layer is not built yet.
#include <cstdint>

#include "include/ManagerStandIn.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

class ZoneManager : public ManagerStandIn {
public:
    static ZoneManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }
    // Zone I/O for the "zmdt" cache: not built yet (FunctionNotImplemented).
    StatusCode ReadData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode WriteData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode FlushZone(uint32_t) { return StatusCode::FunctionNotImplemented; }

private:
    ZoneManager() = default;
};
