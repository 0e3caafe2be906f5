// The pack layer on simulated disks: a new pack from blank disks, a pack found
// again after the disks move, the refusals (two packs, expunged disks, unknown
// layouts), the newer generation winning, and the DIS writes with their
// rollback and repair. What reached the disks is read back past every cache
// and decoded by the independent reader.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "disk/PackTestFixture.h"
#include "system/SystemManager.h"
#include "tests/support/PackImage.h"
#include "util/Endian.h"

using namespace DisLayout;

namespace {


// Rewrites a record's checksums after a field was patched (layout > 9).
void reseal(uint8_t* s) {
    putLE32(s + 0x60, independent::crc(s, 0x60));
    putLE32(s + 0x6C, independent::crc(s + 0x64, 8));
}

}  // namespace

class PackCreate : public PackTestFixture {};
class PackLoad : public PackTestFixture {};
class DisWrite : public PackTestFixture {};
class DisRecord : public PackTestFixture {};

// ---- a new pack

TEST_F(PackCreate, BlankDisksOfMixedSizesBecomeOnePack) {
    makePack({"1G", "3G", "", "2G"});
    ASSERT_TRUE(dpm()->packLoaded());
    const auto id = dpm()->packId();
    EXPECT_FALSE(id.isZero());
    std::map<int, uint16_t> expectLd = {{0, 0}, {1, 1}, {3, 2}};  // map order, empty slot skipped
    for (auto [slot, ld] : expectLd) {
        uint32_t lbas[3];
        for (unsigned copy = 0; copy < 3; ++copy) {
            independent::Dis d = liveCopy(slot, copy, &lbas[copy]);
            ASSERT_TRUE(d.valid) << "slot " << slot << " copy " << copy;
            EXPECT_EQ(lbas[copy], rangeStarts(slot)[copy]) << "a fresh copy sits at its range's first sector";
            EXPECT_EQ(d.packId0, id.word[0]);
            EXPECT_EQ(d.packId1, id.word[1]);
            EXPECT_EQ(d.generation, 1u);
            EXPECT_EQ(d.logicalDisks, 0x7u);
            EXPECT_EQ(d.ldNumber, ld);
            EXPECT_EQ(d.ldBitmap, 1u << ld);
            EXPECT_EQ(d.layout, 17u);
            EXPECT_EQ(d.name, "TarvoPro");
            EXPECT_EQ(d.expungeReason, "NOT EXPUNGED");
            EXPECT_EQ(d.flags, 0u);
        }
        uint16_t got = 99;
        ASSERT_EQ(dpm()->getLdNum(uint16_t(slot), got), StatusCode::Success);
        EXPECT_EQ(got, ld);
        uint16_t back = 99;
        ASSERT_EQ(dpm()->getSlotNum(ld, back), StatusCode::Success);
        EXPECT_EQ(back, slot);
    }
    EXPECT_EQ(dpm()->presentLogicalDisks(), 0x7u);
    uint16_t none = 0;
    EXPECT_EQ(dpm()->getLdNum(2, none), StatusCode::DiskNotPresent);
}

TEST_F(PackCreate, MappingAnswersNothingBeforeALoad) {
    loadDisks({"1G"});
    uint16_t ld = 0, slot = 0;
    EXPECT_EQ(dpm()->getLdNum(0, ld), StatusCode::DiskPackNotLoaded);
    EXPECT_EQ(dpm()->getSlotNum(0, slot), StatusCode::DiskPackNotLoaded);
    ASSERT_EQ(dpm()->doColdStart(false), StatusCode::Success);
    EXPECT_EQ(dpm()->getLdNum(0, ld), StatusCode::Success);
}

TEST_F(PackCreate, NoDisksLoadsNothing) {
    loadDisks({});
    EXPECT_EQ(dpm()->doColdStart(true), StatusCode::DiskPackNotLoaded);
    EXPECT_EQ(dpm()->notLoadedReason(), DiskPackManager::kNoSpecificError);
    std::ostringstream out;
    dpm()->Dump(out);
    EXPECT_NE(out.str().find("DISK PACK IS NOT LOADED, DPM HAS NO STATE"), std::string::npos);
}

// ---- the same pack found again

TEST_F(PackLoad, ShuffledDisksLoadAsTheSamePackWithTheirLds) {
    makePack({"1G", "2G", "3G"});
    const auto id = dpm()->packId();
    // Slot 0 -> 2, 1 -> 0, 2 -> 1.
    ASSERT_EQ(restart([] {
                  for (int s = 0; s < 3; ++s) moveDisk(slotBase(s), shelfBase(std::to_string(s)));
                  moveDisk(shelfBase("0"), slotBase(2));
                  moveDisk(shelfBase("1"), slotBase(0));
                  moveDisk(shelfBase("2"), slotBase(1));
              }),
              StatusCode::Success);
    ASSERT_TRUE(dpm()->packLoaded());
    EXPECT_EQ(dpm()->packId(), id);
    EXPECT_EQ(dpm()->generation(), 1u) << "nothing changed: no new generation";
    // LD 0 (1G) now in slot 2, LD 1 (2G) in slot 0, LD 2 (3G) in slot 1.
    for (auto [slot, ld] : std::map<int, uint16_t>{{2, 0}, {0, 1}, {1, 2}}) {
        uint16_t got = 99;
        ASSERT_EQ(dpm()->getLdNum(uint16_t(slot), got), StatusCode::Success);
        EXPECT_EQ(got, ld) << "slot " << slot;
        EXPECT_EQ(liveCopy(slot, 0).ldNumber, ld);
    }
    uint32_t cap = 0;
    ASSERT_EQ(dpm()->getCapacity(0, cap), StatusCode::Success);
    EXPECT_EQ(cap, uint32_t(dm()->GetDriveCapacity(2)));
}

TEST_F(PackLoad, DisksOfTwoPacksLoadNothingAndStayByteIdentical) {
    makePack({"1G", "1G"});
    const auto first = dpm()->packId();
    ASSERT_EQ(restart([] {
                  moveDisk(slotBase(0), shelfBase("a0"));
                  moveDisk(slotBase(1), shelfBase("a1"));
              }),
              StatusCode::DiskPackNotLoaded);
    resetPack();
    makePack({"1G", "1G"});
    ASSERT_NE(dpm()->packId(), first);
    std::map<int, std::string> before;
    ASSERT_EQ(restart([&] {
                  moveDisk(shelfBase("a0"), slotBase(2));
                  moveDisk(shelfBase("a1"), slotBase(3));
                  for (int s = 0; s < 4; ++s) before[s] = packimage::imageDigest(slotBase(s).string() + ".img");
              }),
              StatusCode::DiskPackNotLoaded);
    EXPECT_FALSE(dpm()->packLoaded());
    EXPECT_EQ(dpm()->notLoadedReason(), DiskPackManager::kConflictingPacks);
    std::ostringstream out;
    dpm()->Dump(out);
    EXPECT_NE(out.str().find("NOT LOADED BECAUSE CONFLICTING DISK PACKS"), std::string::npos) << out.str();
    dm()->FlushAllDrives();
    for (int s = 0; s < 4; ++s) EXPECT_EQ(packimage::imageDigest(slotBase(s).string() + ".img"), before[s]) << "slot " << s;
}

TEST_F(PackLoad, ClearTakesTheDisksOfTwoPacks) {
    makePack({"1G"});
    ASSERT_EQ(restart([] { moveDisk(slotBase(0), shelfBase("a")); }), StatusCode::DiskPackNotLoaded);
    resetPack();
    makePack({"1G"});
    ASSERT_EQ(restart([] { moveDisk(shelfBase("a"), slotBase(1)); }), StatusCode::DiskPackNotLoaded);
    resetPack();
    ASSERT_EQ(dpm()->doColdStart(true), StatusCode::Success);
    const auto id = dpm()->packId();
    for (int s = 0; s < 2; ++s) {
        independent::Dis d = liveCopy(s, 1);
        EXPECT_EQ(d.packId0, id.word[0]);
        EXPECT_EQ(d.ldNumber, s);
        EXPECT_EQ(d.logicalDisks, 0x3u);
    }
}

TEST_F(PackLoad, NewerGenerationWinsAndOlderDisksAreAbsorbed) {
    makePack({"1G", "1G", "1G"});
    // Slot 2 leaves the membership write: disks 0 and 1 go to generation 2, disk 2 stays at 1.
    ASSERT_EQ(dpm()->master().removeDiskInSlot(2), StatusCode::Success);
    ASSERT_EQ(dpm()->master().updateDis(nullptr, true), StatusCode::Success);
    ASSERT_EQ(liveCopy(0, 0).generation, 2u);
    ASSERT_EQ(liveCopy(2, 0).generation, 1u);
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_EQ(dpm()->generation(), 3u);
    for (int s = 0; s < 3; ++s)
        for (unsigned copy = 0; copy < 3; ++copy) {
            independent::Dis d = liveCopy(s, copy);
            EXPECT_EQ(d.generation, 3u) << "slot " << s << " copy " << copy;
            EXPECT_EQ(d.logicalDisks, 0xFu) << "LD 2 stays a missing member; the old disk joins as LD 3";
        }
    EXPECT_EQ(liveCopy(2, 0).ldNumber, 3u);
    EXPECT_EQ(dpm()->getNumberOfMissingDisks(), 1u);
}

TEST_F(PackLoad, BlankDisksJoinAnExistingPackWithNewLds) {
    makePack({"1G", "1G", "1G"});
    ASSERT_EQ(restart([] {
                  std::string err;
                  uint64_t sectors = 0;
                  SimDisk::parseSize("1G", sectors);
                  ASSERT_TRUE(SimDisk::create(slotBase(4), sectors, {}, err)) << err;
                  ASSERT_TRUE(SimDisk::create(slotBase(6), sectors, {}, err)) << err;
              }),
              StatusCode::Success);
    EXPECT_EQ(dpm()->generation(), 2u);
    EXPECT_EQ(liveCopy(4, 2).ldNumber, 3u);
    EXPECT_EQ(liveCopy(6, 2).ldNumber, 4u);
    for (int s : {0, 1, 2, 4, 6}) EXPECT_EQ(liveCopy(s, 0).logicalDisks, 0x1Fu);
}

TEST_F(PackLoad, ExpungedDiskIsRefusedUnlessTheDisksAreCleared) {
    makePack({"1G", "1G"});
    // The expunge mark, as the expunge path leaves it on the disk alone.
    {
        DIS& dis = dpm()->master();
        ExtendingLockObject::ExclusiveLockInstance g(&dis.globalDISLock);
        DIS::LogicalDiskContainer* c = dis.container(1);
        c->flags |= DIS_EXPUNGED;
        c->setReason("HARD ERROR RATE");
        IOTracker t(READ_WRITE);
        ASSERT_EQ(dis.updateSingleDis(c, t, true), StatusCode::Success);
        t.commit();
    }
    EXPECT_EQ(liveCopy(1, 2).expungeReason, "HARD ERROR RATE");
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_FALSE(dpm()->isPresent(1));
    EXPECT_EQ(dpm()->getNumberOfMissingDisks(), 1u);
    EXPECT_EQ(liveCopy(1, 0).flags & DIS_EXPUNGED, DIS_EXPUNGED) << "a refused disk is not written";
    resetPack();
    ASSERT_EQ(dpm()->doColdStart(true), StatusCode::Success);
    EXPECT_TRUE(dpm()->isPresent(1));
    EXPECT_EQ(liveCopy(1, 0).flags, 0u);
    EXPECT_EQ(liveCopy(1, 0).expungeReason, "NOT EXPUNGED");
}

TEST_F(PackLoad, UnknownLayoutIsRefusedAndUntouched) {
    makePack({"1G"});
    for (unsigned copy = 0; copy < 3; ++copy) {
        uint32_t lba = 0;
        liveCopy(0, copy, &lba);
        std::vector<uint8_t> s = readSectors(0, lba, 1);
        putLE32(s.data() + 0x08, 18);
        reseal(s.data());
        writeSector(0, lba, s.data());
    }
    dm()->FlushAllDrives();
    std::string before = packimage::imageDigest(slotBase(0).string() + ".img");
    EXPECT_EQ(restart(), StatusCode::DiskPackNotLoaded);
    EXPECT_EQ(dpm()->notLoadedReason(), DiskPackManager::kUnknownMetadataVersion);
    dm()->FlushAllDrives();
    EXPECT_EQ(packimage::imageDigest(slotBase(0).string() + ".img"), before);
}

TEST_F(PackLoad, FailedSecondStageLocksLoadingOutUntilReboot) {
    makePack({"1G"});
    dm()->FlushAllDrives();
    resetPack();
    dpm()->setSecondStageForTest([] {
        dpm()->diskPackLoadStatus(StatusCode::DiskPackNotLoaded);
        return false;
    });
    EXPECT_EQ(dpm()->doColdStart(false), StatusCode::DiskPackNotLoaded);
    EXPECT_TRUE(dpm()->lockedOut());
    EXPECT_EQ(dpm()->notLoadedReason(), DiskPackManager::kMetadataBad);
    dpm()->setSecondStageForTest(&PackTestFixture::quickSecondStage);
    EXPECT_EQ(dpm()->doColdStart(false), StatusCode::DiskPackNotLoaded) << "refused until reboot";
    uint16_t ld = 0;
    EXPECT_EQ(dpm()->getLdNum(0, ld), StatusCode::DiskPackNotLoaded);
}

// ---- writes, rollback, repair

TEST_F(DisWrite, InjectedDiskNotPresentMidwayRollsTheWrittenDisksBack) {
    makePack({"1G", "1G", "1G"});
    ErrorInjection& inj = DIS::injection();
    ASSERT_TRUE(inj.enable(true, "updateDis.1", ErrorInjection::After, 1, 1, StatusCode()));
    EXPECT_EQ(dpm()->setDiskPackName("Renamed"), StatusCode::DiskNotPresent);
    inj.disable(true, "updateDis.1");
    EXPECT_EQ(dpm()->generation(), 1u);
    for (int s = 0; s < 3; ++s) EXPECT_EQ(liveCopy(s, 0).generation, 1u) << "slot " << s;
    EXPECT_GT(liveCopy(0, 0).iteration, liveCopy(2, 0).iteration) << "disk 0 was written twice";
    EXPECT_TRUE(dpm()->master().flags & DIS_NEEDS_GLOBAL_REWRITE);
    // The repair that follows rewrites the whole pack at a new generation.
    dpm()->master().repairDis();
    for (int s = 0; s < 3; ++s) {
        EXPECT_EQ(liveCopy(s, 1).generation, 2u);
        EXPECT_EQ(liveCopy(s, 1).name, "Renamed");
    }
}

TEST_F(DisWrite, DiskPulledDuringGlobalWriteLeavesSurvivorsAtTheOldGeneration) {
    makePack({"1G", "1G", "1G"});
    fault(2, {"notpresent", "write", "always"});
    EXPECT_EQ(dpm()->setDiskPackName("Pulled"), StatusCode::DiskNotPresent);
    std::string err;
    ctl().clearFaults(2, err);
    for (int s = 0; s < 2; ++s) {
        EXPECT_EQ(liveCopy(s, 0).generation, 1u);
        EXPECT_EQ(liveCopy(s, 2).generation, 1u);
    }
}

TEST_F(DisWrite, FailedCopyMovesOneSectorOnAndCatchesUp) {
    makePack({"1G", "1G"});
    const uint32_t r1 = rangeStarts(0)[1];
    fault(0, {"media", "write", "lba=" + std::to_string(r1), "once"});
    EXPECT_EQ(dpm()->setDiskPackName("Moved"), StatusCode::Success) << "one bad copy is not fatal";
    EXPECT_TRUE(dpm()->master().container(0)->flags & DIS1_BAD);
    dpm()->master().repairDis();
    uint32_t lbas[3];
    independent::Dis copies[3];
    for (unsigned c = 0; c < 3; ++c) copies[c] = liveCopy(0, c, &lbas[c]);
    EXPECT_EQ(lbas[1], r1 + 1);
    EXPECT_EQ(lbas[0], 0u);
    EXPECT_EQ(copies[1].iteration, copies[0].iteration);
    EXPECT_EQ(copies[2].iteration, copies[0].iteration);
    EXPECT_EQ(copies[1].name, "Moved");
    EXPECT_EQ(copies[1].flags, 0u);
}

TEST_F(DisWrite, CopyAtTheEndOfItsRangeFailingAgainMarksTheRangeBad) {
    makePack({"1G"});
    DIS::LogicalDiskContainer* c = dpm()->master().container(0);
    const uint32_t last = c->rangeEnd[2];
    {
        ExtendingLockObject::ExclusiveLockInstance g(&dpm()->master().globalDISLock);
        c->disLba[2] = last;
    }
    fault(0, {"media", "write", "lba=" + std::to_string(last), "always"});
    dpm()->master().updateDis(c, false);  // the last copy's failure is the result, and not fatal
    dpm()->master().repairDis();
    EXPECT_TRUE(c->flags & DIS_RANGE2_BAD);
    independent::Dis d = liveCopy(0, 0);
    EXPECT_TRUE(d.flags & DIS_RANGE2_BAD) << "the mark travels in the surviving copies";
    EXPECT_EQ(liveCopy(0, 1).iteration, d.iteration);
}

TEST_F(DisWrite, CorruptCopyIsRepairedFromTheOthers) {
    makePack({"1G", "1G"});
    std::vector<uint8_t> junk(512, 0xA5);
    writeSector(1, 0, junk.data());
    ASSERT_FALSE(liveCopy(1, 0).valid);
    ASSERT_EQ(restart(), StatusCode::Success);
    DIS::LogicalDiskContainer* c = dpm()->master().container(1);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->flags & DIS0_BAD);
    EXPECT_TRUE(dpm()->master().flags & DIS_NEEDS_REPAIR);
    dpm()->master().repairDis();
    uint32_t lba = 99;
    independent::Dis d = liveCopy(1, 0, &lba);
    ASSERT_TRUE(d.valid);
    EXPECT_EQ(lba, 1u);
    EXPECT_EQ(d.iteration, liveCopy(1, 2).iteration);
    EXPECT_EQ(d.flags, 0u);
}

TEST_F(DisWrite, UnreadableRangeIsMarkedAndTheOtherCopiesCarryOn) {
    makePack({"1G", "1G"});
    const uint32_t r2 = rangeStarts(0)[2];
    ASSERT_EQ(restart([&] {
                  fault(0, {"media", "read", "lba=" + std::to_string(r2) + "-" + std::to_string(r2 + 0x7F), "always"});
              }),
              StatusCode::Success);
    DIS::LogicalDiskContainer* c = dpm()->master().container(0);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->flags & DIS_RANGE2_BAD);
    EXPECT_FALSE(c->flags & DIS2_BAD) << "a bad range's copy is not retried";
}

TEST_F(DisWrite, AllThreeRangesBadRefusesTheDiskAndThePackLoadsWithoutIt) {
    makePack({"1G", "1G"});
    auto starts = rangeStarts(1);
    ASSERT_EQ(restart([&] {
                  for (uint32_t first : starts)
                      fault(1, {"media", "read", "lba=" + std::to_string(first) + "-" + std::to_string(first + 0x7F),
                                "always"});
              }),
              StatusCode::Success);
    EXPECT_FALSE(dpm()->isPresent(1));
    EXPECT_EQ(dpm()->getNumberOfMissingDisks(), 1u);
    EXPECT_EQ(liveCopy(0, 0).generation, 2u) << "the membership change is written";
}

TEST_F(DisWrite, AllRangesBadOnALoadedDiskExpungesIt) {
    makePack({"1G", "1G"});
    DIS& dis = dpm()->master();
    DIS::LogicalDiskContainer* c = dis.container(1);
    {
        ExtendingLockObject::ExclusiveLockInstance g(&dis.globalDISLock);
        c->flags |= DIS_RANGE0_BAD | DIS_RANGE1_BAD | DIS2_BAD | DIS_NEEDS_REPAIR;
        c->disLba[2] = c->rangeEnd[2];
    }
    // The expunge is queued as an event; run it here the way the event thread would.
    dis.repairDis();
    EXPECT_TRUE(c->allRangesBad());
    DiskPackManager::ExpungeParams p;
    p.ld = 1;
    std::strcpy(p.reason, "ALL DIS RANGES BAD");
    EXPECT_EQ(dpm()->expungeLogicalDisk(&p), StatusCode::Success);
    EXPECT_FALSE(dpm()->isPresent(1));
    EXPECT_EQ(liveCopy(0, 0).generation, 2u);
}

// ---- records that are not what they should be

TEST_F(DisRecord, VersionFifteenAndBadExtensionAreRejectedOldLayoutIsUpgraded) {
    makePack({"1G", "1G"});
    // Disk 0: newer records behind the live ones that fail sanity (version
    // 15) or carry a bad sig3. Both disks: the live records rewritten as
    // layout 9, without the extension.
    for (unsigned copy = 0; copy < 3; ++copy) {
        uint32_t lba = 0;
        liveCopy(0, copy, &lba);
        std::vector<uint8_t> s = readSectors(0, lba, 1);
        putLE32(s.data() + 0x50, getLE32(s.data() + 0x50) + 10);
        std::vector<uint8_t> v15 = s, sig3 = s;
        putLE32(v15.data() + 0x04, 15);
        reseal(v15.data());
        putLE32(sig3.data() + 0x64, 0x12345678);
        putLE32(sig3.data() + 0x60, independent::crc(sig3.data(), 0x60));
        writeSector(0, lba + 1, v15.data());
        writeSector(0, lba + 2, sig3.data());

        for (int slot : {0, 1}) {
            liveCopy(slot, copy, &lba);
            std::vector<uint8_t> old = readSectors(slot, lba, 1);
            putLE32(old.data() + 0x08, 9);
            std::memset(old.data() + 0x64, 0, 512 - 0x64);
            putLE32(old.data() + 0x60, independent::crc(old.data(), 0x60));
            writeSector(slot, lba, old.data());
        }
    }
    ASSERT_EQ(liveCopy(1, 2).layout, 9u);
    const uint32_t iteration0 = liveCopy(0, 0).iteration;
    ASSERT_EQ(restart(), StatusCode::Success);
    EXPECT_EQ(dpm()->master().container(0)->iteration, iteration0 + 1) << "the bad records were skipped";
    for (int s = 0; s < 2; ++s) {
        independent::Dis d = liveCopy(s, 0);
        EXPECT_EQ(d.layout, 17u) << "upgraded at the end of the load";
        EXPECT_EQ(d.generation, 2u);
        EXPECT_EQ(d.expungeReason, "NOT EXPUNGED");
    }
}

TEST_F(DisRecord, StreamOutputCarriesTheFieldLabels) {
    makePack({"1G"});
    std::ostringstream out;
    out << dpm()->master() << *dpm()->master().container(0);
    for (const char* label : {"sig0", "version", "layout", "PackID", "generation", "logicalDisks", "critcalDisks",
                              "name", "flags", "LD BM", "DIS iteration", "RM LBA [0]", "RM LBA [1]", "sig1",
                              "checksum", "DIS LBAs", "DIS LBA start", "DIS LBA end", "Ext sig3", "Ext version",
                              "Expunge reason", "Ext checksum"})
        EXPECT_NE(out.str().find(label), std::string::npos) << label;
}

// Two disks gone within one generation change would leave the pack with two
// generations: the system restarts instead, and the next start decides.
TEST_F(DisWrite, DiskNotPresentFromTwoDisksRestartsTheSystem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the console, where the death test looks
            makePack({"1G", "1G", "1G"});
            // LD 1 vanishes after LD 0 took the new generation; LD 0 then
            // vanishes on its rollback (its fourth write: three copies, then the rollback).
            DIS::injection().enable(true, "updateDis.1", ErrorInjection::After, 1, 1, StatusCode());
            for (ErrorInjection* e : ErrorInjection::All())
                if (e->module() == "dm")
                    e->enable(true, "WriteData.0", ErrorInjection::After, 4, 1, StatusCode::DiskNotPresent);
            dpm()->setDiskPackName("Twice");
            std::exit(0);
        },
        ::testing::ExitedWithCode(Board::kRestartExitStatus), "DNP FROM TWO DISKS DURING DIS WRITE");
}
