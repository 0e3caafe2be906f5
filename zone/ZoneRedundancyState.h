#pragma once
// ZoneRedundancyState: how much of a Zone's redundancy is lost, from its
// Region slots and the pack's list of missing disks. A slot is lost when it
// holds no Region (number 0) or its disk is missing; losses are counted by
// logical disk, once each, since one disk holds one column of a Zone.
// Read-only over the caller's slot arrays, which must outlive it; the
// missing list is copied.
#include <cstdint>
#include <vector>

#include "zone/RedundancyGeometry.h"

// The parts of a Zone table entry that the predicates read.
struct ZoneSlotsView {
    RedundancyType type;
    uint32_t zoneNumber;
    bool inUse;
    const uint16_t* disks;    // logical disk of each slot
    const uint32_t* regions;  // Region number of each slot; 0 = no Region
};

class ZoneRedundancyState {
public:
    ZoneRedundancyState(const ZoneSlotsView& zone, uint32_t regionSize, const std::vector<uint16_t>& missingDisks,
                        bool dualRedundancyMode);

    // An in-use Zone with a lost slot. With dual redundancy on for the pack a
    // Zone of a single-redundancy type is reported by IsDoubleDegraded instead.
    bool IsDegraded() const;
    // Only with dual redundancy on: a single-redundancy Zone with any lost
    // slot, or a dual one with lost slots on two or more disks.
    bool IsDoubleDegraded() const;
    // Whether one copy (data, primary, secondary) of the byte at offset is lost.
    bool IsDegradedRegion(uint32_t offset, RegionCopy copy) const;
    // The Zone has a Region on ld and losing ld would lose data: the other
    // disks already lost reach what the type can lose.
    bool DiskIsCritical(uint16_t ld) const;
    bool UsesDisk(uint16_t ld) const;
    bool UsesMissingDisk() const;

private:
    bool missing(uint16_t ld) const;
    bool slotLost(unsigned slot) const;
    // Disks other than `except` that hold a lost slot, counted once each.
    unsigned lostDisks(int except) const;

    ZoneSlotsView mZone;
    RedundancyGeometry mGeometry;
    std::vector<uint16_t> mMissing;
    bool mDualMode;
    unsigned mSlots;
};
