// The Region layer on simulated disks: what a new pack puts on the disks,
// allocation and its persistence, and Region I/O at every boundary.
#include <algorithm>
#include <set>
#include <thread>

#include "disk/DisSector.h"
#include "include/DrivePackInfo.h"
#include "region/RegionTestSupport.h"
#include "system/FlashConfigData.h"

namespace {
constexpr uint32_t kRlba = 0x15540;  // the default Region, in sectors
constexpr uint32_t kStride = kRlba + 1;
}  // namespace

class RegionManagerTest : public RegionTestFixture {};

TEST_F(RegionManagerTest, ANewPackCarriesTwoValidCopiesWithTheReservedRegionsAllocated) {
    makePack({"20G", "30G"});
    EXPECT_EQ(SystemDrivePackInfo::GetInstance()->GetRegionSize(), uint64_t(kRlba) * 512);
    EXPECT_EQ(rm()->RegionSizeBytes(), uint64_t(kRlba) * 512);
    for (int slot = 0; slot < 2; ++slot) {
        uint32_t capacity = uint32_t(dm()->GetDriveCapacity(slot));
        auto dis = disRangesFor(capacity);
        uint32_t regions = uint32_t((uint64_t(capacity) + kStride - 1) / kStride);
        Copy c0 = readCopy(slot, 0x480);
        Copy c1 = readCopy(slot, dis[1].end + 0x400);
        for (Copy* c : {&c0, &c1}) {
            ASSERT_TRUE(c->header.valid);
            ASSERT_TRUE(c->bitmapValid);
            EXPECT_EQ(c->header.version, 6u);
            EXPECT_EQ(c->header.regionSectors, kRlba);
            EXPECT_EQ(c->header.padding, 1u);
            EXPECT_EQ(c->header.metadataLba, 0x480u);
            EXPECT_EQ(independent::be32(c->bitmap.data() + 4), regions);
            EXPECT_EQ(c->header.bitmapBytes, ((regions + 7) / 8 + 12 + 511) / 512 * 512);
            // Metadata Regions are sought between a third and two thirds of the free Regions.
            EXPECT_GE(c->header.allocBase, (regions - c->header.unavailable) / 3);
            EXPECT_LT(c->header.allocBase, 2 * (regions - c->header.unavailable) / 3 + 1);
        }
        EXPECT_EQ(c0.header.copyNumber, 0u);
        EXPECT_EQ(c1.header.copyNumber, 1u);
        EXPECT_EQ(c0.header.generation, c1.header.generation);
        EXPECT_EQ(c0.bitmap, c1.bitmap);
        // Region 0, the Regions of the three DIS ranges and of both copies, and the partial last.
        std::set<uint32_t> reserved = {0,
                                       dis[1].first / kStride,
                                       (dis[1].end - 1) / kStride,
                                       (dis[1].end + 0x400) / kStride,
                                       dis[2].first / kStride,
                                       regions - 1};
        uint32_t allocated = 0;
        for (uint32_t r = 0; r < regions; ++r) {
            bool a = independent::rabmAllocated(c0.bitmap.data(), r);
            EXPECT_EQ(a, reserved.count(r) == 1) << "Region " << r;
            allocated += a;
        }
        EXPECT_EQ(c0.header.unavailable, allocated);
        IOTracker t(READ_ONLY);
        uint32_t free = 0, available = 0;
        ASSERT_EQ(rm()->GetFreeRegionCount(uint16_t(slot), free, t), StatusCode::Success);
        ASSERT_EQ(rm()->GetAvailableRegionCount(uint16_t(slot), available, t), StatusCode::Success);
        EXPECT_EQ(free, regions - allocated);
        EXPECT_EQ(available, regions - allocated);
    }
}

TEST_F(RegionManagerTest, ExactMultipleCapacityHasNoPartialRegionAndOneMoreSectorHasOne) {
    // Capacities chosen so that DIS range 1 lies well inside its Region.
    uint32_t whole = 300 * kStride;
    loadDisks({std::to_string(whole) + "s", std::to_string(whole + 1) + "s"});
    makePackOnPresentDisks();
    IOTracker t(READ_WRITE);
    bool allocated = true;
    EXPECT_EQ(rm()->PhysicalRegions(0), 300u);
    EXPECT_EQ(rm()->PhysicalRegions(1), 301u);
    // The last Region of the exact disk holds DIS range 2, so it is allocated
    // either way; its neighbour below is free.
    ASSERT_EQ(rm()->IsAllocated(0, 298, allocated, t), StatusCode::Success);
    EXPECT_FALSE(allocated);
    // One sector past a whole Region: the last Region is that one sector and never usable.
    ASSERT_EQ(rm()->IsAllocated(1, 300, allocated, t), StatusCode::Success);
    EXPECT_TRUE(allocated);
    EXPECT_EQ(rm()->IsAllocated(1, 301, allocated, t), StatusCode::RM_RegionNumberInvalid);
    uint32_t lba = 0;
    EXPECT_EQ(rm()->GetLBA(lba, 1, 0, 301), StatusCode::RM_BadOffset);
    ASSERT_EQ(rm()->GetLBA(lba, 1, 512, 299), StatusCode::Success);
    EXPECT_EQ(lba, 299 * kStride + 1);
    EXPECT_EQ(rm()->GetLBA(lba, 1, kRlba * 512, 5), StatusCode::RM_BadOffset);
    t.commit();
}

TEST_F(RegionManagerTest, RegionIORoundTripsAtEveryBoundaryAndNeverTouchesThePadding) {
    makePack({"20G"});
    IOTracker t(READ_WRITE);
    uint32_t regions[3];
    ASSERT_EQ(rm()->AllocateRegions(0, 3, regions, false, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    EXPECT_EQ(regions[0], 1u);  // the first user Region is the first after Region 0

    // A sentinel in each padding sector: Region data must never reach it.
    std::vector<uint8_t> sentinel(512, 0xA5);
    for (uint32_t r : regions) writeRaw(0, uint64_t(r) * kStride + kRlba, sentinel);

    IOTracker io(READ_WRITE);
    const uint32_t size = kRlba * 512;
    struct Piece {
        uint32_t region, offset, bytes;
    } pieces[] = {{regions[0], 0, 4096},
                  {regions[0], size - 4096, 4096},
                  {regions[1], 0, 512},
                  {regions[1], size - 512, 512},
                  {regions[2], size / 2, 65536}};
    uint32_t seed = 1;
    for (const Piece& p : pieces) {
        auto data = pattern(p.bytes, seed++);
        DataWindow w = windowOf(data);
        ASSERT_EQ(rm()->WriteData(0, p.region, p.offset, w, io), StatusCode::Success);
    }
    ASSERT_EQ(dm()->Flush(0), StatusCode::Success);
    seed = 1;
    for (const Piece& p : pieces) {
        auto data = pattern(p.bytes, seed++);
        DataWindow back(p.bytes, 0, p.bytes);
        ASSERT_EQ(rm()->ReadData(0, p.region, p.offset, back, io), StatusCode::Success);
        EXPECT_EQ(bytesOf(back), data) << "Region " << p.region << " offset " << p.offset;
        // And on the disk exactly where the address arithmetic puts it.
        EXPECT_EQ(raw(0, uint64_t(p.region) * kStride + p.offset / 512, p.bytes / 512), data);
    }
    // Windows that would reach the padding sector or beyond are refused.
    DataWindow one(512, 0, 512), two(1024, 0, 1024);
    EXPECT_EQ(rm()->WriteData(0, regions[0], size, one, io), StatusCode::RM_BadOffset);
    EXPECT_EQ(rm()->WriteData(0, regions[0], size - 512, two, io), StatusCode::RM_BadOffset);
    EXPECT_EQ(rm()->WriteData(0, regions[0], 100, one, io), StatusCode::RM_BadOffset);
    EXPECT_EQ(rm()->ReadData(0, regions[0], size, one, io), StatusCode::RM_BadOffset);
    for (uint32_t r : regions) EXPECT_EQ(raw(0, uint64_t(r) * kStride + kRlba), sentinel) << "padding of " << r;

    // Region 0 is allocated but never data; free and past-the-end Regions are refused.
    bool allocated = false;
    ASSERT_EQ(rm()->IsAllocated(0, 0, allocated, io), StatusCode::Success);
    EXPECT_TRUE(allocated);
    EXPECT_EQ(rm()->ReadData(0, 0, 0, one, io), StatusCode::RM_RegionNumberInvalid);
    EXPECT_EQ(rm()->WriteData(0, 0, 0x480 * 512, one, io), StatusCode::RM_RegionNumberInvalid);
    EXPECT_EQ(rm()->ReadData(0, regions[2] + 1, 0, one, io), StatusCode::RM_RegionNumberInvalid);
    EXPECT_EQ(rm()->ReadData(0, rm()->PhysicalRegions(0), 0, one, io), StatusCode::RM_RegionNumberInvalid);
    EXPECT_EQ(rm()->ReadData(5, regions[0], 0, one, io), StatusCode::DiskNotPresent);
    io.commit();
}

TEST_F(RegionManagerTest, ParallelBatchesGiveEachElementItsOwnStatus) {
    makePack({"20G", "20G"});
    IOTracker t(READ_WRITE);
    uint32_t a = 0, b = 0;
    ASSERT_EQ(rm()->AllocateRegions(0, 1, &a, false, t), StatusCode::Success);
    ASSERT_EQ(rm()->AllocateRegions(1, 1, &b, false, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    auto d0 = pattern(4096, 10), d1 = pattern(8192, 11);
    DataWindow w0 = windowOf(d0), w1 = windowOf(d1), w2(4096, 0, 4096), w3(4096, 0, 4096);
    _IORequest req[4];
    req[0] = {0, 0, a, 8192, 0, &w0};
    req[1] = {1, 0, b, 0, 0, &w1};
    req[2] = {7, 0, b, 0, 0, &w2};  // no such disk
    req[3] = {1, 0, 0, 0, 0, &w3};  // Region 0
    IOTracker io(READ_WRITE);
    EXPECT_EQ(rm()->WriteDataParallel(req, 4, io), StatusCode::DiskNotPresent);
    EXPECT_EQ(req[0].status, StatusCode::Success);
    EXPECT_EQ(req[1].status, StatusCode::Success);
    EXPECT_EQ(req[2].status, StatusCode::DiskNotPresent);
    EXPECT_EQ(req[3].status, StatusCode::RM_RegionNumberInvalid);
    EXPECT_EQ(req[0].lba, a * kStride + 16);
    EXPECT_EQ(req[1].lba, b * kStride);
    DataWindow r0(4096, 0, 4096), r1(8192, 0, 8192);
    _IORequest rd[2];
    rd[0] = {0, 0, a, 8192, 0, &r0};
    rd[1] = {1, 0, b, 0, 0, &r1};
    ASSERT_EQ(rm()->ReadDataParallel(rd, 2, io), StatusCode::Success);
    EXPECT_EQ(bytesOf(r0), d0);
    EXPECT_EQ(bytesOf(r1), d1);
    EXPECT_EQ(rd[1].slot, 1);
    io.commit();
}

TEST_F(RegionManagerTest, AllocationWrapsNeverHalfAllocatesAndSurvivesAReload) {
    makePack({"20G"});
    uint32_t regions = rm()->PhysicalRegions(0);
    IOTracker t(READ_WRITE);
    uint32_t free0 = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(0, free0, t), StatusCode::Success);

    // Metadata Regions come from the metadata cursor, user Regions from the start.
    uint32_t md[2], user[4];
    ASSERT_EQ(rm()->AllocateRegions(0, 2, md, true, t), StatusCode::Success);
    ASSERT_EQ(rm()->AllocateRegions(0, 4, user, false, t), StatusCode::Success);
    EXPECT_GT(md[0], regions / 4);
    EXPECT_EQ(md[1], md[0] + 1);
    EXPECT_EQ(user[0], 1u);
    ASSERT_EQ(t.commit(), StatusCode::Success);

    // Free three of which one is not allocated: nothing is freed.
    IOTracker f(READ_WRITE);
    uint32_t bad[3] = {user[0], user[1], regions - 3};
    bool allocated = false;
    ASSERT_EQ(rm()->IsAllocated(0, regions - 3, allocated, f), StatusCode::Success);
    ASSERT_FALSE(allocated);
    EXPECT_EQ(rm()->FreeRegions(0, 3, bad, f), StatusCode::RM_RegionNotAllocated);
    uint32_t tooLarge[1] = {regions};
    EXPECT_EQ(rm()->FreeRegions(0, 1, tooLarge, f), StatusCode::RM_RegionNumberInvalid);
    ASSERT_EQ(rm()->IsAllocated(0, user[0], allocated, f), StatusCode::Success);
    EXPECT_TRUE(allocated);
    // Free two; the next user allocation takes the lowest freed again.
    uint32_t two[2] = {user[1], user[0]};
    ASSERT_EQ(rm()->FreeRegions(0, 2, two, f), StatusCode::Success);
    uint32_t again = 0;
    ASSERT_EQ(rm()->AllocateRegions(0, 1, &again, false, f), StatusCode::Success);
    EXPECT_EQ(again, user[0]);
    ASSERT_EQ(f.commit(), StatusCode::Success);

    uint32_t freeBefore = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(0, freeBefore, t), StatusCode::Success);
    EXPECT_EQ(freeBefore, free0 - 2 - 4 + 2 - 1);
    // More than is free: refused, nothing taken.
    std::vector<uint32_t> all(freeBefore + 1);
    IOTracker big(READ_WRITE);
    EXPECT_EQ(rm()->AllocateRegions(0, freeBefore + 1, all.data(), false, big), StatusCode::RM_NotEnoughFree);
    // Exactly what is free: the scan from the metadata cursor wraps to low Regions.
    ASSERT_EQ(rm()->AllocateRegions(0, freeBefore, all.data(), true, big), StatusCode::Success);
    EXPECT_GT(all[0], md[1]);
    EXPECT_EQ(all[freeBefore - 1], md[0] - 1);
    std::set<uint32_t> distinct(all.begin(), all.begin() + freeBefore);
    EXPECT_EQ(distinct.size(), freeBefore);
    ASSERT_EQ(big.commit(), StatusCode::Success);
    uint32_t none = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(0, none, t), StatusCode::Success);
    EXPECT_EQ(none, 0u);
    // Give half back and reload: the bitmap on the disk says the same.
    IOTracker g(READ_WRITE);
    std::vector<uint32_t> back;
    for (uint32_t i = 0; i < freeBefore; i += 2) back.push_back(all[i]);
    ASSERT_EQ(rm()->FreeRegions(0, uint32_t(back.size()), back.data(), g), StatusCode::Success);
    ASSERT_EQ(g.commit(), StatusCode::Success);
    std::vector<bool> before(regions);
    for (uint32_t r = 0; r < regions; ++r) {
        bool a = false;
        ASSERT_EQ(rm()->IsAllocated(0, r, a, t), StatusCode::Success);
        before[r] = a;
    }
    ASSERT_EQ(reload(), StatusCode::Success);
    uint32_t freeAfter = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(0, freeAfter, t), StatusCode::Success);
    EXPECT_EQ(freeAfter, back.size());
    for (uint32_t r = 0; r < regions; ++r) {
        bool a = false;
        ASSERT_EQ(rm()->IsAllocated(0, r, a, t), StatusCode::Success);
        EXPECT_EQ(a, bool(before[r])) << "Region " << r;
    }
    Copy c0 = readCopy(0, 0x480);
    ASSERT_TRUE(c0.header.valid && c0.bitmapValid);
    for (uint32_t r = 0; r < regions; ++r) EXPECT_EQ(independent::rabmAllocated(c0.bitmap.data(), r), bool(before[r]));
    std::ostringstream check;
    EXPECT_EQ(rm()->internalConsistencyCheck(check), StatusCode::Success) << check.str();
    t.commit();
}

TEST_F(RegionManagerTest, SetAsAllocatedAndTheAddressMapsBackAndForth) {
    makePack({"20G"});
    IOTracker t(READ_WRITE);
    uint32_t free0 = 0, free1 = 0;
    ASSERT_EQ(rm()->GetFreeRegionCount(0, free0, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetAsAllocated(0, 100, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetAsAllocated(0, 100, t), StatusCode::Success);  // already: no change
    EXPECT_EQ(rm()->SetAsAllocated(0, rm()->PhysicalRegions(0), t), StatusCode::RM_RegionNumberInvalid);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    ASSERT_EQ(rm()->GetFreeRegionCount(0, free1, t), StatusCode::Success);
    EXPECT_EQ(free1, free0 - 1);
    Copy c = readCopy(0, 0x480);
    EXPECT_TRUE(independent::rabmAllocated(c.bitmap.data(), 100));

    uint32_t region = 0, offset = 0, owner = 0;
    ASSERT_EQ(rm()->MapLBAToRegion(100 * kStride + kRlba, 0, region, offset), StatusCode::Success);
    EXPECT_EQ(region, 100u);
    EXPECT_EQ(offset, kRlba);
    uint32_t capacity = uint32_t(dm()->GetDriveCapacity(0));
    EXPECT_EQ(rm()->MapLBAToRegion(capacity, 0, region, offset), StatusCode::RM_BadOffset);
    ASSERT_EQ(rm()->getRegionOwner(0, 0, owner), StatusCode::Success);
    EXPECT_EQ(owner, RegionManager::kOwnerRMMetadata | RegionManager::kOwnerDIS);
    auto dis = disRangesFor(capacity);
    ASSERT_EQ(rm()->getRegionOwner(0, (dis[1].end + 0x400) / kStride, owner), StatusCode::Success);
    EXPECT_TRUE(owner & RegionManager::kOwnerRMMetadata);
    ASSERT_EQ(rm()->getRegionOwner(0, dis[2].first / kStride, owner), StatusCode::Success);
    EXPECT_EQ(owner, RegionManager::kOwnerDIS);
    ASSERT_EQ(rm()->getRegionOwner(0, 100, owner), StatusCode::Success);
    EXPECT_EQ(owner, RegionManager::kOwnerOther);
}

TEST_F(RegionManagerTest, SavedZoneTableLocationsReachEveryDiskAndSurviveAReload) {
    makePack({"20G", "20G", "20G"});
    IOTracker t(READ_WRITE);
    uint16_t ld = 0;
    uint32_t region = 0;
    EXPECT_EQ(rm()->GetMetaData(0, ld, region, t), StatusCode::RM_ZISInvalidRegion);
    EXPECT_EQ(rm()->SetMetaData(4, 1, 5, t), StatusCode::RM_BadOffset);
    ASSERT_EQ(rm()->SetMetaData(0, 1, 200, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetMetaData(1, 2, 201, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetMetaData(2, 0, 202, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    uint32_t available = 0, regions = rm()->PhysicalRegions(1), free = 0;
    ASSERT_EQ(rm()->GetAvailableRegionCount(1, available, t), StatusCode::Success);
    ASSERT_EQ(rm()->GetFreeRegionCount(1, free, t), StatusCode::Success);
    // One saved Zone table Region lies on LD 1.
    Copy c = readCopy(1, 0x480);
    EXPECT_EQ(available, regions - c.header.unavailable - 1);
    ASSERT_EQ(reload(), StatusCode::Success);
    for (int slot = 0; slot < 3; ++slot) {
        Copy c0 = readCopy(slot, 0x480);
        ASSERT_TRUE(c0.header.valid);
        EXPECT_EQ(c0.header.savedLd[0], 1);
        EXPECT_EQ(c0.header.savedRegion[0], 200u);
        EXPECT_EQ(c0.header.savedLd[1], 2);
        EXPECT_EQ(c0.header.savedRegion[2], 202u);
    }
    ASSERT_EQ(rm()->GetMetaData(1, ld, region, t), StatusCode::Success);
    EXPECT_EQ(ld, 2);
    EXPECT_EQ(region, 201u);
    t.commit();
}

TEST_F(RegionManagerTest, ReadOnlyLoadRefusesEveryChange) {
    makePack({"20G"});
    ASSERT_EQ(reload(false), StatusCode::Success);
    EXPECT_FALSE(rm()->ReadWriteMode());
    IOTracker t(READ_WRITE);
    uint32_t r = 0;
    EXPECT_EQ(rm()->AllocateRegions(0, 1, &r, false, t), StatusCode::ReadOnlyMode);
    DataWindow w(512, 0, 512);
    EXPECT_EQ(rm()->WriteData(0, 1, 0, w, t), StatusCode::ReadOnlyMode);
    EXPECT_EQ(rm()->SetMetaData(0, 0, 9, t), StatusCode::ReadOnlyMode);
    t.commit();
}

TEST_F(RegionManagerTest, CreateOfAnExistingDiskAndLoadWithoutDisksAreRefused) {
    makePack({"20G"});
    uint32_t a = 0, b = 0;
    bool keep = false;
    EXPECT_EQ(rm()->CreateDisk(0, a, b, keep), StatusCode::RM_DiskExists);
    ASSERT_EQ(dm()->RemoveDisk(0), StatusCode::Success);
    leavePack(0);
    EXPECT_EQ(reload(), StatusCode::RM_NoDisks);
}

class RegionScaleFactorTest : public RegionTestFixture {
protected:
    void TearDown() override {
        FlashConfigData::GetInstance()->SetValueUint32(FlashConfigData::RegionScaleFactor, 0);
        rm()->Initialize();
        RegionTestFixture::TearDown();
    }
    std::string initializeWith(unsigned long factor) {
        EXPECT_EQ(FlashConfigData::GetInstance()->SetValueUint32(FlashConfigData::RegionScaleFactor, factor),
                  StatusCode::Success);
        testing::internal::CaptureStdout();
        EXPECT_EQ(rm()->Initialize(), StatusCode::Success);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(RegionScaleFactorTest, UnusableFactorsAreRefusedWithAMessageAndUsableOnesShrinkNewPacks) {
    std::string out = initializeWith(3);
    EXPECT_NE(out.find(">>>> RM::Initialize: Invalid regionScaleFactor: 3"), std::string::npos) << out;
    EXPECT_EQ(rm()->NewPackRegionBytes(), 0x2AA8000u);
    out = initializeWith(4);
    EXPECT_NE(out.find("Invalid regionScaleFactor: 4 (a Region of"), std::string::npos) << out;
    EXPECT_EQ(rm()->NewPackRegionBytes(), 0x2AA8000u);

    initializeWith(14);
    ASSERT_EQ(rm()->NewPackRegionBytes(), 0x2AA8000u / 14);
    makePack({"20G"});
    const uint32_t rlba = kRlba / 14;
    EXPECT_EQ(rm()->RegionSizeBytes(), uint64_t(rlba) * 512);
    EXPECT_EQ(SystemDrivePackInfo::GetInstance()->GetRegionSize(), uint64_t(rlba) * 512);
    Copy c = readCopy(0, 0x480);
    ASSERT_TRUE(c.header.valid);
    EXPECT_EQ(c.header.regionSectors, rlba);
    // The pack keeps its own size when the setting changes back.
    initializeWith(0);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(rm()->RegionSizeBytes(), uint64_t(rlba) * 512);
    IOTracker t(READ_WRITE);
    uint32_t r = 0;
    ASSERT_EQ(rm()->AllocateRegions(0, 1, &r, false, t), StatusCode::Success);
    auto data = pattern(4096, 5);
    DataWindow w = windowOf(data);
    ASSERT_EQ(rm()->WriteData(0, r, rlba * 512 - 4096, w, t), StatusCode::Success);
    DataWindow one(512, 0, 512);
    EXPECT_EQ(rm()->WriteData(0, r, rlba * 512, one, t), StatusCode::RM_BadOffset);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    EXPECT_EQ(raw(0, uint64_t(r) * (rlba + 1) + rlba - 8, 8), data);
}

TEST_F(RegionManagerTest, AHotAddedDiskJoinsWithThePacksSavedZoneTableLocations) {
    makePack({"20G", "20G"});
    IOTracker t(READ_WRITE);
    ASSERT_EQ(rm()->SetMetaData(0, 1, 300, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetMetaData(1, 0, 301, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);

    std::string msg;
    ASSERT_TRUE(ctl().insertDisk(2, "30G", msg)) << msg;
    drainMessages();
    ASSERT_EQ(dm()->AddDisk(2), StatusCode::Success);
    ASSERT_EQ(joinPack(2), 2);
    uint32_t lba0 = 0, lba1 = 0;
    bool keep = false;
    ASSERT_EQ(rm()->CreateDisk(2, lba0, lba1, keep), StatusCode::Success);
    ASSERT_EQ(rm()->LoadDisk(2), StatusCode::Success);
    EXPECT_EQ(rm()->LoadDisk(2), StatusCode::RM_DiskExists);
    Copy c = readCopy(2, lba0);
    ASSERT_TRUE(c.header.valid);
    EXPECT_EQ(c.header.savedLd[0], 1);
    EXPECT_EQ(c.header.savedRegion[0], 300u);
    EXPECT_EQ(c.header.savedRegion[1], 301u);
    IOTracker a(READ_WRITE);
    uint32_t r = 0;
    ASSERT_EQ(rm()->AllocateRegions(2, 1, &r, false, a), StatusCode::Success);
    ASSERT_EQ(a.commit(), StatusCode::Success);

    // Removal forgets the disk; the pack still loads with all three.
    ASSERT_EQ(rm()->RemoveDisk(2), StatusCode::Success);
    EXPECT_FALSE(rm()->IsPresent(2));
    ASSERT_EQ(reload(), StatusCode::Success);
    bool allocated = false;
    IOTracker q(READ_ONLY);
    ASSERT_EQ(rm()->IsAllocated(2, r, allocated, q), StatusCode::Success);
    EXPECT_TRUE(allocated);
}

TEST_F(RegionManagerTest, DisksThatNameDifferentZoneTablesRefuseThePackAndAnEmptySlotIsFilledIn) {
    makePack({"20G", "20G", "20G"});
    IOTracker t(READ_WRITE);
    ASSERT_EQ(rm()->SetMetaData(0, 1, 300, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetMetaData(1, 2, 301, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    uint32_t lba1 = disRangesFor(uint32_t(dm()->GetDriveCapacity(2)))[1].end + 0x400;

    // Disk 2 forgets its saved slots: it is brought into line at the load.
    for (uint32_t lba : {0x480u, lba1}) patchHeader(2, lba, [](uint8_t* s) { std::memset(s + 0x20, 0, 0x20); });
    ASSERT_EQ(reload(), StatusCode::Success);
    for (uint32_t lba : {0x480u, lba1}) {
        Copy c = readCopy(2, lba);
        EXPECT_EQ(c.header.savedRegion[0], 300u);
        EXPECT_EQ(c.header.savedRegion[1], 301u);
    }
    // Disk 2 names another Zone table: two sets, the pack is refused.
    for (uint32_t lba : {0x480u, lba1})
        patchHeader(2, lba, [](uint8_t* s) { RegionTestFixture::putBE(s + 0x24, 999); });
    testing::internal::CaptureStdout();
    EXPECT_EQ(reload(), StatusCode::RM_MetaDataBad);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("<<<< RM::LoadDiskPack too many sets of ZM metadata: 2. Bailing out"), std::string::npos) << out;
    EXPECT_FALSE(rm()->IsPresent(0));
}

TEST_F(RegionManagerTest, ConcurrentTransactionsAllocateDistinctRegionsAndTheDiskAgrees) {
    makePack({"20G"});
    constexpr int kThreads = 4, kRounds = 20;
    std::vector<std::vector<uint32_t>> got(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            for (int k = 0; k < kRounds; ++k) {
                IOTracker t(READ_WRITE);
                uint32_t r[2];
                ASSERT_EQ(rm()->AllocateRegions(0, 2, r, i % 2 == 1, t), StatusCode::Success);
                ASSERT_EQ(t.commit(), StatusCode::Success);
                got[i].insert(got[i].end(), r, r + 2);
                if (k % 3 == 0) {
                    IOTracker f(READ_WRITE);
                    ASSERT_EQ(rm()->FreeRegions(0, 1, &r[0], f), StatusCode::Success);
                    ASSERT_EQ(f.commit(), StatusCode::Success);
                    got[i].erase(std::find(got[i].begin(), got[i].end(), r[0]));
                }
            }
        });
    for (auto& th : threads) th.join();
    std::set<uint32_t> all;
    size_t total = 0;
    for (auto& g : got) {
        all.insert(g.begin(), g.end());
        total += g.size();
    }
    EXPECT_EQ(all.size(), total) << "a Region was handed out twice";
    ASSERT_EQ(reload(), StatusCode::Success);
    IOTracker q(READ_ONLY);
    for (uint32_t r : all) {
        bool a = false;
        ASSERT_EQ(rm()->IsAllocated(0, r, a, q), StatusCode::Success);
        EXPECT_TRUE(a) << r;
    }
    std::ostringstream check;
    EXPECT_EQ(rm()->internalConsistencyCheck(check), StatusCode::Success) << check.str();
}

TEST_F(RegionScaleFactorTest, ADiskWithAnotherRegionSizeIsNotTakenIntoThePack) {
    makePack({"20G", "20G"});
    rm()->UnloadDiskPack();
    initializeWith(14);
    uint32_t lba0 = 0, lba1 = 0;
    bool flag = false;
    ASSERT_EQ(rm()->CreateDisk(1, lba0, lba1, flag), StatusCode::Success);
    EXPECT_EQ(readCopy(1, lba0).header.regionSectors, kRlba / 14);
    testing::internal::CaptureStdout();
    EXPECT_NE(reload(), StatusCode::Success);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("does not match system region size " + std::to_string(kRlba)), std::string::npos) << out;
    EXPECT_FALSE(rm()->IsPresent(0));
}

TEST_F(RegionManagerTest, AReadOnlyLoadLeavesDisagreeingSavedSlotsForTheFullLoadToMend) {
    makePack({"20G", "20G"});
    IOTracker t(READ_WRITE);
    ASSERT_EQ(rm()->SetMetaData(0, 1, 300, t), StatusCode::Success);
    ASSERT_EQ(rm()->SetMetaData(2, 0, 302, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    uint32_t lba1 = disRangesFor(uint32_t(dm()->GetDriveCapacity(1)))[1].end + 0x400;
    // Disk 1 lost its tertiary slot only: one set, repairable.
    for (uint32_t lba : {0x480u, lba1}) patchHeader(1, lba, [](uint8_t* s) { std::memset(s + 0x30, 0, 8); });
    auto before = raw(1, 0x480);
    testing::internal::CaptureStdout();
    ASSERT_EQ(reload(false), StatusCode::Success);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("ZM metadata repairable, but we are in ReadOnly mode. Bailing out"), std::string::npos) << out;
    EXPECT_EQ(raw(1, 0x480), before);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(readCopy(1, 0x480).header.savedRegion[2], 302u);
    EXPECT_EQ(readCopy(1, lba1).header.savedRegion[2], 302u);
}
