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

TEST(CMRunPool, NeighboursAndOverlapsAreFoundWithinTheirZoneOnly) {
    CMRunPool pool;
    pool.insert({5, 10, 3});   // 10..12
    pool.insert({5, 20, 30});  // 20..49
    pool.insert({6, 0, 8});
    EXPECT_EQ(pool.endingAt(5, 13), ClusterRun(5, 10, 3));
    EXPECT_FALSE(pool.endingAt(5, 14).has_value());
    EXPECT_FALSE(pool.endingAt(6, 13).has_value());
    EXPECT_FALSE(pool.endingAt(6, 0).has_value()) << "Zone 5's last run does not end where Zone 6 starts";
    EXPECT_EQ(pool.find(5, 20), ClusterRun(5, 20, 30));
    EXPECT_FALSE(pool.find(5, 21).has_value());
    EXPECT_EQ(pool.overlapping({5, 12, 1}), ClusterRun(5, 10, 3));
    EXPECT_EQ(pool.overlapping({5, 0, 11}), ClusterRun(5, 10, 3));
    EXPECT_EQ(pool.overlapping({5, 49, 5}), ClusterRun(5, 20, 30));
    EXPECT_FALSE(pool.overlapping({5, 13, 7}).has_value()) << "13..19 lies between the two";
    EXPECT_FALSE(pool.overlapping({4, 10, 3}).has_value());
    EXPECT_FALSE(pool.overlapping({5, 50, 100}).has_value());
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
