#include "zone/ZoneTable.h"

ZoneTable* ZoneTable::GetInstance() {
    static ZoneTable* instance = new ZoneTable();
    return instance;
}

StatusCode ZoneTable::RawLookupZone(uint32_t zone, ZoneTableEntry& entry) {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    if (zone >= mEntries.size()) return StatusCode::InvalidZoneNumber;
    entry = mEntries[zone];
    return StatusCode::Success;
}

StatusCode ZoneTable::LookupZone(uint32_t zone, ZoneTableEntry& entry) {
    StatusCode st = RawLookupZone(zone, entry);
    if (st != StatusCode::Success) return st;
    return entry.inUse() ? StatusCode::Success : StatusCode::InvalidZoneNumber;
}

StatusCode ZoneTable::CheckZoneValid(uint32_t zone) {
    ZoneTableEntry entry;
    return LookupZone(zone, entry);
}

StatusCode ZoneTable::AddEntry(ZoneTableEntry& entry) {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    entry.zoneNumber = uint32_t(mEntries.size());
    mEntries.push_back(entry);
    return StatusCode::Success;
}

StatusCode ZoneTable::UpdateZoneTableEntryInMemory(uint32_t zone, const ZoneTableEntry& entry) {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    if (zone >= mEntries.size()) return StatusCode::InvalidZoneNumber;
    mEntries[zone] = entry;
    return StatusCode::Success;
}

uint32_t ZoneTable::entriesCreated() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    return uint32_t(mEntries.size());
}

void ZoneTable::UnloadZoneTable() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    mEntries.clear();
}
