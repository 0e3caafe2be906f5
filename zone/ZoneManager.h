#pragma once
// ZoneManager: turns the free Regions of the pack's logical disks into Zones
// (allocation, the Zone table, Zones 0 and 1, capacity figures) and serves
// reads and writes by (Zone, byte offset) with mirror and parity upkeep.
//
// Allocation keeps the table lock exclusive, extended to the caller's
// transaction, across every change; the Region allocators run inside it.
// Zones 0 (Zone 0 info table) and 1 (relayout staging, normally without
// Regions) are reserved and never deallocated.
#include <cstdint>
#include <ostream>
#include <vector>

#include "include/ManagerStandIn.h"
#include "region/RecoveryBlock.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "zone/ZoneAllocationRules.h"
#include "zone/ZoneTable.h"

class ZoneManager : public ManagerStandIn {
public:
    static ZoneManager* GetInstance();

    // ---- Zone table, allocation and capacity ----------------------------
    static constexpr uint32_t kZoneZero = 0, kZoneOne = 1;
    static constexpr unsigned kMaxRegions = 72;  // Region records a selection may fill

    StatusCode LoadDiskPack() override;
    StatusCode LoadDiskPackReadOnly();
    StatusCode UnloadDiskPack() override;
    StatusCode UnloadDiskPackReadOnly() { return UnloadDiskPack(); }
    bool packLoaded() const { return mPackLoaded; }
    bool readOnly() const { return mReadOnly; }
    ZoneTable& zoneTable() { return *ZoneTable::GetInstance(); }

    // Whether losing the LD would lose data: the only Zone table copy left,
    // SelfMirrored Zones, or Zones degraded so far that it is their last copy.
    // With `traceReason` the reason goes to the console.
    bool IsCriticalDisk(uint16_t ld, bool traceReason, IOTracker& tracker);
    // Exactly 8 disks available, this one not critical, every other critical.
    bool AllOtherDisksCritical(uint16_t ld, IOTracker& tracker);
    // The dual bit is set and more than 2 disks are available.
    bool DualRedundancyEnabled();

    StatusCode CreateZone(uint32_t& zone, IOTracker& tracker, bool metadata, bool mirrorOnly);
    StatusCode AllocateZone(uint32_t& zone, IOTracker& tracker);
    StatusCode AllocateMetadataZone(uint32_t& zone, IOTracker& tracker);
    StatusCode DeallocateZone(uint32_t zone, IOTracker& tracker);
    // `regions` has room for kMaxRegions records.
    StatusCode SelectRegions(RedundancyType& type, Region* regions, uint16_t& count, IOTracker& tracker,
                             bool mirrorOnly, bool ignoreReserve, bool metadata);
    StatusCode SelectRegionsWithArray(RedundancyType& type, std::vector<FreeRegions>& freeRegions, Region* regions,
                                      uint16_t& count, IOTracker& tracker, bool mirrorOnly, bool metadata);
    StatusCode CalcBestRedundancy(RedundancyType& type, IOTracker& tracker, bool ignoreReserve, bool metadata);
    StatusCode CalcBestRedundancyUsingArray(std::vector<FreeRegions>& freeRegions, RedundancyType& type,
                                            IOTracker& tracker, bool allowStripes, bool allowSelfMirrored);
    StatusCode CanUseStripedZones(bool& can, IOTracker& tracker);

    StatusCode GetPotentialZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetPhysicalFreeZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetFreeZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetZoneCounts(uint64_t& potential, uint64_t& allocated, IOTracker& tracker);
    StatusCode GetSelfMirroredZoneTotal(uint64_t& count);
    StatusCode GetAllocatedZoneCount(uint64_t& count);
    uint64_t cachedPotentialZoneCount() const { return mPotentialZoneCount; }

    StatusCode SelectZoneUsingDiskWithExclusion(uint16_t& disk, uint16_t& excludedDisk, uint32_t& zone);
    // Frees A's Regions that B does not hold (all of A's when the counts differ).
    StatusCode FreeNonMatchingRegions(uint32_t& zoneA, uint32_t& zoneB, IOTracker& tracker);
    // Frees the Zone's Regions that no other valid Zone holds.
    StatusCode FreeUniqueRegions(uint32_t& zone, IOTracker& tracker);
    StatusCode EmptyZoneOne(IOTracker& tracker);
    // Stamps every Region of the Zone with its owner (RecoveryBlocks).
    StatusCode SetZoneOwnership(uint32_t zone, const _ZoneOwnership& ownership, IOTracker& tracker);

    uint8_t StripingThreshold() const { return mStripingThreshold; }
    StatusCode SetStripingThreshold(unsigned percent);
    void Dump(std::ostream& out);

    // ---- Zone I/O -------------------------------------------------------
    StatusCode ReadData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode WriteData(uint32_t, uint64_t, DataWindow&, IOTracker&) { return StatusCode::FunctionNotImplemented; }
    StatusCode FlushZone(uint32_t) { return StatusCode::FunctionNotImplemented; }

private:
    ZoneManager() = default;
    // ---- Zone table, allocation and capacity: state ---------------------
    std::vector<FreeRegions> freeRegionList(bool available, IOTracker& tracker);
    AllocationSwitches switches(IOTracker& tracker);
    StatusCode freeRegionsOf(const ZoneTableEntry& entry, const std::vector<bool>& keep, IOTracker& tracker);
    StatusCode emptyZoneOneLocked(IOTracker& tracker);
    StatusCode reuseEntry(uint32_t zone, IOTracker& tracker);
    bool mPackLoaded = false;
    bool mReadOnly = false;
    uint8_t mStripingThreshold = 50;
    uint64_t mPotentialZoneCount = 0;

    // ---- Zone I/O: state ------------------------------------------------
};
