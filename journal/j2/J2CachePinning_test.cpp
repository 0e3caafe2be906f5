// The "dlbat" cache over a real journal: metadata written through the cache
// and committed stays pinned in the cache until its journalette is spilled,
// so that no eviction reads the disk's older copy back; after the spill the
// range is an ordinary clean range; and a pool whose blocks are all pinned
// asks the journal for a spill and gets going again once the spill runs.
#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>

#include "cache/CacheTrackerObject.h"
#include "cache/DiskLBAMetaDataTracker.h"
#include "journal/j2/J2TestHarness.h"

namespace {

// "rJ2Flush" held by a thread of its own, as the relayout engine holds it
// while it moves a chunk: no spill runs, and the committers go on (they take
// the journal's other locks, which come before it).
class HeldFlush {
public:
    explicit HeldFlush(J2Manager& j2) : mThread([this, &j2] {
        J2Manager::FlushHold hold(j2);
        mHeld = true;
        while (!mRelease.load()) std::this_thread::yield();
    }) {
        while (!mHeld.load()) std::this_thread::yield();
    }
    ~HeldFlush() {
        mRelease = true;
        mThread.join();
    }

private:
    std::atomic<bool> mHeld{false}, mRelease{false};
    std::thread mThread;
};

class J2CachePinningTest : public J2Harness {
protected:
    void SetUp() override {
        J2Harness::SetUp();
        std::memset(partition(), 0, j2::kPartitionSize);
        dlbat()->Flush(0);
    }
    void TearDown() override {
        if (j2) j2->forceFlush(false);  // lets every pin go, so the pool is whole for the next test
        J2Manager::removeTrackerHooks();
        J2Manager::setStandIn(nullptr);
        dlbat()->Flush(0);
        J2Harness::TearDown();
    }
    // A journal with its threads, taking the disk layer's metadata writes.
    void startJournal(const std::vector<std::string>& disks) {
        loadDisks(disks);
        bootAndLoad(true);
        J2Manager::setStandIn(j2.get());
        j2->installTrackerHooks();
    }
    static DiskLBAMetaDataTracker* dlbat() { return DiskLBAMetaDataTracker::GetInstance(); }
    static std::vector<uint8_t> sectors(uint32_t n, uint32_t gen, uint32_t lba, int slot = 0) {
        std::vector<uint8_t> v(size_t(n) * kSectorSize);
        for (uint32_t s = 0; s < n; ++s) pattern(v.data() + s * kSectorSize, slot, lba + s, gen);
        return v;
    }
    // Reads through the cache far away from the ranges under test, more than
    // the whole pool holds, so that eviction must run.
    void pressPool(uint32_t slot, uint32_t base) {
        std::vector<uint8_t> buf(64 * kSectorSize);
        const uint32_t rounds = DiskLBAMetaDataTracker::kPoolBlocks / 64 + 8;
        for (uint32_t i = 0; i < rounds; ++i) {
            IOTracker r(READ_ONLY);
            ASSERT_EQ(dlbat()->ReadThroughCache(buf.data(), 64, slot, base + i * 64, r), StatusCode::Success);
        }
    }
    bool cached(uint32_t slot, uint64_t lba) {
        for (auto& v : dlbat()->view(slot))
            if (v.start <= lba && lba < v.start + v.length && v.hasStore) return true;
        return false;
    }
    std::vector<uint8_t> readThrough(uint32_t slot, uint32_t lba, uint32_t n) {
        std::vector<uint8_t> back(size_t(n) * kSectorSize);
        IOTracker r(READ_ONLY);
        EXPECT_EQ(dlbat()->ReadThroughCache(back.data(), n, slot, lba, r), StatusCode::Success);
        return back;
    }
};

TEST_F(J2CachePinningTest, ACommittedRangeIsServedFromTheCacheUntilSpilledThenFromTheDisk) {
    startJournal({"16M"});
    writeDisk(0, 100, 8, 1);
    ASSERT_EQ(readThrough(0, 100, 8), sectors(8, 1, 100));  // cached, clean
    {
        HeldFlush hold(*j2);  // neither the timer nor a pressure request may spill
        auto newer = sectors(8, 2, 100);
        IOTracker w(READ_WRITE);
        ASSERT_EQ(dlbat()->WriteThroughCache(newer.data(), 8, 0, 100, false, w), StatusCode::Success);
        ASSERT_EQ(w.commit(), StatusCode::Success);
        EXPECT_FALSE(j2->journalsClean());
        EXPECT_EQ(generationOf(0, 100, 8), 1) << "the journal holds the change, the disk does not";

        uint64_t evictions = dlbat()->stats().evictions;
        pressPool(0, 4096);
        EXPECT_GT(dlbat()->stats().evictions.load(), evictions);
        EXPECT_TRUE(cached(0, 100)) << "a committed, unspilled range was evicted";
        uint64_t reads = dlbat()->stats().reads;
        EXPECT_EQ(readThrough(0, 100, 8), newer);
        EXPECT_EQ(dlbat()->stats().reads.load(), reads) << "served from the cache, not the disk";
        std::ostringstream check;
        dlbat()->internalConsistencyCheck(check);
        EXPECT_NE(check.str().find("pinned by the journal"), std::string::npos) << check.str();
        EXPECT_EQ(check.str().find("INCONSISTENT"), std::string::npos) << check.str();
    }
    j2->forceFlush(false);
    EXPECT_TRUE(j2->journalsClean());
    EXPECT_EQ(generationOf(0, 100, 8), 2);
    // Spilled: evictable like any clean range, and read back from the disk the same.
    pressPool(0, 4096);
    EXPECT_FALSE(cached(0, 100));
    uint64_t reads = dlbat()->stats().reads;
    EXPECT_EQ(readThrough(0, 100, 8), sectors(8, 2, 100));
    EXPECT_GT(dlbat()->stats().reads.load(), reads);
}

TEST_F(J2CachePinningTest, ACallerThatCommitsBeforeUnlockingKeepsItsRangePinnedToo) {
    startJournal({"16M"});
    auto hold = std::make_unique<HeldFlush>(*j2);
    auto data = sectors(4, 3, 40);
    IOTracker w(READ_WRITE);
    CacheTrackerObject* cto = nullptr;
    ASSERT_EQ(dlbat()->LockAndLookupRangeNoRead(0, 40, 4, cto, w), StatusCode::Success);
    DataBuffer b{uint32_t(data.size()), data.data()};
    cto->mWindow.Write(b);
    ASSERT_EQ(dlbat()->WriteRange(cto, w), StatusCode::Success);
    ASSERT_EQ(w.commit(), StatusCode::Success);
    dlbat()->UnlockRange(cto);  // the journal still holds the CTO: it must survive this
    pressPool(0, 8192);
    EXPECT_TRUE(cached(0, 40));
    EXPECT_EQ(readThrough(0, 40, 4), data);
    EXPECT_EQ(generationOf(0, 40, 4), -1) << "nothing of it reached the disk yet";
    hold.reset();
    j2->forceFlush(false);  // the last AllowEviction frees the CTO
    EXPECT_EQ(generationOf(0, 40, 4), 3);
    pressPool(0, 8192);
    EXPECT_FALSE(cached(0, 40));
}

// A set over two disks whose second disk goes between the write and the
// commit is refused whole: the first disk's range must not keep serving the
// refused data (it never became durable) nor stay dirty, unevictable, forever.
TEST_F(J2CachePinningTest, ASetRefusedAtCommitLeavesNeitherItsDataNorADirtyRangeInTheCache) {
    startJournal({"16M", "16M"});
    for (uint32_t d = 0; d < 2; ++d) {
        writeDisk(int(d), 100, 8, 1);
        ASSERT_EQ(readThrough(d, 100, 8), sectors(8, 1, 100, int(d)));
    }
    const size_t ctosBefore = ObjectPool<CacheTrackerObject>::allocated();
    {
        IOTracker w(READ_WRITE);
        for (uint32_t d = 0; d < 2; ++d) {
            auto newer = sectors(8, 2, 100, int(d));
            ASSERT_EQ(dlbat()->WriteThroughCache(newer.data(), 8, d, 100, false, w), StatusCode::Success);
        }
        j2->hotPlug(1, hotRemove);
        EXPECT_EQ(w.commit(), StatusCode::DiskNotPresent);
    }
    EXPECT_EQ(ObjectPool<CacheTrackerObject>::allocated(), ctosBefore) << "the refused set's cache objects leaked";
    EXPECT_EQ(readThrough(0, 100, 8), sectors(8, 1, 100, 0)) << "the cache served data of a refused set";
    j2->forceFlush(false);
    EXPECT_EQ(generationOf(0, 100, 8), 1);
    std::ostringstream check;
    EXPECT_TRUE(dlbat()->internalConsistencyCheck(check)) << check.str();
    pressPool(0, 4096);
    EXPECT_FALSE(cached(0, 100)) << "the refused range stayed dirty and could not be evicted";
}

TEST_F(J2CachePinningTest, APoolFullOfPinnedRangesAsksForASpillAndMovesOnOnceItRuns) {
    // Four disks, so that the journal holds more than the whole pool.
    startJournal({"16M", "16M", "16M", "16M"});
    const uint32_t perSet = 50, perDisk = DiskLBAMetaDataTracker::kPoolBlocks / perSet / 4;
    std::atomic<bool> done{false};
    std::thread reader;
    {
        HeldFlush hold(*j2);
        for (uint32_t d = 0; d < 4; ++d)
            for (uint32_t i = 0; i < perDisk; ++i) {
                auto data = sectors(perSet, 4, 1000 + i * perSet, int(d));
                IOTracker w(READ_WRITE);
                ASSERT_EQ(dlbat()->WriteThroughCache(data.data(), perSet, d, 1000 + i * perSet, true, w),
                          StatusCode::Success);
                ASSERT_EQ(w.commit(), StatusCode::Success);
            }
        ASSERT_EQ(dlbat()->pool().freeCount(), 0u);
        uint64_t requests = dlbat()->pool().spillRequests();
        reader = std::thread([&] {
            std::vector<uint8_t> buf(8 * kSectorSize);
            IOTracker r(READ_ONLY);
            EXPECT_EQ(dlbat()->ReadThroughCache(buf.data(), 8, 0, 20000, r), StatusCode::Success);
            done = true;
        });
        // The reader asks, the held flush refuses; it waits a tick and asks again.
        pumpUntil([&] { return dlbat()->pool().spillRequests() > requests + 2; }, 1);
        EXPECT_FALSE(done.load());
    }
    pumpUntil([&] { return done.load(); }, 1);
    reader.join();
    // The spill put every pinned set on its disk before it let the ranges go.
    for (uint32_t d = 0; d < 4; ++d) EXPECT_EQ(generationOf(int(d), 1000, perSet), 4) << "disk " << d;
    EXPECT_EQ(readThrough(1, 1000 + perSet, perSet), sectors(perSet, 4, 1000 + perSet, 1));
}

}  // namespace
