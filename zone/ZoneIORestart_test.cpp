// The end of the road for written data: written to every Zone type, the
// disks flushed, one disk pulled (two for the dual types), the system
// restarted as far as the pack layers go, and every byte read back.
#include "zone/ZoneIOTestFixture.h"

namespace {

struct Written {
    uint32_t zone;
    uint32_t seed;
    bool dual;
    std::vector<ZoneDataCheck::Extent> extents;
};

}  // namespace

class ZoneIORestartTest : public ZoneIOTest {
protected:
    // A restart of the disk, Region and Zone layers: nothing kept in memory,
    // the disks found again in their slots.
    void restart() {
        // A clean shutdown: what the pack layer wrote at the last load is on
        // the disks (without the journal nothing else would carry it across).
        dm()->FlushAllDrives();
        ZoneManager::GetInstance()->UnloadDiskPack();
        rm()->UnloadDiskPack();
        dlbat()->flush();
        dm()->UnloadDiskPack();
        ctl().forget();
        ASSERT_EQ(dm()->LoadDiskPack(false), StatusCode::Success);
        drainMessages();
        ASSERT_EQ(reloadPackFromDisks(), StatusCode::Success);
        ASSERT_EQ(ZoneManager::GetInstance()->LoadDiskPack(), StatusCode::Success);
    }
    void pull(unsigned slot) {
        std::string msg;
        ASSERT_TRUE(ctl().pullDisk(slot, msg)) << msg;
    }
};

TEST_F(ZoneIORestartTest, EveryTypeReadsBackAfterARestartWithDisksPulled) {
    loadPack(6);
    std::vector<Written> written;
    uint32_t seed = 300;
    for (RedundancyType type : {RedundancyType::Mirrored, RedundancyType::HStripe3, RedundancyType::HStripe5,
                                RedundancyType::Mirrored3, RedundancyType::DRStripe4, RedundancyType::DRStripe5,
                                RedundancyType::DRStripe6}) {
        Written w{makeZone(type), ++seed, RedundancyGeometry::DualRedundancy(type), {}};
        w.extents = ZoneDataCheck::randomExtents(w.seed, 10, 0x30000, zoneSize());
        ZoneDataCheck::Result r;
        ASSERT_EQ(ZoneDataCheck::writeExtents(w.zone, w.seed, w.extents, r, &std::cerr), StatusCode::Success);
        ASSERT_EQ(ZoneManager::GetInstance()->FlushZone(w.zone), StatusCode::Success);
        written.push_back(w);
    }
    mZones.clear();  // the Zones outlive the restarts; the pack goes with the test
    auto expectAllBack = [&](bool dualOnly) {
        for (const Written& w : written) {
            if (dualOnly && !w.dual) continue;
            ZoneDataCheck::Result r;
            ZoneDataCheck::readExtents(w.zone, w.seed, w.extents, r, &std::cerr);
            EXPECT_EQ(r.errors, 0u) << "Zone " << w.zone;
            EXPECT_EQ(r.mismatches, 0u) << "Zone " << w.zone;
        }
    };
    restart();
    expectAllBack(false);
    pull(0);
    restart();
    expectAllBack(false);
    // With the disk gone from the pack, writes lose one copy, succeed, and
    // ask for no patch: the disk's absence is the hot-plug path's business.
    LayoutManager::GetInstance()->clearPatchRequests();
    for (Written& w : written) {
        ZoneDataCheck::Result r;
        ASSERT_EQ(ZoneDataCheck::writeExtents(w.zone, w.seed, w.extents, r, &std::cerr), StatusCode::Success)
            << "Zone " << w.zone;
    }
    EXPECT_EQ(LayoutManager::GetInstance()->patchRequestCount(), 0u);
    pull(1);
    restart();
    expectAllBack(true);
}
