// The Zone table's copies on disk: the ZIS block, entry updates, whole-table
// writes and the load with its generation vote.
#include <cstring>
#include <sstream>
#include <vector>

#include "cache/CacheTrackerObject.h"
#include "cache/RegionMetaDataTracker.h"
#include "include/DrivePackInfo.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/DataWindow.h"
#include "util/Trace.h"
#include "zone/ZoneTable.h"

namespace {

Trace tZtd("ZM", "ZoneTableDisk", "Info", false);

const char* kCopyName[] = {"Primary", "Secondary", "Tertiary"};
const StatusCode kBadCopy[] = {StatusCode::ZM_BadPrimaryZIS, StatusCode::ZM_BadSecondaryZIS,
                               StatusCode::ZM_BadTertiaryZIS};
constexpr uint32_t kTableWindow = 0x8000;

}  // namespace

StatusCode ZoneTable::RegionMetaData(uint16_t ld, uint32_t region, uint32_t offset, uint8_t* buffer, uint32_t length,
                                     bool write, bool noRead, IOTracker& tracker) {
    ESA_ASSERT_OP(offset % 512, ==, 0u);
    ESA_ASSERT_OP(length % 512, ==, 0u);
    const uint64_t R = RegionManager::GetInstance()->RegionSizeBytes();
    if (R == 0) return StatusCode::DiskPackNotLoaded;
    RegionMetaDataTracker* cache = RegionMetaDataTracker::GetInstance();
    const uint64_t key = (uint64_t(region) * R + offset) / 512;
    CacheTrackerObject* cto = nullptr;
    StatusCode st = noRead ? cache->LockAndLookupRangeNoRead(ld, key, length / 512, cto, tracker)
                           : cache->LockAndLookupRange(ld, key, length / 512, cto, tracker);
    if (st != StatusCode::Success) return st;
    DataBuffer flat{length, buffer};
    if (write) {
        cto->mWindow.Write(flat);
        st = cache->WriteRange(cto, tracker);
    } else {
        cto->mWindow.Read(flat);
    }
    cache->UnlockRange(cto);
    return st;
}

StatusCode ZoneTable::WriteZIS(bool updateRMMetaData, IOTracker& tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    ZISHeader h;
    {
        std::lock_guard<std::mutex> guard(mEntriesLock);
        mZis.generation = ZISFormat::NextGeneration(mZis.generation);
        mZis.version = ZISHeader::kVersion;
        mZis.entryCount = uint32_t(mEntries.size());
        h = mZis;
    }
    std::vector<uint8_t> block(ZISHeader::kBlockSize);
    ZISFormat::EncodeHeader(h, block.data());
    RegionManager* rm = RegionManager::GetInstance();
    for (unsigned i = 0; i < kCopies; ++i) {
        if (!mHasLocation[i]) continue;
        StatusCode st = RegionMetaData(h.disk[i], h.region[i], 0, block.data(), ZISHeader::kBlockSize, true, true,
                                       tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("WriteZIS: write of the " << kCopyName[i] << " ZIS on LD " << h.disk[i] << " Region "
                                                  << h.region[i] << " failed - " << st);
            return kBadCopy[i];
        }
        if (rm->RecoverySpaceEnabled()) {
            _ZISRecovery rec;
            rec.arrayIndex = uint16_t(i);
            st = rm->WriteRecoveryBlock(h.disk[i], h.region[i], RegionTypeZIS, &rec, nullptr, tracker);
            if (st != StatusCode::Success && st != StatusCode::DiskNotPresent)
                ESA_TRACE(tZtd, "WriteZIS: RecoveryBlock of copy " << i << " - " << st);
        }
        if (updateRMMetaData) {
            uint16_t ld = 0;
            uint32_t region = 0;
            if (rm->GetMetaData(i, ld, region, tracker) != StatusCode::Success || ld != h.disk[i] ||
                region != h.region[i]) {
                st = rm->SetMetaData(i, h.disk[i], h.region[i], tracker);
                if (st != StatusCode::Success) {
                    ESA_CONSOLE("WriteZIS: saving the " << kCopyName[i] << " location failed - " << st);
                    return kBadCopy[i];
                }
            }
        }
    }
    return StatusCode::Success;
}

StatusCode ZoneTable::writeEntryToCopies(uint32_t zone, const ZoneTableEntry& entry, IOTracker& tracker) {
    const ZISHeader h = zis();
    const uint64_t position = h.tableOffset + uint64_t(zone) * kEntrySize;
    const uint32_t sector = uint32_t(position & ~uint64_t(511));
    // InsertEntry never lets the table grow past what its Region holds.
    ESA_ASSERT_OP(uint64_t(sector) + 0x400, <=, uint64_t(regionSize()));
    uint8_t sectors[0x400];
    for (unsigned i = 0; i < kCopies; ++i) {
        if (!mHasLocation[i]) continue;
        StatusCode st = RegionMetaData(h.disk[i], h.region[i], sector, sectors, 0x400, false, false, tracker);
        if (st == StatusCode::Success) {
            ZISFormat::EncodeEntry(entry, sectors + (position - sector));
            st = RegionMetaData(h.disk[i], h.region[i], sector, sectors, 0x400, true, false, tracker);
        }
        if (st != StatusCode::Success) {
            ESA_CONSOLE("UpdateZoneTableEntry: Zone " << zone << " write to the " << kCopyName[i] << " copy failed - "
                                                      << st);
            return kBadCopy[i];
        }
    }
    return StatusCode::Success;
}

StatusCode ZoneTable::writeZoneRecoveryBlocks(const ZoneTableEntry& entry, IOTracker& tracker) {
    RegionManager* rm = RegionManager::GetInstance();
    if (!rm->RecoverySpaceEnabled()) return StatusCode::Success;
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        if (entry.region[s] == 0) continue;
        _ZISRecovery rec;
        rec.zoneNumber = entry.zoneNumber;
        rec.arrayIndex = uint16_t(s);
        rec.zoneFlags = entry.flags;
        rec.redundancyType = entry.redundancyType;
        StatusCode st = rm->WriteRecoveryBlock(entry.disk[s], entry.region[s], RegionTypeZONE, &rec, nullptr, tracker);
        if (st != StatusCode::Success && st != StatusCode::DiskNotPresent) return st;
    }
    return rm->IncrementRecoveryGeneration(tracker);
}

StatusCode ZoneTable::UpdateZoneTableEntry(uint32_t zone, const ZoneTableEntry& entry, IOTracker& tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    if (zone >= entriesCreated()) return StatusCode::InvalidZoneNumber;
    ZoneTableEntry stored = entry;
    stored.zoneNumber = zone;
    replaceEntry(zone, stored);
    StatusCode st = writeEntryToCopies(zone, stored, tracker);
    if (st != StatusCode::Success) return st;
    st = writeZoneRecoveryBlocks(stored, tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("UpdateZoneTableEntry: Zone " << zone << " RecoveryBlocks failed - " << st);
        return st;
    }
    return WriteZIS(false, tracker);
}

StatusCode ZoneTable::InsertEntry(ZoneTableEntry& entry, IOTracker& tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    uint32_t number = entriesCreated();
    if (entriesInUse() < number) {
        for (uint32_t z = 0; z < entriesCreated(); ++z) {
            ZoneTableEntry e;
            RawLookupZone(z, e);
            if (!e.inUse() && !e.HasRegions()) {
                number = z;
                break;
            }
        }
    }
    if (number == entriesCreated()) {
        if (number >= maxEntries()) {
            ESA_CONSOLE("InsertEntry: the Zone table is full (" << number << " entries)");
            return StatusCode::ZoneOverflow;
        }
        ZoneTableEntry fresh = ZoneTableEntry::Fresh();
        AddEntry(fresh);
        StatusCode st = WriteZIS(false, tracker);
        if (st != StatusCode::Success) return st;
    }
    entry.zoneNumber = number;
    return UpdateZoneTableEntry(number, entry, tracker);
}

StatusCode ZoneTable::WriteZoneTable(unsigned copy, IOTracker& tracker) {
    if (copy >= kCopies) return StatusCode::InternalError;
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    const ZISHeader h = zis();
    if (!mHasLocation[copy]) return StatusCode::InternalError;
    const uint16_t ld = h.disk[copy];
    const uint32_t region = h.region[copy];
    const uint32_t R = regionSize();
    const uint32_t count = entriesCreated();
    RegionManager* rm = RegionManager::GetInstance();
    // This Region may have served another copy before: drop what the cache
    // holds of it, so that later entry updates start from what is written here.
    const uint64_t tableEnd = h.tableOffset + uint64_t(count) * kEntrySize;
    const uint64_t elements = (tableEnd + 0x400 + 511) / 512;
    RegionMetaDataTracker::GetInstance()->InvalidateRange(ld, uint64_t(region) * R / 512, uint32_t(elements), tracker);

    std::vector<uint8_t> flat(kTableWindow);
    uint32_t i = 0;
    while (i < count) {
        const uint32_t start = uint32_t((h.tableOffset + uint64_t(i) * kEntrySize) & ~uint64_t(511));
        const uint32_t length = std::min<uint32_t>(kTableWindow, R - start);
        DataWindow window(length, 0u, length);
        StatusCode st = rm->ReadData(ld, region, start, window, tracker);
        if (st != StatusCode::Success) return st;
        DataBuffer buf{length, flat.data()};
        window.Read(buf);
        uint32_t j = i;
        for (; j < count; ++j) {
            const uint64_t at = h.tableOffset + uint64_t(j) * kEntrySize - start;
            if (at + kEntrySize > length) break;
            ZoneTableEntry e;
            RawLookupZone(j, e);
            ZISFormat::EncodeEntry(e, flat.data() + at);
        }
        ESA_ASSERT_OP(j, >, i);
        window.Write(buf);
        st = rm->WriteData(ld, region, start, window, tracker);
        if (st != StatusCode::Success) return st;
        i = j;
    }
    return rm->Flush(ld, tracker);
}

StatusCode ZoneTable::ReadZISGeneration(uint16_t ld, uint32_t region, uint32_t offset, uint32_t& generation,
                                        IOTracker& tracker) {
    std::vector<uint8_t> block(ZISHeader::kBlockSize);
    StatusCode st = RegionMetaData(ld, region, offset, block.data(), ZISHeader::kBlockSize, false, false, tracker);
    if (st != StatusCode::Success) return st;
    ZISHeader h;
    st = ZISFormat::DecodeHeader(block.data(), h);
    if (st != StatusCode::Success) return st;
    generation = h.generation;
    return StatusCode::Success;
}

StatusCode ZoneTable::ReadZISAndTable(uint16_t ld, uint32_t region, uint32_t offset, IOTracker& tracker) {
    // What stays of the locations: they came from the Region layer.
    bool hadLocation[kCopies];
    ZISHeader locations = zis();
    for (unsigned i = 0; i < kCopies; ++i) hadLocation[i] = mHasLocation[i];
    UnloadZoneTable();

    std::vector<uint8_t> block(ZISHeader::kBlockSize);
    StatusCode st = RegionMetaData(ld, region, offset, block.data(), ZISHeader::kBlockSize, false, false, tracker);
    if (st != StatusCode::Success) return st;
    ZISHeader h;
    if (ZISFormat::DecodeHeader(block.data(), h) != StatusCode::Success) return StatusCode::BadMetadata;
    ESA_CONSOLE("Found ZIS layout version " << h.version);
    mLoadedVersion = h.version;
    const uint32_t R = regionSize();
    const uint32_t entrySize = ZISFormat::EntrySize(h.version);
    if (h.tableOffset % 512 || uint64_t(h.tableOffset) + uint64_t(h.entryCount) * entrySize > R) {
        ESA_CONSOLE("ReadZISAndTable: table of " << h.entryCount << " entries at 0x" << std::hex << h.tableOffset
                                                 << std::dec << " does not fit its Region");
        return StatusCode::BadMetadata;
    }
    SystemDrivePackInfo::GetInstance()->set(SystemDrivePackInfo::ZoneSize, h.zoneSize);
    {
        std::lock_guard<std::mutex> guard(mEntriesLock);
        mZis = h;
        mZis.entryCount = 0;
        // Copies this old a header does not name keep the Region layer's word.
        for (unsigned i = 0; i < kCopies; ++i) {
            mHasLocation[i] = i < 2 || h.hasTertiary ? true : hadLocation[i];
            if (!(i < 2 || h.hasTertiary)) mZis.disk[i] = locations.disk[i], mZis.region[i] = locations.region[i];
        }
    }
    ESA_CONSOLE("Loading ZoneTable from disk");
    const uint64_t tableBytes = uint64_t(h.entryCount) * entrySize;
    std::vector<uint8_t> raw(size_t((tableBytes + 4095) / 4096 * 4096));
    for (uint64_t done = 0; done < raw.size(); done += 4096) {
        const uint32_t piece = uint32_t(std::min<uint64_t>(4096, R - h.tableOffset - done));
        const uint32_t sectors = piece / 512 * 512;
        if (sectors == 0) break;
        st = RegionMetaData(ld, region, uint32_t(h.tableOffset + done), raw.data() + done, sectors, false, false,
                            tracker);
        if (st != StatusCode::Success) {
            UnloadZoneTable();
            return st;
        }
    }
    for (uint32_t z = 0; z < h.entryCount; ++z) {
        ZoneTableEntry e;
        ZISFormat::DecodeEntry(h.version, raw.data() + uint64_t(z) * entrySize, e);
        e.flags &= ~ZoneTableEntry::kInitializing;
        e.lastWrittenTimestamp = 0;
        const unsigned order = RedundancyGeometry::RedundancyOrder(e.redundancyType);
        if (order >= 4 && order <= 7) {
            ESA_CONSOLE("ReadZISAndTable: Zone " << z << " has a RedundancyType of " << e.redundancyType
                                                 << " which is no longer supported");
            UnloadZoneTable();
            return StatusCode::BadMetadata;
        }
        if (e.zoneNumber != z) {
            ESA_CONSOLE("ReadZISAndTable: entry " << z << " holds Zone number " << e.zoneNumber);
            UnloadZoneTable();
            return StatusCode::BadMetadata;
        }
        AddEntry(e);
    }
    mLoaded = true;
    ESA_CONSOLE("ZoneTable load from disk complete");
    if (h.version != ZISHeader::kVersion && !mReadOnly) {
        ESA_CONSOLE("ZoneTable format changed - writing out updated format");
        bool good[kCopies] = {false, false, false};
        return RepairZoneTable(good[0], good[1], good[2], tracker);
    }
    return StatusCode::Success;
}

StatusCode ZoneTable::createTable(IOTracker& tracker) {
    if (!SystemManager::GetInstance()->clearDiskRequested())
        ESA_CONSOLE("LoadZoneTable: no Zone table on any disk and no clear requested: taking this as a new pack");
    ESA_CONSOLE("No valid ZIS found - creating");
    const uint64_t R = RegionManager::GetInstance()->RegionSizeBytes();
    if (R == 0) return StatusCode::BadMetadata;
    SystemDrivePackInfo::GetInstance()->set(SystemDrivePackInfo::ZoneSize, 24 * R);
    {
        std::lock_guard<std::mutex> guard(mEntriesLock);
        mZis = ZISHeader{};
        mZis.zoneSize = uint32_t(24 * R);
        mZis.tableOffset = ZISHeader::kTableOffset;
    }
    uint16_t ld[kCopies] = {0xFFFF, 0xFFFF, 0xFFFF};
    for (unsigned i = 0; i < kCopies; ++i) {
        StatusCode st = i == 0 ? SelectDisk(ld[0], 1, tracker)
                               : SelectDiskWithPreference(ld[i], ld[(i + kCopies - 1) % kCopies],
                                                          ld[(i + 1) % kCopies], true, 1, tracker);
        if (st != StatusCode::Success) return st;
        uint32_t region = 0;
        st = RegionManager::GetInstance()->AllocateRegions(ld[i], 1, &region, true, tracker);
        if (st != StatusCode::Success) return st;
        std::lock_guard<std::mutex> guard(mEntriesLock);
        mZis.disk[i] = ld[i];
        mZis.region[i] = region;
        mHasLocation[i] = true;
    }
    mLoaded = true;
    return WriteZIS(true, tracker);
}

StatusCode ZoneTable::LoadZoneTable(IOTracker& tracker) {
    ESA_CONSOLE("ZoneTable read-only status is " << (mReadOnly ? "true" : "false"));
    UnloadZoneTable();
    RegionManager* rm = RegionManager::GetInstance();
    uint16_t ld[kCopies] = {};
    uint32_t region[kCopies] = {};
    bool located[kCopies] = {}, usable[kCopies] = {};
    uint32_t generation[kCopies] = {};
    bool anyLocation = false, anyGeneration = false;
    for (unsigned i = 0; i < kCopies; ++i) {
        StatusCode st = rm->GetMetaData(i, ld[i], region[i], tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE(kCopyName[i] << "ZIS not available from RegionManager - " << st);
            continue;
        }
        ESA_CONSOLE("LoadZoneTable: got " << kCopyName[i] << " location (" << ld[i] << ":" << region[i] << ")");
        located[i] = anyLocation = true;
        if (ReadZISGeneration(ld[i], region[i], 0, generation[i], tracker) == StatusCode::Success) {
            usable[i] = anyGeneration = true;
            ESA_CONSOLE("LoadZoneTable: " << kCopyName[i] << " generation number is " << generation[i]);
        }
    }
    if (anyLocation && !anyGeneration) return StatusCode::BadMetadata;
    if (anyLocation) {
        int newest = -1;
        for (unsigned i = 0; i < kCopies; ++i)
            if (usable[i] && (newest < 0 || ZISFormat::GenerationNewer(generation[i], generation[newest])))
                newest = int(i);
        bool allMatch = true;
        for (unsigned i = 0; i < kCopies; ++i) allMatch = allMatch && usable[i] && generation[i] == generation[newest];
        if (allMatch) ESA_CONSOLE("LoadZoneTable: all generation numbers match");
        for (unsigned i = 0; i < kCopies && !allMatch; ++i) {
            if (!usable[i]) continue;
            if (generation[i] != generation[newest]) {
                ESA_CONSOLE("LoadZoneTable: " << kCopyName[i] << " generation number too old - not loading");
                usable[i] = false;
            } else {
                ESA_CONSOLE("LoadZoneTable: " << kCopyName[i] << " generation number is newest");
            }
        }
        int loadedFrom = -1;
        uint32_t loadedVersion = ZISHeader::kVersion;
        for (unsigned i = 0; i < kCopies && loadedFrom < 0; ++i) {
            if (!usable[i]) continue;
            ESA_CONSOLE(kCopyName[i] << "ZIS: Disk=" << ld[i] << ", Region=" << region[i] << ", Offset=0");
            // Keep the Region layer's locations while the copy loads: a
            // version without a tertiary copy takes it from there.
            {
                std::lock_guard<std::mutex> guard(mEntriesLock);
                for (unsigned c = 0; c < kCopies; ++c) {
                    mZis.disk[c] = ld[c], mZis.region[c] = region[c];
                    mHasLocation[c] = located[c];
                }
            }
            StatusCode st = ReadZISAndTable(ld[i], region[i], 0, tracker);
            loadedVersion = mLoadedVersion;
            if (st == StatusCode::Success) loadedFrom = int(i);
            else ESA_CONSOLE("Unable to load " << kCopyName[i] << "ZIS - " << st);
        }
        if (loadedFrom < 0) {
            ESA_CONSOLE("Failed to load any copy of the ZIS");
            return StatusCode::BadMetadata;
        }
        // An old format was rewritten to three fresh copies as it loaded.
        if (mReadOnly || zis().version != loadedVersion) return StatusCode::Success;
        bool good[kCopies];
        bool anyBad = false;
        std::ostringstream report;
        for (unsigned i = 0; i < kCopies; ++i) {
            good[i] = usable[i] && ConsistencyCheck(i, report, false);
            anyBad = anyBad || !good[i];
        }
        ESA_TRACE(tZtd, report.str());
        if (!anyBad) return StatusCode::Success;
        // The repair joins the load's transaction: it may follow Region
        // allocations of that transaction, whose locks it holds to commit.
        return RepairZoneTable(good[0], good[1], good[2], tracker);
    }
    // No location on any disk. The table's Regions are the first a pack ever
    // allocates, in the set that records their locations: with no Region in
    // use the pack never had a table (its making was cut short, or it is new),
    // and nothing can be lost by making one. With Regions in use the
    // locations were lost, and a new table would orphan every Zone.
    if (regionsInUse(tracker)) {
        ESA_CONSOLE("LoadZoneTable: no ZIS location on any disk but Regions are in use - not creating a table");
        return StatusCode::BadMetadata;
    }
    if (mReadOnly) {
        // Nothing is critical in a pack without Zones; the read-write load makes the table.
        ESA_CONSOLE("No ZIS locations available from RegionManager, and no Region in use - a pack without Zones");
        return StatusCode::Success;
    }
    // A new pack: the caller commits the table's creation with its load.
    return createTable(tracker);
}

bool ZoneTable::regionsInUse(IOTracker& tracker) {
    RegionManager* rm = RegionManager::GetInstance();
    for (uint16_t ld = 0; ld < RegionManager::kMaxLogicalDisks; ++ld) {
        uint32_t free = 0, available = 0;
        if (rm->GetFreeRegionCount(ld, free, tracker) != StatusCode::Success) continue;
        if (rm->GetAvailableRegionCount(ld, available, tracker) == StatusCode::Success && free < available) return true;
    }
    return false;
}
