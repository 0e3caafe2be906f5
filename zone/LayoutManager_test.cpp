// The relayout engine on simulated disks: a relayout cut at each of its
// durable steps leaves, after a restart, one whole layout holding the data
// and no Region lost or held twice; writes during a move reach the new
// layout; a patch replaces the Regions of a lost disk for mirrors and
// stripes; a fast resync only re-points Regions of a Zone not written since.
#include <map>
#include <set>

#include "system/FlashConfigData.h"
#include "zone/ZoneIOTestFixture.h"

namespace {

const char* gCutStep = nullptr;
bool cutAtNamedStep(const char* step) { return gCutStep && std::string(step) == gCutStep; }

// Host writes during the copy: the callback runs once, before the third
// chunk, when the first two are in the new layout and the rest are not.
std::function<void()> gDuringCopy;
unsigned gChunks = 0;
bool writeDuringCopy(const char* step) {
    if (std::string(step) != "lm.copy.chunk" && std::string(step) != "lm.patch.chunk") return false;
    if (++gChunks == 3 && gDuringCopy) {
        auto f = gDuringCopy;
        gDuringCopy = nullptr;
        f();
    }
    return false;
}

}  // namespace

class LayoutManagerTest : public ZoneIOTest {
protected:
    void SetUp() override {
        // Small Regions keep a Zone copy short (no cluster map rides on them here).
        FlashConfigData::GetInstance()->SetValueUint32(FlashConfigData::RegionScaleFactor, 26);
        ZoneIOTest::SetUp();
        ASSERT_EQ(rm()->Initialize(), StatusCode::Success);
    }
    void TearDown() override {
        lm()->setStepHook(nullptr);
        gCutStep = nullptr;
        gDuringCopy = nullptr;
        ZoneIOTest::TearDown();
        FlashConfigData::GetInstance()->SetValueUint32(FlashConfigData::RegionScaleFactor, 0);
        rm()->Initialize();
    }
    static LayoutManager* lm() { return LayoutManager::GetInstance(); }

    // Every allocated Region of every present disk is held by exactly one
    // Zone or is one of the pack's own (ZIS copies, reserved); none is held
    // by two Zones; a Zone's Region is allocated.
    void expectRegionsOwnedOnce(const std::map<uint16_t, uint32_t>& freeBefore, int expectedChange) {
        std::map<std::pair<uint16_t, uint32_t>, uint32_t> owner;
        ZoneTable* table = ZoneTable::GetInstance();
        for (uint32_t z = 0; z < table->entriesCreated(); ++z) {
            ZoneTableEntry e;
            if (table->RawLookupZone(z, e) != StatusCode::Success) continue;
            const unsigned n = RedundancyGeometry::IsSupported(e.type()) ? e.GetRegionCount() : 72;
            for (unsigned s = 0; s < n; ++s) {
                if (e.region[s] == 0) continue;
                auto key = std::make_pair(e.disk[s], e.region[s]);
                EXPECT_EQ(owner.count(key), 0u) << "Region " << e.disk[s] << ":" << e.region[s] << " held by Zones "
                                                << owner[key] << " and " << z;
                owner[key] = z;
                bool allocated = false;
                IOTracker t(READ_ONLY);
                EXPECT_EQ(rm()->IsAllocated(e.disk[s], e.region[s], allocated, t), StatusCode::Success);
                t.commitIfDirty();
                EXPECT_TRUE(allocated) << "Region " << e.disk[s] << ":" << e.region[s] << " of Zone " << z;
            }
        }
        ZoneTableEntry one;
        ASSERT_EQ(table->RawLookupZone(1, one), StatusCode::Success);
        EXPECT_FALSE(one.HasRegions()) << "the staging Zone is empty after a load";
        int64_t change = 0;
        for (auto [ld, before] : freeBefore) change += int64_t(freeCount(ld)) - int64_t(before);
        EXPECT_EQ(change, expectedChange) << "free Regions over all disks";
    }
    std::map<uint16_t, uint32_t> freeCounts() {
        std::map<uint16_t, uint32_t> m;
        for (uint16_t ld : ZoneDataCheck::presentDisks()) m[ld] = freeCount(ld);
        return m;
    }
    static uint32_t freeCount(uint16_t ld) {
        uint32_t n = 0;
        IOTracker t(READ_ONLY);
        EXPECT_EQ(rm()->GetFreeRegionCount(ld, n, t), StatusCode::Success);
        t.commitIfDirty();
        return n;
    }
    uint32_t verifyDifferences(uint32_t zone) {
        IOTracker t(READ_ONLY);
        ZoneManager::GetInstance()->VerifyRedundancy(zone, t);
        t.commitIfDirty();
        return ZoneManager::GetInstance()->lastVerifyDifferences();
    }
    void writeAndFlush(uint32_t zone, uint32_t seed, std::vector<ZoneDataCheck::Extent>& extents) {
        extents = ZoneDataCheck::randomExtents(seed, 12, 0x40000, zoneSize());
        ZoneDataCheck::Result r;
        ASSERT_EQ(ZoneDataCheck::writeExtents(zone, seed, extents, r, &std::cerr), StatusCode::Success);
        ASSERT_EQ(ZoneManager::GetInstance()->FlushZone(zone), StatusCode::Success);
    }
    void expectBack(uint32_t zone, uint32_t seed, const std::vector<ZoneDataCheck::Extent>& extents) {
        ZoneDataCheck::Result r;
        ZoneDataCheck::readExtents(zone, seed, extents, r, &std::cerr);
        EXPECT_EQ(r.errors, 0u) << "Zone " << zone;
        EXPECT_EQ(r.mismatches, 0u) << "Zone " << zone;
    }
    void pull(unsigned slot) {
        std::string msg;
        ASSERT_TRUE(ctl().pullDisk(slot, msg)) << msg;
    }
};

TEST_F(LayoutManagerTest, ARelayoutCutAtEachDurableStepLeavesOneWholeLayoutAndNoRegionLost) {
    struct Window {
        const char* step;
        bool newLayout;  // the Zone is on its new Regions after the restart
    };
    for (Window w : {Window{"lm.relayout.staged", false}, Window{"lm.relayout.copied", false},
                     Window{"lm.move.committed", true}}) {
        SCOPED_TRACE(w.step);
        loadPack(4, "4G");
        const uint32_t zone = makeZone(RedundancyType::Mirrored, {0, 1});
        std::vector<ZoneDataCheck::Extent> extents;
        writeAndFlush(zone, 41, extents);
        const ZoneTableEntry before = entryOf(zone);
        const auto freeBefore = freeCounts();
        gCutStep = w.step;
        lm()->setStepHook(cutAtNamedStep);
        uint32_t z = zone;
        EXPECT_EQ(lm()->RelayoutZone(z, false, 4, false), StatusCode::LM_LayoutAborted);
        EXPECT_FALSE(lm()->moveActive());
        lm()->setStepHook(nullptr);
        mZones.clear();
        restartPackLayers();
        const ZoneTableEntry after = entryOf(zone);
        if (w.newLayout) {
            EXPECT_FALSE(after.Matches(before)) << "the swap was committed";
            // Four disks allow a wider type than the mirror on two.
            EXPECT_NE(after.type(), RedundancyType::Mirrored);
            expectRegionsOwnedOnce(freeBefore, int(before.GetRegionCount()) - int(after.GetRegionCount()));
        } else {
            EXPECT_TRUE(after.Matches(before)) << "the old layout stands";
            expectRegionsOwnedOnce(freeBefore, 0);
        }
        expectBack(zone, 41, extents);
        EXPECT_EQ(verifyDifferences(zone), 0u);
        mZones.push_back(zone);
        TearDown();
        SetUp();
    }
}

TEST_F(LayoutManagerTest, WritesDuringARelayoutReachTheNewLayoutCopiedOrNot) {
    loadPack(4, "4G");
    const uint32_t zone = makeZone(RedundancyType::Mirrored, {0, 1});
    std::vector<ZoneDataCheck::Extent> extents;
    writeAndFlush(zone, 7, extents);
    // One stretch at the start (copied already: only the duplicate carries
    // it) and one at the end (duplicated, then copied again with the same data).
    gDuringCopy = [&] {
        ZoneDataCheck::Result r;
        std::vector<ZoneDataCheck::Extent> late = {{0x1000, 0x3000}, {uint32_t(zoneSize()) - 0x8000, 0x8000}};
        EXPECT_EQ(ZoneDataCheck::writeExtents(zone, 8, late, r, &std::cerr), StatusCode::Success);
    };
    gChunks = 0;
    lm()->setStepHook(writeDuringCopy);
    uint32_t z = zone;
    ASSERT_EQ(lm()->RelayoutZone(z, false, 4, false), StatusCode::Success);
    EXPECT_EQ(gDuringCopy, nullptr) << "the writes ran during the copy";
    EXPECT_NE(entryOf(zone).type(), RedundancyType::Mirrored);
    std::vector<ZoneDataCheck::Extent> late = {{0x1000, 0x3000}, {uint32_t(zoneSize()) - 0x8000, 0x8000}};
    expectBack(zone, 8, late);
    EXPECT_EQ(verifyDifferences(zone), 0u);
}

TEST_F(LayoutManagerTest, APatchReplacesTheRegionsOfALostDiskForMirrorsAndStripes) {
    for (RedundancyType type : {RedundancyType::Mirrored, RedundancyType::HStripe3, RedundancyType::DRStripe4}) {
        SCOPED_TRACE(RedundancyGeometry::DecodeRedundancyType(uint32_t(type)));
        const unsigned width = RedundancyGeometry::IsStripe(type) ? RedundancyGeometry::GetStripeWidth(type) : 2;
        loadPack(width + 1, "4G");
        std::vector<uint16_t> disks;
        for (uint16_t d = 0; d < width; ++d) disks.push_back(d);
        const uint32_t zone = makeZone(type, disks);
        std::vector<ZoneDataCheck::Extent> extents;
        writeAndFlush(zone, 90, extents);
        mZones.clear();
        pull(0);
        restartPackLayers();
        ASSERT_TRUE(entryOf(zone).UsesMissingDisk());
        // A write during the patch, below and above how far it has come.
        gDuringCopy = [&] {
            ZoneDataCheck::Result r;
            std::vector<ZoneDataCheck::Extent> late = {{0x2000, 0x6000}, {uint32_t(zoneSize()) - 0x4000, 0x4000}};
            EXPECT_EQ(ZoneDataCheck::writeExtents(zone, 91, late, r, &std::cerr), StatusCode::Success);
        };
        gChunks = 0;
        lm()->setStepHook(writeDuringCopy);
        uint32_t z = zone;
        EXPECT_EQ(lm()->PatchZone(z, false), StatusCode::Success);
        lm()->setStepHook(nullptr);
        const ZoneTableEntry e = entryOf(zone);
        EXPECT_EQ(e.type(), type) << "a patch keeps the type";
        EXPECT_FALSE(e.UsesMissingDisk());
        EXPECT_TRUE(e.UsesDisk(uint16_t(width))) << "the new Regions are on the disk the Zone did not use";
        std::vector<ZoneDataCheck::Extent> late = {{0x2000, 0x6000}, {uint32_t(zoneSize()) - 0x4000, 0x4000}};
        expectBack(zone, 91, late);
        EXPECT_EQ(verifyDifferences(zone), 0u);
        // The new copy holds the data by itself: the survivors' work is checked.
        restartPackLayers();
        expectBack(zone, 91, late);
        mZones.push_back(zone);
        TearDown();
        SetUp();
    }
}

TEST_F(LayoutManagerTest, AFastResyncRepointsOnlyAZoneNotWrittenSinceTheDiskLeft) {
    loadPack(4, "4G");
    const uint32_t zone = makeZone(RedundancyType::Mirrored, {0, 1});
    const ZoneTableEntry before = entryOf(zone);
    const uint32_t writtenAt = before.lastWrittenTimestamp;
    // Written after the time the disk left: the resync refuses.
    EXPECT_EQ(lm()->ResyncZone(zone, 1, 3, writtenAt), StatusCode::LM_LayoutAborted);
    EXPECT_TRUE(entryOf(zone).Matches(before));
    ASSERT_EQ(lm()->ResyncZone(zone, 1, 3, writtenAt + 1), StatusCode::Success);
    const ZoneTableEntry after = entryOf(zone);
    EXPECT_FALSE(after.UsesDisk(1));
    for (unsigned s = 0; s < after.GetRegionCount(); ++s) {
        if (before.disk[s] != 1) continue;
        EXPECT_EQ(after.disk[s], 3u);
        EXPECT_EQ(after.region[s], before.region[s]) << "the same Region number on the returning disk";
        bool allocated = false;
        IOTracker t(READ_ONLY);
        ASSERT_EQ(rm()->IsAllocated(3, after.region[s], allocated, t), StatusCode::Success);
        t.commitIfDirty();
        EXPECT_TRUE(allocated);
    }
    // A Region that the returning disk already gives to something else: the
    // Zone is stamped as written, so that it is patched instead.
    const uint32_t other = makeZone(RedundancyType::Mirrored, {0, 2});
    const ZoneTableEntry o = entryOf(other);
    EXPECT_EQ(lm()->ResyncZone(other, 2, 3, o.lastWrittenTimestamp + 1000), StatusCode::LM_LayoutAborted);
    (void)zone;
}

TEST_F(LayoutManagerTest, ARegionIsMarkedUnusableOnlyWhileTheZoneKeepsACopy) {
    loadPack(3, "4G");
    const uint32_t zone = makeZone(RedundancyType::Mirrored, {0, 1});
    IOTracker t(READ_WRITE);
    ASSERT_EQ(ZoneManager::GetInstance()->MarkRegionUnusable(zone, 0x1000, 0, t), StatusCode::Success);
    t.commitIfDirty();
    EXPECT_TRUE(entryOf(zone).HasUnusableRegions());
    EXPECT_GE(ZoneManager::GetInstance()->GetDegradedZoneCount(), 1u);
    // The other copy of the same stretch is now the only one.
    IOTracker t2(READ_WRITE);
    EXPECT_EQ(ZoneManager::GetInstance()->MarkRegionUnusable(zone, 0x1000, 1, t2), StatusCode::InternalError);
    EXPECT_EQ(ZoneManager::GetInstance()->MarkRegionUnusable(zone, 0x1000, 0, t2), StatusCode::InternalError)
        << "already unusable";
    t2.commitIfDirty();
    // A relayout rebuilds the Zone whole from the surviving copy.
    uint32_t z = zone;
    ASSERT_EQ(LayoutManager::GetInstance()->RelayoutZone(z, false, 4, false), StatusCode::Success);
    EXPECT_FALSE(entryOf(zone).HasUnusableRegions());
    EXPECT_EQ(verifyDifferences(zone), 0u);
    // An empty slot could take a replacement disk: no slot is "all critical".
    const ZoneTableEntry e = entryOf(zone);
    IOTracker t3(READ_ONLY);
    EXPECT_FALSE(ZoneManager::GetInstance()->AllSlotsWouldBeCritical(e, 0, t3));
    t3.commitIfDirty();
}
