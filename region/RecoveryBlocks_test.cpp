// RecoveryBlocks in the padding sectors: what reaches the disk, ownership,
// invalidation, the recovery generation, and packs without padding.
#include "region/RegionTestSupport.h"
#include "util/ConsoleCommand.h"

namespace {
constexpr uint32_t kRlba = 0x15540;
constexpr uint32_t kStride = kRlba + 1;
}  // namespace

class RecoveryBlockTest : public RegionTestFixture {
protected:
    independent::RecoveryRecord onDisk(int slot, uint32_t region, uint32_t stride = kStride) {
        return independent::readRecoveryBlock(raw(slot, uint64_t(region) * stride + kRlba).data());
    }
    static _ZISRecovery zoneRecovery(uint32_t zone, uint16_t index, uint32_t owner, uint32_t lun) {
        _ZISRecovery z;
        z.zoneNumber = zone;
        z.arrayIndex = index;
        z.zoneFlags = 0x11;
        z.redundancyType = 2;
        z.ownership.owner = owner;
        z.ownership.words[0] = 4;
        z.ownership.words[1] = lun;
        return z;
    }
};

TEST_F(RecoveryBlockTest, BlocksFollowAllocateFreeAllocateAndStayConsistentAfterARestart) {
    makePack({"20G", "20G"});
    IOTracker t(READ_WRITE);
    uint32_t regions[4];
    ASSERT_EQ(rm()->AllocateRegions(1, 4, regions, false, t), StatusCode::Success);
    for (uint16_t i = 0; i < 4; ++i) {
        _ZISRecovery z = zoneRecovery(30 + i, i, _ZoneOwnership::kCATM, 9);
        ASSERT_EQ(rm()->WriteRecoveryBlock(1, regions[i], RegionTypeZONE, &z, nullptr, t), StatusCode::Success);
    }
    ASSERT_EQ(t.commit(), StatusCode::Success);
    // Free one, invalidate its block, take it again for another Zone.
    IOTracker f(READ_WRITE);
    ASSERT_EQ(rm()->InvalidateRecoveryBlock(1, regions[1], f), StatusCode::Success);
    ASSERT_EQ(rm()->FreeRegions(1, 1, &regions[1], f), StatusCode::Success);
    ASSERT_EQ(f.commit(), StatusCode::Success);
    auto invalid = onDisk(1, regions[1]);
    EXPECT_TRUE(invalid.magic);
    EXPECT_FALSE(invalid.crcValid);
    IOTracker g(READ_WRITE);
    uint32_t again = 0;
    ASSERT_EQ(rm()->AllocateRegions(1, 1, &again, false, g), StatusCode::Success);
    EXPECT_EQ(again, regions[1]);
    _ZISRecovery z = zoneRecovery(77, 5, _ZoneOwnership::kCM, 0);
    ASSERT_EQ(rm()->WriteRecoveryBlock(1, again, RegionTypeZONE, &z, nullptr, g), StatusCode::Success);
    ASSERT_EQ(g.commit(), StatusCode::Success);

    ASSERT_EQ(reload(), StatusCode::Success);
    for (uint16_t i = 0; i < 4; ++i) {
        bool allocated = false;
        IOTracker r(READ_ONLY);
        ASSERT_EQ(rm()->IsAllocated(1, regions[i], allocated, r), StatusCode::Success);
        EXPECT_TRUE(allocated);
        auto b = onDisk(1, regions[i]);
        ASSERT_TRUE(b.magic && b.crcValid) << "Region " << regions[i];
        EXPECT_EQ(b.version, 1u);
        EXPECT_EQ(b.ld, 1);
        EXPECT_EQ(b.regionSize, kRlba * 512);
        EXPECT_EQ(b.type, 1u);
        EXPECT_EQ(b.zone, i == 1 ? 77u : 30u + i);
        EXPECT_EQ(b.arrayIndex, i == 1 ? 5 : i);
        EXPECT_EQ(b.owner, i == 1 ? _ZoneOwnership::kCM : _ZoneOwnership::kCATM);
        EXPECT_EQ(b.redundancy, 2u);
        EXPECT_EQ(b.flags, 0x11u);
    }
    // The Region's own data never overlaps its block.
    IOTracker io(READ_WRITE);
    auto data = pattern(4096, 3);
    DataWindow w = windowOf(data);
    ASSERT_EQ(rm()->WriteData(1, regions[0], kRlba * 512 - 4096, w, io), StatusCode::Success);
    io.commit();
    EXPECT_TRUE(onDisk(1, regions[0]).crcValid);
}

TEST_F(RecoveryBlockTest, OwnershipChangesKeepTheBlockValidAndTheGenerationMarksNewerBlocks) {
    makePack({"20G", "20G"});
    IOTracker t(READ_WRITE);
    uint32_t r = 0;
    ASSERT_EQ(rm()->AllocateRegions(0, 1, &r, true, t), StatusCode::Success);
    _RISRecovery ris{12, 34};
    ASSERT_EQ(rm()->WriteRecoveryBlock(0, r, RegionTypeRIS, nullptr, &ris, t), StatusCode::Success);
    auto b = onDisk(0, r);
    EXPECT_TRUE(b.crcValid);
    EXPECT_EQ(b.type, 2u);
    EXPECT_EQ(b.nextMetadata, 12u);
    EXPECT_EQ(b.nextUserdata, 34u);
    EXPECT_EQ(b.redundancy, 0x12u);  // no Zone
    EXPECT_EQ(b.generation, 0u);

    _ZoneOwnership o;
    o.owner = _ZoneOwnership::kZ0IT;
    o.words[0] = 3;
    ASSERT_EQ(rm()->SetZoneOwnership(0, r, o, t), StatusCode::Success);
    b = onDisk(0, r);
    EXPECT_TRUE(b.crcValid);
    EXPECT_EQ(b.owner, 1u);
    EXPECT_EQ(b.ownerWords[0], 3u);
    EXPECT_EQ(b.nextMetadata, 12u);
    _ZoneOwnership back;
    ASSERT_EQ(rm()->GetZoneOwnership(0, r, back, t), StatusCode::Success);
    EXPECT_EQ(back.owner, 1u);
    EXPECT_EQ(back.words[0], 3u);

    ASSERT_EQ(rm()->IncrementRecoveryGeneration(t), StatusCode::Success);
    ASSERT_EQ(rm()->IncrementRecoveryGeneration(t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    for (int slot = 0; slot < 2; ++slot) EXPECT_EQ(readCopy(slot, 0x480).header.recoveryGeneration, 2u);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_EQ(rm()->RecoveryGeneration(), 2u);
    IOTracker u(READ_WRITE);
    _ZISRecovery z;
    ASSERT_EQ(rm()->WriteRecoveryBlock(0, r, RegionTypeZIS, &z, nullptr, u), StatusCode::Success);
    u.commit();
    EXPECT_EQ(onDisk(0, r).generation, 2u);
    RecoveryBlock rb;
    IOTracker v(READ_ONLY);
    ASSERT_EQ(rm()->ReadRecoveryBlock(0, r, rb, v), StatusCode::Success);
    EXPECT_EQ(rb.magic, RecoveryBlock::kMagic);
    EXPECT_EQ(rb.recoveryGeneration, 2u);
    EXPECT_EQ(rb.regionType, uint32_t(RegionTypeZIS));
}

TEST_F(RecoveryBlockTest, APackWithoutPaddingWorksWithoutRecoveryBlocks) {
    loadDisks({"20G"});
    RegionManagerTestAccess::setNewDiskPadding(0);
    testing::internal::CaptureStdout();
    makePackOnPresentDisks();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("DiskPack has inter-Region recovery space DISABLED"), std::string::npos) << out;
    EXPECT_FALSE(rm()->RecoverySpaceEnabled());
    EXPECT_EQ(readCopy(0, 0x480).header.padding, 0u);
    IOTracker t(READ_WRITE);
    uint32_t r[2];
    ASSERT_EQ(rm()->AllocateRegions(0, 2, r, false, t), StatusCode::Success);
    ASSERT_EQ(r[1], r[0] + 1);
    _ZISRecovery z;
    EXPECT_EQ(rm()->WriteRecoveryBlock(0, r[0], RegionTypeZONE, &z, nullptr, t), StatusCode::InternalError);
    // Regions lie back to back: the last sector of one is followed by the first of the next.
    auto a = pattern(512, 1), b = pattern(512, 2);
    DataWindow wa = windowOf(a), wb = windowOf(b);
    ASSERT_EQ(rm()->WriteData(0, r[0], kRlba * 512 - 512, wa, t), StatusCode::Success);
    ASSERT_EQ(rm()->WriteData(0, r[1], 0, wb, t), StatusCode::Success);
    t.commit();
    EXPECT_EQ(raw(0, uint64_t(r[1]) * kRlba - 1, 1), a);
    EXPECT_EQ(raw(0, uint64_t(r[1]) * kRlba, 1), b);
    ASSERT_EQ(reload(), StatusCode::Success);
    EXPECT_FALSE(rm()->RecoverySpaceEnabled());
}

TEST_F(RecoveryBlockTest, TheScanAndTheConsoleShowWhatIsOnTheDisks) {
    makePack({"20G"});
    IOTracker t(READ_WRITE);
    uint32_t r[2];
    ASSERT_EQ(rm()->AllocateRegions(0, 2, r, false, t), StatusCode::Success);
    _ZISRecovery z = zoneRecovery(5, 1, _ZoneOwnership::kCATM, 2);
    ASSERT_EQ(rm()->WriteRecoveryBlock(0, r[0], RegionTypeZONE, &z, nullptr, t), StatusCode::Success);
    ASSERT_EQ(rm()->WriteRecoveryBlock(0, r[1], RegionTypeZONE, &z, nullptr, t), StatusCode::Success);
    ASSERT_EQ(rm()->InvalidateRecoveryBlock(0, r[1], t), StatusCode::Success);
    ASSERT_EQ(rm()->IncrementBadRegionCount(0, t), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    dm()->Flush(0);

    std::ostringstream scan;
    ASSERT_EQ(ConsoleCommand::ExecuteLine("findRecoveryBlocks " + std::to_string(kRlba * 512), scan), 0);
    std::string s = scan.str();
    EXPECT_NE(s.find("Found possible RecoveryBlock on LD#0 at LBA " + std::to_string(r[0] * kStride + kRlba)),
              std::string::npos)
        << s;
    EXPECT_NE(s.find("Checksum validation PASSED"), std::string::npos);
    EXPECT_NE(s.find("Checksum validation FAILED"), std::string::npos);
    EXPECT_NE(s.find("Owner: CATM (2) Index# 4 LUN# 2"), std::string::npos);

    std::ostringstream dump;
    ASSERT_EQ(ConsoleCommand::ExecuteLine("rmdump 0 0 1152 1", dump), 0);
    EXPECT_NE(dump.str().find("52 4d 4d 44"), std::string::npos) << dump.str();  // "RMMD" at LBA 0x480
    std::ostringstream padding;
    ASSERT_EQ(ConsoleCommand::ExecuteLine("rmdump 0 " + std::to_string(r[0]) + " " + std::to_string(kRlba), padding),
              0);
    EXPECT_NE(padding.str().find(": 4f 43 45 52"), std::string::npos) << padding.str();  // the block's magic
    std::ostringstream past;
    EXPECT_NE(ConsoleCommand::ExecuteLine("rmdump 0 0 4294967000 2", past), 0);
    std::ostringstream list;
    ASSERT_EQ(ConsoleCommand::ExecuteLine("listRegionStatus 0 0 3", list), 0);
    EXPECT_NE(list.str().find("Region 0 LBA 0: allocated RM-metadata DIS"), std::string::npos) << list.str();
    EXPECT_NE(list.str().find("Region 2 LBA " + std::to_string(2 * kStride) + ": allocated"), std::string::npos);
    std::ostringstream bad;
    EXPECT_NE(ConsoleCommand::ExecuteLine("rmdump 0 x", bad), 0);
    EXPECT_NE(bad.str().find("Syntax is: rmdump"), std::string::npos);

    // The bad Region counted on the disk lowers what is available.
    Copy c = readCopy(0, 0x480);
    IOTracker q(READ_ONLY);
    uint32_t available = 0;
    ASSERT_EQ(rm()->GetAvailableRegionCount(0, available, q), StatusCode::Success);
    EXPECT_EQ(available, rm()->PhysicalRegions(0) - c.header.unavailable);
    ASSERT_EQ(reload(), StatusCode::Success);
    uint32_t after = 0;
    ASSERT_EQ(rm()->GetAvailableRegionCount(0, after, q), StatusCode::Success);
    EXPECT_EQ(after, available);
}

TEST_F(RecoveryBlockTest, ARecreatedFormerMemberKeepsItsPaddingAndIsNotNew) {
    loadDisks({"20G", "20G"});
    RegionManagerTestAccess::setNewDiskPadding(0);
    makePackOnPresentDisks();
    rm()->UnloadDiskPack();
    RegionManagerTestAccess::setNewDiskPadding(1);
    uint32_t lba0 = 0, lba1 = 0;
    bool flag = true;  // in: keep the padding
    ASSERT_EQ(rm()->CreateDisk(0, lba0, lba1, flag), StatusCode::Success);
    EXPECT_FALSE(flag);  // out: it had Region metadata
    EXPECT_EQ(readCopy(0, lba0).header.padding, 0u);
    flag = false;
    ASSERT_EQ(rm()->CreateDisk(1, lba0, lba1, flag), StatusCode::Success);
    EXPECT_FALSE(flag);
    EXPECT_EQ(readCopy(1, lba0).header.padding, 1u);
    // A blank disk is new.
    std::string msg;
    ASSERT_TRUE(ctl().insertDisk(2, "20G", msg)) << msg;
    drainMessages();
    ASSERT_EQ(dm()->AddDisk(2), StatusCode::Success);
    ASSERT_EQ(joinPack(2), 2);
    flag = true;
    ASSERT_EQ(rm()->CreateDisk(2, lba0, lba1, flag), StatusCode::Success);
    EXPECT_TRUE(flag);
    EXPECT_EQ(readCopy(2, lba0).header.padding, 1u);
}
