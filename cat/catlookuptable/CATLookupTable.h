#pragma once
// CATLookupTable (CLT): the map from a LUN's host LBA to its clusters, one
// 7-byte CATEntry per 4,096-byte cluster, 73 to a 512-byte sector, kept in
// metadata Zones of their own (CAT zones) and read and written through the
// zmdt cache so that every change joins its caller's J2 set.
//
// What it owns: the "CATLooku" Zone 0 area, held whole in memory (CLTImage):
// the LUN records, each LUN's CAT zone table and its chunk map; the per-LUN
// LBA limit mMaxLba (the requested last LBA plus 0x80); "rCLTLock".
//
// Invariants: a CAT zone is created the first time an entry in its range is
// written; a chunk's sectors are zeroed on disk and flushed before its map
// bit is written, and the map bit travels in the same set as the first
// entries put there, so an entry read from a chunk whose bit is clear is
// always zero and such a read touches no Zone. "rCLTLock" guards the image
// and every creation and cleaning; it is never held across a cache lookup of
// entries. Entries themselves are guarded by zmdt range locks, rounded to 8
// sectors.
//
// Data path order: GetCATEntry (or ClusterRangeGet), read or change the
// entries, then always Complete with the dirty flag; the ranges stay locked
// in the tracker between the two.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>

#include "cat/catlookuptable/CATEntries.h"
#include "cat/catlookuptable/CLTImage.h"
#include "include/ManagerBase.h"
#include "util/IOTracker.h"
#include "util/ReentrantLockObject.h"
#include "util/StatusCode.h"

class ZoneMetaDataTracker;

class CATLookupTable : public ManagerBase {
public:
    static constexpr uint32_t kMaxLuns = 32;
    static constexpr uint32_t kEntriesPerSector = CLTGeometry::kEntriesPerSector;
    static constexpr uint32_t kSectorsPerCluster = CLTGeometry::kSectorsPerCluster;
    static constexpr uint32_t kMaxEntries = WriteCATEntries::kMaxEntries;
    static constexpr uint64_t kLbaMargin = 0x80;
    // LoadDiskPack flags: the table may be created on a new pack; nothing may be written.
    static constexpr unsigned long kLoadCreate = 0x80, kLoadReadOnly = 0x01;
    static constexpr uint32_t kOwnerType = 2;  // RecoveryBlock owner code of a CAT zone

    static CATLookupTable* GetInstance();

    // ---- life cycle
    void Initialize(uint32_t entryId, const char* name);
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode LoadDiskPack(unsigned long flags);
    StatusCode UnloadDiskPack() override;
    bool loaded() const { return mLoaded; }
    // The maximum LUN count of this system (16; 32 in certification mode),
    // set before the pack load.
    void setMaxLuns(uint32_t n) { mMaxLuns = n == 32 ? 32 : 16; }
    uint32_t maxLuns() const { return mMaxLuns; }
    // The last LBA of a LUN of default size, for records that are free.
    void setDefaultMaxLba(uint64_t lba) { mDefaultMaxLba = lba; }
    const CLTGeometry& geometry() const { return mGeo; }

    // ---- LUNs
    StatusCode createLun(uint32_t& lun, uint64_t maxLba, IOTracker& tracker);
    StatusCode deleteLun(uint32_t lun, uint16_t ident);
    bool HasLunBeenUsed(uint32_t lun);
    StatusCode EnsureLUNsInit(uint32_t maxLun);
    // The last LBA the host may address; NoMoreLuns for a LUN that does not exist.
    StatusCode getLunLastLba(uint32_t lun, uint64_t& lastLba);
    // The bounds-check limit (requested last LBA + 0x80); 0 for a free LUN.
    uint64_t maxLba(uint32_t lun) const { return lun < kMaxLuns ? mMaxLba[lun] : 0; }
    uint16_t lunUniqueId(uint32_t lun);

    // ---- entries
    StatusCode GetCATEntry(CATEntries& entries, uint32_t lun, uint64_t lba, uint32_t count, IOTracker& tracker);
    StatusCode Update(CATEntries& entries, bool dirty, IOTracker& tracker);
    StatusCode Complete(CATEntries& entries, IOTracker& tracker, bool dirty);
    StatusCode ClusterRangeGet(uint32_t lun, uint64_t& lba, uint32_t length, CATEntries& entries,
                               uint32_t& numEntries, IOTracker& tracker);
    StatusCode ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed, bool useAge,
                                   uint8_t age, uint32_t& skipped);
    bool FindCATEntryRuns(ActiveCATEntries& cursor, uint64_t limit, IOTracker& tracker);

    // ---- CAT zones and the image
    StatusCode CreateCATZone(uint32_t lun, uint32_t index, IOTracker& tracker);
    StatusCode CleanCATZone(uint32_t lun, uint32_t catZone, uint32_t sector, uint32_t sectors, IOTracker& tracker);
    StatusCode WriteCATZoneHeaderData(IOTracker& tracker);
    StatusCode WriteCATZoneInfoData();
    StatusCode WriteCATZoneInfoData(uint32_t offset, uint32_t sectors, IOTracker& tracker);
    StatusCode ReadCATZoneInfoHeader(IOTracker& tracker);
    StatusCode ReadCATZoneInfoData(IOTracker& tracker);
    StatusCode Validate();
    uint32_t catZoneCount(uint32_t lun);
    uint32_t catZone(uint32_t lun, uint32_t index);
    bool chunkWritten(uint32_t lun, uint64_t chunk);

    // The tick that stamps entries (the scavenger's 8-bit clock registers
    // itself here; until then minutes of the board clock).
    static void setTickSource(uint8_t (*source)()) { sTickSource = source; }
    static uint8_t currentTick();

    // ---- checks and diagnostics
    // Calls fn(lun, lba, entry) for every entry of every written chunk.
    template <class Fn>
    StatusCode forEachWrittenEntry(Fn fn);
    StatusCode internalConsistencyCheck(std::ostream& out) override;
    StatusCode externalConsistencyCheck(std::ostream& out) override;
    void reportLuns(std::ostream& out);
    void Dump(std::ostream& out, bool verbose);
    void PerfInfo(std::ostream& out);
    // Counters for tests and PerfInfo.
    struct Counters {
        std::atomic<uint64_t> lookups{0}, zeroFilled{0}, lockedLookups{0}, updates{0}, catZonesCreated{0},
            chunksCleaned{0};
    };
    const Counters& counters() const { return mCounters; }

protected:
    CATLookupTable() : mLock("rCLTLock", 0x28) {}

private:
    struct ZoneShare {  // one CAT zone's share of a lookup
        uint32_t catZone, sector, sectors, firstEntry, entries;
    };
    void splitByCatZone(const CATEntries& e, ZoneShare parts[2], unsigned& n) const;
    StatusCode lockShare(const CATEntries& e, const ZoneShare& p, CacheTrackerObject*& cto, IOTracker& tracker);
    void copyEntries(CATEntries& e, const ZoneShare& p, CacheTrackerObject* cto, bool toWindow);
    StatusCode ensureCatZoneReady(uint32_t lun, uint32_t catZone, uint32_t sector, uint32_t sectors,
                                  IOTracker& tracker);
    StatusCode writePieces(uint32_t from);
    StatusCode writeImageRange(uint32_t firstByte, uint32_t lastByte, IOTracker& tracker);
    StatusCode createImage();
    StatusCode upgradeZones();
    uint64_t zone0Offset() const;
    uint32_t zone0Zone() const;
    void postEvent(const std::string& text);
    std::string lunRangeText(uint32_t lun, uint32_t index);

    ReentrantLockObject mLock;
    CLTImage mImage;
    CLTGeometry mGeo;
    uint32_t mEntryId = 3;
    std::string mName = "CATLooku";
    uint32_t mMaxLuns = 16;
    uint64_t mDefaultMaxLba = 0xFFFFFF77;
    uint64_t mMaxLba[kMaxLuns] = {};
    bool mLoaded = false;
    bool mReadOnly = false;
    ZoneMetaDataTracker* mZmdt = nullptr;
    Counters mCounters;
    static inline uint8_t (*sTickSource)() = nullptr;
};

template <class Fn>
StatusCode CATLookupTable::forEachWrittenEntry(Fn fn) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    const uint64_t lbasPerSector = uint64_t(kEntriesPerSector) * kSectorsPerCluster;
    for (uint32_t lun = 0; lun < mMaxLuns; ++lun) {
        const uint32_t zones = catZoneCount(lun);
        for (uint32_t cz = 0; cz < zones; ++cz) {
            if (catZone(lun, cz) == 0) continue;
            for (uint32_t chunk = 0; chunk < mGeo.chunksPerZone; ++chunk) {
                if (!chunkWritten(lun, uint64_t(mGeo.chunksPerZone) * cz + chunk)) continue;
                const uint32_t first = chunk * mGeo.sectorsPerChunk;
                const uint32_t last = std::min(first + mGeo.sectorsPerChunk, mGeo.sectorsPerCatZone);
                for (uint32_t s = first; s < last;) {
                    const uint32_t n = std::min<uint32_t>(kMaxEntries / kEntriesPerSector, last - s);
                    WriteCATEntries* buf = new WriteCATEntries;
                    CATEntries e;
                    e.array = buf;
                    IOTracker tracker(READ_ONLY);
                    const uint64_t lba = (uint64_t(cz) * mGeo.sectorsPerCatZone + s) * lbasPerSector;
                    const uint32_t count = n * kEntriesPerSector;
                    StatusCode st = GetCATEntry(e, lun, lba, count, tracker);
                    if (st.ok()) {
                        for (uint32_t i = 0; i < count && st.ok(); ++i)
                            st = fn(lun, lba + uint64_t(i) * kSectorsPerCluster, e.get(i));
                        StatusCode c = Complete(e, tracker, false);
                        if (st.ok()) st = c;
                    }
                    tracker.commitIfDirty();
                    delete buf;
                    if (!st.ok()) return st;
                    s += n;
                }
            }
        }
    }
    return StatusCode::Success;
}
