#pragma once
// RegionManager: carves every logical disk into fixed-size Regions and keeps,
// on each disk, two copies of a header and allocation bitmap (next to DIS
// ranges 0 and 1), the three saved Zone table locations, and a RecoveryBlock
// in every Region's padding sector. Region I/O for the Zone layer is addressed
// by (LD, Region, byte offset).
//
// For now it holds no Regions: the Region layer is not built yet, and every
// call below gives FunctionNotImplemented.
#include <cstdint>
#include <ostream>

#include "include/IORequest.h"
#include "include/ManagerStandIn.h"
#include "region/RecoveryBlock.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

class RegionManager : public ManagerStandIn {
public:
    static constexpr unsigned kSavedMetaDataSlots = 4;

    static RegionManager* GetInstance();
    StatusCode LoadDiskPackReadOnly() { return StatusCode::Success; }
    StatusCode UnloadDiskPackReadOnly() { return StatusCode::Success; }

    // Disks.
    StatusCode LoadDisk(uint16_t ld);
    StatusCode CreateDisk(uint16_t ld, uint32_t& lba0, uint32_t& lba1, bool& keepPadding);
    StatusCode RemoveDisk(uint16_t ld);
    StatusCode CheckRMMetaData(uint16_t ld, uint32_t& padding);

    // Allocation. `regions` receives `count` Region numbers.
    StatusCode AllocateRegions(uint16_t ld, uint32_t count, uint32_t* regions, bool metadata, IOTracker& tracker);
    StatusCode FreeRegions(uint16_t ld, uint32_t count, const uint32_t* regions, IOTracker& tracker);
    StatusCode SetAsAllocated(uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode IsAllocated(uint16_t ld, uint32_t region, bool& allocated, IOTracker& tracker);
    StatusCode GetFreeRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker);
    StatusCode GetAvailableRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker);
    StatusCode IncrementBadRegionCount(uint16_t ld, IOTracker& tracker);

    // The saved Zone table locations (instance below 4).
    StatusCode SetMetaData(unsigned instance, uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode GetMetaData(unsigned instance, uint16_t& ld, uint32_t& region, IOTracker& tracker);

    // Addresses.
    StatusCode GetLBA(uint32_t& lba, uint16_t ld, uint32_t offset, uint32_t region);
    // Bytes of data in a Region; 0 until the pack geometry is known.
    uint64_t RegionSizeBytes() const { return 0; }
    bool RecoverySpaceEnabled() const { return false; }

    // Region I/O; `offset` in bytes within the Region.
    StatusCode ReadData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode WriteData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode ReadDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode WriteDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode Flush(uint16_t ld, IOTracker& tracker);

    // RecoveryBlocks.
    StatusCode WriteRecoveryBlock(uint16_t ld, uint32_t region, _RegionType type, const _ZISRecovery* zis,
                                  const _RISRecovery* ris, IOTracker& tracker);
    StatusCode ReadRecoveryBlock(uint16_t ld, uint32_t region, RecoveryBlock& block, IOTracker& tracker);
    StatusCode InvalidateRecoveryBlock(uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode SetZoneOwnership(uint16_t ld, uint32_t region, const _ZoneOwnership& ownership, IOTracker& tracker);
    StatusCode GetZoneOwnership(uint16_t ld, uint32_t region, _ZoneOwnership& ownership, IOTracker& tracker);
    StatusCode IncrementRecoveryGeneration(IOTracker& tracker);

    void Dump(std::ostream& out);

private:
    RegionManager() = default;
};
