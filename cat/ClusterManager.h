#pragma once
// ClusterManager (CM): owns the space inside the Zones it is given. Each owned
// Zone is split into 4,096-byte clusters with one allocation bit each, kept in
// the manager's Zone 0 area ("MretsulC"): a CIS record, a Zone bitmap (Zones
// owned), a space bitmap (Zones with free clusters) and one cluster bitmap per
// Zone. The bitmaps on disk are the truth; in memory there is only a bounded,
// bucketed pool of free runs that the "tClusterM" parser keeps topped up.
//
// Invariants: every run in the pool is free in its Zone's bitmap and lies in
// an owned Zone; no two pooled runs overlap; every bitmap change is written
// through the zmdt cache inside the caller's transaction, and the bucket lock
// ("eCMBucketLock", then "eCMZoneSpaceBitmapLock") stays held by that
// transaction until it commits, so the map and the bitmaps commit together.
// Totals (allocated, unallocated) are exact once the initial scan is done.
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>

#include "cat/ClusterRun.h"
#include "include/ManagerBase.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class ClusterManager : public ManagerBase {
public:
    static constexpr uint32_t kClusterSize = 4096;
    static constexpr uint32_t kClusterSizeBits = 12;
    static constexpr uint32_t kSectorsPerCluster = 8;
    static constexpr uint32_t kSectorsPerClusterShift = 3;
    static constexpr uint32_t kNoRunLimit = 0xffffffffu;  // maxRuns: no bound
    static constexpr uint32_t kNoZone = 0xffffffffu;       // GetNthZoneInUse: no such Zone

    static ClusterManager* GetInstance();

    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;
    StatusCode internalConsistencyCheck(std::ostream& out) override;
    StatusCode externalConsistencyCheck(std::ostream& out) override;
    void Dump(std::ostream& out, bool verbose = false);
    void PerfInfo(std::ostream& out);
    bool loaded() const;

    // ---- allocation
    // Allocates numClusters clusters as up to maxRuns runs (kNoRunLimit: no
    // bound) into runs[0..runCount); maxZone 0 means any Zone, otherwise only
    // Zones <= maxZone. On failure the runs allocated so far stay in runs with
    // runCount, allocated: the caller frees them.
    StatusCode AllocateClusters(uint32_t numClusters, uint32_t maxZone, uint32_t maxRuns, uint32_t& runCount,
                                ClusterRun* runs, IOTracker& tracker);
    StatusCode DeallocateClusters(const ClusterRun& run, IOTracker& tracker);

    // ---- bitmaps
    StatusCode GetClusterState(uint32_t zone, uint32_t cluster, bool& allocated, IOTracker& tracker);
    // Sets or clears every bit of the run (console and repair use); the
    // totals follow. Bits already in the target state are reported.
    StatusCode SetClusterState(const ClusterRun& run, bool allocated, IOTracker& tracker);
    StatusCode CountUnallocatedClustersInZone(uint32_t zone, uint32_t& count, IOTracker& tracker);
    // Byte offset of a cluster inside its Zone.
    uint64_t LocateCluster(uint32_t cluster) const;
    // Where the cluster bitmap of `zone` lives: the Zone and byte offset.
    StatusCode GetBitmapLocation(uint32_t zone, uint32_t& bitmapZone, uint64_t& offset);

    // ---- Zones
    uint32_t GetZonesInUse() const;
    // The n-th owned Zone (n from 1), or kNoZone.
    uint32_t GetNthZoneInUse(uint32_t n);
    bool IsZoneOwned(uint32_t zone);
    bool CanZonesBeReclaimed(uint32_t& minZones);
    // Takes a new Zone from the Zone layer into the pool, in `tracker`.
    StatusCode AddNewZone(IOTracker& tracker);

    // ---- the pool and the parser
    void InitiateBackgroundScan(bool initial, bool force);
    // A scan in the calling thread, in `tracker` (console, tests).
    StatusCode ScanAllClusterBitmaps(bool initial, bool force, IOTracker& tracker);
    // Puts a free run into the pool (console `addRun`); `last` is inclusive.
    StatusCode AddFreeRun(uint32_t zone, uint32_t first, uint32_t last, bool merge, int reason);
    void SetMaxRunLength(uint32_t clusters);

    // ---- checks
    // Every pooled run is free in its bitmap and no two overlap.
    StatusCode CheckClusterBitmap(std::ostream& out);

    // ---- counters
    uint64_t GetAllocatedClusters() const;
    uint64_t GetUnallocatedClusters() const;
    uint64_t GetTotalClusters() const { return GetAllocatedClusters() + GetUnallocatedClusters(); }
    uint32_t GetClustersPerZone() const;
    uint32_t GetPoolRuns() const;
    uint64_t GetPoolClusters() const;
    bool InitialScanDone() const;
    uint32_t GetClusterLowThreshold() const;

private:
    ClusterManager() = default;
};
