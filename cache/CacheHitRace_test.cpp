// Cache hits of many threads, which look ranges up without taking the tracker
// lock, racing everything that changes the sets under it: eviction under
// memory pressure, invalidation, rewrites, and the journal's commit (pin) and
// spill (unpin). Every hit must see the last write of its range, no hit may
// see a range that is being destroyed, and every pooled object must be back
// when the threads are gone.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

#include "cache/CacheTestSupport.h"

namespace {

using CRO = CacheRangeTracker::CacheRangeObject;

constexpr uint32_t kHitThreads = 4;
constexpr uint64_t kHotBase = 0, kHotStride = 16, kHotLen = 8;

struct Counts {
    size_t cros = ObjectPool<CRO>::allocated();
    size_t ctos = ObjectPool<CacheTrackerObject>::allocated();
    size_t stores = ObjectPool<DataStore>::allocated();
    size_t panes = ObjectPool<DataWindow::DataPane>::allocated();
};

// Each hit thread reads its own hot range over and over and checks it against
// the model, which writers change only while they hold the range.
void hitLoop(TestTracker& tracker, uint32_t tid, const std::vector<std::atomic<uint64_t>>& model,
             std::atomic<bool>& stop, std::atomic<uint32_t>& mismatches, std::atomic<uint32_t>& failures,
             std::atomic<uint64_t>& hits) {
    const uint64_t start = kHotBase + tid * kHotStride;
    while (!stop.load()) {
        IOTracker t(READ_ONLY);
        CacheTrackerObject* cto = nullptr;
        if (tracker.LockAndLookupRange(0, start, kHotLen, cto, t) != StatusCode::Success) {
            ++failures;
            continue;
        }
        std::vector<uint64_t> v = windowValues(cto);
        for (uint32_t i = 0; i < kHotLen; ++i)
            if (v[i] != model[start + i].load()) ++mismatches;
        tracker.UnlockRange(cto);
        ++hits;
        std::this_thread::yield();  // the changer needs the processors too (CI has two)
    }
}

// Rewrites the hot ranges one after another while it holds each.
void writeHot(TestTracker& tracker, std::vector<std::atomic<uint64_t>>& model, uint32_t round,
              std::atomic<uint32_t>& failures) {
    for (uint32_t tid = 0; tid < kHitThreads; ++tid) {
        const uint64_t start = kHotBase + tid * kHotStride;
        IOTracker w(READ_WRITE);
        CacheTrackerObject* cto = nullptr;
        if (tracker.LockAndLookupRange(0, start, kHotLen, cto, w) != StatusCode::Success) {
            ++failures;
            continue;
        }
        std::vector<uint64_t> v(kHotLen);
        for (uint32_t i = 0; i < kHotLen; ++i) v[i] = uint64_t(round) << 32 | uint64_t(tid) << 8 | i;
        writeWindowValues(cto, v);
        if (tracker.WriteRange(cto, w) != StatusCode::Success) ++failures;
        for (uint32_t i = 0; i < kHotLen; ++i) model[start + i] = v[i];
        tracker.UnlockRange(cto);
        if (w.commitIfDirty() != StatusCode::Success) ++failures;
    }
}

// Reads cold ranges far from the hot ones: the pool is small, so this evicts.
void press(TestTracker& tracker, std::mt19937& rng, std::atomic<uint32_t>& failures) {
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    if (tracker.LockAndLookupRange(0, 1000 + rng() % 4000, 1 + rng() % 4, cto, t) != StatusCode::Success)
        ++failures;
    else
        tracker.UnlockRange(cto);
}

// Runs the hit threads against `change(tracker, model, round, rng, failures)`
// for 100 rounds, then checks what every test of this file checks: no hit saw
// anything but the last write, the disk holds the last writes once the
// journal (if any) has spilled, and every pooled object is back.
template <class Change>
void raceHits(bool journalled, uint32_t seed, Change change) {
    ClockPump pump;
    Counts before;
    {
        TestTracker tracker(96);
        std::unique_ptr<JournalScope> journal;
        if (journalled) journal = std::make_unique<JournalScope>(tracker);
        std::vector<std::atomic<uint64_t>> model(kHotBase + kHitThreads * kHotStride);
        for (uint64_t e = 0; e < model.size(); ++e) model[e] = ModelDisk::initial(0, e);
        std::atomic<bool> stop{false};
        std::atomic<uint32_t> mismatches{0}, failures{0};
        std::atomic<uint64_t> hits{0};
        std::vector<std::thread> threads;
        for (uint32_t tid = 0; tid < kHitThreads; ++tid)
            threads.emplace_back([&, tid] { hitLoop(tracker, tid, model, stop, mismatches, failures, hits); });
        std::thread changer([&] {
            std::mt19937 rng(seed);
            for (uint32_t round = 1; round <= 100; ++round) change(tracker, model, round, rng, failures);
            stop = true;
        });
        changer.join();
        for (auto& th : threads) th.join();
        EXPECT_EQ(mismatches.load(), 0u) << "a hit saw data other than the last write";
        EXPECT_EQ(failures.load(), 0u);
        EXPECT_GT(hits.load(), 0u);
        EXPECT_GT(tracker.stats().evictions.load(), 0u) << "the pressure was meant to evict";
        if (journalled) tracker.spillAll();
        for (uint64_t e = 0; e < model.size(); ++e) EXPECT_EQ(tracker.disk.get(0, e), model[e].load());
        tracker.checkSetInvariants(0);
        tracker.Flush(0);
        EXPECT_EQ(tracker.pool().freeCount(), tracker.pool().numEntries());
    }
    Counts after;
    EXPECT_EQ(after.cros, before.cros);
    EXPECT_EQ(after.ctos, before.ctos) << "pooled objects kept by ended threads were lost";
    EXPECT_EQ(after.stores, before.stores);
    EXPECT_EQ(after.panes, before.panes);
}

using Model = std::vector<std::atomic<uint64_t>>;

TEST(CacheHitRace, HitsRacingEvictionInvalidationAndRewritesSeeTheLastWriteOnly) {
    raceHits(false, 7, [](TestTracker& tracker, Model& model, uint32_t round, std::mt19937& rng,
                          std::atomic<uint32_t>& failures) {
        writeHot(tracker, model, round, failures);
        for (int i = 0; i < 8; ++i) press(tracker, rng, failures);
        // Drop a hot range from the cache: the next hit reads it back from the disk.
        IOTracker inv(READ_WRITE);
        uint32_t victim = uint32_t(rng() % kHitThreads);
        if (tracker.InvalidateRange(0, kHotBase + victim * kHotStride + rng() % kHotLen, 2, inv) != StatusCode::Success)
            ++failures;
    });
}

TEST(CacheHitRace, HitsRacingJournalCommitsAndSpillsNeverLoseAPinnedRange) {
    raceHits(true, 11, [](TestTracker& tracker, Model& model, uint32_t round, std::mt19937& rng,
                          std::atomic<uint32_t>& failures) {
        // Committed, not yet spilled: only the cache (and the journal) hold it.
        writeHot(tracker, model, round, failures);
        for (int i = 0; i < 8; ++i) press(tracker, rng, failures);
        if (round % 3 == 0) tracker.spillAll();
    });
}

}  // namespace
