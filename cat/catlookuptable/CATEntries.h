#pragma once
// The handles of one CAT lookup.
//
// WriteCATEntries carries the entry array of up to kMaxEntries 7-byte entries
// (a pool object); several CATEntries may share one, each at its own base
// index. CATEntries is one lookup of a LUN's consecutive clusters: where its
// entries start in the array, the CAT zone and sectors they came from, and
// the zmdt range locks (cto, and cto2 when the run spans into the next CAT
// zone) it holds between GetCATEntry and Complete. Without a lock (every
// sector read lay in chunks never written) the entries are zeros and nothing
// is held.
//
// ActiveCATEntries is the cursor of FindCATEntryRuns.
#include <cstdint>

#include "cat/catlookuptable/CATEntry.h"
#include "include/ObjectPool.h"
#include "util/DataWindow.h"

class CacheTrackerObject;

struct WriteCATEntries : ObjectPool<WriteCATEntries> {
    static constexpr uint32_t kMaxEntries = 2064;
    uint32_t fill = 0;  // entries handed out so far
    uint8_t entries[kMaxEntries * CATEntry::kBytes] = {};

    CATEntry get(uint32_t i) const {
        CATEntry e;
        e.load(entries + i * CATEntry::kBytes);
        return e;
    }
    void put(uint32_t i, const CATEntry& e) { e.store(entries + i * CATEntry::kBytes); }
};

struct CATEntries {
    WriteCATEntries* array = nullptr;
    uint32_t baseIndex = 0;     // first entry of this lookup in the array
    uint32_t sectorOffset = 0;  // slot of the first entry in its sector
    uint32_t count = 0;
    CacheTrackerObject* cto = nullptr;
    CacheTrackerObject* cto2 = nullptr;  // the part in the next CAT zone
    bool spanning = false;
    bool filled = false;
    uint32_t lun = 0;
    uint32_t spanSectors = 0;  // sectors in the next CAT zone
    uint32_t sector = 0;       // first sector in the CAT zone
    uint32_t sectors = 0;      // sectors touched, both parts
    uint32_t catZone = 0;

    CATEntry get(uint32_t i) const { return array->get(baseIndex + i); }
    void put(uint32_t i, const CATEntry& e) { array->put(baseIndex + i, e); }
};

struct ActiveCATEntries {
    uint32_t lun = 0;
    uint64_t start = 0;   // first LBA of the stretch found
    uint32_t length = 0;  // its length in LBAs
};
