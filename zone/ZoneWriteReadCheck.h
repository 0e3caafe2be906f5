#pragma once
// ZoneDataCheck: the write-and-read-back check of one Zone that the console
// tools (testZoneData, writeReadTest, partialReadTest, writeVerifyZM) and the
// tests run. Data is self-describing: the bytes at Zone offset x are a
// function of (seed, x) only, so any stretch read back can be checked without
// a copy of the Zone, and a misplaced or stale sector is recognised.
//
// Columns are hidden by clearing their Region slots in the in-memory table
// entry (as a Region lost to a failed read would be), under the table lock
// held exclusive for the swap only; the saved entry is put back afterwards.
// A Zone under check must not be in use by anyone else.
#include <cstdint>
#include <ostream>
#include <vector>

#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"
#include "zone/ZoneTableEntry.h"

class ZoneDataCheck {
public:
    struct Extent {
        uint32_t offset;
        uint32_t length;
    };
    struct Result {
        unsigned writes = 0;
        unsigned reads = 0;
        unsigned mismatches = 0;    // stretches read back wrong
        unsigned errors = 0;        // calls that failed
        unsigned combinations = 0;  // columns (or pairs) hidden
        unsigned failedCombinations = 0;
    };

    // The pattern: 32-bit words derived from the seed and the word's offset.
    static void fill(DataWindow& window, uint32_t seed, uint32_t zoneOffset);
    // Whether the window holds the pattern; the first difference goes to out.
    static bool matches(const DataWindow& window, uint32_t seed, uint32_t zoneOffset, std::ostream* out);

    // `count` random extents of whole sectors, up to maxLength bytes each,
    // about half of them aligned to stripe blocks.
    static std::vector<Extent> randomExtents(uint32_t seed, unsigned count, uint32_t maxLength, uint64_t zoneSize);

    static StatusCode writeExtents(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents, Result& result,
                                   std::ostream* out);
    // Reads every extent back and compares; mismatches and errors are counted.
    static void readExtents(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents, Result& result,
                            std::ostream* out);
    // Reads every extent again with each column hidden in turn (each pair of
    // columns for the dual types); a combination fails on any difference.
    static void readWithColumnsHidden(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents,
                                      Result& result, std::ostream* out);

    // The whole check: write, read back, read with columns hidden.
    static Result run(uint32_t zone, uint32_t seed, unsigned count, uint32_t maxLength, std::ostream* out);

    // A Zone of a chosen type made for a check: each column's Regions
    // allocated on its own logical disk, taken in order from `disks`
    // (SelfMirrored and None take one), and the entry inserted in the table,
    // all in one transaction. freeScratchZone deallocates it again.
    static StatusCode makeScratchZone(RedundancyType type, const std::vector<uint16_t>& disks, uint32_t& zone);
    static StatusCode freeScratchZone(uint32_t zone);
    // The logical disks present now, lowest first.
    static std::vector<uint16_t> presentDisks();

    // The slots of column c of an entry (a column is what one disk holds).
    static std::vector<unsigned> columnSlots(const ZoneTableEntry& entry, unsigned column);
    static StatusCode hideColumns(uint32_t zone, const std::vector<unsigned>& columns, ZoneTableEntry& saved);
    static StatusCode restore(const ZoneTableEntry& saved);
};
