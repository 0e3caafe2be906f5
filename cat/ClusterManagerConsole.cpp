// The cluster manager's console commands, Dump, PerfInfo and consistency
// checks.
#include <algorithm>
#include <bit>
#include <cstring>
#include <map>
#include <sstream>

#include "cat/BitmapSegmentLoader.h"
#include "cat/ClusterManager.h"
#include "util/ConsoleCommand.h"
#include "util/DebugClass.h"
#include "util/ManagerRegistry.h"
#include "zone/ZoneManager.h"

namespace {

ClusterManager* cm() { return ClusterManager::GetInstance(); }

bool number(const char* text, long long& v) { return parseConsoleNumber(text, v) && v >= 0; }

bool loadedOrSay(std::ostream& out) {
    if (cm()->loaded()) return true;
    out << "The ClusterManager is not loaded\n";
    return false;
}

}  // namespace

// Registration with the console's `state`/`perf` and with the consistency
// checks happens once, at the system's initialisation.
StatusCode ClusterManager::Initialize() {
    static bool registered = false;
    if (!registered) {
        registered = true;
        ManagerRegistry::add(
            "CM", [](std::ostream& out) { GetInstance()->Dump(out, false); },
            [](std::ostream& out) { GetInstance()->PerfInfo(out); });
        DebugClass::GetInstance()->registerChecks(
            "ClusterManager",
            [](std::ostream& out) { return GetInstance()->internalConsistencyCheck(out) == StatusCode::Success; },
            [](std::ostream& out) { return GetInstance()->externalConsistencyCheck(out) == StatusCode::Success; });
    }
    return StatusCode::Success;
}

// ---------------------------------------------------------------------------
// Dump and PerfInfo

void ClusterManager::Dump(std::ostream& out, bool verbose) {
    out << "ClusterManager: " << (mLoaded ? "loaded" : "not loaded") << "\n";
    if (!mLoaded) return;
    ExtendingLockObject::ExclusiveLockInstance lock(&mBucketLock);
    out << "  Metadata zone " << mMetaData.mZone << " offset " << mMetaData.mMetaDataLocation << " cisSize "
        << mMetaData.mCis.cisSize << " clusterBitmapSize " << mMetaData.mCis.clusterBitmapSize << " segments "
        << mMetaData.mCis.zoneBitmapSegmentCount << " bitmaps " << mMetaData.mZone0BitmapCount << "\n";
    out << "  Usable Clusters per Zone " << mClustersPerZone << "\n";
    out << "  ClusterLowThreshold " << mClusterLowThreshold << ", mid " << mClusterMidThreshold << ", high urgency "
        << mClusterHighUrgencyThreshold << "\n";
    out << "  Zones in use " << mZonesInUse.load() << ", empty zones this scan " << mEmptyZones << "\n";
    out << "  Allocated clusters " << mAllocatedClusters.load() << ", unallocated clusters "
        << m_unallocated_clusters.load() << "\n";
    out << "  Pool runs " << mPool.runs() << ", pool clusters " << mPool.clusters() << "\n";
    out << "  Previous pool low Zone Runs was " << mLowZoneRuns << "\n";
    out << "  Max ClusterRun length " << mMaxRunLength << "\n";
    out << "  Use of small ClusterRuns " << (mUseSmallRuns ? "enabled" : "disabled") << "\n";
    out << "  Initial scan done " << (mInitialScanDone ? "yes" : "no") << ", parsing " << mParsing.load()
        << ", parse pending " << mParsePending.load() << ", add zone pending " << mAddZonePending.load() << "\n";
    out << "  Parse zone " << int64_t(mParseZone == kNoZone ? -1 : int64_t(mParseZone)) << ", scan zone "
        << int64_t(mScanZone == kNoZone ? -1 : int64_t(mScanZone)) << "\n";
    out << "  Min pool last scan " << mMinPoolLastScan << ", min pool since boot "
        << (mMinPoolSinceBoot == ~0ull ? 0 : mMinPoolSinceBoot) << "\n";
    out << "  Allocate calls " << mCounters.allocateCalls << " clusters " << mCounters.allocatedClusters
        << ", deallocate calls " << mCounters.deallocateCalls << " clusters " << mCounters.deallocatedClusters << "\n";
    out << "  Scans " << mCounters.scans << ", parses " << mCounters.parses << ", zones added "
        << mCounters.zonesAdded << ", zones freed " << mCounters.zonesFreed << ", runs evicted "
        << mCounters.evictedRuns << ", bits already in target state " << mCounters.bitAlreadySet << "\n";
    out << "  Zone bitmap reads " << mZoneSpace.zoneReads << " writes " << mZoneSpace.zoneWrites
        << ", space bitmap reads " << mZoneSpace.spaceReads << " writes " << mZoneSpace.spaceWrites << "\n";
    out << "  Buckets:\n";
    for (unsigned b = 0; b < CMRunPool::kBuckets; ++b) {
        out << "    " << b << ": ";
        if (b < 10) out << (1u << b) << "-" << ((2u << b) - 1);
        else if (b == 10) out << "1024-" << CMRunPool::kLargeRunClusters - 1;
        else out << CMRunPool::kLargeRunClusters << " and greater";
        out << " clusters: " << mPool.size(b) << " runs";
        if (!mPool.empty(b)) out << ", head " << mPool.head(b);
        out << "\n";
    }
    out << "  Zones:";
    const uint32_t limit = zoneLimit();
    for (uint32_t z = 0; z < limit; ++z)
        if (mZoneSpace.ZoneBit(z)) out << " " << z << (mZoneSpace.SpaceBit(z) ? "" : "(full)");
    out << "\n";
    if (verbose) mPool.forEach([&](const ClusterRun& r) { out << "    run " << r << "\n"; });
}

void ClusterManager::PerfInfo(std::ostream& out) {
    out << "Cluster allocation timings:\n";
    mAllocatePerf.Dump(out);
    out << "Cluster deallocation timings:\n";
    mDeallocatePerf.Dump(out);
    out << "Add free run to pool timings:\n";
    mAddFreeRunPerf.Dump(out);
    out << "Evict Zone Clusters from pool timings:\n";
    mEvictZonePerf.Dump(out);
    out << "Zone bitmap scanning timings:\n";
    mScanPerf.Dump(out);
    out << "Zone parsing timings:\n";
    mParsePerf.Dump(out);
}

// ---------------------------------------------------------------------------
// Checks

// The pool against the bitmaps: every run lies in an owned Zone, inside it,
// on clear bits, and overlaps no other run; the counts agree.
StatusCode ClusterManager::CheckClusterBitmap(std::ostream& out) {
    if (!mLoaded) return StatusCode::Success;
    IOTracker tracker(READ_ONLY);
    bool ok = true;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
        ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
        uint64_t clusters = 0;
        uint32_t runs = 0;
        ClusterRun prev;
        mPool.forEach([&](const ClusterRun& r) {
            ++runs;
            clusters += r.numberOfClusters;
            if (runs > 1 && prev.zone == r.zone && prev.endCluster() > r.firstCluster) {
                out << "**** Pool runs overlap: " << prev << " and " << r << "\n";
                ok = false;
            }
            prev = r;
            if (!mZoneSpace.ZoneBit(r.zone)) {
                out << "**** Pool run in a zone not owned: " << r << "\n";
                ok = false;
                return;
            }
            if (r.empty() || uint64_t(r.firstCluster) + r.numberOfClusters > mClustersPerZone) {
                out << "**** Pool run off the end of its zone: " << r << "\n";
                ok = false;
                return;
            }
            BitmapSegmentLoader loader;
            if (loader.Load(*this, r.zone, r.firstCluster, r.lastCluster(), tracker) != StatusCode::Success) {
                out << "**** Cannot read the bitmap of pool run " << r << "\n";
                ok = false;
                return;
            }
            for (uint32_t c = r.firstCluster; c < r.endCluster(); ++c)
                if (*loader.GetAddress(c) & (1u << (c % 8))) {
                    out << "**** Pool run " << r << " holds allocated cluster " << c << "\n";
                    ok = false;
                    break;
                }
        });
        if (runs != mPool.runs() || clusters != mPool.clusters()) {
            out << "**** Pool counts " << mPool.runs() << " runs " << mPool.clusters() << " clusters, found " << runs
                << " runs " << clusters << " clusters\n";
            ok = false;
        }
    }
    tracker.commitIfDirty();
    return ok ? StatusCode::Success : StatusCode::VerifyFailure;
}

StatusCode ClusterManager::internalConsistencyCheck(std::ostream& out) {
    if (!mLoaded) {
        out << "ClusterManager: not loaded\n";
        return StatusCode::Success;
    }
    StatusCode st = CheckClusterBitmap(out);
    const uint32_t owned = mZoneSpace.CountZones(zoneLimit());
    if (owned != mZonesInUse.load()) {
        out << "**** Mismatch detected: Zones in use = " << mZonesInUse.load() << ", Zone bitmap has " << owned
            << "\n";
        st = StatusCode::VerifyFailure;
    }
    out << (st == StatusCode::Success ? "All checks passed OK.\n" : "One or more checks failed!\n");
    return st;
}

// The totals against the bitmaps on disk: the set bits of every owned Zone
// are the allocated clusters, the clear ones the unallocated; a Zone with a
// clear space bit has no free cluster.
StatusCode ClusterManager::externalConsistencyCheck(std::ostream& out) {
    if (!mLoaded) {
        out << "ClusterManager: not loaded\n";
        return StatusCode::Success;
    }
    StatusCode st = CheckClusterBitmap(out);
    IOTracker tracker(READ_ONLY);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance bucket(&mBucketLock, tracker);
        ExtendingLockObject::ExtendingExclusiveLockInstance space(&mZoneSpace.lock(), tracker);
        uint64_t allocated = 0, unallocated = 0;
        uint32_t owned = 0;
        ZoneTable& table = ZoneManager::GetInstance()->zoneTable();
        const uint32_t limit = zoneLimit();
        for (uint32_t z = 0; z < limit; ++z) {
            if (!mZoneSpace.ZoneBit(z)) continue;
            ++owned;
            if (table.CheckZoneValid(z) != StatusCode::Success) {
                out << "**** Zone " << z << " is owned by the ClusterManager but is not a valid Zone\n";
                st = StatusCode::VerifyFailure;
                continue;
            }
            BitmapSegmentLoader loader;
            if (loader.Load(*this, z, 0, mClustersPerZone - 1, tracker) != StatusCode::Success) {
                out << "**** Cannot read the cluster bitmap of zone " << z << "\n";
                st = StatusCode::VerifyFailure;
                continue;
            }
            uint32_t set = 0;
            for (uint32_t c = 0; c < mClustersPerZone; c += 8) set += unsigned(std::popcount(*loader.GetAddress(c)));
            allocated += set;
            unallocated += mClustersPerZone - set;
            if (set < mClustersPerZone && !mZoneSpace.SpaceBit(z)) {
                out << "**** Zone " << z << " has " << mClustersPerZone - set
                    << " free clusters but its space bit is clear\n";
                st = StatusCode::VerifyFailure;
            }
        }
        if (owned != mZonesInUse.load()) {
            out << "**** Mismatch detected: Zones in use = " << mZonesInUse.load() << ", Zone bitmap has " << owned
                << "\n";
            st = StatusCode::VerifyFailure;
        }
        if (!mInitialScanDone) {
            out << "ClusterManager: the initial scan is not done; the totals are not checked yet\n";
        } else {
            if (unallocated != m_unallocated_clusters.load()) {
                out << "**** Mismatch detected: Unallocated Cluster count = " << m_unallocated_clusters.load()
                    << ", bitmaps have " << unallocated << "\n";
                st = StatusCode::VerifyFailure;
            }
            if (allocated != mAllocatedClusters.load()) {
                out << "**** Mismatch detected: Allocated Cluster count = " << mAllocatedClusters.load()
                    << ", bitmaps have " << allocated << "\n";
                st = StatusCode::VerifyFailure;
            }
        }
    }
    tracker.commitIfDirty();
    out << (st == StatusCode::Success ? "All checks passed OK.\n" : "One or more checks failed!\n");
    return st;
}

void ClusterManager::PrintZoneCounts(std::ostream& out) {
    IOTracker tracker(READ_ONLY);
    const uint32_t limit = zoneLimit();
    for (uint32_t z = 0; z < limit; ++z) {
        if (!IsZoneOwned(z)) continue;
        uint32_t free = 0;
        if (CountUnallocatedClustersInZone(z, free, tracker) == StatusCode::Success)
            out << "zone " << z << " free " << free << " allocated " << mClustersPerZone - free << "\n";
    }
    tracker.commitIfDirty();
}

// ---------------------------------------------------------------------------
// Console commands

namespace {

int addCMZone(int, char**, std::ostream& out) {
    if (!loadedOrSay(out)) return -1;
    IOTracker tracker(READ_WRITE);
    StatusCode st = cm()->AddNewZone(tracker);
    StatusCode c = tracker.commitIfDirty();
    if (st == StatusCode::Success) st = c;
    out << "AddNewZone: " << st.Dump() << ", zones in use " << cm()->GetZonesInUse() << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

int addRun(int argc, char** argv, std::ostream& out) {
    long long zone = 0, first = 0, last = 0;
    if (argc != 4 || !number(argv[1], zone) || !number(argv[2], first) || !number(argv[3], last)) {
        out << "Usage: addRun <ZoneNumber> <first Cluster> <last Cluster>\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    StatusCode st = cm()->AddFreeRun(uint32_t(zone), uint32_t(first), uint32_t(last), true, 4);
    out << "addRun: " << st.Dump() << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

// Sends the request and waits for the parser to finish with it.
int cmparse(int argc, char** argv, std::ostream& out) {
    if (!loadedOrSay(out)) return -1;
    const bool initial = argc > 1 && std::strcmp(argv[1], "initial") == 0;
    cm()->InitiateBackgroundScan(initial, true);
    cm()->WaitForParserIdle();
    out << "ClusterManager parse done: pool runs " << cm()->GetPoolRuns() << ", pool clusters "
        << cm()->GetPoolClusters() << ", zones in use " << cm()->GetZonesInUse() << "\n";
    return 0;
}

int cmFragment(int argc, char** argv, std::ostream& out) {
    long long length = 0;
    if (argc != 2 || !number(argv[1], length) || length == 0 || length > 0xFFFFFFFFll) {
        out << "Usage: cmFragment <max clusters in a ClusterRun>\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    cm()->SetMaxRunLength(uint32_t(length));
    return 0;
}

// Allocates and keeps the clusters (a pool drain for tests), printing each run.
int allocclusters(int argc, char** argv, std::ostream& out) {
    long long amount = 0;
    const bool gib = argc == 3 && (std::strcmp(argv[2], "GiB") == 0 || std::strcmp(argv[2], "gib") == 0);
    if (argc < 2 || argc > 3 || (argc == 3 && !gib) || !number(argv[1], amount) || amount == 0) {
        out << "allocclusters <amount> [GiB]\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    uint64_t clusters = gib ? uint64_t(amount) << (30 - ClusterManager::kClusterSizeBits) : uint64_t(amount);
    constexpr uint32_t kChunk = 1u << 16, kRuns = 64;
    std::vector<ClusterRun> runs(kRuns);
    uint64_t done = 0;
    StatusCode st;
    while (done < clusters) {
        const uint32_t n = uint32_t(std::min<uint64_t>(kChunk, clusters - done));
        uint32_t count = 0;
        IOTracker tracker(READ_WRITE);
        st = cm()->AllocateClusters(n, 0, kRuns, count, runs.data(), tracker);
        StatusCode c = tracker.commitIfDirty();
        for (uint32_t i = 0; i < count; ++i) {
            out << "run " << runs[i].zone << " " << runs[i].firstCluster << " " << runs[i].numberOfClusters << "\n";
            done += runs[i].numberOfClusters;
        }
        if (st == StatusCode::Success) st = c;
        if (st != StatusCode::Success) break;
    }
    out << "Allocated " << done << " clusters: " << st.Dump() << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

bool runArgs(int argc, char** argv, ClusterRun& run) {
    long long zone = 0, first = 0, count = 1;
    if (argc < 3 || argc > 4 || !number(argv[1], zone) || !number(argv[2], first) ||
        (argc == 4 && !number(argv[3], count)) || count == 0 || zone > 0xFFFFFFFFll || first > 0xFFFFFFFFll ||
        count > 0xFFFFFFFFll)
        return false;
    run = ClusterRun(uint32_t(zone), uint32_t(first), uint32_t(count));
    return true;
}

// Frees clusters by hand (the bits are cleared and the run pooled).
int clearClusterState(int argc, char** argv, std::ostream& out) {
    ClusterRun run;
    if (!runArgs(argc, argv, run)) {
        out << "Usage: clearClusterState <zone> <first cluster> [count]\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    IOTracker tracker(READ_WRITE);
    StatusCode st = cm()->DeallocateClusters(run, tracker);
    StatusCode c = tracker.commitIfDirty();
    if (st == StatusCode::Success) st = c;
    out << "clearClusterState " << run << ": " << st.Dump() << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

int getClusterState(int argc, char** argv, std::ostream& out) {
    ClusterRun run;
    if (!runArgs(argc, argv, run)) {
        out << "Usage: getClusterState <zone> <first cluster> [count]\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    IOTracker tracker(READ_ONLY);
    StatusCode st;
    for (uint32_t c = run.firstCluster; c < run.endCluster() && st == StatusCode::Success; ++c) {
        bool allocated = false;
        st = cm()->GetClusterState(run.zone, c, allocated, tracker);
        if (st == StatusCode::Success)
            out << "zone " << run.zone << " cluster " << c << (allocated ? " allocated" : " free") << "\n";
    }
    tracker.commitIfDirty();
    if (st != StatusCode::Success) out << "getClusterState: " << st.Dump() << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

int getBitmapLocation(int argc, char** argv, std::ostream& out) {
    long long zone = 0;
    if (argc != 2 || !number(argv[1], zone) || zone > 0xFFFFFFFFll) {
        out << "Usage: getBitmapLocation <zone>\n";
        return -1;
    }
    if (!loadedOrSay(out)) return -1;
    uint32_t bitmapZone = 0;
    uint64_t offset = 0;
    StatusCode st = cm()->GetBitmapLocation(uint32_t(zone), bitmapZone, offset);
    if (st != StatusCode::Success) {
        out << "getBitmapLocation: " << st.Dump() << "\n";
        return -1;
    }
    out << "Cluster bitmap of zone " << zone << " resides at zone:offset " << bitmapZone << ":" << offset << "\n";
    return 0;
}

int cmcheck(int argc, char** argv, std::ostream& out) {
    const bool ext = argc > 1 && std::strcmp(argv[1], "ext") == 0;
    StatusCode st = ext ? cm()->externalConsistencyCheck(out) : cm()->internalConsistencyCheck(out);
    return st == StatusCode::Success ? 0 : -1;
}

int cmzones(int, char**, std::ostream& out) {
    if (!loadedOrSay(out)) return -1;
    cm()->PrintZoneCounts(out);
    return 0;
}

ConsoleCommand cAddCMZone("addCMZone", "Adds a Zone to the CM free pool", addCMZone);
ConsoleCommand cAddRun("addRun", "Add a new run to the CM preparsed pool", addRun);
ConsoleCommand cCmparse("cmparse", "Initiate a background ClusterManager parse run", cmparse);
ConsoleCommand cCmFragment("cmFragment", "Set the max ClusterRun length to be used", cmFragment);
ConsoleCommand cAllocclusters("allocclusters", "allocclusters <amount> [GiB]", allocclusters);
ConsoleCommand cClearClusterState("clearClusterState", "Frees clusters of a Zone: <zone> <first cluster> [count]",
                                  clearClusterState);
ConsoleCommand cGetClusterState("getClusterState", "Shows whether clusters are allocated: <zone> <first> [count]",
                                getClusterState);
ConsoleCommand cGetBitmapLocation("getBitmapLocation", "Shows where a Zone's cluster bitmap resides",
                                  getBitmapLocation);
ConsoleCommand cCmcheck("cmcheck", "Runs the ClusterManager's internal, or with ext its external, consistency check",
                        cmcheck);
ConsoleCommand cCmzones("cmzones", "Shows the free and allocated clusters of each Zone the ClusterManager owns",
                        cmzones);

}  // namespace
