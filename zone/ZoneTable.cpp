#include "zone/ZoneTable.h"

#include <iomanip>

#include "management/EventLogManager.h"
#include "region/RegionManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"

namespace {
Trace tZt("ZM", "ZoneTable", "Info", false);

void countFlags(const ZoneTableEntry& e, uint32_t& inUse, uint32_t& preinit, int sign) {
    if (e.inUse()) inUse += uint32_t(sign);
    if (e.isPreinitialized()) preinit += uint32_t(sign);
}
}  // namespace

ZoneTable* ZoneTable::GetInstance() {
    static ZoneTable* instance = new ZoneTable();
    return instance;
}

uint32_t ZoneTable::regionSize() const { return uint32_t(RegionManager::GetInstance()->RegionSizeBytes()); }

ZISHeader ZoneTable::zis() const {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    return mZis;
}

bool ZoneTable::copyLocation(unsigned copy, uint16_t& ld, uint32_t& region) const {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    if (copy >= kCopies || !mHasLocation[copy]) return false;
    ld = mZis.disk[copy];
    region = mZis.region[copy];
    return true;
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
    countFlags(entry, mInUse, mPreinitialized, +1);
    mZis.entryCount = uint32_t(mEntries.size());
    return StatusCode::Success;
}

void ZoneTable::replaceEntry(uint32_t zone, const ZoneTableEntry& entry) {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    ESA_ASSERT_OP(zone, <, mEntries.size());
    countFlags(mEntries[zone], mInUse, mPreinitialized, -1);
    mEntries[zone] = entry;
    mEntries[zone].zoneNumber = zone;
    countFlags(mEntries[zone], mInUse, mPreinitialized, +1);
}

StatusCode ZoneTable::UpdateZoneTableEntryInMemory(uint32_t zone, const ZoneTableEntry& entry) {
    if (zone >= entriesCreated()) return StatusCode::InvalidZoneNumber;
    replaceEntry(zone, entry);
    return StatusCode::Success;
}

bool ZoneTable::ZoneOneHasRegions() {
    ZoneTableEntry one;
    return RawLookupZone(1, one) == StatusCode::Success && one.HasRegions();
}

uint32_t ZoneTable::entriesCreated() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    return uint32_t(mEntries.size());
}

uint32_t ZoneTable::entriesInUse() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    return mInUse;
}

uint32_t ZoneTable::entriesPreinitialized() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    return mPreinitialized;
}

uint32_t ZoneTable::maxEntries() const {
    // Entry n is written as the two sectors that hold it; both must lie in the Region.
    const uint64_t R = regionSize();
    const uint64_t offset = zis().tableOffset;
    if (R < offset + 0x400) return 0;
    uint64_t n = (R - offset) / kEntrySize;
    while (n > 0 && (((offset + (n - 1) * kEntrySize) & ~uint64_t(511)) + 0x400) > R) --n;
    return uint32_t(n);
}

void ZoneTable::UnloadZoneTable() {
    std::lock_guard<std::mutex> guard(mEntriesLock);
    mEntries.clear();
    mInUse = mPreinitialized = 0;
    mZis = ZISHeader{};
    for (bool& h : mHasLocation) h = false;
    mLoaded = false;
}

StatusCode ZoneTable::setFlag(uint16_t flag, bool on) {
    // The switches live in the ZIS: without a loaded table there is none to keep them.
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    IOTracker tracker(READ_WRITE);
    StatusCode st;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&mTableLock, tracker);
        if (mReadOnly) return StatusCode::ReadOnlyMode;
        {
            std::lock_guard<std::mutex> guard(mEntriesLock);
            mZis.flags = on ? uint16_t(mZis.flags | flag) : uint16_t(mZis.flags & ~flag);
        }
        st = WriteZIS(false, tracker);
        StatusCode c = tracker.commit();
        if (st == StatusCode::Success) st = c;
    }
    return st;
}

StatusCode ZoneTable::SetUseSelfmirrored(bool on) {
    // A one-way switch: Zones may already rely on it.
    ESA_ASSERT(on);
    return setFlag(ZISHeader::kUseSelfMirroring, true);
}

StatusCode ZoneTable::SetDualRedundancyMode(bool on) {
    StatusCode st = setFlag(ZISHeader::kUseDualRedundancy, on);
    if (st != StatusCode::Success) return st;
    const std::string text = std::string("ZoneManager: ") +
                             (on ? "Enabling use of dual-redundant Zones" : "Disabling use of dual-redundant Zones");
    ESA_CONSOLE(text);
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
    LayoutManager::GetInstance()->InitiateBackgroundRepair();
    return st;
}

void ZoneTable::DumpEntry(std::ostream& out, const ZoneTableEntry& e) {
    out << "Zone " << e.zoneNumber << " type " << RedundancyGeometry::DecodeRedundancyType(e.redundancyType)
        << " flags 0x" << std::hex << e.flags << std::dec;
    if (e.flags & ZoneTableEntry::kMirrorOnly) out << " MirrorOnly";
    if (e.flags & ZoneTableEntry::kMetadata) out << " Metadata";
    if (!(e.flags & ZoneTableEntry::kInUse)) out << " NotInUse";
    if (e.flags & ZoneTableEntry::kPreinitialized) out << " Preinitialized";
    if (!(e.flags & ZoneTableEntry::kInitComplete)) out << " InitializationIncomplete";
    if (e.flags & ZoneTableEntry::kInitializing) out << " Initializing";
    out << "\n";
    const unsigned n = RedundancyGeometry::IsSupported(e.type()) ? e.GetRegionCount() : ZoneTableEntry::kSlots;
    for (unsigned s = 0; s < n; ++s) {
        out << "  [" << std::setw(2) << s << "] LD:RN " << e.disk[s] << ":" << e.region[s];
        out << ((s % 4 == 3 || s + 1 == n) ? "\n" : "");
    }
}

void ZoneTable::Dump(std::ostream& out) {
    const ZISHeader h = zis();
    out << "ZoneTable read-only status is " << (mReadOnly ? "true" : "false") << "\n";
    out << "Zone Table version           : " << h.version << "\n";
    out << "Zone Table generation        : " << h.generation << "\n";
    out << "Use of self-mirroring        : " << ((h.flags & ZISHeader::kUseSelfMirroring) ? "yes" : "no") << "\n";
    out << "Use of dual-redundancy       : " << ((h.flags & ZISHeader::kUseDualRedundancy) ? "yes" : "no") << "\n";
    const char* names[] = {"Primary", "Secondary", "Tertiary"};
    for (unsigned i = 0; i < kCopies; ++i) {
        out << names[i] << " ZIS disk/region : ";
        if (mHasLocation[i]) out << h.disk[i] << ":" << h.region[i] << "\n";
        else out << "none\n";
    }
    out << "Table offset into region     : 0x" << std::hex << h.tableOffset << std::dec << "\n";
    out << "Number of Entries created    : " << entriesCreated() << "\n";
    out << "Number of Entries in use     : " << entriesInUse() << "\n";
    out << "Number of Entries Init'd     : " << entriesPreinitialized() << "\n";
    out << "Zone Size                    : " << h.zoneSize << "\n";
}
