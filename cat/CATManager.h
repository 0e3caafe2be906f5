#pragma once
// CATManager (CATM): where host LBAs meet the disk. It joins the host LBA
// cache ("hlbat"), the CAT lookup table, the cluster manager and the Zones.
//
// What it owns: the embedded CATLookupTable; the "CatMTabl" Zone 0 area (the
// default LUN size); "lCATMLock", held across every change of the map, so
// there is at most one map change at a time (lock order: hlbat range locks,
// then "lCATMLock", then "rCLTLock" or zmdt range locks).
//
// Write paths. A host write through the journal is redirected: every whole
// cluster it covers gets a new cluster, the old one is freed, and the new
// map, the freed bits and the new bits commit as one J2 set before the data
// go to the Zones (the journal holds the data until then). A cluster a batch
// covers only in part keeps its cluster and is rewritten in place, so the
// acknowledged sectors beside the write are never lost to a power cut; a
// never-written cluster covered in part gets its whole new cluster written
// and flushed before the map names it. The replay and internal path
// (check-only) keeps the clusters a range already has. Work that would not
// fit one journal set is split into sets that are each consistent.
//
// Read path. Clusters are looked up, contiguous ones read with one Zone read,
// and a cluster never written is zeros without any Zone I/O.
#include <atomic>
#include <cstdint>
#include <ostream>
#include <vector>

#include "cat/ClusterRun.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "include/ManagerBase.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/StatusCode.h"

class ClientRequest;
class DataStore;
struct PostWriteElem;

class CATManager : public ManagerBase {
public:
    static constexpr uint32_t kEntryId = 0;
    static constexpr uint32_t kVersion = 2;
    static constexpr uint32_t kAreaBytes = 16384;
    static constexpr uint32_t kMaxRuns = CATLookupTable::kMaxEntries;
    static constexpr uint32_t kSectorsPerCluster = 8;

    // One stretch of a batch's data as the map placed it: `run` holds the
    // clusters from cluster `clusterOffset` of item `item`'s rounded range.
    struct PlacedRun {
        ClusterRun run;
        uint32_t item = 0;
        uint32_t clusterOffset = 0;
    };
    // Placed runs that lie end to end in one Zone, written with one call.
    struct JoinedRun {
        ClusterRun run;
        DataWindow window;
        std::vector<uint32_t> items;
        bool extends(const ClusterRun& next) const {
            return !items.empty() && next.zone == run.zone &&
                   next.firstCluster == run.firstCluster + run.numberOfClusters;
        }
        void start(const ClusterRun& r) { run = r; }
    };

    static CATManager* GetInstance();

    // ---- life cycle
    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;
    StatusCode Load();
    StatusCode Validate();
    StatusCode InitializeCATM(bool create);
    bool loaded() const { return mLoaded; }
    uint64_t maxDefaultLba() const { return mMaxDefaultLba; }
    CATLookupTable& clt() { return *CATLookupTable::GetInstance(); }

    // ---- reads
    StatusCode LockAndReadData(ClientRequest& request);
    // Reads the request's range into request.window (locking it first when
    // the request holds no hlbat lock); the status goes to the request too.
    StatusCode ReadData(ClientRequest& request);
    // The hlbat read of `clusters` whole clusters from `lba` into `window`.
    StatusCode ReadClusters(uint32_t lun, uint64_t lba, uint32_t clusters, DataWindow& window, IOTracker& tracker);

    // ---- writes
    // The cached, in-place path (replay, internal writers): the request's
    // store holds its len sectors; nothing of the range stays cached.
    StatusCode LockAndWriteData(ClientRequest& request);
    // Writes the request's range, which the caller has locked (request.cto,
    // cluster-rounded) or, without a lock, this call locks; checkOnly keeps
    // the clusters the range has.
    StatusCode WriteData(ClientRequest& request, bool checkOnly);
    // A host range written through the batch path as a batch of one: the
    // data (`len` sectors in `store`, whose reference passes to the cache)
    // enter the cache, the range is locked
    // whole clusters wide and written back; synchronous waits until the
    // data are on the disks.
    StatusCode writeHostRange(uint32_t lun, uint64_t lba, uint32_t len, DataStore* store, bool checkOnly,
                              bool synchronous, IOTracker& tracker, ClientRequest* request);
    // The journalled path: every item locked (HostLbaTracker::LockRangeMultiple).
    StatusCode WriteData(PostWriteElem& elem);
    // Called by hlbat's write-back: the map change, then the data writes.
    StatusCode WriteBackRangeMultiple(PostWriteElem& elem);
    StatusCode ClusterRangePopulate(PostWriteElem& elem, uint32_t& numAllocated, std::vector<PlacedRun>& runs);
    StatusCode ClusterRangeCheck(uint32_t lun, uint64_t& lba, uint32_t length, std::vector<PlacedRun>& runs,
                                 uint32_t& numAllocated);

    // ---- lookups and reclaim; the lookup under the map lock, its Complete
    // under the range locks it holds
    StatusCode ClusterRangeGet(uint32_t lun, uint64_t& lba, uint32_t length, CATEntries& entries,
                               uint32_t& numEntries, IOTracker& tracker);
    StatusCode CATEntryComplete(CATEntries& entries, IOTracker& tracker, bool dirty);
    StatusCode ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed,
                                   uint32_t& skipped);
    StatusCode ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed,
                                   uint32_t& skipped, uint8_t age);

    // ---- journal set limits: a set never frees more than this many runs
    // of old clusters nor takes more than this many new runs (each costs a
    // bitmap write), so a populate always fits an empty journalette.
    void setSetLimits(uint32_t freedRuns, uint32_t newRuns);
    uint32_t freedRunsPerSet() const { return mFreedRunsPerSet; }
    uint32_t newRunsPerSet() const { return mNewRunsPerSet; }

    // ---- checks and diagnostics
    StatusCode internalConsistencyCheck(std::ostream& out) override;
    StatusCode externalConsistencyCheck(std::ostream& out) override;
    void Dump(std::ostream& out);
    void PerfInfo(std::ostream& out);
    void csvStats(std::ostream& out);
    struct Counters {
        std::atomic<uint64_t> reads{0}, zoneReads{0}, zeroClusters{0}, batches{0}, sets{0}, redirected{0},
            inPlace{0}, allocated{0}, freed{0}, badHashSkipped{0}, freshPartialWrites{0}, zoneWrites{0};
    };
    const Counters& counters() const { return mCounters; }
    void clearCounters();

private:
    CATManager() : mLock("lCATMLock", 0x27) {}

    struct Piece {  // consecutive clusters of one item handled in one set
        uint32_t item;
        uint32_t clusterOffset;  // from the item's rounded start
        uint32_t count;
    };
    StatusCode checkBatch(PostWriteElem& elem, uint32_t& numAllocated, std::vector<PlacedRun>& runs);
    StatusCode mapBatch(PostWriteElem& elem, uint32_t& numAllocated, std::vector<PlacedRun>& runs);
    // One J2 set over the front of `pieces`; `consumed` says how many of
    // their clusters it took (at least one on success).
    StatusCode mapSet(PostWriteElem& elem, const std::vector<Piece>& pieces, uint32_t& consumed,
                      uint32_t& numAllocated, std::vector<PlacedRun>& runs);
    void setItemStatus(PostWriteElem& elem, uint32_t item, StatusCode st);
    void writeJoinedRun(PostWriteElem& elem, JoinedRun& joined, StatusCode& first);
    StatusCode writeArea(IOTracker& tracker);

    LockObject mLock;
    bool mLoaded = false;
    uint64_t mMaxDefaultLba = 0xFFFFFF77;
    uint8_t mArea[kAreaBytes] = {};
    uint32_t mFreedRunsPerSet = 24;
    uint32_t mNewRunsPerSet = 24;
    Counters mCounters;
};
