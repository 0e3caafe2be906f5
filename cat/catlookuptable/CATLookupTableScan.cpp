// The CAT lookup table's walks: written stretches, reclaim by age, the
// consistency checks and the dumps.
#include <algorithm>
#include <unordered_map>

#include "cat/ClusterManager.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "util/Trace.h"
#include "zone/ZoneTable.h"

extern Trace tClt;

bool CATLookupTable::FindCATEntryRuns(ActiveCATEntries& cursor, uint64_t limit, IOTracker& tracker) {
    (void)tracker;
    ReentrantLockObject::LockInstance g(&mLock);
    if (!mLoaded) return false;
    uint32_t lun = cursor.lun;
    uint64_t resume = cursor.start + cursor.length;
    for (; lun < mMaxLuns; ++lun, resume = 0) {
        const uint32_t zones = catZoneCount(lun);
        if (zones == 0) continue;
        const uint64_t end = std::min<uint64_t>(mImage.maxLba(lun) + 1, limit ? limit : ~uint64_t(0));
        const uint64_t chunks = uint64_t(zones) * mGeo.chunksPerZone;
        // Chunk index i here stands for LBA i x step: the chunk map indexes
        // chunksPerZone x catZone + chunk, and a CAT zone's chunks cover
        // exactly chunksPerZone steps only when the division is exact, so
        // the LBA of chunk i is worked out from its CAT zone and sector.
        auto lbaOf = [&](uint64_t i) {
            const uint64_t cz = i / mGeo.chunksPerZone, c = i % mGeo.chunksPerZone;
            return (cz * mGeo.entriesPerCatZone + c * mGeo.sectorsPerChunk * uint64_t(kEntriesPerSector)) *
                   kSectorsPerCluster;
        };
        for (uint64_t i = 0; i < chunks; ++i) {
            const uint64_t first = lbaOf(i);
            if (first >= end) break;
            const uint64_t next = std::min(lbaOf(i + 1), end);
            if (next <= resume || !mImage.chunkWritten(lun, i)) continue;
            uint64_t j = i + 1;
            while (j < chunks && mImage.chunkWritten(lun, j) && lbaOf(j) < end) ++j;
            const uint64_t start = std::max(first, resume);
            const uint64_t stop = std::min(lbaOf(j), end);
            cursor.lun = lun;
            cursor.start = start;
            cursor.length = uint32_t(std::min<uint64_t>(stop - start, 0xFFFFFFFFull));
            return true;
        }
    }
    cursor.lun = mMaxLuns;
    cursor.start = 0;
    cursor.length = 0;
    return false;
}

StatusCode CATLookupTable::ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed,
                                               bool useAge, uint8_t age, uint32_t& skipped) {
    reclaimed = 0;
    skipped = 0;
    if (lun >= kMaxLuns || length == 0 || lba + length > mMaxLba[lun] + 1) return StatusCode::CATM_LBAOutOfRange;
    const uint8_t t = currentTick();
    const uint8_t threshold = useAge ? uint8_t(t - age + 5) : 0;
    ClusterManager* cm = ClusterManager::GetInstance();
    StatusCode result = StatusCode::Success;
    uint64_t at = lba & ~uint64_t(kSectorsPerCluster - 1);
    const uint64_t end = lba + length;
    while (at < end && result.ok()) {
        const uint32_t count = uint32_t(std::min<uint64_t>(kMaxEntries, (end - at + kSectorsPerCluster - 1) / kSectorsPerCluster));
        WriteCATEntries* array = new WriteCATEntries;
        CATEntries e;
        e.array = array;
        IOTracker tracker(READ_WRITE);
        StatusCode st = GetCATEntry(e, lun, at, count, tracker);
        bool dirty = false;
        ClusterRun run;
        for (uint32_t i = 0; i < count && st.ok(); ++i) {
            CATEntry entry = e.get(i);
            if (!entry.allocated()) continue;
            if (uint8_t(t - entry.timestamp()) < threshold) {
                ++skipped;
                continue;
            }
            const bool freeIt = entry.validState();
            if (!freeIt)
                ESA_TRACE(tClt, "Skip freeing cluster : detected bad hash " << entry << " catEntriesUsed = " << i);
            if (freeIt && run.numberOfClusters && run.zone == entry.zone() && run.endCluster() == entry.cluster()) {
                ++run.numberOfClusters;
            } else {
                if (run.numberOfClusters) st = cm->DeallocateClusters(run, tracker);
                run = freeIt ? ClusterRun(entry.zone(), entry.cluster(), 1) : ClusterRun();
            }
            entry.clear(CATEntry::kReclaimed, t);
            e.put(i, entry);
            dirty = true;
            ++reclaimed;
        }
        if (st.ok() && run.numberOfClusters) st = cm->DeallocateClusters(run, tracker);
        if (!st.ok()) ESA_TRACE(tClt, "ClusterRangeReclaim:DeallocateClusters error " << st);
        // A failed deallocation leaves the set unfinished: nothing of it is
        // committed (the entries stay as they were).
        StatusCode c = Complete(e, tracker, dirty && st.ok());
        if (st.ok()) st = c;
        if (st.ok()) st = tracker.commitIfDirty();
        else tracker.lockRelease();
        delete array;
        result = st;
        at += uint64_t(count) * kSectorsPerCluster;
    }
    return result;
}

// ---- consistency checks -----------------------------------------------------

StatusCode CATLookupTable::internalConsistencyCheck(std::ostream& out) {
    unsigned errors = 0;
    ClusterManager* cm = ClusterManager::GetInstance();
    const uint32_t clustersPerZone = cm->GetClustersPerZone();
    StatusCode st = forEachWrittenEntry([&](uint32_t lun, uint64_t lba, const CATEntry& e) -> StatusCode {
        const char* what = nullptr;
        if (e.allocated() && e.zone() == 0) what = " Unallocated CLT entry with invalid cluster number (CLT entry for LBA = ";
        else if (e.allocated() && !e.validState()) what = " CLT entry bad hash value (CLT entry for LBA = ";
        else if (e.allocated() && (e.zone() == 0 || !ZoneTable::GetInstance()->CheckZoneValid(e.zone()).ok()))
            what = " CLT entry bad zone value (CLT entry for LBA = ";
        else if (e.allocated() && clustersPerZone && e.cluster() >= clustersPerZone)
            what = " CLT entry using cluster unrecognized by CM (CLT entry for LBA = ";
        if (!what) return StatusCode::Success;
        out << what << "0x" << std::hex << lba << std::dec << ", LUN " << lun << ") " << e << "\n";
        if (++errors > 100) {
            out << " Aborted - error count exceeds 100\n";
            return StatusCode::InternalError;
        }
        return StatusCode::Success;
    });
    if (!st.ok() && errors <= 100) {
        out << "CLT: check could not read the map: " << st << "\n";
        return st;
    }
    return errors ? StatusCode::CLT_BadHash : StatusCode::Success;
}

StatusCode CATLookupTable::externalConsistencyCheck(std::ostream& out) {
    StatusCode st = internalConsistencyCheck(out);
    unsigned errors = st.ok() ? 0 : 1;
    ClusterManager* cm = ClusterManager::GetInstance();
    std::unordered_map<uint64_t, uint64_t> named;  // (zone, cluster) -> first LBA naming it
    uint64_t inUse = 0;
    std::unordered_map<uint32_t, bool> owned;
    StatusCode walk = forEachWrittenEntry([&](uint32_t lun, uint64_t lba, const CATEntry& e) -> StatusCode {
        if (!e.allocated() || !e.validState()) return StatusCode::Success;
        ++inUse;
        const uint64_t key = uint64_t(e.zone()) << 32 | e.cluster();
        const uint64_t where = uint64_t(lun) << 56 | lba;
        auto [it, fresh] = named.emplace(key, where);
        const char* what = nullptr;
        auto ownedIt = owned.find(e.zone());
        if (ownedIt == owned.end()) ownedIt = owned.emplace(e.zone(), cm->IsZoneOwned(e.zone())).first;
        bool allocated = false;
        IOTracker tracker(READ_ONLY);
        if (!fresh) what = " CLT entry naming a cluster another entry names (CLT entry for LBA = ";
        else if (!ownedIt->second) what = " CLT entry using cluster unrecognized by CM (CLT entry for LBA = ";
        else if (!cm->GetClusterState(e.zone(), e.cluster(), allocated, tracker).ok() || !allocated)
            what = " CLT entry using cluster not allocated by CM (CLT entry for LBA = ";
        tracker.commitIfDirty();
        if (!what) return StatusCode::Success;
        out << what << "0x" << std::hex << lba << std::dec << ", LUN " << lun << ") " << e;
        if (!fresh)
            out << " (also LBA 0x" << std::hex << (it->second & ((uint64_t(1) << 56) - 1)) << std::dec << " of LUN "
                << (it->second >> 56) << ")";
        out << "\n";
        if (++errors > 100) {
            out << " Aborted - error count exceeds 100\n";
            return StatusCode::InternalError;
        }
        return StatusCode::Success;
    });
    if (!walk.ok()) return walk;
    // The bits set in the bitmaps of every Zone the cluster manager owns.
    uint64_t setBits = 0;
    const uint32_t perZone = cm->GetClustersPerZone();
    for (uint32_t n = 1;; ++n) {
        const uint32_t zone = cm->GetNthZoneInUse(n);
        if (zone == ClusterManager::kNoZone) break;
        uint32_t free = 0;
        IOTracker tracker(READ_ONLY);
        StatusCode c = cm->CountUnallocatedClustersInZone(zone, free, tracker);
        tracker.commitIfDirty();
        if (!c.ok()) {
            out << "CLT: cannot count the clusters of Zone " << zone << ": " << c << "\n";
            ++errors;
            continue;
        }
        setBits += perZone - free;
    }
    if (setBits != inUse) {
        out << "**** WARNING: Allocated cluster count mismatch between CATM and CM ****\n";
        out << "Allocated entries in CLT: " << inUse << "\n";
        out << "Allocated clusters in CM: " << setBits << "\n";
        ++errors;
    }
    return errors ? StatusCode::CLT_CachedDataNotConsistent : StatusCode::Success;
}

// ---- diagnostics -------------------------------------------------------------

void CATLookupTable::reportLuns(std::ostream& out) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (!mLoaded) {
        out << "CLT: no pack loaded\n";
        return;
    }
    for (uint32_t lun = 0; lun < mMaxLuns; ++lun) {
        if (!mImage.zoneCount(lun)) continue;
        out << "LUN " << lun << ": id " << mImage.uniqueId(lun) << ", last LBA 0x" << std::hex << mImage.maxLba(lun)
            << std::dec << ", " << mImage.zoneCount(lun) << " CAT zones:";
        for (uint32_t i = 0; i < mImage.zoneCount(lun); ++i) out << " " << mImage.catZone(lun, i);
        uint64_t written = 0;
        for (uint64_t c = 0; c < uint64_t(mImage.zoneCount(lun)) * mGeo.chunksPerZone; ++c)
            written += mImage.chunkWritten(lun, c);
        out << ", chunks written " << written << "\n";
    }
}

void CATLookupTable::Dump(std::ostream& out, bool verbose) {
    {
        ReentrantLockObject::LockInstance g(&mLock);
        out << "CATLookupTable: " << (mLoaded ? "loaded" : "not loaded") << (mReadOnly ? " read-only" : "")
            << ", max LUNs " << mMaxLuns << "\n";
        if (mLoaded)
            out << "  version " << mImage.version() << ", flags 0x" << std::hex << mImage.flags() << std::dec
                << ", sectors per CAT zone " << mGeo.sectorsPerCatZone << ", entries per CAT zone "
                << mGeo.entriesPerCatZone << ", chunks per Zone " << mGeo.chunksPerZone << ", sectors per chunk "
                << mGeo.sectorsPerChunk << ", max CAT zones per LUN " << mGeo.maxCatZonesPerLun
                << ", next unique id " << mImage.nextUniqueId() << "\n";
    }
    if (verbose) reportLuns(out);
}

void CATLookupTable::PerfInfo(std::ostream& out) {
    out << "CLT lookups " << mCounters.lookups << ", zero-filled parts " << mCounters.zeroFilled
        << ", locked parts " << mCounters.lockedLookups << ", updates " << mCounters.updates << ", CAT zones created "
        << mCounters.catZonesCreated << ", chunks cleaned " << mCounters.chunksCleaned << "\n";
}
