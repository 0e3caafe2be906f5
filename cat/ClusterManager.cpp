// The cluster manager: pack load and unload, allocation and deallocation
// through the pool, and the cluster bitmaps. The parser thread, the scan and
// the Zones are in ClusterManagerScan.cpp; console, dumps and checks in
// ClusterManagerConsole.cpp.
#include "cat/ClusterManager.h"

#include <algorithm>
#include <bit>
#include <cstdio>

#include "cat/BitmapSegmentLoader.h"
#include "include/DrivePackInfo.h"
#include "management/EventLogManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

namespace {
Trace tCM("CM", "ClusterManager", "Info", false);
Trace tCMAlloc("CM", "Allocate", "Info", false);
Trace tCMPool("CM", "Pool", "Info", false);

constexpr uint64_t kSlowLimitUs = 10000000;
// The Zone 0 slots of the map (the CAT manager's table and its lookup
// table): while neither exists, no cluster can be named by anything.
constexpr unsigned kCatManagerEntry = 0, kCatLookupEntry = 3;

std::string formatted(const char* format, unsigned long long a, unsigned long long b = 0, unsigned long long c = 0) {
    char line[256];
    std::snprintf(line, sizeof line, format, a, b, c);
    return line;
}
}  // namespace

ClusterManager::Listeners ClusterManager::listeners;

ClusterManager* ClusterManager::GetInstance() {
    static ClusterManager instance;
    return &instance;
}

ClusterManager::ClusterManager() : mBucketLock("eCMBucketLock", 0x19), mInjection("cm") {
    mInjAllocate = mInjection.addApiPoint("cm.AllocateClusters_ZF", "AllocateClusters finds no clusters");
    mInjDeallocate = mInjection.addApiPoint("cm.DeallocateClusters_IC", "DeallocateClusters refuses the run");
    mInjSetZoneBitmap = mInjection.addApiPoint("cm.SetZoneBitmap.Fail.0", "SetZoneBitmapState fails");
    mInjSaveZoneBitmap = mInjection.addApiPoint("cm.SaveZoneBitmap.Fail.0", "saving the Zone bitmap sector fails");
}



bool ClusterManager::loaded() const { return mLoaded; }

// ---------------------------------------------------------------------------
// Load and unload

StatusCode ClusterManager::LoadDiskPack() {
    if (mLoaded) return StatusCode::Success;
    // 1.
    mPool.clear();
    mLowZoneRuns = 0;
    mAllocatedClusters = 0;
    m_unallocated_clusters = 0;
    mZonesInUse = 0;
    mEmptyZones = 0;
    mInitialScanDone = false;
    mAddZonePending = mParsing = mParsePending = false;
    mUseSmallRuns = false;
    mParseZone = mScanZone = kNoZone;
    mMinPoolLastScan = 0;
    mMinPoolSinceBoot = ~0ull;
    mCallsAtLastScan = 0;
    mCounters = Counters();
    mCounted.assign(cmformat::kMaxBitmapZones, false);
    invalidateNthCache();
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    if (!info->isSet(SystemDrivePackInfo::ClusterSize) || info->get(SystemDrivePackInfo::ClusterSize) != kClusterSize)
        info->set(SystemDrivePackInfo::ClusterSize, kClusterSize);
    const uint64_t zoneSize = info->GetZoneSize();
    mClustersPerZone = uint32_t(zoneSize / kClusterSize);
    ESA_ASSERT_OP(mClustersPerZone % 8, ==, 0u);  // "clustersPerZone % 8"
    mMaxRunLength = mClustersPerZone;
    mClusterLowThreshold = mClustersPerZone * 9 / 10;
    mClusterMidThreshold = mClusterLowThreshold * 7 / 10;
    mClusterHighUrgencyThreshold = mClusterMidThreshold * 7 / 10;
    const uint32_t clusterBitmapSize = cmformat::ClusterBitmapSize(mClustersPerZone);

    // 2.
    bool exists = false;
    StatusCode st = mMetaData.Load(exists);
    if (st != StatusCode::Success) return st;
    if (!exists) {
        // 3. Only a pack whose map was never made may get a new area: one
        // being cleared, one whose Zone 0 was born in this load, or one whose
        // making was cut short before the map's own records existed.
        Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
        const bool noMap = !z0->GetEntry(kCatManagerEntry).inUse() && !z0->GetEntry(kCatLookupEntry).inUse();
        if (!SystemManager::GetInstance()->clearDiskRequested() && !ZoneManager::GetInstance()->zoneZeroBornThisLoad() &&
            !noMap) {
            ESA_CONSOLE("CM: the cluster manager's Zone 0 entry is missing on a pack that has a map - not creating it");
            return StatusCode::CorruptedZone0Entry;
        }
        IOTracker tracker(READ_WRITE);
        st = mMetaData.InitialCreate(clusterBitmapSize, cmformat::kMaxBitmapZones, tracker);
        if (st == StatusCode::Success) {
            mZoneSpace.Attach(mMetaData.mZone, mMetaData.mMetaDataLocation + cmformat::kZoneBitmapOffset);
            st = mZoneSpace.Initialize(true, tracker);
        }
        if (st == StatusCode::Success)
            mBitmapManager.InitialCreate(mClustersPerZone, clusterBitmapSize, mMetaData.mZone,
                                         mMetaData.mCis.segments[0].offset, cmformat::kMaxBitmapZones);
        StatusCode c = tracker.commit();
        if (st == StatusCode::Success) st = c;
        if (st != StatusCode::Success) {
            ESA_CONSOLE("CM: creating the cluster manager's metadata failed - " << st);
            mZoneSpace.Free();
            mMetaData.Reset();
            return st;
        }
    } else {
        // 4.
        if (mMetaData.mCis.clusterBitmapSize < (mClustersPerZone + 7) / 8) {
            ESA_CONSOLE("CM: the CIS gives " << mMetaData.mCis.clusterBitmapSize << " bytes a cluster bitmap, but "
                                             << mClustersPerZone << " clusters a Zone need more");
            return StatusCode::CorruptedZone0Entry;
        }
        mBitmapManager.Load(mClustersPerZone, mMetaData.mCis);
        mZoneSpace.Attach(mMetaData.mZone, mMetaData.mMetaDataLocation + cmformat::kZoneBitmapOffset);
        IOTracker tracker(READ_ONLY);
        st = mZoneSpace.Initialize(false, tracker);
        tracker.commitIfDirty();
        if (st != StatusCode::Success) {
            ESA_CONSOLE("CM: reading the Zone and space bitmaps failed - " << st);
            return st;
        }
    }
    // 5.
    mZonesInUse = mZoneSpace.CountZones(zoneLimit());
    ESA_TRACE(tCM, "CM: Usable Clusters per Zone " << mClustersPerZone << ", zones in use " << mZonesInUse);
    // 6.
    mLoaded = true;
    st = CreateCMThread();
    if (st != StatusCode::Success) {
        mLoaded = false;
        mZoneSpace.Free();
        return st;
    }
    InitiateBackgroundScan(true, false);
    return StatusCode::Success;
}

StatusCode ClusterManager::UnloadDiskPack() {
    if (!mLoaded) return StatusCode::Success;
    DeleteCMThread();
    {
        ExtendingLockObject::ExclusiveLockInstance bucket(&mBucketLock);
        mPool.clear();
        mLoaded = false;
    }
    mZoneSpace.Free();
    mMetaData.Reset();
    mBitmapManager.Reset();
    mClustersPerZone = 0;
    mMaxRunLength = 0;
    mClusterLowThreshold = mClusterMidThreshold = mClusterHighUrgencyThreshold = 0;
    mAllocatedClusters = 0;
    m_unallocated_clusters = 0;
    mZonesInUse = 0;
    mInitialScanDone = false;
    invalidateNthCache();
    SystemDrivePackInfo::GetInstance()->unset(SystemDrivePackInfo::ClusterSize);
    return StatusCode::Success;
}

uint32_t ClusterManager::zoneLimit() {
    const uint32_t created = ZoneManager::GetInstance()->zoneTable().entriesCreated();
    return std::min<uint32_t>({created, ZoneSpaceBitmap::kBits, mBitmapManager.BitmapCount()});
}

// ---------------------------------------------------------------------------
// The pool

// The bucket a request starts from: the lowest bucket all of whose runs
// serve it, i.e. ceil(log2(n)) up to 10; a request of more than 1,024
// clusters starts at the bucket of the longest runs (11), the only one that
// may hold a run long enough.
StatusCode ClusterManager::LocateBucket(uint32_t numClusters, unsigned& bucket, uint32_t maxZone) {
    // 1.
    unsigned start = numClusters <= 1 ? 0 : unsigned(std::bit_width(2 * uint64_t(numClusters) - 1)) - 1;
    if (start > CMRunPool::kLargeBucket) start = CMRunPool::kLargeBucket;
    if (!mUseSmallRuns && uint64_t(numClusters) * kClusterSize >= 0x100000) start = CMRunPool::kLargeBucket;
    bool addRequested = false;
    // 2, 3, 4.
    if (mPool.empty(start) && maxZone == 0 && start == CMRunPool::kLargeBucket) {
        RequestBackgroundAddZone();
        addRequested = true;
    } else if (bucketUsable(start, maxZone)) {
        bucket = start;
        return StatusCode::Success;
    }
    // 5.
    for (unsigned b = start + 1; b < CMRunPool::kBuckets; ++b)
        if (bucketUsable(b, maxZone)) {
            bucket = b;
            return StatusCode::Success;
        }
    // 6.
    if (maxZone == 0 && !addRequested) RequestBackgroundAddZone();
    // 7.
    for (unsigned b = start; b-- > 0;)
        if (bucketUsable(b, maxZone)) {
            bucket = b;
            return StatusCode::Success;
        }
    // 8.
    return StatusCode::CM_ZeroClusters;
}

// A bucket whose head may be taken; with a Zone limit, heads above it leave
// the pool (they come back with a parse).
bool ClusterManager::bucketUsable(unsigned bucket, uint32_t maxZone) {
    while (!mPool.empty(bucket)) {
        const ClusterRun head = mPool.head(bucket);
        if (maxZone == 0 || head.zone <= maxZone) return true;
        mPool.erase(head);
        mCounters.evictedRuns++;
    }
    return false;
}

void ClusterManager::RequestBackgroundAddZone() {
    if (mAddZonePending.exchange(true)) return;
    if (ZoneRestrictionExceeded()) {
        mAddZonePending = false;
        return;
    }
    setParserPriority(JobControlBlock::ELEVATED);
    sendMessage(kMsgAddZone, false, false);
}

bool ClusterManager::ZoneRestrictionExceeded() {
    const CompactionMode mode = listeners.compactionMode ? listeners.compactionMode() : CompactionMode::None;
    if (mode == CompactionMode::Forced) {
        mUseSmallRuns = true;
        ESA_TRACE(tCM, "ZoneRestrictionExceeded: Forced compaction expected - Zone limit exceeded");
        return true;
    }
    if (mode == CompactionMode::BestEffort) {
        mUseSmallRuns = false;
        ESA_TRACE(tCM, "ZoneRestrictionExceeded: BestEffort compaction expected - Zone limit exceeded");
        return true;
    }
    mUseSmallRuns = listeners.hostRestriction ? listeners.hostRestriction() : false;
    return false;
}

StatusCode ClusterManager::AddFreeRun(uint32_t zone, uint32_t first, uint32_t last, bool merge, int reason) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    IOTracker tracker(READ_ONLY);
    StatusCode st;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
        ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
        if (!mZoneSpace.ZoneBit(zone)) st = StatusCode::CM_InvalidZoneNumber;
        else if (last < first || last >= mClustersPerZone) st = StatusCode::CM_InvalidCluster;
        else {
            // A run put in by hand must be free in the bitmap: the pool only
            // ever promises free clusters.
            BitmapSegmentLoader loader;
            st = loader.Load(*this, zone, first, last, tracker);
            for (uint32_t c = first; st == StatusCode::Success && c <= last; ++c)
                if (*loader.GetAddress(c) & (1u << (c % 8))) st = StatusCode::CM_ClusterAlreadyAllocated;
            loader.Unload();
            if (st == StatusCode::Success) st = AddFreeRunLocked(zone, first, last, merge, reason);
        }
    }
    tracker.commitIfDirty();
    return st;
}

// `last` is inclusive. A run that shares a cluster with one already pooled
// is refused: the pool would otherwise hand that cluster out twice.
StatusCode ClusterManager::AddFreeRunLocked(uint32_t zone, uint32_t first, uint32_t last, bool merge, int reason) {
    PerfSamplerLimitForced perf(&mAddFreeRunPerf, "Add free run to pool", kSlowLimitUs);
    ClusterRun run(zone, first, last - first + 1);
    ESA_TRACE(tCMPool, "AddFreeRun reason " << reason << " " << run << (merge ? " merge" : ""));
    // 1. A run joined to a neighbour takes its place: the pool does not grow.
    ClusterRun clash;
    const CMRunPool::Join joined = mPool.join(run, merge, clash);
    if (joined == CMRunPool::Join::Overlaps) {
        if (clash == run)
            ESA_CONSOLE("FATAL: Tried to combine a run with one in a bucket but a matching entry was already present - "
                        "not adding to pool ("
                        << run << ")");
        else
            ESA_CONSOLE("CM: run " << run << " overlaps pooled run " << clash << " - not adding to pool");
        return StatusCode::CM_ClusterAlreadyFree;
    }
    if (joined == CMRunPool::Join::Joined) {
        ESA_TRACE(tCMPool, "New run contiguous with a pooled run - combining " << run);
        return StatusCode::Success;
    }
    // 2.
    if (mPool.runs() >= kPoolRunCap) {
        uint32_t minZones = 0;
        bool lowZone = false;
        if (mInitialScanDone && CanZonesBeReclaimed(minZones)) {
            const uint32_t limit = GetNthZoneInUse(minZones);
            lowZone = limit != kNoZone && zone < limit && mLowZoneRuns < kLowZoneExtraRuns &&
                      mPool.runs() < kPoolRunMax;
        }
        if (lowZone) {
            ESA_TRACE(tCMPool, formatted("Reached max run count (%lu %lu) - allowing additional low Zone run\n",
                                         mPool.runs(), mLowZoneRuns));
            mLowZoneRuns++;
        } else {
            EvictSmallestRun();
        }
    }
    // 3.
    mPool.insert(run);
    return StatusCode::Success;
}

void ClusterManager::EvictSmallestRun() {
    ClusterRun evicted;
    if (mPool.evictSmallest(evicted)) {
        mCounters.evictedRuns++;
        ESA_TRACE(tCMPool, "Evicting smallest run " << evicted);
    }
}

void ClusterManager::EvictClustersInZone(uint32_t zone) {
    PerfSamplerLimitForced perf(&mEvictZonePerf, "Evict Zone Clusters from pool", kSlowLimitUs);
    mCounters.evictedRuns += mPool.evictZone(zone);
}

// ---------------------------------------------------------------------------
// Allocation

StatusCode ClusterManager::AllocateClusters(uint32_t numClusters, uint32_t maxZone, uint32_t maxRuns,
                                            uint32_t& runCount, ClusterRun* runs, IOTracker& tracker) {
    runCount = 0;
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (numClusters == 0 || maxRuns == 0) return numClusters == 0 ? StatusCode::Success : StatusCode::CM_TooManyClusters;
    bool fired = false;
    StatusCode injected = mInjection.apiErrorInject(mInjAllocate, StatusCode::CM_ZeroClusters, fired);
    if (fired) return injected;
    PerfSamplerLimitForced perf(&mAllocatePerf, "Cluster allocation", kSlowLimitUs);
    ExtendingLockObject::ExtendingExclusiveLockInstance bucketLock(&mBucketLock, tracker);
    // 1.
    const bool small = mUseSmallRuns && mPool.runs() > kParserWorthRuns && maxZone == 0;
    // 2.
    mCounters.allocateCalls++;
    mCounters.allocatedClusters += numClusters;
    uint32_t needed = numClusters;
    uint32_t take = 0;
    bool addedZone = false;
    StatusCode result = StatusCode::Success;
    while (needed > 0) {
        unsigned bucket = 0;
        StatusCode st = LocateBucket(needed, bucket, maxZone);
        if (st != StatusCode::Success) {
            if (maxZone != 0) {
                ESA_TRACE(tCMAlloc,
                          formatted("No clusters available below zone: %u, returning CM_ZeroClusters\n", maxZone));
                result = StatusCode::CM_ZeroClusters;
                break;
            }
            if (!addedZone) {
                addedZone = true;
                ESA_CONSOLE("Allocating a new Zone synchronously since Free Cluster pool empty, even though there are "
                            << m_unallocated_clusters.load() << " unallocated clusters");
                {
                    ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
                    AddNewZoneLocked(tracker);
                }
                st = LocateBucket(needed, bucket, maxZone);
            }
            if (st != StatusCode::Success) {
                ESA_CONSOLE("Free cluster pool empty - allocation failed");
                result = StatusCode::CM_ZeroClusters;
                break;
            }
        }
        // The run count is checked before the head leaves the pool, so a
        // refused run stays where it was.
        if (maxRuns != kNoRunLimit && runCount + 1 > maxRuns) {
            ESA_TRACE(tCMAlloc, formatted("AllocateClusters: Max limit of runs to allocate (%lu) exceeded - aborting "
                                          "allocate and returning error\n",
                                          maxRuns));
            result = StatusCode::CM_TooManyClusters;
            break;
        }
        const ClusterRun run = mPool.head(bucket);
        if (!small || runCount > 0) {
            // 2.3 The tail stays pooled in the run's place.
            const uint32_t t = std::min({run.numberOfClusters, needed, mMaxRunLength});
            runs[runCount++] = mPool.takeFromHead(bucket, t);
            needed -= t;
        } else {
            // 2.4
            mPool.popHead(bucket);
            runs[runCount++] = run;
            take = std::min({run.numberOfClusters, needed, mMaxRunLength});
            needed -= take;
        }
    }
    // 3. A large allocation soaks up fragments in up to 3 small runs.
    if (small && runCount > 0) {
        const uint32_t spare = runs[0].numberOfClusters - take;
        const uint32_t limit = maxRuns == kNoRunLimit ? 4 : std::min<uint32_t>(4, maxRuns);
        while (result == StatusCode::Success && runCount < limit) {
            unsigned bucket = 0;
            if (LocateBucket(1, bucket, 0) != StatusCode::Success) break;
            const ClusterRun r = mPool.head(bucket);
            if (r.numberOfClusters >= take || r.numberOfClusters >= spare / 8) break;
            mPool.popHead(bucket);
            runs[runCount++] = r;
            take -= r.numberOfClusters;
        }
        if (take < runs[0].numberOfClusters) {
            AddFreeRunLocked(runs[0].zone, runs[0].firstCluster + take, runs[0].lastCluster(), false, 2);
            runs[0].numberOfClusters = take;
        }
    }
    // 4. What was taken is allocated even when the call fails: the caller
    // frees it ("Prior to this error we had already allocated ").
    for (uint32_t i = 0; i < runCount; ++i) {
        StatusCode st = SetClusterStateLocked(runs[i], true, tracker);
        if (st != StatusCode::Success) {
            // Runs whose bits were not set go back to the pool, unallocated.
            for (uint32_t j = i; j < runCount; ++j)
                AddFreeRunLocked(runs[j].zone, runs[j].firstCluster, runs[j].lastCluster(), true, 1);
            runCount = i;
            result = st;
            break;
        }
        adjustTotals(runs[i], true);
    }
    if (result != StatusCode::Success && runCount > 0)
        ESA_TRACE(tCMAlloc, "Prior to this error we had already allocated " << runCount << " runs");
    // 5.
    topUpCheck(maxZone);
    return result;
}

void ClusterManager::topUpCheck(uint32_t maxZone) {
    const uint64_t pool = mPool.clusters();
    if (pool >= mClusterLowThreshold) return;
    const uint64_t unallocated = m_unallocated_clusters.load();
    if (maxZone == 0) {
        if (unallocated < pool + kAllInPoolMargin) {
            ESA_TRACE(tCM, formatted("Unallocated cluster count (%lu) dropped below the low threshold (%lu) - "
                                     "allocating a new Zone\n",
                                     unallocated, mClusterLowThreshold));
            RequestBackgroundAddZone();
        } else if (mPool.runs() < kParserWorthRuns) {
            ESA_TRACE(tCM, formatted("Unallocated cluster count (%lu) dropped below the low threshold (%lu) - kicking "
                                     "the parser\n",
                                     unallocated, mClusterLowThreshold));
            InitiateBackgroundScan(false, false);
        }
    } else if (unallocated >= pool + kAllInPoolMargin && mPool.runs() < kParserWorthRuns) {
        ESA_TRACE(tCM, formatted("Unallocated cluster count (%lu) dropped below the low threshold (%lu), runs=%lu - "
                                 "kicking the parser\n",
                                 unallocated, mClusterLowThreshold, mPool.runs()));
        InitiateBackgroundScan(false, false);
    }
}

// Totals follow the bitmaps of Zones already counted; a Zone that the
// initial scan has not reached yet is counted from its bitmap when it is.
void ClusterManager::adjustTotals(const ClusterRun& run, bool allocated) {
    if (run.zone >= mCounted.size() || !mCounted[run.zone]) return;
    const uint64_t n = run.numberOfClusters;
    if (allocated) {
        uint64_t unallocated = m_unallocated_clusters.load();
        if (n > unallocated) {
            ESA_CONSOLE(formatted("FAILURE: CM::AllocateClusters runs[i].numberOfClusters(%lu) > "
                                  "m_unallocated_clusters(%llu), adjusting to prevent going negative\n",
                                  n, unallocated));
            m_unallocated_clusters = n;
        }
        m_unallocated_clusters -= n;
        mAllocatedClusters += n;
    } else {
        m_unallocated_clusters += n;
        mAllocatedClusters -= std::min<uint64_t>(n, mAllocatedClusters.load());
    }
}

StatusCode ClusterManager::DeallocateClusters(const ClusterRun& run, IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    bool fired = false;
    StatusCode injected = mInjection.apiErrorInject(mInjDeallocate, StatusCode::CM_InvalidCluster, fired);
    if (fired) return injected;
    PerfSamplerLimitForced perf(&mDeallocatePerf, "Cluster deallocation", kSlowLimitUs);
    // 1.
    if (ZoneManager::GetInstance()->zoneTable().CheckZoneValid(run.zone) != StatusCode::Success) {
        ESA_CONSOLE(formatted("Zone %u not allocated to the ClusterManager", run.zone));
        return StatusCode::CM_InvalidZoneNumber;
    }
    ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
    ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
    if (!mZoneSpace.ZoneBit(run.zone)) {
        ESA_CONSOLE(formatted("Zone %u not allocated to the ClusterManager", run.zone));
        return StatusCode::CM_InvalidZoneNumber;
    }
    if (run.numberOfClusters == 0) {
        ESA_CONSOLE("Zero length ClusterRun being deallocated");
        return StatusCode::CM_InvalidCluster;
    }
    if (uint64_t(run.firstCluster) + run.numberOfClusters > mClustersPerZone) {
        ESA_CONSOLE("End of ClusterRun being deallocated goes off the end of the bitmap");
        return StatusCode::CM_InvalidCluster;
    }
    mCounters.deallocateCalls++;
    mCounters.deallocatedClusters += run.numberOfClusters;
    // 2.
    StatusCode st = SetClusterStateLocked(run, false, tracker);
    if (st != StatusCode::Success) return st;
    adjustTotals(run, false);
    st = SetSpaceBitmapState(run.zone, true, tracker);
    if (st != StatusCode::Success) return st;
    // 3.
    if (run.zone == mParseZone.load()) return StatusCode::Success;
    AddFreeRunLocked(run.zone, run.firstCluster, run.lastCluster(), true, 3);
    return StatusCode::Success;
}

// ---------------------------------------------------------------------------
// Cluster bitmaps

StatusCode ClusterManager::SetClusterStateLocked(const ClusterRun& run, bool allocated, IOTracker& tracker) {
    BitmapSegmentLoader loader;
    StatusCode st = loader.Load(*this, run.zone, run.firstCluster, run.lastCluster(), tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE(formatted("3. Error reading cluster bitmap for Zone %u\n", run.zone));
        return st;
    }
    const uint8_t target = allocated ? 0xff : 0x00;
    for (uint32_t c = run.firstCluster; c < run.endCluster();) {
        uint8_t* p = loader.GetAddress(c);
        if (c % 8 == 0 && c + 8 <= run.endCluster() && (*p == uint8_t(~target))) {
            *p = target;  // a whole byte, every bit changing
            c += 8;
            continue;
        }
        const uint8_t mask = uint8_t(1u << (c % 8));
        if (bool(*p & mask) == allocated) {
            mCounters.bitAlreadySet++;
            std::ostringstream os;
            os << "Bit in cluster bitmap already in target state, zone=" << run.zone << ", bitOffset=" << c
               << ", *address=" << unsigned(*p) << ", bitmask=" << unsigned(mask) << ", allocated=" << allocated;
            ESA_CONSOLE(os.str());
            if (allocated)
                if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(os.str());
        }
        if (allocated) *p |= mask;
        else *p &= uint8_t(~mask);
        ++c;
    }
    st = loader.Write(tracker);
    if (st != StatusCode::Success) ESA_CONSOLE(formatted("Error saving cluster bitmap for Zone %u\n", run.zone));
    return st;
}

StatusCode ClusterManager::SetClusterState(const ClusterRun& run, bool allocated, IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
    ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
    if (!mZoneSpace.ZoneBit(run.zone)) return StatusCode::CM_InvalidZoneNumber;
    if (run.empty() || uint64_t(run.firstCluster) + run.numberOfClusters > mClustersPerZone)
        return StatusCode::CM_InvalidCluster;
    // The pool must not promise clusters that are now allocated.
    if (allocated) {
        std::vector<ClusterRun> overlap;
        mPool.forEachInZone(run.zone, [&](const ClusterRun& r) {
            if (r.firstCluster < run.endCluster() && run.firstCluster < r.endCluster()) overlap.push_back(r);
        });
        for (const ClusterRun& r : overlap) {
            mPool.erase(r);
            if (r.firstCluster < run.firstCluster)
                AddFreeRunLocked(r.zone, r.firstCluster, run.firstCluster - 1, false, 1);
            if (r.endCluster() > run.endCluster())
                AddFreeRunLocked(r.zone, run.endCluster(), r.lastCluster(), false, 1);
        }
    }
    StatusCode st = SetClusterStateLocked(run, allocated, tracker);
    if (st != StatusCode::Success) return st;
    adjustTotals(run, allocated);
    if (!allocated) {
        st = SetSpaceBitmapState(run.zone, true, tracker);
        if (st == StatusCode::Success && run.zone != mParseZone.load())
            AddFreeRunLocked(run.zone, run.firstCluster, run.lastCluster(), true, 3);
    }
    return st;
}

StatusCode ClusterManager::SetCompleteClusterBitmap(uint32_t zone, bool allocated, IOTracker& tracker) {
    BitmapSegmentLoader loader;
    StatusCode st = loader.Load(*this, zone, 0, mClustersPerZone - 1, tracker, true);
    if (st != StatusCode::Success) return st;
    for (uint32_t c = 0; c < mClustersPerZone; c += 8) *loader.GetAddress(c) = allocated ? 0xff : 0x00;
    return loader.Write(tracker);
}

StatusCode ClusterManager::GetClusterState(uint32_t zone, uint32_t cluster, bool& allocated, IOTracker& tracker) {
    allocated = false;
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::SharedLockInstance bucket(&mBucketLock, tracker);
    if (!mZoneSpace.ZoneBit(zone)) return StatusCode::CM_InvalidZoneNumber;
    if (cluster >= mClustersPerZone) return StatusCode::CM_InvalidCluster;
    BitmapSegmentLoader loader;
    StatusCode st = loader.Load(*this, zone, cluster, cluster, tracker);
    if (st != StatusCode::Success) return st;
    allocated = (*loader.GetAddress(cluster) >> (cluster % 8)) & 1;
    return StatusCode::Success;
}

StatusCode ClusterManager::CountUnallocatedClustersInZone(uint32_t zone, uint32_t& count, IOTracker& tracker) {
    count = 0;
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::SharedLockInstance bucket(&mBucketLock, tracker);
    if (!mZoneSpace.ZoneBit(zone)) return StatusCode::CM_InvalidZoneNumber;
    BitmapSegmentLoader loader;
    StatusCode st = loader.Load(*this, zone, 0, mClustersPerZone - 1, tracker);
    if (st != StatusCode::Success) return st;
    uint32_t set = 0;
    for (uint32_t c = 0; c < mClustersPerZone; c += 8) set += unsigned(std::popcount(*loader.GetAddress(c)));
    count = mClustersPerZone - set;
    return StatusCode::Success;
}

uint64_t ClusterManager::LocateCluster(uint32_t cluster) const { return uint64_t(cluster) << kClusterSizeBits; }

StatusCode ClusterManager::GetBitmapLocation(uint32_t zone, uint32_t& bitmapZone, uint64_t& offset) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    return mBitmapManager.Locate(zone, bitmapZone, offset);
}

void ClusterManager::SetMaxRunLength(uint32_t clusters) {
    ESA_CONSOLE("Setting max ClusterRun length to " << clusters);
    mMaxRunLength = std::max<uint32_t>(1, clusters);
}

// ---------------------------------------------------------------------------
// Counters

uint64_t ClusterManager::GetAllocatedClusters() const { return mAllocatedClusters.load(); }
uint64_t ClusterManager::GetUnallocatedClusters() const { return m_unallocated_clusters.load(); }
uint32_t ClusterManager::GetClustersPerZone() const { return mClustersPerZone; }
uint32_t ClusterManager::GetPoolRuns() const { return mPool.runs(); }
uint64_t ClusterManager::GetPoolClusters() const { return mPool.clusters(); }
bool ClusterManager::InitialScanDone() const { return mInitialScanDone.load(); }
uint32_t ClusterManager::GetClusterLowThreshold() const { return mClusterLowThreshold; }
uint32_t ClusterManager::GetZonesInUse() const { return mZonesInUse.load(); }

bool ClusterManager::IsZoneOwned(uint32_t zone) { return mLoaded && mZoneSpace.ZoneBit(zone); }

uint32_t ClusterManager::GetNthZoneInUse(uint32_t n) {
    if (!mLoaded || n == 0) return kNoZone;
    if (mNthCacheValid && mNthCacheN == n) return mNthCacheZone;
    uint32_t zone = kNoZone;
    if (!mZoneSpace.NthZone(n, zoneLimit(), zone)) zone = kNoZone;
    mNthCacheN = n;
    mNthCacheZone = zone;
    mNthCacheValid = true;
    return zone;
}

bool ClusterManager::CanZonesBeReclaimed(uint32_t& minZones) {
    minZones = 0;
    if (mClustersPerZone == 0) return false;
    minZones = uint32_t((uint64_t(mClusterLowThreshold) + mAllocatedClusters.load() + mClustersPerZone - 1) /
                        mClustersPerZone) +
               2;
    return mZonesInUse.load() > minZones;
}

StatusCode ClusterManager::LocateBucketForTest(uint32_t numClusters, unsigned& bucket, uint32_t maxZone) {
    ExtendingLockObject::ExclusiveLockInstance lock(&mBucketLock);
    return LocateBucket(numClusters, bucket, maxZone);
}

std::vector<ClusterRun> ClusterManager::PoolRuns() {
    ExtendingLockObject::ExclusiveLockInstance lock(&mBucketLock);
    std::vector<ClusterRun> out;
    mPool.forEach([&](const ClusterRun& r) { out.push_back(r); });
    return out;
}

std::vector<ClusterRun> ClusterManager::BucketRuns(unsigned bucket) {
    std::vector<ClusterRun> out;
    for (const ClusterRun& r : PoolRuns())
        if (CMRunPool::BucketFor(r.numberOfClusters) == bucket) out.push_back(r);
    return out;
}
