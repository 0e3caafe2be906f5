// The CAT lookup table's entries: lookups, updates and the CAT zones and
// chunks that must exist before an entry is written.
#include <algorithm>
#include <cstring>
#include <vector>

#include "cache/CacheTrackerObject.h"
#include "cache/ZoneMetaDataTracker.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/Trace.h"

extern Trace tClt;
ErrorInjection& cltInjection();

namespace {
const int kRangeGetPoint = cltInjection().addApiPoint("ClusterRangeGet.OOR", "fail a CAT range lookup as out of range");
}

void CATLookupTable::splitByCatZone(const CATEntries& e, ZoneShare parts[2], unsigned& n) const {
    n = 1;
    const uint32_t firstSectors = e.spanning ? e.sectors - e.spanSectors : e.sectors;
    const uint32_t firstEntries = std::min(e.count, firstSectors * kEntriesPerSector - e.sectorOffset);
    parts[0] = {e.catZone, e.sector, firstSectors, 0, firstEntries};
    if (e.spanning) {
        parts[1] = {e.catZone + 1, 0, e.spanSectors, firstEntries, e.count - firstEntries};
        n = 2;
    }
}

StatusCode CATLookupTable::lockShare(const CATEntries& e, const ZoneShare& p, CacheTrackerObject*& cto, IOTracker& tracker) {
    const uint32_t zone = catZone(e.lun, p.catZone);
    if (!zone) return StatusCode::CLT_ZoneIndexOutOfRange;
    ++mCounters.lockedLookups;
    return mZmdt->LockAndLookupRange(zone, p.sector, p.sectors, cto, tracker, 8);
}

// Copies the share's entries between the array and the locked sectors, 7
// bytes at a time, skipping the pad byte at the end of each sector. Entries
// in a chunk whose sectors were never zeroed read as zero, whatever the disk
// holds there.
void CATLookupTable::copyEntries(CATEntries& e, const ZoneShare& p, CacheTrackerObject* cto, bool toWindow) {
    std::vector<uint8_t> flat(size_t(p.sectors) * 512);
    DataBuffer b{uint32_t(flat.size()), flat.data()};
    cto->mWindow.Read(b, 0, b.length);
    const uint32_t slot0 = p.firstEntry == 0 ? e.sectorOffset : 0;
    uint64_t chunk = ~uint64_t(0);
    bool written = false;
    for (uint32_t i = 0; i < p.entries; ++i) {
        const uint32_t w = slot0 + i;
        uint8_t* at = flat.data() + CLTGeometry::entryByte(w);
        uint8_t* mine = e.array->entries + (e.baseIndex + p.firstEntry + i) * CATEntry::kBytes;
        if (toWindow) {
            std::memcpy(at, mine, CATEntry::kBytes);
            continue;
        }
        const uint64_t c =
            uint64_t(mGeo.chunksPerZone) * p.catZone + (p.sector + w / kEntriesPerSector) / mGeo.sectorsPerChunk;
        if (c != chunk) {
            chunk = c;
            written = chunkWritten(e.lun, chunk);
        }
        if (written) std::memcpy(mine, at, CATEntry::kBytes);
        else std::memset(mine, 0, CATEntry::kBytes);
    }
    if (toWindow) cto->mWindow.Write(b, 0, b.length);
}

StatusCode CATLookupTable::GetCATEntry(CATEntries& e, uint32_t lun, uint64_t lba, uint32_t count, IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (count == 0 || count > kMaxEntries || lun >= mMaxLuns) return StatusCode::BadCommand;
    ++mCounters.lookups;
    const uint64_t c = lba / kSectorsPerCluster;
    e.lun = lun;
    e.count = count;
    e.catZone = uint32_t(c / mGeo.entriesPerCatZone);
    const uint64_t w = c % mGeo.entriesPerCatZone;
    e.sector = uint32_t(w / kEntriesPerSector);
    e.sectorOffset = uint32_t(w % kEntriesPerSector);
    e.sectors = (e.sectorOffset + kEntriesPerSector + count - 1) / kEntriesPerSector;
    e.spanning = e.sector + e.sectors > mGeo.sectorsPerCatZone;
    e.spanSectors = e.spanning ? e.sector + e.sectors - mGeo.sectorsPerCatZone : 0;
    e.cto = e.cto2 = nullptr;
    if (e.array->fill < e.baseIndex + count) e.array->fill = e.baseIndex + count;
    std::memset(e.array->entries + e.baseIndex * CATEntry::kBytes, 0, count * CATEntry::kBytes);
    e.filled = true;
    // Past the LUN's CAT zones nothing is read: the entries are zeros.
    if (e.catZone >= catZoneCount(lun)) return StatusCode::Success;

    ZoneShare parts[2];
    unsigned n = 0;
    splitByCatZone(e, parts, n);
    for (unsigned i = 0; i < n; ++i) {
        const ZoneShare& p = parts[i];
        if (p.catZone >= catZoneCount(lun) || catZone(lun, p.catZone) == 0) continue;
        const uint64_t firstChunk = uint64_t(mGeo.chunksPerZone) * p.catZone + p.sector / mGeo.sectorsPerChunk;
        const uint64_t lastChunk =
            uint64_t(mGeo.chunksPerZone) * p.catZone + (p.sector + p.sectors - 1) / mGeo.sectorsPerChunk;
        bool any = false;
        for (uint64_t ch = firstChunk; ch <= lastChunk && !any; ++ch) any = chunkWritten(lun, ch);
        // A share in chunks never written holds only zeros: no lock, no I/O.
        if (!any) {
            ++mCounters.zeroFilled;
            continue;
        }
        CacheTrackerObject*& cto = i == 0 ? e.cto : e.cto2;
        StatusCode st = lockShare(e, p, cto, tracker);
        if (!st.ok()) {
            ESA_TRACE(tClt, "GetCATEntry: lock of CAT zone " << p.catZone << " sector " << p.sector << " failed " << st);
            if (i == 1 && e.cto) {
                mZmdt->UnlockRange(e.cto);
                e.cto = nullptr;
            }
            cto = nullptr;
            e.filled = false;
            return st;
        }
        copyEntries(e, p, cto, false);
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::ensureCatZoneReady(uint32_t lun, uint32_t catZoneIndex, uint32_t sector, uint32_t sectors,
                                              IOTracker& tracker) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (catZoneIndex >= catZoneCount(lun)) return StatusCode::CLT_ZoneIndexOutOfRange;
    StatusCode st = CreateCATZone(lun, catZoneIndex, tracker);
    if (st.ok()) st = CleanCATZone(lun, catZoneIndex, sector, sectors, tracker);
    return st;
}

StatusCode CATLookupTable::Update(CATEntries& e, bool dirty, IOTracker& tracker) {
    if (!dirty) return StatusCode::Success;
    if (!e.filled) return StatusCode::CLT_CATNotCompleted;
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    ++mCounters.updates;
    ZoneShare parts[2];
    unsigned n = 0;
    splitByCatZone(e, parts, n);
    for (unsigned i = 0; i < n; ++i) {
        const ZoneShare& p = parts[i];
        CacheTrackerObject*& cto = i == 0 ? e.cto : e.cto2;
        const uint64_t firstChunk = uint64_t(mGeo.chunksPerZone) * p.catZone + p.sector / mGeo.sectorsPerChunk;
        const uint64_t lastChunk =
            uint64_t(mGeo.chunksPerZone) * p.catZone + (p.sector + p.sectors - 1) / mGeo.sectorsPerChunk;
        bool allWritten = catZone(e.lun, p.catZone) != 0;
        for (uint64_t ch = firstChunk; ch <= lastChunk && allWritten; ++ch) allWritten = chunkWritten(e.lun, ch);
        if (!allWritten) {
            // A chunk is zeroed straight on the Zone, past the cache: a lock
            // held on part of it is given up first (nothing of it is dirty
            // yet, and the map lock keeps every other writer of these entries
            // out meanwhile).
            if (cto) {
                mZmdt->UnlockRange(cto);
                cto = nullptr;
            }
            StatusCode st = ensureCatZoneReady(e.lun, p.catZone, p.sector, p.sectors, tracker);
            if (!st.ok()) return st;
        }
        if (!cto) {
            StatusCode st = lockShare(e, p, cto, tracker);
            if (!st.ok()) {
                cto = nullptr;
                return st;
            }
        }
        copyEntries(e, p, cto, true);
        StatusCode st = mZmdt->WriteRange(cto, tracker);
        if (!st.ok()) return st;
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::Complete(CATEntries& e, IOTracker& tracker, bool dirty) {
    StatusCode st = Update(e, dirty, tracker);
    if (e.cto) mZmdt->UnlockRange(e.cto);
    if (e.cto2) mZmdt->UnlockRange(e.cto2);
    e.cto = e.cto2 = nullptr;
    e.filled = false;
    return st;
}

StatusCode CATLookupTable::ClusterRangeGet(uint32_t lun, uint64_t& lba, uint32_t length, CATEntries& e,
                                           uint32_t& numEntries, IOTracker& tracker) {
    if (lun >= kMaxLuns || length == 0 || lba + length > mMaxLba[lun] + 1) {
        ESA_TRACE(tClt, "LBA Out of range " << lba << " + " << length << " LUN " << lun);
        return StatusCode::CATM_LBAOutOfRange;
    }
    bool fired = false;
    if (StatusCode st = cltInjection().apiErrorInject(kRangeGetPoint, StatusCode::Success, fired); fired) return st;
    numEntries = uint32_t((lba + length - 1) / kSectorsPerCluster - lba / kSectorsPerCluster + 1);
    if (numEntries > kMaxEntries) return StatusCode::CACHE_InvalidLength;
    return GetCATEntry(e, lun, lba & ~uint64_t(kSectorsPerCluster - 1), numEntries, tracker);
}
