#pragma once
// Test fixture of the cluster manager: a Zone pack on simulated disks, Zone 0's
// directory loaded, the cluster manager loaded over it with its parser idle,
// restarts that keep nothing in memory, and small helpers that allocate and
// free in transactions of their own.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <vector>

#include "cat/ClusterManager.h"
#include "zone/ZoneTableTestSupport.h"

class ClusterManagerFixture : public ZoneTableTestFixture {
protected:
    void SetUp() override {
        ZoneTableTestFixture::SetUp();
        cm()->UnloadDiskPack();
    }
    void TearDown() override {
        cm()->UnloadDiskPack();
        BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
        ZoneTableTestFixture::TearDown();
    }
    // The parser thread takes its turns through the scheduler, which may
    // delay a tick: board time must move while the manager is loaded (the
    // pack helpers leave the clock virtual when they end).
    static void fastClock() { BoardClock::GetInstance().configure(BoardClock::Mode::Accelerated, 10.0); }

    static ClusterManager* cm() { return ClusterManager::GetInstance(); }
    static uint32_t cpz() { return cm()->GetClustersPerZone(); }

    // A new pack: the first load makes the area and the parser adds the
    // first Zone.
    void loadNewPack(const std::vector<std::string>& sizes = {"40G", "40G"}) {
        makeZonePack(sizes);
        fastClock();
        ASSERT_EQ(Zone0InfoTable::GetInstance()->LoadDiskPack(), StatusCode::Success);
        ASSERT_EQ(cm()->LoadDiskPack(), StatusCode::Success);
        cm()->WaitForParserIdle();
    }
    // A restart of everything up to the cluster manager.
    StatusCode restart() {
        cm()->UnloadDiskPack();
        StatusCode st = reloadZones();
        fastClock();
        if (st == StatusCode::Success) st = Zone0InfoTable::GetInstance()->LoadDiskPack();
        if (st == StatusCode::Success) st = cm()->LoadDiskPack();
        cm()->WaitForParserIdle();
        return st;
    }

    static StatusCode allocate(uint32_t n, std::vector<ClusterRun>& out, uint32_t maxZone = 0,
                               uint32_t maxRuns = ClusterManager::kNoRunLimit) {
        std::vector<ClusterRun> runs(std::min<uint32_t>(maxRuns, 4096));
        uint32_t count = 0;
        IOTracker t(READ_WRITE);
        StatusCode st = cm()->AllocateClusters(n, maxZone, maxRuns, count, runs.data(), t);
        EXPECT_EQ(t.commitIfDirty(), StatusCode::Success);
        out.assign(runs.begin(), runs.begin() + count);
        return st;
    }
    static std::vector<ClusterRun> allocate(uint32_t n, uint32_t maxZone = 0) {
        std::vector<ClusterRun> out;
        EXPECT_EQ(allocate(n, out, maxZone), StatusCode::Success) << n << " clusters";
        return out;
    }
    static StatusCode release(const ClusterRun& run) {
        IOTracker t(READ_WRITE);
        StatusCode st = cm()->DeallocateClusters(run, t);
        EXPECT_EQ(t.commitIfDirty(), StatusCode::Success);
        return st;
    }
    static uint32_t freeIn(uint32_t zone) {
        uint32_t count = 0;
        IOTracker t(READ_ONLY);
        EXPECT_EQ(cm()->CountUnallocatedClustersInZone(zone, count, t), StatusCode::Success) << "zone " << zone;
        t.commitIfDirty();
        return count;
    }
    static bool allocated(uint32_t zone, uint32_t cluster) {
        bool a = false;
        IOTracker t(READ_ONLY);
        EXPECT_EQ(cm()->GetClusterState(zone, cluster, a, t), StatusCode::Success);
        t.commitIfDirty();
        return a;
    }
    static bool inPool(const ClusterRun& run) {
        for (const ClusterRun& r : cm()->PoolRuns())
            if (r == run) return true;
        return false;
    }
    // Both checks, their output in `why`.
    static bool consistent(std::string& why) {
        std::ostringstream out;
        bool ok = cm()->internalConsistencyCheck(out) == StatusCode::Success &&
                  cm()->externalConsistencyCheck(out) == StatusCode::Success;
        why = out.str();
        return ok;
    }
    static uint32_t addZone() {
        IOTracker t(READ_WRITE);
        const uint32_t before = cm()->GetZonesInUse();
        EXPECT_EQ(cm()->AddNewZone(t), StatusCode::Success);
        EXPECT_EQ(t.commitIfDirty(), StatusCode::Success);
        EXPECT_EQ(cm()->GetZonesInUse(), before + 1);
        return cm()->GetNthZoneInUse(cm()->GetZonesInUse());
    }
    // Fills a Zone: every free cluster of it allocated, with no Zone added.
    static void fill(uint32_t zone) {
        std::vector<ClusterRun> runs;
        while (freeIn(zone) > 0) {
            std::vector<ClusterRun> got;
            StatusCode st = allocate(freeIn(zone), got, zone);
            for (const ClusterRun& r : got) EXPECT_EQ(r.zone <= zone, true);
            if (st != StatusCode::Success) break;
        }
        cm()->WaitForParserIdle();
    }
    // Bytes of a Zone as the Zone layer reads them.
    static std::vector<uint8_t> zoneBytes(uint32_t zone, uint64_t offset, uint32_t length) {
        DataWindow w(length, 0, length);
        IOTracker t(READ_ONLY);
        EXPECT_EQ(zm()->ReadData(zone, offset, w, t), StatusCode::Success);
        t.commitIfDirty();
        std::vector<uint8_t> out(length);
        DataBuffer flat{length, out.data()};
        w.Read(flat);
        return out;
    }
};
