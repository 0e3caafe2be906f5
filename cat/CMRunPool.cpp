#include "cat/CMRunPool.h"

#include <bit>

#include "util/Assert.h"

CMRunPool::CMRunPool()
    : mIndex(&mNodes),
      mBuckets{std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes),
               std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes),
               std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes),
               std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes), std::pmr::set<uint64_t>(&mNodes)} {}

unsigned CMRunPool::BucketFor(uint32_t length) {
    ESA_ASSERT_OP(length, >, 0u);
    if (length < 1024) return unsigned(std::bit_width(length)) - 1;  // floor(log2)
    return length < kLargeRunClusters ? 10 : kLargeBucket;
}

void CMRunPool::clear() {
    mIndex.clear();
    for (auto& b : mBuckets) b.clear();
    mRuns = 0;
    mClusters = 0;
}

ClusterRun CMRunPool::head(unsigned bucket) const {
    const uint64_t k = *mBuckets[bucket].begin();
    return runOf(k, mIndex.find(k)->second);
}

unsigned CMRunPool::insert(const ClusterRun& run) {
    const uint64_t k = key(run.zone, run.firstCluster);
    const unsigned b = BucketFor(run.numberOfClusters);
    const bool added = mIndex.emplace(k, run.numberOfClusters).second;
    ESA_ASSERT(added);
    mBuckets[b].insert(k);
    ++mRuns;
    mClusters += run.numberOfClusters;
    return b;
}

void CMRunPool::erase(const ClusterRun& run) {
    const uint64_t k = key(run.zone, run.firstCluster);
    auto it = mIndex.find(k);
    ESA_ASSERT(it != mIndex.end() && it->second == run.numberOfClusters);
    mBuckets[BucketFor(it->second)].erase(k);
    mIndex.erase(it);
    --mRuns;
    mClusters -= run.numberOfClusters;
}

ClusterRun CMRunPool::popHead(unsigned bucket) {
    auto& b = mBuckets[bucket];
    const uint64_t k = *b.begin();
    b.erase(b.begin());
    auto it = mIndex.find(k);
    const ClusterRun run = runOf(k, it->second);
    mIndex.erase(it);
    --mRuns;
    mClusters -= run.numberOfClusters;
    return run;
}

std::optional<ClusterRun> CMRunPool::find(uint32_t zone, uint32_t first) const {
    auto it = mIndex.find(key(zone, first));
    if (it == mIndex.end()) return std::nullopt;
    return runOf(it->first, it->second);
}

std::optional<ClusterRun> CMRunPool::endingAt(uint32_t zone, uint32_t first) const {
    auto it = mIndex.lower_bound(key(zone, first));
    if (it == mIndex.begin()) return std::nullopt;
    --it;
    const ClusterRun prev = runOf(it->first, it->second);
    if (prev.zone != zone || uint64_t(prev.firstCluster) + prev.numberOfClusters != first) return std::nullopt;
    return prev;
}

std::optional<ClusterRun> CMRunPool::overlapping(const ClusterRun& run) const {
    // The run at or before its first cluster, and the first one after it.
    auto it = mIndex.upper_bound(key(run.zone, run.firstCluster));
    if (it != mIndex.begin()) {
        auto prev = std::prev(it);
        const ClusterRun p = runOf(prev->first, prev->second);
        if (p.zone == run.zone && uint64_t(p.firstCluster) + p.numberOfClusters > run.firstCluster) return p;
    }
    if (it != mIndex.end()) {
        const ClusterRun n = runOf(it->first, it->second);
        if (n.zone == run.zone && n.firstCluster < uint64_t(run.firstCluster) + run.numberOfClusters) return n;
    }
    return std::nullopt;
}

bool CMRunPool::evictSmallest(ClusterRun& evicted) {
    for (unsigned b = 0; b < kBuckets; ++b) {
        if (mBuckets[b].empty()) continue;
        evicted = popHead(b);
        return true;
    }
    return false;
}

uint32_t CMRunPool::evictZone(uint32_t zone) {
    uint32_t removed = 0;
    auto it = mIndex.lower_bound(key(zone, 0));
    while (it != mIndex.end() && uint32_t(it->first >> 32) == zone) {
        mBuckets[BucketFor(it->second)].erase(it->first);
        --mRuns;
        mClusters -= it->second;
        it = mIndex.erase(it);
        ++removed;
    }
    return removed;
}

void CMRunPool::forEach(const std::function<void(const ClusterRun&)>& visit) const {
    for (const auto& [k, length] : mIndex) visit(runOf(k, length));
}

void CMRunPool::forEachInZone(uint32_t zone, const std::function<void(const ClusterRun&)>& visit) const {
    for (auto it = mIndex.lower_bound(key(zone, 0)); it != mIndex.end() && uint32_t(it->first >> 32) == zone; ++it)
        visit(runOf(it->first, it->second));
}
