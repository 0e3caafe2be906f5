// The pool of free runs on its own: which bucket a length goes to, heads in
// (zone, first) order so that low Zones come first, neighbours found for
// merging, overlaps seen, and eviction of the smallest runs and of a Zone.
#include "cat/CMRunPool.h"

#include <gtest/gtest.h>

namespace {

TEST(CMRunPool, BucketsByLengthUpToFiftyMiBAndOver) {
    EXPECT_EQ(CMRunPool::BucketFor(1), 0u);
    EXPECT_EQ(CMRunPool::BucketFor(2), 1u);
    EXPECT_EQ(CMRunPool::BucketFor(3), 1u);
    EXPECT_EQ(CMRunPool::BucketFor(4), 2u);
    EXPECT_EQ(CMRunPool::BucketFor(6), 2u);
    EXPECT_EQ(CMRunPool::BucketFor(100), 6u);
    EXPECT_EQ(CMRunPool::BucketFor(512), 9u);
    EXPECT_EQ(CMRunPool::BucketFor(1023), 9u);
    EXPECT_EQ(CMRunPool::BucketFor(1024), 10u);
    EXPECT_EQ(CMRunPool::BucketFor(12799), 10u);  // 50 MiB less one cluster
    EXPECT_EQ(CMRunPool::BucketFor(12800), 11u);  // 0x3200000 bytes
    EXPECT_EQ(CMRunPool::BucketFor(262080), 11u);
}

TEST(CMRunPool, HeadsAreTheLowestZoneAndClusterOfTheirClass) {
    CMRunPool pool;
    pool.insert({7, 100, 5});
    pool.insert({3, 900, 6});
    pool.insert({3, 40, 4});
    pool.insert({9, 0, 20000});
    pool.insert({4, 0, 13000});
    EXPECT_EQ(pool.runs(), 5u);
    EXPECT_EQ(pool.clusters(), 5u + 6 + 4 + 20000 + 13000);
    EXPECT_EQ(pool.head(2), ClusterRun(3, 40, 4));
    EXPECT_EQ(pool.popHead(2), ClusterRun(3, 40, 4));
    EXPECT_EQ(pool.popHead(2), ClusterRun(3, 900, 6));
    EXPECT_EQ(pool.popHead(2), ClusterRun(7, 100, 5));
    EXPECT_TRUE(pool.empty(2));
    EXPECT_EQ(pool.head(11), ClusterRun(4, 0, 13000));
    EXPECT_EQ(pool.runs(), 2u);
    EXPECT_EQ(pool.clusters(), 33000u);
}

TEST(CMRunPool, OverlapsAreRefusedAndNeighboursJoinedWithinTheirZoneOnly) {
    CMRunPool pool;
    pool.insert({5, 10, 3});   // 10..12
    pool.insert({5, 20, 30});  // 20..49
    pool.insert({6, 0, 8});
    ClusterRun clash;
    for (ClusterRun r : {ClusterRun(5, 12, 1), ClusterRun(5, 0, 11)}) {
        EXPECT_EQ(pool.join(r, true, clash), CMRunPool::Join::Overlaps) << r;
        EXPECT_EQ(clash, ClusterRun(5, 10, 3));
    }
    EXPECT_EQ(pool.join({5, 49, 5}, true, clash), CMRunPool::Join::Overlaps);
    EXPECT_EQ(clash, ClusterRun(5, 20, 30));
    EXPECT_EQ(pool.join({5, 10, 3}, true, clash), CMRunPool::Join::Overlaps) << "the same run again";
    EXPECT_EQ(pool.join({5, 14, 5}, true, clash), CMRunPool::Join::Alone) << "14..18 touches neither";
    EXPECT_EQ(pool.join({5, 13, 7}, false, clash), CMRunPool::Join::Alone) << "no merge asked";
    EXPECT_EQ(pool.runs(), 3u);
    // 13..19 joins both sides: one run 10..49 in the previous one's place.
    EXPECT_EQ(pool.join({5, 13, 7}, true, clash), CMRunPool::Join::Joined);
    EXPECT_EQ(pool.runs(), 2u);
    EXPECT_EQ(pool.find(5, 10), ClusterRun(5, 10, 40));
    EXPECT_EQ(pool.head(5), ClusterRun(5, 10, 40));
    EXPECT_EQ(pool.clusters(), 48u);
    // Zone 5's last run does not join Zone 6's first.
    EXPECT_EQ(pool.join({5, 50, 10}, true, clash), CMRunPool::Join::Joined);
    EXPECT_EQ(pool.find(5, 10), ClusterRun(5, 10, 50));
    EXPECT_EQ(pool.find(6, 0), ClusterRun(6, 0, 8));
    EXPECT_EQ(pool.join({4, 0, 3}, true, clash), CMRunPool::Join::Alone);
}

TEST(CMRunPool, ATakenHeadLeavesItsTailInPlaceAndInTheBucketOfItsNewLength) {
    CMRunPool pool;
    pool.insert({2, 0, 1024});
    pool.insert({3, 0, 1500});
    EXPECT_EQ(pool.takeFromHead(10, 1), ClusterRun(2, 0, 1));
    EXPECT_EQ(pool.head(9), ClusterRun(2, 1, 1023)) << "1,023 clusters: bucket 9";
    EXPECT_EQ(pool.head(10), ClusterRun(3, 0, 1500));
    EXPECT_EQ(pool.takeFromHead(9, 2000), ClusterRun(2, 1, 1023)) << "all of it";
    EXPECT_TRUE(pool.empty(9));
    pool.replace({3, 0, 1500}, {3, 0, 20000});
    EXPECT_EQ(pool.head(11), ClusterRun(3, 0, 20000));
    EXPECT_EQ(pool.runs(), 1u);
    EXPECT_EQ(pool.clusters(), 20000u);
}

TEST(CMRunPool, EvictionTakesTheSmallestLowestRunOrAWholeZone) {
    CMRunPool pool;
    pool.insert({2, 0, 2});
    pool.insert({2, 10, 2});
    pool.insert({1, 50, 3});
    pool.insert({3, 0, 1000});
    ClusterRun evicted;
    ASSERT_TRUE(pool.evictSmallest(evicted));
    EXPECT_EQ(evicted, ClusterRun(1, 50, 3)) << "bucket 1's head: the lowest Zone";
    EXPECT_EQ(pool.evictZone(2), 2u);
    EXPECT_EQ(pool.runs(), 1u);
    EXPECT_EQ(pool.clusters(), 1000u);
    pool.erase({3, 0, 1000});
    EXPECT_FALSE(pool.evictSmallest(evicted));
    EXPECT_EQ(pool.clusters(), 0u);
}

}  // namespace
