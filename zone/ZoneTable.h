#pragma once
// ZoneTable: the list of all Zones, guarded by the table lock (shared for
// I/O, exclusive to change an entry or swap a layout).
//
// For now it is the least the Zone I/O paths need: entries kept in memory
// only. The ZIS, the three on-disk copies and their repair come with the Zone
// table proper.
#include <cstdint>
#include <deque>
#include <mutex>

#include "util/ExtendingLockObject.h"
#include "zone/ZoneTableEntry.h"

class ZoneTable {
public:
    static ZoneTable* GetInstance();

    // A Zone not in use, or past the end, gives InvalidZoneNumber.
    StatusCode LookupZone(uint32_t zone, ZoneTableEntry& entry);
    // Any entry, in use or not.
    StatusCode RawLookupZone(uint32_t zone, ZoneTableEntry& entry);
    StatusCode CheckZoneValid(uint32_t zone);
    // Appends the entry under the next number and gives that number back in it.
    StatusCode AddEntry(ZoneTableEntry& entry);
    StatusCode UpdateZoneTableEntryInMemory(uint32_t zone, const ZoneTableEntry& entry);
    uint32_t entriesCreated();
    void UnloadZoneTable();

    ExtendingLockObject& tableLock() { return mTableLock; }

private:
    ZoneTable() : mTableLock("eZoneTableLock", 27) {}
    ExtendingLockObject mTableLock;
    std::mutex mEntriesLock;  // guards the deque's shape against concurrent readers
    std::deque<ZoneTableEntry> mEntries;
};
