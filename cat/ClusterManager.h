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
#include <mutex>
#include <ostream>
#include <vector>

#include "cat/CMClusterBitmapManager.h"
#include "cat/CMMetaData.h"
#include "cat/CMRunPool.h"
#include "cat/ClusterRun.h"
#include "cat/ZoneSpaceBitmap.h"
#include "include/ManagerBase.h"
#include "platform/rtos/Rtos.h"
#include "system/scheduler/JobControlBlock.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/PerfAccumulator.h"
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

    // ---- what higher layers tell the manager (registered by them; unset
    // entries mean no compaction mode, no host restriction, no capacity daemon)
    enum class CompactionMode { None = 0, BestEffort = 1, Forced = 2 };
    struct Listeners {
        CompactionMode (*compactionMode)() = nullptr;      // the defragmenter's mode
        bool (*hostRestriction)() = nullptr;               // the host request manager's restriction flag
        void (*capacityUpdateNow)(uint32_t nextPeriod) = nullptr;  // the capacity daemon
        bool (*capacityFlag)() = nullptr;
    };
    static Listeners listeners;

    // Pool limits.
    static constexpr uint32_t kPoolRunCap = 4000;
    static constexpr uint32_t kLowZoneExtraRuns = 800;
    static constexpr uint32_t kPoolRunMax = 4800;
    static constexpr uint32_t kParserWorthRuns = 2000;
    static constexpr uint32_t kAllInPoolMargin = 100;

    // ---- inspection (console, tests)
    class BitmapSegmentLoader;
    struct Counters {
        uint64_t allocateCalls = 0, allocatedClusters = 0, deallocateCalls = 0, deallocatedClusters = 0;
        uint64_t scans = 0, parses = 0, zonesAdded = 0, zonesFreed = 0, evictedRuns = 0, bitAlreadySet = 0;
    };
    Counters counters() const { return mCounters; }
    bool UseSmallRuns() const { return mUseSmallRuns; }
    void SetUseSmallRuns(bool on) { mUseSmallRuns = on; }
    uint32_t MaxRunLength() const { return mMaxRunLength; }
    bool AddZonePending() const { return mAddZonePending; }
    uint32_t EmptyZones() const { return mEmptyZones; }
    uint32_t LowZoneRuns() const { return mLowZoneRuns; }
    // Which bucket the pool's rules pick for a request (the bucket lock is taken).
    StatusCode LocateBucketForTest(uint32_t numClusters, unsigned& bucket, uint32_t maxZone);
    // Runs of the pool in order (the bucket lock is taken).
    std::vector<ClusterRun> PoolRuns();
    std::vector<ClusterRun> BucketRuns(unsigned bucket);
    // Waits until the parser thread has nothing queued and is not scanning.
    void WaitForParserIdle();
    // Adds a Zone to the pool on the caller's thread, in a transaction of its
    // own: for the host write journal's replay, which runs while the pack
    // loads and background work (the parser thread) waits for the load.
    StatusCode AddZoneNow() { return AddZoneInOwnTransaction(); }
    void PrintZoneCounts(std::ostream& out);

private:
    ClusterManager();

    // ---- allocation (bucket lock held)
    StatusCode LocateBucket(uint32_t numClusters, unsigned& bucket, uint32_t maxZone);
    bool bucketUsable(unsigned bucket, uint32_t maxZone);
    void RequestBackgroundAddZone();
    bool ZoneRestrictionExceeded();
    StatusCode AddFreeRunLocked(uint32_t zone, uint32_t first, uint32_t last, bool merge, int reason);
    void EvictSmallestRun();
    void EvictClustersInZone(uint32_t zone);
    StatusCode SetClusterStateLocked(const ClusterRun& run, bool allocated, IOTracker& tracker);
    StatusCode SetCompleteClusterBitmap(uint32_t zone, bool allocated, IOTracker& tracker);
    void adjustTotals(const ClusterRun& run, bool allocated);
    void topUpCheck(uint32_t maxZone);

    // ---- Zones (both locks held)
    StatusCode SetZoneBitmapState(uint32_t zone, bool state, IOTracker& tracker);
    StatusCode SetSpaceBitmapState(uint32_t zone, bool state, IOTracker& tracker);
    StatusCode AddNewZoneLocked(IOTracker& tracker);
    StatusCode ParseClusterBitmap(uint32_t zone, bool initial, IOTracker& tracker);
    StatusCode FreeEmptyZone(uint32_t zone, IOTracker& tracker);
    bool zoneStillEmpty(uint32_t zone, IOTracker& tracker);
    uint32_t zoneLimit();
    void invalidateNthCache() { mNthCacheValid = false; }

    // ---- the parser thread
    struct Message {
        uint32_t type;
        uint8_t initial;
        uint8_t force;
        uint8_t pad[2];
    };
    static constexpr uint32_t kMsgParse = 0, kMsgAddZone = 1, kMsgStop = 2;
    StatusCode CreateCMThread();
    void DeleteCMThread();
    void ParserLoop();
    void sendMessage(uint32_t type, bool initial, bool force);
    JobControlBlock::Priority priorityForPool() const;
    void setParserPriority(JobControlBlock::Priority priority);
    bool poolShort() const;
    bool onParserThread() const;
    StatusCode ScanAllClusterBitmapsInternal(bool initial, bool force);
    StatusCode AddZoneInOwnTransaction();

    // ---- state
    CMMetaData mMetaData;
    CMClusterBitmapManager mBitmapManager;
    ZoneSpaceBitmap mZoneSpace;
    ExtendingLockObject mBucketLock;
    CMRunPool mPool;  // the buckets; m_pool_runs and m_pool_clusters are its counts
    uint32_t mLowZoneRuns = 0;
    uint32_t mMaxRunLength = 0;
    std::atomic<uint64_t> mAllocatedClusters{0};
    std::atomic<uint64_t> m_unallocated_clusters{0};
    uint32_t mClustersPerZone = 0;
    uint32_t mClusterLowThreshold = 0, mClusterMidThreshold = 0, mClusterHighUrgencyThreshold = 0;
    std::atomic<uint32_t> mZonesInUse{0};
    uint32_t mEmptyZones = 0;
    uint32_t mKeptEmptyZone = kNoZone;  // the empty Zone this scan keeps
    std::atomic<bool> mInitialScanDone{false};
    std::atomic<bool> mAddZonePending{false}, mParsing{false}, mParsePending{false};
    bool mUseSmallRuns = false;
    std::atomic<uint32_t> mParseZone{kNoZone}, mScanZone{kNoZone};
    uint64_t mMinPoolLastScan = 0, mMinPoolSinceBoot = ~0ull, mMinPoolThisScan = ~0ull;
    uint64_t mCallsAtLastScan = 0;
    std::vector<bool> mCounted;  // Zones whose clusters are in the totals
    bool mLoaded = false;
    bool mNthCacheValid = false;
    uint32_t mNthCacheN = 0, mNthCacheZone = kNoZone;
    Counters mCounters;

    MSG_Q_ID mQueue = nullptr;
    TASK_ID mThread = nullptr;
    JobControlBlock* mJob = nullptr;
    SEM_ID mThreadReady = nullptr;
    std::mutex mJobLock;  // mJob, which the parser thread owns
    std::atomic<bool> mStopping{false};
    std::atomic<int> mPendingMessages{0};  // sent and not yet handled

    ErrorInjection mInjection;
    int mInjAllocate = -1, mInjDeallocate = -1, mInjSetZoneBitmap = -1, mInjSaveZoneBitmap = -1;

    PerfAccumulator mAllocatePerf, mDeallocatePerf, mAddFreeRunPerf, mEvictZonePerf, mScanPerf, mParsePerf;
};
