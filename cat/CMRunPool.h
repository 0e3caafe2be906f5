#pragma once
// CMRunPool: the cluster manager's in-memory pool of free runs, in twelve
// buckets by length. Bucket b (0..9) holds runs of 2^b to 2^(b+1) - 1
// clusters; bucket 10 every other run shorter than 50 MiB; bucket 11 runs of
// 50 MiB and more. Each bucket is ordered by (zone, firstCluster), so its head
// is the lowest run of its class and allocation fills low Zones first.
//
// An index of every run by (zone, firstCluster) finds a run's neighbours in
// one lookup, for merging. The pool does no locking: the cluster manager holds
// "eCMBucketLock" around every call. It knows nothing of bitmaps: a run is
// just a promise, kept by the manager, that its clusters are free.
//
// Invariants: no two runs overlap; every run is in the index and in exactly
// the bucket its length chooses; runs() and clusters() are their count and
// total length.
#include <cstdint>
#include <functional>
#include <map>
#include <memory_resource>
#include <optional>

#include "cat/ClusterRun.h"

class CMRunPool {
public:
    static constexpr unsigned kBuckets = 12;
    static constexpr unsigned kLargeBucket = 11;
    static constexpr uint64_t kLargeRunBytes = 0x3200000;  // 50 MiB
    static constexpr uint32_t kClusterBytes = 4096;
    static constexpr uint32_t kLargeRunClusters = uint32_t(kLargeRunBytes / kClusterBytes);  // 12,800

    CMRunPool();
    CMRunPool(const CMRunPool&) = delete;
    CMRunPool& operator=(const CMRunPool&) = delete;

    static unsigned BucketFor(uint32_t length);

    void clear();
    uint32_t runs() const { return mRuns; }
    uint64_t clusters() const { return mClusters; }
    bool empty(unsigned bucket) const { return mBuckets[bucket].empty(); }
    size_t size(unsigned bucket) const { return mBuckets[bucket].size(); }
    // The lowest (zone, firstCluster) run of the bucket; the bucket must not be empty.
    ClusterRun head(unsigned bucket) const;

    // Adds a run that overlaps none in the pool (the caller checks with
    // overlapping()). Returns its bucket.
    unsigned insert(const ClusterRun& run);
    // Removes a run that is in the pool exactly as given.
    void erase(const ClusterRun& run);
    ClusterRun popHead(unsigned bucket);

    // Takes `take` clusters from the front of the bucket's head run: the rest
    // stays pooled in its place (and in the bucket its length now chooses).
    // Returns the clusters taken (at most the run's length).
    ClusterRun takeFromHead(unsigned bucket, uint32_t take);
    // Replaces a pooled run by one that keeps its place in (zone, first)
    // order: no other pooled run lies between the two.
    void replace(const ClusterRun& old, const ClusterRun& now);

    // A free run put next to its pooled neighbours: Overlaps (nothing
    // changes; `clash` is the pooled run it shares a cluster with), Joined
    // (with `merge`, it joined the run that ends just before it or begins
    // just after it, or both, and took its place), or Alone (the caller
    // inserts it).
    enum class Join { Alone, Joined, Overlaps };
    Join join(const ClusterRun& run, bool merge, ClusterRun& clash);

    // The pooled run that starts exactly at (zone, first), if any.
    std::optional<ClusterRun> find(uint32_t zone, uint32_t first) const;
    // Removes the head of the lowest non-empty bucket; false when empty.
    bool evictSmallest(ClusterRun& evicted);
    // Removes every run of the Zone; returns how many.
    uint32_t evictZone(uint32_t zone);
    // Runs in (zone, firstCluster) order.
    void forEach(const std::function<void(const ClusterRun&)>& visit) const;
    // Runs of one Zone, in order.
    void forEachInZone(uint32_t zone, const std::function<void(const ClusterRun&)>& visit) const;

private:
    static uint64_t key(uint32_t zone, uint32_t first) { return uint64_t(zone) << 32 | first; }
    static ClusterRun runOf(uint64_t k, uint32_t length) { return ClusterRun(uint32_t(k >> 32), uint32_t(k), length); }

    // Nodes come from one pool resource that reuses freed nodes: the pool
    // churns a node per allocation and per free.
    std::pmr::unsynchronized_pool_resource mNodes;
    using RunMap = std::pmr::map<uint64_t, uint32_t>;  // key -> length
    // Moves a node to a new key that keeps its place in the order.
    static void rekey(RunMap& map, RunMap::iterator it, uint64_t k, uint32_t length);
    // replace() with the run's index entry (and bucket entry, when known) in hand.
    void replaceAt(RunMap::iterator indexIt, RunMap::iterator bucketIt, bool bucketKnown, const ClusterRun& now);
    RunMap mIndex;
    RunMap mBuckets[kBuckets];
    uint32_t mRuns = 0;
    uint64_t mClusters = 0;
};
