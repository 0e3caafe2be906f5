// The range cache under threads: a randomised workload checked against a
// model, overlapping ranges serialising while disjoint ones proceed, the
// journal's pin-until-commit protocol, eviction under memory pressure, and the
// spill request that keeps pinned metadata from starving a pool.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <thread>

#include "cache/CacheDiagnostics.h"
#include "cache/CacheTestSupport.h"
#include "util/Eventually.h"

namespace {

using CRO = CacheRangeTracker::CacheRangeObject;

TEST(CacheConcurrency, RandomOverlappingWorkloadMatchesTheModelAndNeverOverlapsHolders) {
    ClockPump pump;
    // The pool is larger than all threads can hold locked at once (a lock of 16
    // elements can hold up to about 60 one-block ranges), and far smaller than
    // the address space, so eviction runs all the time.
    constexpr uint32_t kElements = 2048, kThreads = 8, kOps = 800, kMaxLen = 16;
    size_t crosBefore = ObjectPool<CRO>::allocated();
    size_t ctosBefore = ObjectPool<CacheTrackerObject>::allocated();
    size_t storesBefore = ObjectPool<DataStore>::allocated();
    {
        TestTracker tracker(700);
        std::vector<std::atomic<uint64_t>> model(kElements);
        std::vector<std::atomic<uint32_t>> holder(kElements);
        for (uint32_t e = 0; e < kElements; ++e) model[e] = ModelDisk::initial(0, e);
        std::atomic<uint32_t> overlaps{0}, mismatches{0}, failures{0};
        std::vector<std::thread> threads;
        for (uint32_t tid = 0; tid < kThreads; ++tid) {
            threads.emplace_back([&, tid] {
                std::mt19937 rng(1234 + tid);
                for (uint32_t op = 0; op < kOps; ++op) {
                    uint32_t len = 1 + rng() % kMaxLen;
                    uint64_t start = rng() % (kElements - len);
                    uint32_t roundTo = (rng() % 4 == 0) ? 8 : 0;
                    IOTracker t(READ_WRITE);
                    CacheTrackerObject* cto = nullptr;
                    if (tracker.LockAndLookupRange(0, start, len, cto, t, roundTo) != StatusCode::Success) {
                        ++failures;
                        continue;
                    }
                    for (uint64_t e = start; e < start + len; ++e) {
                        uint32_t free = 0;
                        if (!holder[e].compare_exchange_strong(free, tid + 1)) ++overlaps;
                    }
                    std::vector<uint64_t> values = windowValues(cto);
                    for (uint32_t i = 0; i < len; ++i)
                        if (values[i] != model[start + i].load()) ++mismatches;
                    if (rng() % 2) {
                        for (uint32_t i = 0; i < len; ++i) values[i] = uint64_t(tid + 1) << 48 | uint64_t(op) << 8 | i;
                        writeWindowValues(cto, values);
                        for (uint32_t i = 0; i < len; ++i) model[start + i] = values[i];
                        if (tracker.WriteRange(cto, t) != StatusCode::Success) ++failures;
                    }
                    for (uint64_t e = start; e < start + len; ++e) holder[e] = 0;
                    tracker.UnlockRange(cto);
                    t.commitIfDirty();
                }
            });
        }
        for (auto& th : threads) th.join();
        EXPECT_EQ(overlaps.load(), 0u) << "two transactions held one element at once";
        EXPECT_EQ(mismatches.load(), 0u) << "a read did not return the last write";
        EXPECT_EQ(failures.load(), 0u);
        EXPECT_GT(tracker.stats().evictions.load(), 0u) << "the workload was meant to press the pool";
        // Through the cache and on the disk, everything is the last write.
        for (uint32_t e = 0; e < kElements; e += 64) {
            IOTracker t(READ_ONLY);
            CacheTrackerObject* cto = nullptr;
            ASSERT_EQ(tracker.LockAndLookupRange(0, e, 64, cto, t), StatusCode::Success);
            std::vector<uint64_t> v = windowValues(cto);
            for (uint32_t i = 0; i < 64; ++i) {
                EXPECT_EQ(v[i], model[e + i].load());
                EXPECT_EQ(tracker.disk.get(0, e + i), model[e + i].load());
            }
            tracker.UnlockRange(cto);
        }
        tracker.checkSetInvariants(0);
        tracker.Flush(0);
        EXPECT_EQ(tracker.pool().freeCount(), tracker.pool().numEntries());
    }
    EXPECT_EQ(ObjectPool<CRO>::allocated(), crosBefore);
    EXPECT_EQ(ObjectPool<CacheTrackerObject>::allocated(), ctosBefore);
    EXPECT_EQ(ObjectPool<DataStore>::allocated(), storesBefore);
}

TEST(CacheConcurrency, OverlappingRangesWaitDisjointOnesProceedAndTheWaiterRetriesFromNothing) {
    TestTracker tracker(64);
    IOTracker holderTx(READ_WRITE);
    CacheTrackerObject* held = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 0, 8, held, holderTx), StatusCode::Success);
    writeWindowValues(held, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_EQ(tracker.WriteRange(held, holderTx), StatusCode::Success);

    std::atomic<bool> overlapDone{false};
    std::vector<uint64_t> seen;
    uint64_t backoffs = tracker.stats().backoffs;
    std::thread overlapping([&] {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(0, 4, 8, cto, t), StatusCode::Success);
        seen = windowValues(cto);
        tracker.UnlockRange(cto);
        overlapDone = true;
    });
    ASSERT_TRUE(eventually([&] { return tracker.stats().backoffs > backoffs; }));
    // A dump shows what the waiting thread is doing in the cache.
    std::ostringstream diags;
    CacheManagerDiagnosticsHandler().run(diags);
    EXPECT_NE(diags.str().find("Base LockAndLookupRange set 0 start 0x4 length 8"), std::string::npos) << diags.str();
    // The waiter sleeps on the range lock, not on the tracker's lock: a
    // disjoint range goes through meanwhile.
    std::atomic<bool> disjointDone{false};
    std::thread disjoint([&] {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(0, 16, 8, cto, t), StatusCode::Success);
        tracker.UnlockRange(cto);
        disjointDone = true;
    });
    EXPECT_TRUE(eventually([&] { return disjointDone.load(); }));
    EXPECT_FALSE(overlapDone.load());
    tracker.UnlockRange(held);
    holderTx.commitIfDirty();
    overlapping.join();
    disjoint.join();
    EXPECT_EQ(seen, (std::vector<uint64_t>{5, 6, 7, 8, ModelDisk::initial(0, 8), ModelDisk::initial(0, 9),
                                           ModelDisk::initial(0, 10), ModelDisk::initial(0, 11)}));
    tracker.checkSetInvariants(0);
}

// Presses the pool with clean one-element ranges far from the range under test.
void pressure(TestTracker& tracker, uint32_t count, uint64_t base = 1000) {
    for (uint32_t i = 0; i < count; ++i) {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(0, base + i * 2, 1, cto, t), StatusCode::Success);
        tracker.UnlockRange(cto);
    }
}

bool cached(TestTracker& tracker, uint64_t start) {
    for (auto& v : tracker.view(0))
        if (v.start <= start && start < v.start + v.length && v.hasStore) return true;
    return false;
}

TEST(CacheConcurrency, DirtyRangeStaysPinnedUntilCommitAndReachesTheDiskOnlyAfterIt) {
    TestTracker tracker(16);
    JournalScope journal(tracker);
    IOTracker writer(READ_WRITE);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 10, 4, cto, writer), StatusCode::Success);
    writeWindowValues(cto, {41, 42, 43, 44});
    ASSERT_EQ(tracker.WriteRange(cto, writer), StatusCode::Success);
    tracker.UnlockRange(cto);
    uint64_t diskWrites = tracker.disk.writes();

    // Uncommitted: other transactions wait, eviction never takes it, the disk has nothing.
    std::atomic<bool> readerDone{false};
    std::vector<uint64_t> readerSaw;
    uint64_t backoffs = tracker.stats().backoffs;
    std::thread reader([&] {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* r = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(0, 12, 2, r, t), StatusCode::Success);
        readerSaw = windowValues(r);
        tracker.UnlockRange(r);
        readerDone = true;
    });
    ASSERT_TRUE(eventually([&] { return tracker.stats().backoffs > backoffs; }));
    pressure(tracker, 40);
    EXPECT_GT(tracker.stats().evictions.load(), 0u);
    EXPECT_TRUE(cached(tracker, 10));
    EXPECT_EQ(tracker.disk.writes(), diskWrites);
    EXPECT_EQ(tracker.disk.get(0, 10), ModelDisk::initial(0, 10));
    EXPECT_FALSE(readerDone.load());

    // Committed: readers get in and see it; still pinned; still not on disk.
    ASSERT_EQ(writer.commit(), StatusCode::Success);
    reader.join();
    EXPECT_EQ(readerSaw, (std::vector<uint64_t>{43, 44}));
    pressure(tracker, 40, 2000);
    EXPECT_TRUE(cached(tracker, 10));
    EXPECT_EQ(tracker.disk.get(0, 10), ModelDisk::initial(0, 10));

    // Spilled: on disk, and evictable like any clean range.
    EXPECT_EQ(tracker.spillAll(), 1u);
    EXPECT_EQ(tracker.disk.get(0, 13), 44u);
    pressure(tracker, 40, 3000);
    EXPECT_FALSE(cached(tracker, 10));
    IOTracker t(READ_ONLY);
    ASSERT_EQ(tracker.LockAndLookupRange(0, 10, 4, cto, t), StatusCode::Success);
    EXPECT_EQ(windowValues(cto), (std::vector<uint64_t>{41, 42, 43, 44}));
    tracker.UnlockRange(cto);
}

TEST(CacheConcurrency, PoolFullOfPinnedRangesAsksForASpillInsteadOfWaiting) {
    TestTracker tracker(8);
    JournalScope journal(tracker);
    // Four committed, unspilled ranges of two blocks pin the whole pool.
    for (uint64_t s = 0; s < 4; ++s) {
        IOTracker w(READ_WRITE);
        CacheTrackerObject* cto = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(0, s * 10, 2, cto, w), StatusCode::Success);
        ASSERT_EQ(tracker.WriteRange(cto, w), StatusCode::Success);
        tracker.UnlockRange(cto);
        ASSERT_EQ(w.commit(), StatusCode::Success);
    }
    EXPECT_EQ(tracker.pool().freeCount(), 0u);
    static TestTracker* sTracker;
    sTracker = &tracker;
    MemoryPool::setSpillRequest([](MemoryPool&, uint32_t) { sTracker->spillAll(); });
    // Without the spill this lookup would wait on the clock, which does not move here.
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    EXPECT_EQ(tracker.LockAndLookupRange(0, 100, 2, cto, t), StatusCode::Success);
    tracker.UnlockRange(cto);
    MemoryPool::setSpillRequest(nullptr);
    EXPECT_GE(tracker.pool().spillRequests(), 1u);
    EXPECT_EQ(tracker.disk.get(0, 0), ModelDisk::initial(0, 0));  // spilled what the journal held
}

TEST(CacheConcurrency, ManyThreadsOnDisjointSetsNeverWaitForEachOther) {
    ClockPump pump;
    TestTracker tracker(256);
    std::vector<std::thread> threads;
    std::atomic<uint32_t> bad{0};
    for (uint32_t set = 0; set < 6; ++set)
        threads.emplace_back([&, set] {
            for (uint32_t i = 0; i < 300; ++i) {
                IOTracker t(READ_WRITE);
                CacheTrackerObject* cto = nullptr;
                if (tracker.LockAndLookupRange(set, i % 50, 4, cto, t) != StatusCode::Success) {
                    ++bad;
                    continue;
                }
                std::vector<uint64_t> v = windowValues(cto);
                for (uint32_t k = 0; k < 4; ++k) v[k] += 1;
                writeWindowValues(cto, v);
                if (tracker.WriteRange(cto, t) != StatusCode::Success) ++bad;
                tracker.UnlockRange(cto);
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(bad.load(), 0u);
    EXPECT_EQ(tracker.stats().backoffs.load(), 0u) << "different sets share no range lock";
    // Each element was incremented once per op that covered it.
    for (uint32_t set = 0; set < 6; ++set) {
        uint32_t covered = 0;
        for (uint32_t i = 0; i < 300; ++i)
            if (i % 50 <= 25 && 25 < i % 50 + 4) ++covered;
        EXPECT_EQ(tracker.disk.get(set, 25), ModelDisk::initial(set, 25) + covered);
    }
}

}  // namespace
