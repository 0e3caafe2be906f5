// Writers on the same lines at once, as the host write threads are: parity
// stays the XOR of what the data columns hold, every sector holds one whole
// write, and the thread that holds a line writes its neighbour's half.
#include <atomic>
#include <random>

#include "cache/RegionMetaDataTracker.h"
#include "zone/ZoneIOTestFixture.h"

namespace {

// Which writer's pattern a sector holds: its index in seeds, or -1.
int writerOf(const DataWindow& sector, const std::vector<uint32_t>& seeds, uint32_t offset) {
    for (size_t i = 0; i < seeds.size(); ++i)
        if (ZoneDataCheck::matches(sector, seeds[i], offset, nullptr)) return int(i);
    return -1;
}

}  // namespace

TEST_F(ZoneIOTest, ConcurrentWritersOfTheSameLinesNeverLeaveParityInconsistent) {
    loadPack(6);
    for (RedundancyType type : {RedundancyType::HStripe5, RedundancyType::DRStripe6, RedundancyType::Mirrored3}) {
        SCOPED_TRACE(RedundancyGeometry::DecodeRedundancyType(uint32_t(type)));
        const uint32_t zone = makeZone(type);
        const ZoneTableEntry e = entryOf(zone);
        const uint32_t unit = RedundancyGeometry::IsStripe(type) ? parityUnit(e) : 0x4000;
        const uint32_t span = 3 * unit;  // every writer within the same three lines
        const unsigned kWriters = 6;
        std::vector<uint32_t> seeds;
        for (unsigned i = 0; i < kWriters; ++i) seeds.push_back(500 + i);
        // Every sector written at least once first, so that each holds some writer's data.
        ASSERT_EQ(write(zone, 0, span, seeds[0]), StatusCode::Success);
        std::atomic<unsigned> finished{0};
        std::atomic<unsigned> failures{0};
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kWriters; ++i)
            threads.push_back(runAs("tWPThread" + std::to_string(i), [&, i] {
                std::mt19937 rng(i + 1);
                for (int k = 0; k < 40; ++k) {
                    const uint32_t start = (rng() % (span / 512)) * 512;
                    const uint32_t length = (1 + rng() % ((span - start) / 512)) * 512;
                    if (!write(zone, start, length, seeds[i]).ok()) ++failures;
                }
                ++finished;
            }));
        pumpClockUntil([&] { return finished == kWriters; });
        for (auto& t : threads) t.join();
        EXPECT_EQ(failures.load(), 0u);
        for (uint32_t u = 0; RedundancyGeometry::IsStripe(type) && u < span; u += unit) expectParityOnDisk(e, u);
        for (unsigned copy = 1; copy < 3 && !RedundancyGeometry::IsStripe(type); ++copy) {
            EXPECT_EQ(rawCopy(e, copy, 0, span), rawCopy(e, 0, 0, span)) << "copy " << copy;
        }
        DataWindow all;
        ASSERT_EQ(read(zone, 0, span, all), StatusCode::Success);
        for (uint32_t s = 0; s < span; s += 512)
            ASSERT_GE(writerOf(DataWindow(all, s, 512), seeds, s), 0) << "sector at " << s << " is torn or stray";
    }
}

TEST_F(ZoneIOTest, TheWriteThreadHoldingALineWritesItsNeighboursHalf) {
    loadPack(3);
    const uint32_t zone = makeZone(RedundancyType::HStripe3);
    const ZoneTableEntry e = entryOf(zone);
    const uint32_t line = 2 * 0x1000;
    const unsigned kLines = 16;
    ZoneWriteCooperation& coop = ZoneManager::GetInstance()->writeCooperation();
    const uint64_t takenBefore = coop.bytesTaken();
    std::atomic<unsigned> finished{0}, failures{0};
    std::atomic<unsigned> ready[2] = {0, 0};
    std::vector<std::thread> threads;
    for (unsigned half = 0; half < 2; ++half)
        threads.push_back(runAs("tWPThread" + std::to_string(half), [&, half] {
            for (unsigned l = 0; l < kLines; ++l) {
                // Both halves of line l start together.
                ++ready[half];
                while (ready[1 - half] < ready[half]) std::this_thread::yield();
                if (!write(zone, 0x100000 + l * line + half * 0x1000, 0x1000, 40 + half).ok()) ++failures;
            }
            ++finished;
        }));
    pumpClockUntil([&] { return finished == 2; });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0u);
    // A half is taken when its writer recorded it before the other thread's
    // wait for it ran out; on a loaded machine some waits do run out (and the
    // line is then filled in from disk), so only most lines are cooperative.
    const uint64_t taken = coop.bytesTaken() - takenBefore;
    EXPECT_GT(taken, 0u) << "no half of any line was taken";
    EXPECT_LE(taken, uint64_t(kLines) * 0x1000) << "at most one half of every line";
    for (unsigned l = 0; l < kLines; ++l) {
        EXPECT_TRUE(readMatches(zone, 0x100000 + l * line, 0x1000, 40));
        EXPECT_TRUE(readMatches(zone, 0x100000 + l * line + 0x1000, 0x1000, 41));
        expectParityOnDisk(e, 0x100000 + l * line);
    }
}

TEST_F(ZoneIOTest, ACallerHoldingLockStripesKeepsOtherWritersOutUntilItUnlocks) {
    loadPack(4);
    ZoneManager* zm = ZoneManager::GetInstance();
    for (RedundancyType type : {RedundancyType::Mirrored, RedundancyType::HStripe4, RedundancyType::DRStripe4}) {
        SCOPED_TRACE(RedundancyGeometry::DecodeRedundancyType(uint32_t(type)));
        const uint32_t zone = makeZone(type);
        const uint32_t boundary = entryOf(zone).GetRegionBoundary();
        const uint32_t offset = boundary - 0x2000, length = 0x4000;  // two pieces, across a Region boundary
        IOTracker holder(READ_WRITE);
        StripeLocks locks;
        std::atomic<bool> done{false};
        std::thread other;
        {
            // The table lock (shared) is the outer lock for as long as the lines are held.
            ExtendingLockObject::SharedLockInstance table(&ZoneTable::GetInstance()->tableLock());
            ASSERT_EQ(zm->LockStripes(zone, offset, length, locks, holder), StatusCode::Success);
            ASSERT_EQ(locks.size(), 2u);
            DataWindow w(length, 0, length);
            ZoneDataCheck::fill(w, 70, offset);
            ASSERT_EQ(zm->WriteDataNoLock(zone, offset, w, holder, &locks), StatusCode::Success);
            DataWindow back(length, 0, length);
            ASSERT_EQ(zm->ReadDataNoLock(zone, offset, back, holder, &locks), StatusCode::Success);
            EXPECT_TRUE(ZoneDataCheck::matches(back, 70, offset, &std::cerr));
            // Another writer of the same lines backs off on the held range and waits.
            const uint64_t backoffs = RegionMetaDataTracker::GetInstance()->stats().backoffs;
            other = std::thread([&] {
                EXPECT_EQ(write(zone, offset + 0x1000, 0x2000, 71), StatusCode::Success);
                done = true;
            });
            while (RegionMetaDataTracker::GetInstance()->stats().backoffs == backoffs) std::this_thread::yield();
            EXPECT_FALSE(done.load()) << "the other writer got in while the lines were held";
            EXPECT_EQ(zm->UnlockStripes(zone, offset, length, locks, holder), StatusCode::Success);
        }
        holder.commitIfDirty();
        other.join();
        EXPECT_TRUE(readMatches(zone, offset + 0x1000, 0x2000, 71));
        EXPECT_TRUE(readMatches(zone, offset, 0x1000, 70));
    }
}
