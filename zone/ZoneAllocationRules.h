#pragma once
// ZoneAllocationRules: the decisions of Zone allocation over a list of free
// Region counts, with no disk touched: which RedundancyType a new Zone gets
// (the widest that fits, after a reserve of 24 Regions a disk), how many
// Regions each of its disks gives, and how many Zones the pack could still
// hold if it kept choosing that way. ZoneManager feeds them the counts of the
// pack's available disks; tests feed them made-up packs.
#include <cstdint>
#include <functional>
#include <vector>

#include "util/StatusCode.h"
#include "zone/RedundancyType.h"

// One available logical disk and its free Region count.
struct FreeRegions {
    uint16_t ld = 0;
    uint64_t count = 0;
};

// Largest count first, over the full 64 bits.
struct FreeRegionsComparer {
    bool operator()(const FreeRegions& a, const FreeRegions& b) const { return a.count > b.count; }
};

// One Region handed to a Zone: the caller copies record i into slot i.
struct Region {
    uint16_t ld = 0;
    uint32_t region = 0;
};

// The pack-wide facts the choice depends on.
struct AllocationSwitches {
    bool selfMirroringBit = false;  // ZIS flag: self-mirrored Zones allowed
    bool dualBit = false;           // ZIS flag: dual-redundant Zones wanted
    // Whether every other available disk is critical (a full pack in which a
    // SelfMirrored Zone would leave nothing to replace): refuses SelfMirrored.
    std::function<bool(uint16_t ld)> allOtherDisksCritical;
};

namespace ZoneAllocationRules {

constexpr uint64_t kReserve = 24;
constexpr unsigned kRegionsPerZone = 24;

// Disks a type spreads over and Regions each gives (allocation order: the
// disks in sorted order, all of one disk's Regions before the next).
unsigned DisksFor(RedundancyType type);
unsigned SharePerDisk(RedundancyType type);

// Dual mode: the dual bit set and more than 2 disks available.
bool DualMode(const AllocationSwitches& sw, size_t availableDisks);

// The type decision. Sorts `free` in place (FreeRegionsComparer); tests the
// counts less the reserve. OutOfSpace when nothing fits (and when only a
// SelfMirrored Zone fits but every other disk is critical; `type` then still
// says SelfMirrored).
StatusCode ChooseRedundancy(std::vector<FreeRegions>& free, const AllocationSwitches& sw, bool allowStripes,
                            bool allowSelfMirrored, RedundancyType& type);

// mirrorOnly narrows a stripe type to Mirrored3 in dual mode, or to Mirrored.
RedundancyType NarrowForMirrorOnly(RedundancyType type, bool dualMode);

// The capacity simulation: Zones still allocatable if every Zone took the
// best type, from these counts (reserve applied in the choice as always).
// With `onlySelfMirrored` only the Zones booked SelfMirrored are counted.
// UnsupportedZoneType is the one failure passed on; others end the run.
StatusCode SimulateZoneCount(std::vector<FreeRegions> free, const AllocationSwitches& sw, bool allowSelfMirrored,
                             bool onlySelfMirrored, uint64_t& zones);

}  // namespace ZoneAllocationRules
