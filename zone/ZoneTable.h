#pragma once
// ZoneTable: the list of all Zones and its three on-disk copies.
//
// It owns the entries (a deque, O(1) lookups, entry i is Zone i), the counts
// of entries created, in use and preinitialized, and the ZIS: where the three
// copies lie (one Region each, on distinct disks where the pack allows), the
// pack-wide flags (self-mirroring, dual redundancy), the table offset and the
// generation that rises with every ZIS write.
//
// Invariants: the counts agree with the entries' flags; an entry's number is
// its index; every change of an entry goes to all three copies and the ZIS in
// the caller's transaction (rmdt range locks and writes), so after a crash the
// journal brings the copies and the ZIS to one state. The table lock
// (shared for I/O, exclusive to change an entry or swap a layout) is taken by
// the callers: ZoneManager, the console, the mode switches.
#include <cstdint>
#include <deque>
#include <mutex>
#include <ostream>
#include <vector>

#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "zone/ZISFormat.h"
#include "zone/ZoneTableEntry.h"

class ZoneTable {
public:
    static constexpr unsigned kCopies = ZISHeader::kCopies;
    static constexpr uint32_t kEntrySize = 0x1C0;
    // A disk that takes a repaired copy keeps this many Regions free after it.
    static constexpr uint32_t kRepairMinFree = 0x19;

    static ZoneTable* GetInstance();

    // ---- entries
    // A Zone not in use, or past the end, gives InvalidZoneNumber.
    StatusCode LookupZone(uint32_t zone, ZoneTableEntry& entry);
    // Any entry, in use or not.
    StatusCode RawLookupZone(uint32_t zone, ZoneTableEntry& entry);
    StatusCode CheckZoneValid(uint32_t zone);
    // Appends the entry under the next number and gives that number back in
    // it; the in-use and preinitialized counts follow its flags. Memory only.
    StatusCode AddEntry(ZoneTableEntry& entry);
    // Takes the lowest entry that is neither in use nor holds Regions, or
    // appends one; writes it to the three copies. ZoneOverflow when the table
    // Region is full. The caller holds the table lock.
    StatusCode InsertEntry(ZoneTableEntry& entry, IOTracker& tracker);
    // The entry to memory, the three copies, RecoveryBlocks and the ZIS, in
    // the caller's transaction. The caller holds the table lock.
    StatusCode UpdateZoneTableEntry(uint32_t zone, const ZoneTableEntry& entry, IOTracker& tracker);
    StatusCode UpdateZoneTableEntryInMemory(uint32_t zone, const ZoneTableEntry& entry);
    bool ZoneOneHasRegions();
    uint32_t entriesCreated();
    uint32_t entriesInUse();
    uint32_t entriesPreinitialized();
    // Entries one table Region can hold.
    uint32_t maxEntries() const;

    // ---- the table on disk
    StatusCode LoadZoneTable(IOTracker& tracker);
    void UnloadZoneTable();
    StatusCode ReadZISAndTable(uint16_t ld, uint32_t region, uint32_t offset, IOTracker& tracker);
    StatusCode ReadZISGeneration(uint16_t ld, uint32_t region, uint32_t offset, uint32_t& generation,
                                 IOTracker& tracker);
    static bool ValidateZIS(const uint8_t* header) { return ZISFormat::ValidateZIS(header); }
    StatusCode WriteZIS(bool updateRMMetaData, IOTracker& tracker);
    StatusCode WriteZoneTable(unsigned copy, IOTracker& tracker);
    // Rebuilds every copy whose flag is false on a disk that holds no other
    // copy (if there is one), from memory. InitFailed unless all end good.
    StatusCode RepairZoneTable(bool& primaryGood, bool& secondaryGood, bool& tertiaryGood, IOTracker& tracker);
    // Keeps the copies on separate, present disks with room; null tracker:
    // each move in its own transaction under the table lock.
    StatusCode ZoneTableProtected(IOTracker* tracker);
    // Compares copy 0, 1 or 2 on disk with memory; false when it differs.
    bool ConsistencyCheck(unsigned copy, std::ostream& out, bool repair);
    // Scans every present disk for ZIS headers and prints them; changes nothing.
    void FindZIS(std::ostream& out);
    void Dump(std::ostream& out);
    void DumpEntry(std::ostream& out, const ZoneTableEntry& entry);

    // ---- modes (ZIS flags), each in its own transaction under the table lock
    StatusCode SetUseSelfmirrored(bool on);
    StatusCode SetDualRedundancyMode(bool on);
    bool UseSelfMirrored() const { return zis().flags & ZISHeader::kUseSelfMirroring; }
    // The pack's switch of dual-redundant Zones (ZIS flag 0x4000).
    bool DualRedundancyMode() const { return zis().flags & ZISHeader::kUseDualRedundancy; }
    void setReadOnly(bool on) { mReadOnly = on; }
    bool readOnly() const { return mReadOnly; }
    bool loaded() const { return mLoaded; }

    // The ZIS as it stands in memory (locations, flags, generation, count).
    ZISHeader zis() const;
    // Where copy i lies; false when it has no location.
    bool copyLocation(unsigned copy, uint16_t& ld, uint32_t& region) const;

    ExtendingLockObject& tableLock() { return mTableLock; }

    // Reads or writes `length` bytes (whole sectors) at `offset` of a Region
    // through the "rmdt" range cache, within the tracker. A whole-range write
    // (`noRead`) does not read first.
    static StatusCode RegionMetaData(uint16_t ld, uint32_t region, uint32_t offset, uint8_t* buffer, uint32_t length,
                                     bool write, bool noRead, IOTracker& tracker);

private:
    ZoneTable() : mTableLock("eZoneTableLock", 27), mHotPlugLock("lZoneTableHotPlug", 27) {}
    // Entry i as stored, with the counts kept true.
    void replaceEntry(uint32_t zone, const ZoneTableEntry& entry);
    StatusCode writeEntryToCopies(uint32_t zone, const ZoneTableEntry& entry, IOTracker& tracker);
    StatusCode writeZoneRecoveryBlocks(const ZoneTableEntry& entry, IOTracker& tracker);
    StatusCode createTable(IOTracker& tracker);
    // True when some loaded disk has a Region allocated beyond its reserved ones.
    bool regionsInUse(IOTracker& tracker);
    StatusCode repairCopy(unsigned copy, bool allowAvoided, uint32_t minFree, IOTracker& tracker);
    StatusCode moveCopy(unsigned copy, const char* why, uint32_t minFree, IOTracker* tracker);
    StatusCode setFlag(uint16_t flag, bool on);
    uint32_t regionSize() const;

    ExtendingLockObject mTableLock;
    LockObject mHotPlugLock;
    mutable std::mutex mEntriesLock;  // the deque's shape and the ZIS fields against concurrent readers
    std::deque<ZoneTableEntry> mEntries;
    uint32_t mInUse = 0;
    uint32_t mPreinitialized = 0;
    ZISHeader mZis;
    bool mHasLocation[kCopies] = {};
    bool mReadOnly = false;
    bool mLoaded = false;
    uint32_t mLoadedVersion = ZISHeader::kVersion;  // the version the last table load found
};

// Disk choice over the available disks, most free Regions first.
// The first disk with at least minFree free Regions.
StatusCode SelectDisk(uint16_t& ld, uint32_t minFree, IOTracker& tracker);
// The same, passing over avoid1 and avoid2 unless allowAvoided (an avoid
// value of 0xFFFF avoids nothing). OutOfSpace when none.
StatusCode SelectDiskWithPreference(uint16_t& ld, const uint16_t& avoid1, const uint16_t& avoid2, bool allowAvoided,
                                    uint32_t minFree, IOTracker& tracker);
// The first disk not in `excluded` with at least minFree free Regions.
StatusCode SelectDiskWithExclusionList(uint16_t& ld, const std::vector<uint16_t>& excluded, uint32_t minFree,
                                       IOTracker& tracker);
