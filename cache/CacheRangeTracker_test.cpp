// The range cache's edge cases: what a lock creates, rounding, splitting and
// trimming, the age test, failed reads, eviction of dirty and pinned ranges,
// and that every object and block goes back where it came from.
#include <gtest/gtest.h>

#include <thread>

#include "cache/CacheTestSupport.h"
#include "util/Eventually.h"

namespace {

using CRO = CacheRangeTracker::CacheRangeObject;

struct Baseline {
    size_t cros = ObjectPool<CRO>::allocated();
    size_t ctos = ObjectPool<CacheTrackerObject>::allocated();
    size_t stores = ObjectPool<DataStore>::allocated();
    size_t panes = ObjectPool<DataWindow::DataPane>::allocated();
};

class CacheRangeTrackerTest : public ::testing::Test {
protected:
    void TearDown() override {
        tracker.Flush(0);
        // No leak: every CRO, CTO, store, pane and block has gone back.
        EXPECT_EQ(ObjectPool<CRO>::allocated(), base.cros);
        EXPECT_EQ(ObjectPool<CacheTrackerObject>::allocated(), base.ctos);
        EXPECT_EQ(ObjectPool<DataStore>::allocated(), base.stores);
        EXPECT_EQ(ObjectPool<DataWindow::DataPane>::allocated(), base.panes);
        EXPECT_EQ(tracker.pool().freeCount(), tracker.pool().numEntries());
        EXPECT_EQ(tracker.pool().lru().entries(), 0u);
    }

    // Lock, look up and unlock one range under its own transaction.
    std::vector<uint64_t> readRange(uint32_t set, uint64_t start, uint32_t len) {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        EXPECT_EQ(tracker.LockAndLookupRange(set, start, len, cto, t), StatusCode::Success);
        std::vector<uint64_t> v = windowValues(cto);
        tracker.UnlockRange(cto);
        return v;
    }
    void writeRange(uint32_t set, uint64_t start, std::vector<uint64_t> values) {
        IOTracker t(READ_WRITE);
        CacheTrackerObject* cto = nullptr;
        ASSERT_EQ(tracker.LockAndLookupRange(set, start, uint32_t(values.size()), cto, t), StatusCode::Success);
        writeWindowValues(cto, values);
        ASSERT_EQ(tracker.WriteRange(cto, t), StatusCode::Success);
        tracker.UnlockRange(cto);
        t.commitIfDirty();
    }
    std::vector<std::pair<uint64_t, uint32_t>> ranges(uint32_t set) {
        std::vector<std::pair<uint64_t, uint32_t>> out;
        for (auto& v : tracker.view(set)) out.push_back({v.start, v.length});
        return out;
    }
    using R = std::vector<std::pair<uint64_t, uint32_t>>;

    Baseline base;
    TestTracker tracker{64};
};

TEST_F(CacheRangeTrackerTest, LockOnEmptySetMakesExactlyTheRequestWhateverRoundTo) {
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockRange(3, 5, 3, cto, t, 8), StatusCode::Success);
    EXPECT_EQ(ranges(3), (R{{5, 3}}));
    EXPECT_EQ(cto->mWindow.paneCount(), 0u);
    tracker.UnlockRange(cto);
    // The storeless CRO held nothing: it went with the unlock.
    EXPECT_TRUE(ranges(3).empty());
    tracker.checkSetInvariants(3);
}

TEST_F(CacheRangeTrackerTest, GapBetweenTwoCachedRangesGetsItsOwnCroAndWindowWaitsForLookup) {
    readRange(0, 0, 4);
    readRange(0, 8, 4);
    uint64_t readsBefore = tracker.reads;
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockRange(0, 2, 8, cto, t), StatusCode::Success);
    EXPECT_EQ(ranges(0), (R{{0, 4}, {4, 4}, {8, 4}}));
    EXPECT_EQ(cto->mWindow.paneCount(), 0u);
    ASSERT_EQ(tracker.LookupRange(cto, t), StatusCode::Success);
    EXPECT_EQ(tracker.reads, readsBefore + 1);  // only the gap was read
    EXPECT_EQ(cto->mWindow.paneCount(), 3u);
    std::vector<uint64_t> want;
    for (uint64_t e = 2; e < 10; ++e) want.push_back(ModelDisk::initial(0, e));
    EXPECT_EQ(windowValues(cto), want);
    tracker.UnlockRange(cto);
    tracker.checkSetInvariants(0);
}

TEST_F(CacheRangeTrackerTest, FullyCachedRangeIsServedWithoutReadOnePanePerCroTrimmedAtBothEnds) {
    readRange(1, 0, 4);
    readRange(1, 4, 4);
    readRange(1, 8, 4);
    uint64_t readsBefore = tracker.reads;
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(1, 3, 6, cto, t), StatusCode::Success);
    EXPECT_EQ(tracker.reads, readsBefore);
    ASSERT_EQ(cto->mWindow.paneCount(), 3u);
    auto it = cto->mWindow.panes().begin();
    EXPECT_EQ(it->mPaneOffset, 3u * 512);
    EXPECT_EQ(it->mPaneLength, 1u * 512);
    ++it;
    EXPECT_EQ(it->mPaneLength, 4u * 512);
    ++it;
    EXPECT_EQ(it->mPaneOffset, 0u);
    EXPECT_EQ(it->mPaneLength, 1u * 512);
    tracker.UnlockRange(cto);
}

TEST_F(CacheRangeTrackerTest, RoundingStopsAtTheMultipleTheNextRangeOrTheChunk) {
    IOTracker t(READ_ONLY);
    auto lockRounded = [&](uint32_t set, uint64_t start, uint32_t len) {
        CacheTrackerObject* cto = nullptr;
        EXPECT_EQ(tracker.LockAndLookupRange(set, start, len, cto, t, 8), StatusCode::Success);
        tracker.UnlockRange(cto);
    };
    // A later range far away: the new range ends on the multiple of 8.
    readRange(0, 20, 4);
    lockRounded(0, 1, 2);
    EXPECT_EQ(ranges(0), (R{{1, 7}, {20, 4}}));
    // A later range nearer than the multiple: it ends there.
    readRange(1, 6, 4);
    lockRounded(1, 1, 2);
    EXPECT_EQ(ranges(1), (R{{1, 5}, {6, 4}}));
    // A gap at the end of a request that starts in a cached range.
    readRange(2, 0, 2);
    readRange(2, 40, 2);
    lockRounded(2, 0, 3);
    EXPECT_EQ(ranges(2), (R{{0, 2}, {2, 6}, {40, 2}}));
    // Never into the next chunk.
    CacheRangeTracker::setSectorsPerChunk(4);
    readRange(3, 20, 4);
    lockRounded(3, 1, 2);
    EXPECT_EQ(ranges(3), (R{{1, 3}, {20, 4}}));
    CacheRangeTracker::setSectorsPerChunk(0);
    for (uint32_t s = 0; s < 4; ++s) tracker.checkSetInvariants(s);
}

TEST_F(CacheRangeTrackerTest, InvalidateInsideOneRangeLeavesTwoRangesOnOneStore) {
    readRange(0, 0, 16);
    IOTracker t(READ_WRITE);
    ASSERT_EQ(tracker.InvalidateRange(0, 4, 4, t), StatusCode::Success);
    auto v = tracker.view(0);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0].start, 0u);
    EXPECT_EQ(v[0].length, 4u);
    EXPECT_EQ(v[1].start, 8u);
    EXPECT_EQ(v[1].length, 8u);
    EXPECT_EQ(v[0].store, v[1].store);
    EXPECT_EQ(v[0].store->refCount(), 2);
    EXPECT_EQ(v[0].store->lruCount(), 2);
    // Both halves still serve their own elements from the shared store.
    uint64_t readsBefore = tracker.reads;
    auto vals = readRange(0, 8, 8);
    EXPECT_EQ(vals[0], ModelDisk::initial(0, 8));
    EXPECT_EQ(vals[7], ModelDisk::initial(0, 15));
    EXPECT_EQ(tracker.reads, readsBefore);
    tracker.checkSetInvariants(0);
}

TEST_F(CacheRangeTrackerTest, InvalidateByAnOlderTransactionLeavesANewerRangeWhole) {
    IOTracker older(READ_WRITE);
    readRange(0, 0, 8);  // created by a newer transaction
    ASSERT_EQ(tracker.InvalidateRange(0, 2, 2, older), StatusCode::Success);
    EXPECT_EQ(ranges(0), (R{{0, 8}}));
    IOTracker newer(READ_WRITE);
    ASSERT_EQ(tracker.InvalidateRange(0, 2, 2, newer), StatusCode::Success);
    EXPECT_EQ(ranges(0), (R{{0, 2}, {4, 4}}));
}

TEST_F(CacheRangeTrackerTest, AddRangeOverThreeRangesLeavesOneRangeAndTrimmedNeighbours) {
    readRange(0, 0, 4);
    readRange(0, 4, 4);
    readRange(0, 8, 4);
    IOTracker t(READ_WRITE);
    DataStore* store = tracker.pool().GetBlocks(8);
    DataWindow w(*store, 0, 8 * 512);
    w.ZeroInit();
    ASSERT_EQ(tracker.AddRange(0, 2, 8, store, t), StatusCode::Success);
    EXPECT_EQ(ranges(0), (R{{0, 2}, {2, 8}, {10, 2}}));
    auto vals = readRange(0, 0, 12);
    EXPECT_EQ(vals[1], ModelDisk::initial(0, 1));
    EXPECT_EQ(vals[2], 0u);
    EXPECT_EQ(vals[9], 0u);
    EXPECT_EQ(vals[10], ModelDisk::initial(0, 10));
    tracker.checkSetInvariants(0);
}

TEST_F(CacheRangeTrackerTest, TwoThreadsWaitingForOneBusyRangeBothGoOnOnceItIsFree) {
    // A host write adding a range and a finished write-back removing the same
    // range both find it locked by the write-back in progress. Once it is
    // unlocked each must go on after a wait or two, not hand the range's lock
    // to the other and back for as long as both keep trying.
    readRange(0, 0, 8);
    IOTracker owner(READ_ONLY);
    CacheTrackerObject* held = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 0, 8, held, owner), StatusCode::Success);
    const uint64_t before = tracker.stats().backoffs;
    std::thread remover([&] {
        IOTracker t(READ_ONLY);
        EXPECT_EQ(tracker.InvalidateRange(0, 0, 8, t), StatusCode::Success);
    });
    std::thread adder([&] {
        IOTracker t(READ_WRITE);
        DataStore* store = tracker.pool().GetBlocks(8);
        DataWindow w(*store, 0, 8 * 512);
        w.ZeroInit();
        EXPECT_EQ(tracker.AddRange(0, 0, 8, store, t), StatusCode::Success);
    });
    ASSERT_TRUE(eventually([&] { return tracker.stats().backoffs >= before + 2; }));
    tracker.UnlockRange(held);
    remover.join();
    adder.join();
    EXPECT_LT(tracker.stats().backoffs - before, 40u);
    tracker.checkSetInvariants(0);
}

TEST_F(CacheRangeTrackerTest, FailedReadReturnsAfterUnlockAndLeavesNoStorelessRange) {
    tracker.failReads = true;
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    EXPECT_EQ(tracker.LockAndLookupRange(0, 10, 4, cto, t), StatusCode::ReadError);
    EXPECT_EQ(cto, nullptr);
    EXPECT_TRUE(ranges(0).empty());
    // LookupRange alone leaves the CTO locked for the caller to unlock.
    ASSERT_EQ(tracker.LockRange(0, 10, 4, cto, t), StatusCode::Success);
    EXPECT_EQ(tracker.LookupRange(cto, t), StatusCode::ReadError);
    EXPECT_EQ(ranges(0), (R{{10, 4}}));
    tracker.UnlockRange(cto);
    EXPECT_TRUE(ranges(0).empty());
    tracker.failReads = false;
    EXPECT_EQ(readRange(0, 10, 1)[0], ModelDisk::initial(0, 10));
}

TEST_F(CacheRangeTrackerTest, BadRequestsAreRefusedWithTheirStatus) {
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    EXPECT_EQ(tracker.LockRange(0, 0, 0, cto, t), StatusCode::CACHE_InvalidLength);
    EXPECT_EQ(tracker.LockRange(0, ~uint64_t(0) - 1, 4, cto, t), StatusCode::CACHE_InvalidRange);
    EXPECT_EQ(tracker.LockRange(0, 0, 0x80000001u, cto, t), StatusCode::CACHE_InvalidRange);
    EXPECT_EQ(tracker.InvalidateRange(0, 0, 0, t), StatusCode::CACHE_InvalidLength);
    EXPECT_EQ(tracker.AddRange(0, 0, 0, nullptr, t), StatusCode::CACHE_InvalidLength);
    // A set number has no bound in the base class.
    EXPECT_EQ(readRange(1000, 0, 1)[0], ModelDisk::initial(1000, 0));
}

TEST_F(CacheRangeTrackerTest, WriteBackReachesTheDiskAndAFailedOneDropsTheRange) {
    writeRange(0, 0, {11, 12, 13, 14});
    EXPECT_EQ(tracker.disk.get(0, 2), 13u);
    EXPECT_EQ(readRange(0, 0, 4), (std::vector<uint64_t>{11, 12, 13, 14}));
    // A write-back that fails must not leave its bytes to be served later.
    struct Failing : TestTracker {
        Failing() : TestTracker(16, "lFAILLock") {}
        StatusCode WriteBackRange(uint32_t, uint64_t, uint32_t, CacheTrackerObject*, IOTracker&) override {
            return StatusCode::WriteError;
        }
    } failing;
    IOTracker t(READ_WRITE);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(failing.LockAndLookupRange(0, 0, 2, cto, t), StatusCode::Success);
    writeWindowValues(cto, {99, 98});
    EXPECT_EQ(failing.WriteRange(cto, t), StatusCode::WriteError);
    failing.UnlockRange(cto);
    EXPECT_TRUE(failing.view(0).empty());
    IOTracker r(READ_ONLY);
    ASSERT_EQ(failing.LockAndLookupRange(0, 0, 2, cto, r), StatusCode::Success);
    EXPECT_EQ(windowValues(cto), (std::vector<uint64_t>{ModelDisk::initial(0, 0), ModelDisk::initial(0, 1)}));
    failing.UnlockRange(cto);
}

TEST_F(CacheRangeTrackerTest, EvictionSkipsDirtyAndPinnedRangesAndGivesUpAfterOneRound) {
    JournalScope journal(tracker);
    // Range A dirty (uncommitted), range B committed and pinned.
    IOTracker a(READ_WRITE), b(READ_WRITE);
    CacheTrackerObject* ctoA = nullptr;
    CacheTrackerObject* ctoB = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 0, 2, ctoA, a), StatusCode::Success);
    ASSERT_EQ(tracker.WriteRange(ctoA, a), StatusCode::Success);
    tracker.UnlockRange(ctoA);
    ASSERT_EQ(tracker.LockAndLookupRange(0, 10, 2, ctoB, b), StatusCode::Success);
    ASSERT_EQ(tracker.WriteRange(ctoB, b), StatusCode::Success);
    tracker.UnlockRange(ctoB);
    ASSERT_EQ(b.commit(), StatusCode::Success);
    EXPECT_EQ(tracker.pool().lru().FreeLeastRecentlyUsed(1, false), StatusCode::MP_NoFreeEntriesOnLRU);
    EXPECT_EQ(ranges(0), (R{{0, 2}, {10, 2}}));
    EXPECT_EQ(tracker.pool().lru().entries(), 2u);
    ASSERT_EQ(a.commit(), StatusCode::Success);
    EXPECT_EQ(tracker.spillAll(), 2u);
    EXPECT_EQ(tracker.pool().lru().FreeLeastRecentlyUsed(4, false), StatusCode::Success);
    EXPECT_TRUE(ranges(0).empty());
}

TEST_F(CacheRangeTrackerTest, CtoWithTwoEvictionLocksLivesUntilTheSecondAllowEviction) {
    IOTracker t(READ_WRITE);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 0, 4, cto, t), StatusCode::Success);
    cto->MarkRangeDirty();
    tracker.UnlockRange(cto);  // a dirty CTO outlives the unlock
    cto->PreventEviction();
    cto->PreventEviction();
    cto->MarkRangeClean();
    t.commit();
    size_t ctos = ObjectPool<CacheTrackerObject>::allocated();
    EXPECT_FALSE(cto->AllEvictable());
    cto->AllowEviction();
    EXPECT_EQ(ObjectPool<CacheTrackerObject>::allocated(), ctos);
    EXPECT_EQ(cto->mEvictionLocks, 1u);
    cto->AllowEviction();
    EXPECT_EQ(ObjectPool<CacheTrackerObject>::allocated(), ctos - 1);
}

TEST_F(CacheRangeTrackerTest, SameTransactionRelocksItsOwnDirtyRangeAtOnce) {
    IOTracker t(READ_WRITE);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 0, 4, cto, t), StatusCode::Success);
    cto->MarkRangeDirty();
    tracker.UnlockRange(cto);
    uint64_t backoffs = tracker.stats().backoffs;
    CacheTrackerObject* again = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 1, 2, again, t), StatusCode::Success);
    EXPECT_EQ(tracker.stats().backoffs, backoffs);
    tracker.UnlockRange(again);
    // The clean second visit did not end the transaction's hold on its dirty range.
    std::atomic<bool> otherDone{false};
    std::thread other([&] {
        IOTracker o(READ_ONLY);
        CacheTrackerObject* c = nullptr;
        ASSERT_EQ(tracker.LockRange(0, 0, 1, c, o), StatusCode::Success);
        tracker.UnlockRange(c);
        otherDone = true;
    });
    ASSERT_TRUE(eventually([&] { return tracker.stats().backoffs > backoffs; }));
    EXPECT_FALSE(otherDone.load());
    cto->PreventEviction();
    cto->MarkRangeClean();
    t.commit();
    other.join();
    EXPECT_TRUE(otherDone.load());
    cto->AllowEviction();
}

TEST_F(CacheRangeTrackerTest, ClearSetAndFlushDropEverythingButWaitForLockedRanges) {
    ClockPump pump;  // ClearSet rests one tick after every 20 ranges
    for (uint32_t i = 0; i < 50; ++i) readRange(0, i * 2, 1);
    readRange(1, 0, 4);
    IOTracker t(READ_ONLY);
    CacheTrackerObject* held = nullptr;
    ASSERT_EQ(tracker.LockAndLookupRange(0, 200, 1, held, t), StatusCode::Success);
    std::atomic<bool> cleared{false};
    std::thread clearer([&] {
        tracker.ClearSet(0);
        cleared = true;
    });
    ASSERT_TRUE(eventually([&] { return tracker.croCount(0) == 1; }));
    EXPECT_FALSE(cleared.load());
    tracker.UnlockRange(held);
    clearer.join();
    EXPECT_EQ(tracker.croCount(0), 0u);
    EXPECT_EQ(tracker.croCount(1), 1u);
    tracker.Flush(0);
    EXPECT_EQ(tracker.setCount(), 0u);
}

TEST_F(CacheRangeTrackerTest, ObjectPoolExhaustionFallsBackToTheHeapAndCountsIt) {
    ObjectPool<CRO>::Initialize(ObjectPool<CRO>::allocated() + 4);
    size_t heapBefore = ObjectPool<CRO>::allocFromHeap();
    for (uint32_t i = 0; i < 12; ++i) readRange(0, i * 4, 2);
    EXPECT_GE(ObjectPool<CRO>::allocFromHeap(), heapBefore + 8);
    std::ostringstream os;
    ObjectPool<CRO>::DumpPoolInfo(os);
    EXPECT_NE(os.str().find("Allocated from the heap: "), std::string::npos);
}

TEST_F(CacheRangeTrackerTest, DumpsCarryTheirLabels) {
    readRange(0, 0, 4);
    std::ostringstream os;
    tracker.Dump(os, true);
    tracker.PerfInfo(os);
    tracker.internalConsistencyCheck(os);
    std::string s = os.str();
    for (const char* label : {" CACHE RANGE TRACKER'S STATE", "current IOTracker = ", " entries on LRU: ",
                              "Number of sets = ", "Set# ", "LRU entries found: ", "Cache Lookup timings:",
                              "Cache Invalidate timings:", "checked ok"})
        EXPECT_NE(s.find(label), std::string::npos) << label;
}

TEST_F(CacheRangeTrackerTest, ConsistencyCheckFindsACacheThatDiffersFromTheDisk) {
    readRange(0, 0, 2);
    tracker.disk.put(0, 1, 12345);  // changed behind the cache's back
    std::ostringstream os;
    EXPECT_FALSE(tracker.internalConsistencyCheck(os));
    EXPECT_NE(os.str().find(" ERROR: cache != disk"), std::string::npos);
    EXPECT_NE(os.str().find("DISK COPY"), std::string::npos);
}

}  // namespace
