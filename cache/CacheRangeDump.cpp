// CacheRangeTracker: statistics, dumps, the consistency check and the
// structural self-check used by the tests.
#include <cstring>
#include <iomanip>
#include <vector>

#include "cache/CacheRangeTracker.h"
#include "cache/CacheTrackerObject.h"
#include "util/Assert.h"
#include "util/PrintHelpers.h"

namespace {
void hexDump(std::ostream& out, const unsigned char* p, uint32_t n) {
    char line[96];
    for (uint32_t off = 0; off < n; off += 16) {
        int k = std::snprintf(line, sizeof line, "%08x:", off);
        for (uint32_t i = off; i < off + 16 && i < n; ++i) k += std::snprintf(line + k, sizeof line - k, " %02x", p[i]);
        out << line << "\n";
    }
}
}  // namespace

void CacheRangeTracker::ClearStats() {
    for (auto* a : {&mStats.locks, &mStats.lookups, &mStats.hits, &mStats.misses, &mStats.reads,
                    &mStats.readFailures, &mStats.writes, &mStats.writeFailures, &mStats.adds, &mStats.invalidates,
                    &mStats.backoffs, &mStats.evictions})
        a->store(0);
    for (PerfAccumulator* p : {&mLookupPerf, &mLockPerf, &mLockMultiplePerf, &mUnlockPerf, &mAddPerf, &mInvalidatePerf})
        p->reset();
}

void CacheRangeTracker::StatsShow(std::ostream& out, bool) {
    out << CacheName() << " statistics: locks " << mStats.locks << " lookups " << mStats.lookups << " hits "
        << mStats.hits << " misses " << mStats.misses << " reads " << mStats.reads << " read failures "
        << mStats.readFailures << " writes " << mStats.writes << " write failures " << mStats.writeFailures
        << " adds " << mStats.adds << " invalidates " << mStats.invalidates << " backoffs " << mStats.backoffs
        << " evictions " << mStats.evictions << "\n";
    MemoryPool& p = *mMemoryPool;
    out << "Pool " << p.name() << ": blocks " << p.numEntries() << " free " << p.freeCount() << " block size "
        << p.blockSize() << " LRU entries " << p.lru().entries() << " spill requests " << p.spillRequests() << "\n";
}

void CacheRangeTracker::PerfInfo(std::ostream& out) {
    out << "Cache Lookup timings:\n";
    mLookupPerf.Dump(out);
    out << "Cache Lock timings:\n";
    mLockPerf.Dump(out);
    out << "Cache LockMultiple timings:\n";
    mLockMultiplePerf.Dump(out);
    out << "Cache Unlock timings:\n";
    mUnlockPerf.Dump(out);
    out << "Cache Add timings:\n";
    mAddPerf.Dump(out);
    out << "Cache Invalidate timings:\n";
    mInvalidatePerf.Dump(out);
}

void CacheRangeTracker::Dump(std::ostream& out, bool verbose) {
    TrackerLock::ExclusiveLockInstance g(&mLock);
    out << CacheName() << " CACHE RANGE TRACKER'S STATE\n";
    out << "current IOTracker = " << IOTracker::lastId() << "\n";
    out << " entries on LRU: " << mMemoryPool->lru().entries() << "\n";
    out << "Number of sets = " << mSets.size() << "\n";
    uint32_t found = 0;
    for (uint32_t s = 0; s < mSets.size(); ++s) {
        if (mSets[s].empty()) continue;
        uint32_t n = 0;
        for (auto it = mSets[s].begin(); it != mSets[s].end(); ++it) {
            ++n;
            if (it->mLRUNode.active) ++found;
        }
        out << "Set# " << s << ": " << n << " ranges\n";
        if (!verbose) continue;
        for (auto it = mSets[s].begin(); it != mSets[s].end(); ++it) {
            out << "  0x" << std::hex << it->mStart << " len 0x" << it->mLength << std::dec
                << (it->pStore ? "" : " no store") << " dirty " << it->mDirtyCount;
            if (it->mLock.isLocked()) out << " LOCKED trans " << it->mLock.transID();
            else out << " Unlocked. Creating transID " << it->mCreatingId;
            out << "\n";
        }
    }
    out << "LRU entries found: " << found << "\n";
}

void CacheRangeTracker::checkSetInvariants(uint32_t set) {
    TrackerLock::ExclusiveLockInstance g(&mLock);
    if (set >= mSets.size()) return;
    std::vector<CacheRangeObject*> fromList;
    for (auto it = mSets[set].begin(); it != mSets[set].end(); ++it) fromList.push_back(it.get());
    std::vector<CacheRangeObject*> fromTree;
    std::vector<SplayNode*> stack;
    SplayNode* n = mRoots[set];
    while (n || !stack.empty()) {
        while (n) {
            stack.push_back(n);
            n = n->left;
        }
        n = stack.back();
        stack.pop_back();
        fromTree.push_back(asCro(n));
        n = n->right;
    }
    ESA_ASSERT_OP(fromList.size(), ==, fromTree.size());
    for (size_t i = 0; i < fromList.size(); ++i) {
        ESA_ASSERT(fromList[i] == fromTree[i]);
        ESA_ASSERT_OP(fromList[i]->mLength, >, 0u);
        if (i) ESA_ASSERT_OP(fromList[i - 1]->end(), <=, fromList[i]->mStart);
        if (fromList[i]->pStore) {
            ESA_ASSERT(fromList[i]->mLRUNode.active);
            const uint32_t es = GetElementSize();
            ESA_ASSERT_OP((fromList[i]->end() - fromList[i]->mStoredStart) * es, <=,
                          uint64_t(fromList[i]->pStore->GetLength()));
        }
    }
}

bool CacheRangeTracker::internalConsistencyCheck(std::ostream& out) {
    // Candidates are taken under mLock, then each is locked as an ordinary
    // reader would and compared with a fresh read of its range.
    struct Candidate {
        uint32_t set;
        uint64_t start;
        uint32_t length;
    };
    std::vector<Candidate> candidates;
    {
        TrackerLock::ExclusiveLockInstance g(&mLock);
        for (uint32_t s = 0; s < mSets.size(); ++s)
            for (auto it = mSets[s].begin(); it != mSets[s].end(); ++it) {
                char where[96];
                std::snprintf(where, sizeof where, "%s set %u 0x%llx+%u", CacheName(), s,
                              (unsigned long long)it->mStart, it->mLength);
                if (it->mDirtyCount) out << where << " is dirty\n";
                else if (it->mLock.isLocked()) out << where << " is LOCKED... skipping\n";
                // Committed, not yet spilled: newer than the disk by design.
                else if (it->pStore && it->pStore->refCount() != it->pStore->lruCount())
                    out << where << " is pinned by the journal... skipping\n";
                else if (it->pStore) candidates.push_back({s, it->mStart, it->mLength});
            }
    }
    bool ok = true;
    const uint32_t es = GetElementSize();
    for (const Candidate& c : candidates) {
        IOTracker tracker(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        if (LockAndLookupRange(c.set, c.start, c.length, cto, tracker) != StatusCode::Success) continue;
        std::vector<unsigned char> cached(size_t(c.length) * es);
        DataBuffer cb{uint32_t(cached.size()), cached.data()};
        cto->mWindow.Read(cb);
        // A fresh read through a CRO of our own, outside the sets.
        CacheRangeObject probe(*this, c.set, c.start, c.length, tracker.getID());
        // Held while it stands on the LRU, so that no eviction pass takes it.
        probe.mLock.LockExclusive();
        StatusCode st = ReadRangeNotPresent(c.set, &probe, tracker, false);
        if (probe.mLRUNode.active) mMemoryPool->lru().RemoveFromLRU(probe.mLRUNode);
        probe.mLock.LockRelease();
        if (st == StatusCode::Success && probe.pStore) {
            std::vector<unsigned char> disk(cached.size());
            DataWindow w;
            rangeWindow(&probe, w);
            DataBuffer db{uint32_t(disk.size()), disk.data()};
            w.Read(db);
            if (std::memcmp(disk.data(), cached.data(), disk.size()) != 0) {
                ok = false;
                out << CacheName() << " set " << c.set << " 0x" << std::hex << c.start << std::dec << " INCONSISTENT\n"
                    << " ERROR: cache != disk\nDISK COPY\n";
                hexDump(out, disk.data(), uint32_t(std::min<size_t>(disk.size(), 512)));
                out << "CACHE COPY\n";
                hexDump(out, cached.data(), uint32_t(std::min<size_t>(cached.size(), 512)));
            } else {
                out << CacheName() << " set " << c.set << " 0x" << std::hex << c.start << std::dec << " checked ok\n";
            }
        }
        UnlockRange(cto);
        tracker.commitIfDirty();
    }
    return ok;
}

StatusCode CacheRangeTracker::dumpSectors(std::ostream& out, uint32_t set, uint64_t start, uint32_t count) {
    IOTracker tracker(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    StatusCode st = LockAndLookupRange(set, start, count, cto, tracker);
    if (st != StatusCode::Success) {
        out << CacheName() << " dumpSectors: " << st << "\n";
        return st;
    }
    std::vector<unsigned char> buf(size_t(count) * GetElementSize());
    DataBuffer b{uint32_t(buf.size()), buf.data()};
    cto->mWindow.Read(b);
    UnlockRange(cto);
    hexDump(out, buf.data(), uint32_t(buf.size()));
    return StatusCode::Success;
}
