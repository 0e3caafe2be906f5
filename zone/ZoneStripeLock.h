#pragma once
// StripeLockRange: where the stripe lock of a piece of a Zone lies. A stripe
// lock is a range lock in "rmdt" (set = logical disk, element 512 bytes at
// byte address Region x RegionSize + offset) on one Region that stands for
// every line the piece touches: the data Region of a mirror, the parity
// Region of a stripe. Two pieces that share a line (a superstripe line for
// DRStripe) therefore always collide, and pieces of different lines never do.
//
// Also here: the cutting of a request at Region boundaries, which the read,
// write and lock paths share.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "util/StatusCode.h"
#include "zone/ZoneTableEntry.h"

class CacheTrackerObject;

// What LockStripe hands out: an array with the lock's object in element 0
// (null for the types that take no lock); LockStripes gives one per piece.
using StripeLockArray = CacheTrackerObject**;
using StripeLocks = std::vector<StripeLockArray>;

struct StripeLockRange {
    uint16_t ld = 0;
    uint32_t region = 0;
    uint64_t first = 0;  // byte addresses in the LD's Region space
    uint64_t last = 0;
    uint64_t regionFirst = 0;  // the same as offsets in the Region
    uint64_t regionLast = 0;

    // `locks` false for a type that takes no lock (Success: None and
    // SelfMirrored); an unknown type gives UnsupportedZoneType, a boundary of
    // 0 BadMetadata, a line with no Region left in any copy ZM_UnusableRegion.
    static StatusCode compute(const ZoneTableEntry& entry, uint32_t offset, uint32_t length, StripeLockRange& out,
                              bool& locks);
    static StatusCode standingSlot(const ZoneTableEntry& entry, uint32_t offset, bool mirror, unsigned& slot);
    // Columns the lock array holds a place for: 2 for Mirrored, 3 for
    // Mirrored3, the width for stripes.
    static unsigned arrayLength(RedundancyType type);
};

// Calls piece(offset, length) for each part of [offset, offset + length) that
// lies inside one Region boundary, in order; stops at the first piece that
// returns false. Returns whether all pieces were visited.
template <class Piece>
bool forEachRegionPiece(uint32_t offset, uint32_t length, uint32_t boundary, Piece&& piece) {
    uint64_t pos = offset;
    const uint64_t end = uint64_t(offset) + length;
    while (pos < end) {
        const uint64_t next = std::min<uint64_t>(end, (pos / boundary + 1) * boundary);
        if (!piece(uint32_t(pos), uint32_t(next - pos))) return false;
        pos = next;
    }
    return true;
}
