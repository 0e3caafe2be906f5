// The cluster manager on simulated disks: where allocations come from (the
// bucket rules, low Zones first, Zone limits and run limits), frees that merge
// and refuse overlaps, the pool's cap, surplus empty Zones given back, a
// many-threaded allocate/free hammer, and a restart that finds the same
// bitmaps and totals.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "cat/CMTestSupport.h"

namespace {

class ClusterManagerOnDisks : public ClusterManagerFixture {};

TEST_F(ClusterManagerOnDisks, ANewPackOwnsOneWholeFreeZoneAfterItsFirstScan) {
    loadNewPack();
    EXPECT_TRUE(cm()->InitialScanDone());
    EXPECT_EQ(cm()->GetZonesInUse(), 1u);
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    EXPECT_GE(zone, 2u) << "Zones 0 and 1 are the pack's own";
    EXPECT_EQ(cpz(), uint32_t(SystemDrivePackInfo::GetInstance()->GetZoneSize() / 4096));
    EXPECT_EQ(cm()->GetUnallocatedClusters(), cpz());
    EXPECT_EQ(cm()->GetAllocatedClusters(), 0u);
    EXPECT_EQ(cm()->PoolRuns(), std::vector<ClusterRun>{ClusterRun(zone, 0, cpz())});
    EXPECT_EQ(cm()->GetClusterLowThreshold(), cpz() * 9 / 10);
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, AllocationsAndFreesKeepPoolBitmapsAndTotalsInAgreement) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    std::vector<ClusterRun> a = allocate(1000), b = allocate(37), c = allocate(5000);
    ASSERT_EQ(a, std::vector<ClusterRun>{ClusterRun(zone, 0, 1000)});
    ASSERT_EQ(b, std::vector<ClusterRun>{ClusterRun(zone, 1000, 37)});
    for (uint32_t cl : {0u, 999u, 1000u, 1036u, 6036u}) EXPECT_TRUE(allocated(zone, cl)) << cl;
    EXPECT_FALSE(allocated(zone, 6037));
    EXPECT_EQ(freeIn(zone), cpz() - 6037);
    ASSERT_EQ(release(b[0]), StatusCode::Success);
    EXPECT_FALSE(allocated(zone, 1000));
    EXPECT_TRUE(inPool(b[0])) << "freed between two allocated runs: pooled alone";
    EXPECT_EQ(cm()->GetAllocatedClusters(), 6000u);
    EXPECT_EQ(cm()->GetUnallocatedClusters(), uint64_t(cpz()) - 6000);
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
    // A free of what is not allocated, or outside the Zone, loses nothing.
    EXPECT_EQ(release(ClusterRun(zone, cpz() - 1, 2)), StatusCode::CM_InvalidCluster);
    EXPECT_EQ(release(ClusterRun(zone, 5, 0)), StatusCode::CM_InvalidCluster);
    EXPECT_EQ(release(ClusterRun(1, 0, 1)), StatusCode::CM_InvalidZoneNumber);
    EXPECT_TRUE(consistent(why)) << why;
}

// Bucket rules: a request starts at the bucket of ceil(log2(n)), whose runs
// all serve it; past 1,024 clusters (or at 1 MiB with small runs off) at the
// bucket of the longest runs; then upward, then downward.
TEST_F(ClusterManagerOnDisks, OneClusterTakesBucketZeroFirstThenCutsALargerRunAndGivesTheTailBack) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    std::vector<ClusterRun> singles;
    for (int i = 0; i < 10; ++i) singles.push_back(allocate(1)[0]);
    ASSERT_EQ(release(singles[5]), StatusCode::Success);  // a lone free cluster: bucket 0
    EXPECT_EQ(cm()->BucketRuns(0), std::vector<ClusterRun>{singles[5]});
    EXPECT_EQ(allocate(1), std::vector<ClusterRun>{singles[5]});
    // No run of 1 left: the head of the large bucket is cut, its tail pooled.
    EXPECT_EQ(allocate(1), std::vector<ClusterRun>{ClusterRun(zone, 10, 1)});
    EXPECT_TRUE(inPool(ClusterRun(zone, 11, cpz() - 11)));

    unsigned bucket = 99;
    ASSERT_EQ(release(singles[2]), StatusCode::Success);
    EXPECT_EQ(cm()->LocateBucketForTest(1, bucket, 0), StatusCode::Success);
    EXPECT_EQ(bucket, 0u);
    EXPECT_EQ(cm()->LocateBucketForTest(2, bucket, 0), StatusCode::Success);
    EXPECT_EQ(bucket, 11u) << "no bucket from 1 up but the large one";
    EXPECT_EQ(cm()->LocateBucketForTest(300, bucket, 0), StatusCode::Success);
    EXPECT_EQ(bucket, 11u) << "1 MiB and more with small runs off starts at the large bucket";
    EXPECT_EQ(cm()->LocateBucketForTest(5000, bucket, 0), StatusCode::Success);
    EXPECT_EQ(bucket, 11u) << "past 1,024 clusters: the bucket of the longest runs, never a smaller one first";
}

TEST_F(ClusterManagerOnDisks, ThreeHundredClustersFromRunsOfAHundredComeAsThreeRunsLowestFirst) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    fill(zone);
    ASSERT_EQ(freeIn(zone), 0u);
    if (cm()->GetZonesInUse() == 1) addZone();  // a higher Zone with free space
    for (uint32_t first : {4000u, 1000u, 2000u, 3000u}) ASSERT_EQ(release(ClusterRun(zone, first, 100)), StatusCode::Success);
    EXPECT_EQ(cm()->BucketRuns(6).size(), 4u);
    std::vector<ClusterRun> got;
    ASSERT_EQ(allocate(300, got, zone), StatusCode::Success);
    EXPECT_EQ(got, (std::vector<ClusterRun>{{zone, 1000, 100}, {zone, 2000, 100}, {zone, 3000, 100}}));
    // Runs above the limit that reach a bucket's head leave the pool; with
    // nothing left below the limit the allocation fails.
    EXPECT_TRUE(cm()->BucketRuns(11).empty()) << "the second Zone's run left the pool";
    ASSERT_EQ(allocate(101, got, zone), StatusCode::CM_ZeroClusters);
    EXPECT_EQ(got, std::vector<ClusterRun>{ClusterRun(zone, 4000, 100)}) << "what was taken stays allocated";
    EXPECT_TRUE(allocated(zone, 4099));
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
    // The second Zone's clusters come back with a parse.
    cm()->InitiateBackgroundScan(false, true);
    cm()->WaitForParserIdle();
    ASSERT_FALSE(cm()->BucketRuns(11).empty());
    for (const ClusterRun& r : cm()->BucketRuns(11)) EXPECT_GT(r.zone, zone);
}

TEST_F(ClusterManagerOnDisks, MoreRunsThanAllowedIsTooManyClustersAndKeepsWhatWasTaken) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    fill(zone);
    for (uint32_t first : {100u, 300u, 500u}) ASSERT_EQ(release(ClusterRun(zone, first, 100)), StatusCode::Success);
    std::vector<ClusterRun> got;
    EXPECT_EQ(allocate(300, got, zone, 2), StatusCode::CM_TooManyClusters);
    ASSERT_EQ(got, (std::vector<ClusterRun>{{zone, 100, 100}, {zone, 300, 100}}));
    EXPECT_TRUE(allocated(zone, 150) && allocated(zone, 350));
    EXPECT_TRUE(inPool(ClusterRun(zone, 500, 100))) << "the run that did not fit went back";
    EXPECT_FALSE(allocated(zone, 500));
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, AdjacentFreesMergeAcrossBucketsAndOverlapsAreRefused) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    fill(zone);
    ASSERT_EQ(release(ClusterRun(zone, 600, 3)), StatusCode::Success);
    EXPECT_EQ(cm()->BucketRuns(1), std::vector<ClusterRun>{ClusterRun(zone, 600, 3)});
    ASSERT_EQ(release(ClusterRun(zone, 603, 3)), StatusCode::Success);
    EXPECT_TRUE(cm()->BucketRuns(1).empty());
    EXPECT_EQ(cm()->BucketRuns(2), std::vector<ClusterRun>{ClusterRun(zone, 600, 6)});
    // Joined on both sides at once: 590..599 + 606..700 around 600..605.
    ASSERT_EQ(release(ClusterRun(zone, 606, 95)), StatusCode::Success);
    ASSERT_EQ(release(ClusterRun(zone, 590, 10)), StatusCode::Success);
    EXPECT_EQ(cm()->BucketRuns(6), std::vector<ClusterRun>{ClusterRun(zone, 590, 111)});
    EXPECT_TRUE(cm()->BucketRuns(2).empty());
    // A run that shares clusters with a pooled one is refused (last is inclusive).
    EXPECT_EQ(cm()->AddFreeRun(zone, 650, 660, true, 4), StatusCode::CM_ClusterAlreadyFree);
    EXPECT_EQ(cm()->AddFreeRun(zone, 700, 700, true, 4), StatusCode::CM_ClusterAlreadyFree);
    EXPECT_EQ(cm()->AddFreeRun(zone, 701, 710, true, 4), StatusCode::CM_ClusterAlreadyAllocated);
    // Freeing a freed run again: the bits are cleared anyway, the pool keeps one copy.
    EXPECT_EQ(release(ClusterRun(zone, 600, 6)), StatusCode::Success);
    EXPECT_EQ(cm()->counters().bitAlreadySet, 6u);
    EXPECT_EQ(cm()->BucketRuns(6), std::vector<ClusterRun>{ClusterRun(zone, 590, 111)});
    std::ostringstream out;
    EXPECT_EQ(cm()->internalConsistencyCheck(out), StatusCode::Success) << out.str();
}

// With small runs in use and more than 2,000 runs pooled, a large request
// takes its first run whole and soaks up to three fragments into the rest.
TEST_F(ClusterManagerOnDisks, WithSmallRunsOnALargeRequestSoaksUpFragments) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    fill(zone);
    {
        IOTracker t(READ_WRITE);
        for (uint32_t i = 0; i < 3000; ++i) ASSERT_EQ(cm()->DeallocateClusters(ClusterRun(zone, 2 * i, 1), t), StatusCode::Success);
        ASSERT_EQ(cm()->DeallocateClusters(ClusterRun(zone, 10000, 600), t), StatusCode::Success);
        ASSERT_EQ(t.commitIfDirty(), StatusCode::Success);
    }
    cm()->WaitForParserIdle();
    ASSERT_GT(cm()->GetPoolRuns(), ClusterManager::kParserWorthRuns);
    cm()->SetUseSmallRuns(true);
    std::vector<ClusterRun> got = allocate(256);
    cm()->SetUseSmallRuns(false);
    EXPECT_EQ(got, (std::vector<ClusterRun>{{zone, 10000, 253}, {zone, 0, 1}, {zone, 2, 1}, {zone, 4, 1}}));
    EXPECT_TRUE(inPool(ClusterRun(zone, 10253, 347))) << "the first run's tail went back";
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, LowZonesFillFirst) {
    loadNewPack();
    const uint32_t low = cm()->GetNthZoneInUse(1);
    const uint32_t high = addZone();
    ASSERT_GT(high, low);
    std::vector<ClusterRun> a = allocate(100000);
    ASSERT_EQ(a, std::vector<ClusterRun>{ClusterRun(low, 0, 100000)});
    std::vector<ClusterRun> b = allocate(200000);
    ASSERT_EQ(b, (std::vector<ClusterRun>{{low, 100000, cpz() - 100000}, {high, 0, 200000 - (cpz() - 100000)}}));
    EXPECT_EQ(freeIn(low), 0u);
    // A freed cluster in the low Zone is used before the high Zone's space.
    ASSERT_EQ(release(ClusterRun(low, 50000, 20)), StatusCode::Success);
    EXPECT_EQ(allocate(16), std::vector<ClusterRun>{ClusterRun(low, 50000, 16)});
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, TwoEmptyZonesLeadToFreeingTheHigherOneAndTheLowerIsKept) {
    loadNewPack();
    const uint32_t low = cm()->GetNthZoneInUse(1);
    const uint32_t high = addZone();
    // Both are empty; a rescan gives one back.
    IOTracker t(READ_WRITE);
    ASSERT_EQ(cm()->ScanAllClusterBitmaps(false, true, t), StatusCode::Success);
    t.commitIfDirty();
    EXPECT_EQ(cm()->counters().zonesFreed, 1u);
    EXPECT_EQ(cm()->GetZonesInUse(), 1u);
    EXPECT_TRUE(cm()->IsZoneOwned(low));
    EXPECT_FALSE(cm()->IsZoneOwned(high));
    EXPECT_NE(table().CheckZoneValid(high), StatusCode::Success) << "the Zone went back to the Zone layer";
    EXPECT_EQ(cm()->GetUnallocatedClusters(), cpz());
    // The only empty Zone is kept: a used cluster freed leaves it owned.
    std::vector<ClusterRun> a = allocate(10);
    ASSERT_EQ(release(a[0]), StatusCode::Success);
    IOTracker t2(READ_WRITE);
    ASSERT_EQ(cm()->ScanAllClusterBitmaps(false, true, t2), StatusCode::Success);
    t2.commitIfDirty();
    EXPECT_EQ(cm()->GetZonesInUse(), 1u);
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
    // A rescan with no allocation activity since the last is skipped.
    const uint64_t scans = cm()->counters().scans;
    IOTracker t3(READ_WRITE);
    cm()->ScanAllClusterBitmaps(false, false, t3);
    t3.commitIfDirty();
    EXPECT_EQ(cm()->counters().scans, scans);
}

TEST_F(ClusterManagerOnDisks, TheRunPastThePoolCapEvictsTheSmallestRun) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    fill(zone);
    const uint32_t already = cm()->GetPoolRuns();  // the second Zone's run
    {
        IOTracker t(READ_WRITE);  // one set for all the frees
        for (uint32_t i = 0; i + already < ClusterManager::kPoolRunCap; ++i)
            ASSERT_EQ(cm()->DeallocateClusters(ClusterRun(zone, 2 * i, 1), t), StatusCode::Success);
        ASSERT_EQ(t.commitIfDirty(), StatusCode::Success);
    }
    ASSERT_EQ(cm()->GetPoolRuns(), ClusterManager::kPoolRunCap);
    ASSERT_TRUE(inPool(ClusterRun(zone, 0, 1)));
    ASSERT_EQ(release(ClusterRun(zone, 20000, 4)), StatusCode::Success);
    EXPECT_EQ(cm()->GetPoolRuns(), ClusterManager::kPoolRunCap);
    EXPECT_FALSE(inPool(ClusterRun(zone, 0, 1))) << "the smallest, lowest run left the pool";
    EXPECT_FALSE(allocated(zone, 0)) << "and stays free in the bitmap";
    EXPECT_TRUE(inPool(ClusterRun(zone, 20000, 4)));
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
    // A parse finds it again (and evicts another small one to stay at the cap).
    cm()->InitiateBackgroundScan(false, true);
    cm()->WaitForParserIdle();
    EXPECT_LE(cm()->GetPoolRuns(), ClusterManager::kPoolRunCap);
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, ManyThreadsAllocatingAndFreeingNeverMeetABitAlreadyInItsTargetState) {
    loadNewPack();
    constexpr int kThreads = 8, kRounds = 150;
    std::vector<std::vector<ClusterRun>> held(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([i, &held] {
            std::mt19937 r(1000 + i);
            std::vector<ClusterRun>& mine = held[i];
            for (int k = 0; k < kRounds; ++k) {
                if (mine.empty() || r() % 3 != 0) {
                    std::vector<ClusterRun> got;
                    StatusCode st = allocate(1 + r() % 300, got);
                    EXPECT_EQ(st, StatusCode::Success);
                    mine.insert(mine.end(), got.begin(), got.end());
                } else {
                    size_t j = r() % mine.size();
                    ClusterRun run = mine[j];
                    // Sometimes only part of a run goes back.
                    if (run.numberOfClusters > 2 && r() % 2) {
                        const uint32_t keep = 1 + r() % (run.numberOfClusters - 1);
                        mine[j].numberOfClusters = keep;
                        run = ClusterRun(run.zone, run.firstCluster + keep, run.numberOfClusters - keep);
                    } else {
                        mine.erase(mine.begin() + long(j));
                    }
                    EXPECT_EQ(release(run), StatusCode::Success);
                }
            }
        });
    for (auto& t : threads) t.join();
    cm()->WaitForParserIdle();
    EXPECT_EQ(cm()->counters().bitAlreadySet, 0u);
    // What the threads hold is disjoint and is exactly what the bitmaps have set.
    std::map<uint32_t, std::vector<ClusterRun>> byZone;
    uint64_t heldClusters = 0;
    for (auto& h : held)
        for (const ClusterRun& run : h) {
            byZone[run.zone].push_back(run);
            heldClusters += run.numberOfClusters;
        }
    for (auto& [zone, runs] : byZone) {
        std::sort(runs.begin(), runs.end());
        for (size_t i = 1; i < runs.size(); ++i)
            EXPECT_LE(runs[i - 1].endCluster(), runs[i].firstCluster) << runs[i - 1] << " and " << runs[i];
    }
    uint64_t setBits = 0;
    for (uint32_t n = 1; n <= cm()->GetZonesInUse(); ++n) setBits += cpz() - freeIn(cm()->GetNthZoneInUse(n));
    EXPECT_EQ(setBits, heldClusters);
    EXPECT_EQ(cm()->GetAllocatedClusters(), heldClusters);
    for (auto& [zone, runs] : byZone)
        for (const ClusterRun& run : runs) EXPECT_TRUE(allocated(zone, run.firstCluster) && allocated(zone, run.lastCluster()));
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, ARestartFindsTheSameRecordBitmapsAndTotals) {
    loadNewPack();
    const uint32_t low = cm()->GetNthZoneInUse(1);
    std::vector<ClusterRun> a = allocate(300000);  // two Zones
    for (uint32_t first : {10u, 500u, 70000u}) ASSERT_EQ(release(ClusterRun(low, first, 33)), StatusCode::Success);
    cm()->WaitForParserIdle();
    const Zone0UserInfo entry = Zone0InfoTable::GetInstance()->GetEntry(1);
    const uint32_t size = 49152 + 8 * 32768;  // the record, both bitmaps and the first cluster bitmaps
    const std::vector<uint8_t> before = zoneBytes(entry.zone, entry.startOffset, size);
    const uint32_t zones = cm()->GetZonesInUse();
    std::map<uint32_t, uint32_t> freeBefore;
    for (uint32_t n = 1; n <= zones; ++n) freeBefore[cm()->GetNthZoneInUse(n)] = freeIn(cm()->GetNthZoneInUse(n));
    const uint64_t allocatedBefore = cm()->GetAllocatedClusters(), unallocatedBefore = cm()->GetUnallocatedClusters();

    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_EQ(zoneBytes(entry.zone, entry.startOffset, size), before);
    EXPECT_EQ(cm()->GetZonesInUse(), zones);
    for (auto& [zone, count] : freeBefore) EXPECT_EQ(freeIn(zone), count) << "zone " << zone;
    EXPECT_EQ(cm()->GetAllocatedClusters(), allocatedBefore);
    EXPECT_EQ(cm()->GetUnallocatedClusters(), unallocatedBefore);
    EXPECT_TRUE(inPool(ClusterRun(low, 500, 33)));
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

TEST_F(ClusterManagerOnDisks, BadInputGetsAStatusAndChangesNothing) {
    {
        IOTracker t(READ_ONLY);
        EXPECT_EQ(cm()->DeallocateClusters(ClusterRun(2, 0, 1), t), StatusCode::DiskPackNotLoaded);
    }
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    EXPECT_EQ(cm()->AddFreeRun(zone, 10, 5, false, 4), StatusCode::CM_InvalidCluster);
    EXPECT_EQ(cm()->AddFreeRun(zone, 0, cpz(), false, 4), StatusCode::CM_InvalidCluster);
    EXPECT_EQ(cm()->AddFreeRun(zone + 50, 0, 1, false, 4), StatusCode::CM_InvalidZoneNumber);
    uint32_t bitmapZone = 0;
    uint64_t offset = 0;
    EXPECT_EQ(cm()->GetBitmapLocation(32000, bitmapZone, offset), StatusCode::InvalidZoneNumber);
    std::vector<ClusterRun> none;
    EXPECT_EQ(allocate(0, none), StatusCode::Success);
    EXPECT_TRUE(none.empty());
    std::string why;
    EXPECT_TRUE(consistent(why)) << why;
}

}  // namespace
