#pragma once
// Zone0InfoTable (Z0IT): the directory of Zone 0, where many managers keep
// small private records. It owns the 0x1F8-byte directory (the first block of
// Zone 0) and allocates space in the Zone to its twenty fixed slots; each
// owner reads and writes its own area (ReadArea/WriteArea, or the zone
// metadata cache at the offset its slot gives) and owns that area's format.
//
// Invariants: a slot is in use exactly when its length is not zero; areas in
// use never overlap each other nor the directory's own 4,096 bytes, and lie
// wholly inside the Zone. The directory is written whole, with its CRC,
// under "lZone0Lock". It is initialised only on a pack being cleared or one
// whose Zone 0 was born in this load: an existing pack's directory is never
// written over.
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <ostream>
#include <vector>

#include "include/ManagerBase.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "zone/Zone0InfoTableFormat.h"

class Zone0InfoTable : public ManagerBase {
public:
    static constexpr unsigned kEntries = Zone0Directory::kEntries;

    static Zone0InfoTable* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override;
    // readOnly: the event log of a pack that is not loaded; nothing is written.
    StatusCode LoadDiskPack(bool readOnly);
    StatusCode UnloadDiskPack() override;
    bool loaded() const { return mLoaded; }

    // ---- the directory
    // The slot as it stands; callers test length, version and signature.
    Zone0UserInfo& GetEntry(unsigned index) { return mTable.entries[index]; }
    // A slot in use with this signature (up to 8 bytes, zero padded) and version.
    bool entryValid(unsigned entry, const char* signature, uint32_t version);
    // Allocates the area and writes the directory in the caller's transaction.
    // A slot already in use is returned as it stands. OutOfSpace (and
    // "FAILED TO ALLOCATE ZONE0 SPACE") when the Zone has no room.
    StatusCode CreateEntry(unsigned index, uint32_t version, uint32_t size, const char* userSignature,
                           IOTracker& tracker);
    StatusCode EraseEntry(unsigned index, IOTracker& tracker);
    StatusCode UpdateVersionNumber(unsigned index, uint32_t version, IOTracker& tracker);
    // The same, each in a transaction of its own, committed.
    StatusCode CreateEntry(unsigned entry, uint32_t version, uint32_t size, const char* signature);
    StatusCode EraseEntry(unsigned entry);

    // ---- the areas: up to the slot's length from its start, committed
    StatusCode ReadArea(unsigned entry, uint8_t* buffer, uint32_t length);
    StatusCode WriteArea(unsigned entry, const uint8_t* buffer, uint32_t length);

    StatusCode WriteZ0IT(IOTracker& tracker);
    StatusCode LoadZ0IT(bool readOnly);
    StatusCode Validate();
    StatusCode InitializeDiskPack();
    StatusCode findZone0Space(uint32_t required, uint64_t& offset);
    std::deque<z0itSpaceTracker> getAllocatedSpaceMap() { return mTable.getAllocatedSpaceMap(); }
    const Zone0Directory& directory() const { return mTable; }

    void Dump(std::ostream& out);
    void ClearStats() {}
    void StatsShow(std::ostream&) {}

    // Unit tests of managers above the Zone layer keep Zone 0 in memory: the
    // directory starts empty and areas live in process memory.
    void UseMemoryZone();

private:
    Zone0InfoTable() : mLock("lZone0Lock", 0x18) {}
    StatusCode readZone(uint64_t offset, uint8_t* buffer, uint32_t length, IOTracker& tracker);
    StatusCode writeZone(uint64_t offset, const uint8_t* buffer, uint32_t length, IOTracker& tracker);
    uint64_t zoneSize() const;
    bool initializeAllowed() const;
    // True when a Region of Zone 0 says the directory owns it: set with the
    // first directory ever written on the pack, so an unowned Zone 0 with no
    // directory is one whose making was cut short, not a damaged one.
    bool zoneZeroOwned();
    // Zone 0's flags and its Regions' owner, within `tracker`.
    StatusCode stampZoneZero(IOTracker& tracker);
    void postEvent(const std::string& text);

    LockObject mLock;
    Zone0Directory mTable;
    bool mLoaded = false;
    bool mMemoryZone = false;
    bool mNeverLaidOut = false;  // this load found no directory on an unowned Zone 0
    std::map<uint64_t, std::vector<uint8_t>> mMemory;  // 512-byte sectors of an in-memory Zone 0
};
