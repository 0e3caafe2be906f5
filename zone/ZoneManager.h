#pragma once
// ZoneManager: turns the free Regions of the pack's logical disks into Zones
// (allocation, the Zone table, Zones 0 and 1, capacity figures) and serves
// reads and writes by (Zone, byte offset) with mirror and parity upkeep.
//
// For now it is the least the start-up and pack load sequence needs: it holds
// no Zones, no disk is critical, and Zone I/O gives FunctionNotImplemented.
#include <cstdint>

#include "include/ManagerStandIn.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

class ZoneManager : public ManagerStandIn {
public:
    static ZoneManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

    // ---- Zone table, allocation and capacity ----------------------------
    // Whether losing (or having lost, `missing`) the LD leaves some Zone
    // without its data.
    bool IsCriticalDisk(uint16_t ld, bool missing, IOTracker& tracker) {
        (void)ld, (void)missing, (void)tracker;
        return false;
    }

    // ---- Zone I/O -------------------------------------------------------
    StatusCode ReadData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode WriteData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode FlushZone(uint32_t) { return StatusCode::FunctionNotImplemented; }

private:
    ZoneManager() = default;
    // ---- Zone table, allocation and capacity: state ---------------------

    // ---- Zone I/O: state ------------------------------------------------
};
