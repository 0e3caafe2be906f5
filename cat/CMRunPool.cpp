#include "cat/CMRunPool.h"

#include <bit>

#include "util/Assert.h"

CMRunPool::CMRunPool()
    : mIndex(&mNodes),
      mBuckets{RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes),
               RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes), RunMap(&mNodes)} {}

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
    const auto& h = *mBuckets[bucket].begin();
    return runOf(h.first, h.second);
}

void CMRunPool::rekey(RunMap& map, RunMap::iterator it, uint64_t k, uint32_t length) {
    auto hint = std::next(it);
    auto node = map.extract(it);
    node.key() = k;
    node.mapped() = length;
    map.insert(hint, std::move(node));
}

void CMRunPool::replace(const ClusterRun& old, const ClusterRun& now) {
    auto it = mIndex.find(key(old.zone, old.firstCluster));
    ESA_ASSERT(it != mIndex.end() && it->second == old.numberOfClusters);
    replaceAt(it, it, false, now);
}

void CMRunPool::replaceAt(RunMap::iterator indexIt, RunMap::iterator bucketIt, bool bucketKnown,
                          const ClusterRun& now) {
    const uint64_t ok = indexIt->first, nk = key(now.zone, now.firstCluster);
    const uint32_t oldLength = indexIt->second;
    const unsigned ob = BucketFor(oldLength), nb = BucketFor(now.numberOfClusters);
    if (!bucketKnown) bucketIt = mBuckets[ob].find(ok);
    rekey(mIndex, indexIt, nk, now.numberOfClusters);
    if (ob == nb) {
        rekey(mBuckets[ob], bucketIt, nk, now.numberOfClusters);
    } else {
        mBuckets[ob].erase(bucketIt);
        mBuckets[nb].emplace(nk, now.numberOfClusters);
    }
    mClusters = mClusters - oldLength + now.numberOfClusters;
}

ClusterRun CMRunPool::takeFromHead(unsigned bucket, uint32_t take) {
    const ClusterRun run = head(bucket);
    if (take >= run.numberOfClusters) return popHead(bucket);
    replaceAt(mIndex.find(key(run.zone, run.firstCluster)), mBuckets[bucket].begin(), true,
              ClusterRun(run.zone, run.firstCluster + take, run.numberOfClusters - take));
    return ClusterRun(run.zone, run.firstCluster, take);
}

CMRunPool::Join CMRunPool::join(const ClusterRun& run, bool merge, ClusterRun& clash) {
    // One lookup: the first run at or after the new one, and the one before.
    auto next = mIndex.lower_bound(key(run.zone, run.firstCluster));
    auto prev = next == mIndex.begin() ? mIndex.end() : std::prev(next);
    const bool hasNext = next != mIndex.end() && uint32_t(next->first >> 32) == run.zone;
    const bool hasPrev = prev != mIndex.end() && uint32_t(prev->first >> 32) == run.zone;
    const uint64_t prevEnd = hasPrev ? uint64_t(uint32_t(prev->first)) + prev->second : 0;
    const uint64_t nextFirst = hasNext ? uint32_t(next->first) : 0;
    if (hasPrev && prevEnd > run.firstCluster) {
        clash = runOf(prev->first, prev->second);
        return Join::Overlaps;
    }
    if (hasNext && nextFirst < uint64_t(run.firstCluster) + run.numberOfClusters) {
        clash = runOf(next->first, next->second);
        return Join::Overlaps;
    }
    const bool joinPrev = merge && hasPrev && prevEnd == run.firstCluster;
    const bool joinNext = merge && hasNext && nextFirst == uint64_t(run.firstCluster) + run.numberOfClusters;
    if (!joinPrev && !joinNext) return Join::Alone;
    ClusterRun joined = run;
    if (joinPrev) {
        joined.firstCluster = uint32_t(prev->first);
        joined.numberOfClusters += prev->second;
    }
    if (joinNext) joined.numberOfClusters += next->second;
    if (joinPrev && joinNext) erase(runOf(next->first, next->second));
    replaceAt(joinPrev ? prev : next, prev, false, joined);
    return Join::Joined;
}

unsigned CMRunPool::insert(const ClusterRun& run) {
    const uint64_t k = key(run.zone, run.firstCluster);
    const unsigned b = BucketFor(run.numberOfClusters);
    const bool added = mIndex.emplace(k, run.numberOfClusters).second;
    ESA_ASSERT(added);
    mBuckets[b].emplace(k, run.numberOfClusters);
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
    const ClusterRun run = runOf(b.begin()->first, b.begin()->second);
    b.erase(b.begin());
    mIndex.erase(key(run.zone, run.firstCluster));
    --mRuns;
    mClusters -= run.numberOfClusters;
    return run;
}

std::optional<ClusterRun> CMRunPool::find(uint32_t zone, uint32_t first) const {
    auto it = mIndex.find(key(zone, first));
    if (it == mIndex.end()) return std::nullopt;
    return runOf(it->first, it->second);
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
