// The cluster manager's background side: the "tClusterM" parser thread, the
// scan of the cluster bitmaps that refills the pool, and the Zones it takes
// from and gives back to the Zone layer.
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <thread>

#include "cat/BitmapSegmentLoader.h"
#include "cat/ClusterManager.h"
#include "region/RecoveryBlock.h"
#include "system/SystemManager.h"
#include "system/scheduler/Sched.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
Trace tCMScan("CM", "Scan", "Info", false);
constexpr uint64_t kSlowLimitUs = 60000000;
constexpr int kParserPriority = 120;
constexpr int kQueueMessages = 16;
constexpr int kQueueMessageBytes = 64;
constexpr int kRescanSeconds = 300;
constexpr uint32_t kZonesPerYield = 128;

std::string formatted(const char* format, unsigned long long a, unsigned long long b = 0) {
    char line[256];
    std::snprintf(line, sizeof line, format, a, b);
    return line;
}
}  // namespace

// ---------------------------------------------------------------------------
// The parser thread

StatusCode ClusterManager::CreateCMThread() {
    mQueue = msgQCreate(kQueueMessages, kQueueMessageBytes, 0);
    if (!mQueue) {
        ESA_CONSOLE("mqCM was not created");
        return StatusCode::InitFailed;
    }
    mStopping = false;
    mPendingMessages = 0;
    mThreadReady = semBCreate(SEM_Q_FIFO, SEM_EMPTY);
    mThread = taskSpawn("tClusterM", kParserPriority, [this] { ParserLoop(); });
    if (!mThread) {
        ESA_CONSOLE("tClusterM thread created failed");
        msgQDelete(mQueue);
        mQueue = nullptr;
        semDelete(mThreadReady);
        mThreadReady = nullptr;
        return StatusCode::InitFailed;
    }
    // The thread's JobControlBlock exists once it says so.
    semTake(mThreadReady, WAIT_FOREVER);
    return StatusCode::Success;
}

void ClusterManager::DeleteCMThread() {
    if (!mThread) return;
    mStopping = true;
    // With background threads disabled the thread waits, parked, until they
    // are enabled; it takes the stop message then.
    Message m{kMsgStop, 0, 0, {0, 0}};
    msgQSend(mQueue, &m, sizeof m, WAIT_FOREVER, MSG_PRI_URGENT);
    semTake(mThreadReady, WAIT_FOREVER);  // given as the thread leaves
    msgQDelete(mQueue);
    semDelete(mThreadReady);
    mQueue = nullptr;
    mThreadReady = nullptr;
    mThread = nullptr;
}

void ClusterManager::sendMessage(uint32_t type, bool initial, bool force) {
    if (!mQueue) return;
    Message m{type, uint8_t(initial), uint8_t(force), {0, 0}};
    mPendingMessages++;
    if (msgQSend(mQueue, &m, sizeof m, NO_WAIT, MSG_PRI_NORMAL) != OK) {
        // A full queue already holds work that will see the pool as it is.
        mPendingMessages--;
        if (type == kMsgAddZone) mAddZonePending = false;
        if (type == kMsgParse) mParsePending = false;
    }
}

bool ClusterManager::onParserThread() const { return mThread && taskIdSelf() == mThread; }

JobControlBlock::Priority ClusterManager::priorityForPool() const {
    const uint64_t pool = mPool.clusters();
    if (pool < mClusterHighUrgencyThreshold) return JobControlBlock::CRITICAL;
    if (pool >= mClusterMidThreshold) return JobControlBlock::NORMAL;
    return JobControlBlock::ELEVATED;
}

void ClusterManager::setParserPriority(JobControlBlock::Priority priority) {
    std::lock_guard<std::mutex> g(mJobLock);
    if (mJob && mJob->priority() != priority) mJob->setPri(priority);
}

bool ClusterManager::poolShort() const {
    const uint64_t pool = mPool.clusters();
    return pool < m_unallocated_clusters.load() || pool < mClusterLowThreshold;
}

void ClusterManager::ParserLoop() {
    JobControlBlock job(JobControlBlock::NORMAL, "CMParser");
    {
        std::lock_guard<std::mutex> g(mJobLock);
        mJob = &job;
    }
    semGive(mThreadReady);
    Sched::GetInstance()->suspendIfBackgroundDisabled();
    bool resumed = false;
    for (;;) {
        // 1.
        setParserPriority(JobControlBlock::NORMAL);
        if (resumed) job.pause();
        resumed = false;
        Message m{};
        const int got = msgQReceive(mQueue, &m, sizeof m, kRescanSeconds * sysClkRateGet());
        if (got == int(sizeof m) && m.type == kMsgStop) break;
        if (mStopping) {
            if (got == int(sizeof m)) mPendingMessages--;
            continue;
        }
        job.resume();
        resumed = true;
        if (got == int(sizeof m)) {
            if (m.type == kMsgAddZone) {
                // 2.
                ESA_CONSOLE("ClusterManager performing background AddZone");
                AddZoneInOwnTransaction();
                mAddZonePending = false;
            } else if (m.type == kMsgParse) {
                // 3.
                if (!m.initial && !m.force && !poolShort()) {
                    mParsePending = false;
                } else {
                    ESA_TRACE(tCMScan, "ClusterManager performing background parse on demand, m_pool_clusters="
                                           << mPool.clusters());
                    ScanAllClusterBitmapsInternal(m.initial, m.force);
                }
            }
            mPendingMessages--;
        } else {
            // 4.
            ZoneRestrictionExceeded();
            if (poolShort() && SystemManager::GetInstance()->packLoaded()) {
                ESA_TRACE(tCMScan, "ClusterManager running periodic rescan to top up the free pool");
                ScanAllClusterBitmapsInternal(false, false);
            }
        }
    }
    if (resumed) job.pause();
    {
        std::lock_guard<std::mutex> g(mJobLock);
        mJob = nullptr;
    }
    semGive(mThreadReady);
    taskExitSelf();
}

void ClusterManager::InitiateBackgroundScan(bool initial, bool force) {
    if (!mLoaded) return;
    if (mParsing || mParsePending.exchange(true)) return;
    setParserPriority(priorityForPool());
    sendMessage(kMsgParse, initial, force);
}

void ClusterManager::WaitForParserIdle() {
    while (mLoaded && (mPendingMessages.load() != 0 || mParsing.load() || mParsePending.load() ||
                       mAddZonePending.load()))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // host time: board time may stand still
}

// ---------------------------------------------------------------------------
// The scan

StatusCode ClusterManager::ScanAllClusterBitmaps(bool initial, bool force, IOTracker& tracker) {
    (void)tracker;  // every Zone is scanned in a transaction of its own
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    return ScanAllClusterBitmapsInternal(initial, force);
}

StatusCode ClusterManager::ScanAllClusterBitmapsInternal(bool initial, bool force) {
    // 1.
    if (mParsing.exchange(true)) return StatusCode::Success;
    const uint64_t calls = mCounters.allocateCalls + mCounters.deallocateCalls;
    if (!force && !initial && mInitialScanDone && calls == mCallsAtLastScan) {
        ESA_TRACE(tCMScan, "No cluster manager allocation or deallocation calls made since last run, skipping.\n");
        mParsePending = false;
        mParsing = false;
        return StatusCode::Success;
    }
    PerfSamplerLimitForced perf(&mScanPerf, "Zone bitmap scanning", kSlowLimitUs);
    // 2.
    mParsePending = false;
    mEmptyZones = 0;
    mKeptEmptyZone = kNoZone;
    mLowZoneRuns = 0;
    mMinPoolThisScan = mPool.clusters();
    mCounters.scans++;
    const uint32_t range = zoneLimit();
    // 3.
    bool aborted = false;
    bool parsed = false;
    uint32_t examined = 0;
    for (uint32_t z = range; z-- > 0;) {
        if (mAddZonePending && !initial) {
            ESA_CONSOLE("Aborting ScanAllClusterBitmaps due to pending AddZone request");
            aborted = true;
            break;
        }
        if (mStopping) {
            aborted = true;
            break;
        }
        // The parser thread owns its job: no lock is held while it waits for
        // its turn, so an allocator that sets its priority never waits on it.
        if ((parsed || ++examined % kZonesPerYield == 0) && onParserThread() && mJob) mJob->schedule();
        parsed = false;
        setParserPriority(priorityForPool());
        mScanZone = z;
        IOTracker tracker(READ_WRITE);
        {
            ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
            ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
            if (mZoneSpace.SpaceBit(z)) {
                ParseClusterBitmap(z, initial, tracker);
                parsed = true;
            } else if (mZoneSpace.ZoneBit(z)) {
                ESA_TRACE(tCMScan, "Skipping zone = " << z);
                // A full Zone: all its clusters are allocated.
                if (initial && !mCounted[z] &&
                    ZoneManager::GetInstance()->zoneTable().CheckZoneValid(z) == StatusCode::Success) {
                    mAllocatedClusters += mClustersPerZone;
                    mCounted[z] = true;
                }
            }
        }
        tracker.commitIfDirty();
        mMinPoolThisScan = std::min<uint64_t>(mMinPoolThisScan, mPool.clusters());
    }
    mScanZone = kNoZone;
    // 4.
    mMinPoolLastScan = mMinPoolThisScan;
    mMinPoolSinceBoot = std::min(mMinPoolSinceBoot, mMinPoolThisScan);
    mCallsAtLastScan = calls;
    // 5.
    if (!aborted && mPool.clusters() < mClusterLowThreshold && !mAddZonePending) {
        AddZoneInOwnTransaction();
        if (mPool.clusters() < mClusterLowThreshold)
            ESA_TRACE(tCMScan, formatted("ScanAllClusterBitmaps complete but ClusterLowThreshold not reached - Pool "
                                         "Run count = %lu, Pool cluster count = %lu\n",
                                         mPool.runs(), mPool.clusters()));
    }
    // 6.
    mParsing = false;
    if (initial && !aborted && !mInitialScanDone.exchange(true)) {
        if (listeners.capacityUpdateNow)
            listeners.capacityUpdateNow(listeners.capacityFlag && listeners.capacityFlag() ? 10 : 30);
    }
    return aborted ? StatusCode::NotExecuted : StatusCode::Success;
}

StatusCode ClusterManager::ParseClusterBitmap(uint32_t zone, bool initial, IOTracker& tracker) {
    // 1.
    if (!mZoneSpace.ZoneBit(zone)) return StatusCode::Success;
    if (ZoneManager::GetInstance()->zoneTable().CheckZoneValid(zone) != StatusCode::Success) {
        // The Zone bitmap names a Zone the Zone table no longer has: nothing
        // of it can be handed out.
        ESA_CONSOLE("CM: zone " << zone << " is owned in the Zone bitmap but is not a valid Zone - not using it");
        return StatusCode::CM_InvalidZoneNumber;
    }
    PerfSamplerLimitForced perf(&mParsePerf, "Zone parsing", kSlowLimitUs);
    mParseZone = zone;
    EvictClustersInZone(zone);
    BitmapSegmentLoader loader;
    StatusCode st = loader.Load(*this, zone, 0, mClustersPerZone - 1, tracker);
    if (st != StatusCode::Success) {
        mParseZone = kNoZone;
        ESA_CONSOLE("CM: reading the cluster bitmap of zone " << zone << " failed - " << st);
        return st;
    }
    // 2. Maximal runs of zero bits; whole 0xff and 0x00 bytes at a time.
    std::vector<ClusterRun> runs;
    uint32_t freeCount = 0;
    uint32_t runStart = 0;
    bool inRun = false;
    for (uint32_t c = 0; c < mClustersPerZone;) {
        const uint8_t byte = *loader.GetAddress(c);
        if (c % 8 == 0 && (byte == 0xff || byte == 0x00)) {
            if (byte == 0x00 && !inRun) runStart = c, inRun = true;
            if (byte == 0xff && inRun) runs.emplace_back(zone, runStart, c - runStart), inRun = false;
            c += 8;
            continue;
        }
        const bool allocated = (byte >> (c % 8)) & 1;
        if (!allocated && !inRun) runStart = c, inRun = true;
        if (allocated && inRun) runs.emplace_back(zone, runStart, c - runStart), inRun = false;
        ++c;
    }
    if (inRun) runs.emplace_back(zone, runStart, mClustersPerZone - runStart);
    loader.Unload();
    for (const ClusterRun& r : runs) freeCount += r.numberOfClusters;
    ESA_ASSERT_OP(freeCount, <=, mClustersPerZone);  // "zoneUnallocatedClusters"
    mCounters.parses++;
    // 7. (counted first: freeing below takes the Zone out of the totals)
    if (initial && !mCounted[zone]) {
        m_unallocated_clusters += freeCount;
        mAllocatedClusters += mClustersPerZone - freeCount;
        mCounted[zone] = true;
    }
    // 3. One empty Zone is kept: the lowest, since allocation fills low
    // Zones first and leaves high ones to empty. The scan runs from high to
    // low, so a second empty Zone frees the higher one kept so far.
    bool freeThis = false;
    if (freeCount == mClustersPerZone) {
        mEmptyZones++;
        if (mEmptyZones > 1 && !initial) {
            const uint32_t kept = mKeptEmptyZone;
            if (kept != kNoZone && kept > zone && zoneStillEmpty(kept, tracker) &&
                FreeEmptyZone(kept, tracker) == StatusCode::Success)
                mKeptEmptyZone = zone;
            else
                freeThis = true;
        } else {
            mKeptEmptyZone = zone;
        }
    }
    if (freeThis) {
        mParseZone = kNoZone;
        return FreeEmptyZone(zone, tracker);
    }
    // 4.
    for (const ClusterRun& r : runs) AddFreeRunLocked(zone, r.firstCluster, r.lastCluster(), false, 4);
    mParseZone = kNoZone;
    // 6.
    if (mZoneSpace.SpaceBit(zone) != (freeCount > 0)) {
        ESA_TRACE(tCMScan, "Writing with created iot for zone = " << zone);
        st = SetSpaceBitmapState(zone, freeCount > 0, tracker);
    }
    return st;
}

// The pool holds the Zone as one whole run and its bitmap has no bit set.
bool ClusterManager::zoneStillEmpty(uint32_t zone, IOTracker& tracker) {
    std::optional<ClusterRun> whole = mPool.find(zone, 0);
    if (!whole || whole->numberOfClusters != mClustersPerZone) return false;
    BitmapSegmentLoader loader;
    if (loader.Load(*this, zone, 0, mClustersPerZone - 1, tracker) != StatusCode::Success) return false;
    for (uint32_t c = 0; c < mClustersPerZone; c += 8)
        if (*loader.GetAddress(c) != 0) return false;
    return true;
}

// 5. Gives an empty Zone back to the Zone layer, in `tracker`.
StatusCode ClusterManager::FreeEmptyZone(uint32_t zone, IOTracker& tracker) {
    EvictClustersInZone(zone);
    StatusCode st = SetZoneBitmapState(zone, false, tracker);
    if (st != StatusCode::Success) {
        std::ostringstream os;
        os << "Error making zone " << zone << " as not in use in the cluster manager: " << st
           << ". This cannot be ignored. Sorry.";
        ESA_CONSOLE(os.str());
        reportUnaryAssertion(__FILE__, __LINE__, __func__, os.str().c_str());
    }
    SetSpaceBitmapState(zone, false, tracker);
    st = ZoneManager::GetInstance()->DeallocateZone(zone, tracker);
    if (st != StatusCode::Success)
        ESA_CONSOLE("CM: DeallocateZone of zone " << zone << " failed - " << st
                                                  << " ignored, but zone will not be used by the cluster manager!");
    if (mCounted[zone]) {
        m_unallocated_clusters -= std::min<uint64_t>(mClustersPerZone, m_unallocated_clusters.load());
        mCounted[zone] = false;
    }
    if (mEmptyZones > 0) mEmptyZones--;
    mZonesInUse--;
    invalidateNthCache();
    mCounters.zonesFreed++;
    ESA_CONSOLE("Freeing zone " << zone << " as we have too many empty Zones");
    return StatusCode::Success;
}

// ---------------------------------------------------------------------------
// Zones

StatusCode ClusterManager::SetZoneBitmapState(uint32_t zone, bool state, IOTracker& tracker) {
    if (ZoneManager::GetInstance()->zoneTable().CheckZoneValid(zone) != StatusCode::Success)
        return StatusCode::CM_InvalidZoneNumber;
    bool fired = false;
    StatusCode injected = mInjection.apiErrorInject(mInjSetZoneBitmap, StatusCode::Success, fired);
    if (fired) return injected;
    const unsigned mask = 1u << (zone % 8);
    const unsigned old = mZoneSpace.ZoneBit(zone) ? mask : 0;
    const unsigned allocated = state ? 1 : 0;
    ESA_ASSERT_OP((old & mask), !=, (allocated << (zone % 8)));
    mZoneSpace.SetZoneBit(zone, state);
    invalidateNthCache();
    StatusCode st = mInjection.apiErrorInject(mInjSaveZoneBitmap, StatusCode::Success, fired);
    if (!fired) st = mZoneSpace.SaveZoneSector(zone, tracker);
    if (st != StatusCode::Success) {
        mZoneSpace.SetZoneBit(zone, !state);
        mZoneSpace.SaveZoneSector(zone, tracker);
    }
    return st;
}

StatusCode ClusterManager::SetSpaceBitmapState(uint32_t zone, bool state, IOTracker& tracker) {
    if (mZoneSpace.SpaceBit(zone) == state) return StatusCode::Success;
    mZoneSpace.SetSpaceBit(zone, state);
    return mZoneSpace.SaveSpaceSector(zone, tracker);
}

StatusCode ClusterManager::AddNewZone(IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
    ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
    return AddNewZoneLocked(tracker);
}

StatusCode ClusterManager::AddZoneInOwnTransaction() {
    IOTracker tracker(READ_WRITE);
    StatusCode st = AddNewZone(tracker);
    StatusCode c = tracker.commitIfDirty();
    return st != StatusCode::Success ? st : c;
}

StatusCode ClusterManager::AddNewZoneLocked(IOTracker& tracker) {
    ZoneManager* zm = ZoneManager::GetInstance();
    // 1.
    uint32_t zone = kNoZone;
    StatusCode st = zm->AllocateZone(zone, tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("CM: AddNewZone: the Zone layer has no Zone to give - " << st);
        return st;
    }
    if (zone >= std::min<uint32_t>(ZoneSpaceBitmap::kBits, mBitmapManager.BitmapCount())) {
        ESA_CONSOLE("CM: AddNewZone: zone " << zone << " is past the cluster bitmaps - giving it back");
        zm->DeallocateZone(zone, tracker);
        return StatusCode::CM_InvalidZoneNumber;
    }
    // 2.
    if (mZoneSpace.ZoneBit(zone)) {
        ESA_CONSOLE(formatted("Zone %u is already owned by the cluster manager!\n", zone));
        EvictClustersInZone(zone);
        if (SetCompleteClusterBitmap(zone, true, tracker) != StatusCode::Success)
            ESA_CONSOLE("Error setting zone bitmap state to allocated in error path for zone " << zone);
        SetSpaceBitmapState(zone, false, tracker);
        return StatusCode::CM_InvalidZoneNumber;
    }
    // 3.
    st = SetZoneBitmapState(zone, true, tracker);
    if (st != StatusCode::Success) {
        zm->DeallocateZone(zone, tracker);
        return st;
    }
    st = SetCompleteClusterBitmap(zone, false, tracker);
    // 4.
    if (st == StatusCode::Success) {
        _ZoneOwnership owner;
        owner.owner = _ZoneOwnership::kCM;
        st = zm->SetZoneOwnership(zone, owner, tracker);
    }
    if (st != StatusCode::Success) {
        ESA_CONSOLE("CM: AddNewZone of zone " << zone << " failed - " << st << "; giving it back");
        SetZoneBitmapState(zone, false, tracker);
        zm->DeallocateZone(zone, tracker);
        return st;
    }
    // 6. (before the parse, which counts the Zone in)
    mZonesInUse++;
    invalidateNthCache();
    mCounted[zone] = false;
    mCounters.zonesAdded++;
    // 5. A new Zone is not one the running scan found empty.
    const uint32_t emptyZones = mEmptyZones;
    st = ParseClusterBitmap(zone, true, tracker);
    mEmptyZones = emptyZones;
    ESA_TRACE(tCMScan, "CM: added zone " << zone << " - " << st);
    return st;
}
