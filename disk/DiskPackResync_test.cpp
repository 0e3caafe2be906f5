// What the pack remembers and checks between its changes: the disk that left
// last and its return (fast resync), the check after standby that the disks
// are those that went to sleep, an error found late in a DIS range, and the
// deletion of a missing LD.
#include <gtest/gtest.h>

#include <sstream>

#include "disk/PackTestFixture.h"
#include "util/ErrorInjection/ErrorInjection.h"

using namespace DisLayout;

namespace {

class PackMemory : public PackTestFixture {
protected:
    void pull(unsigned slot) {
        ASSERT_EQ(dm()->RemoveDisk(int(slot)), StatusCode::Success);
        drainMessages();
        ASSERT_EQ(dpm()->hotPlug(uint16_t(slot), DiskPackManager::REMOVE), StatusCode::Success);
    }
    void putBack(unsigned slot) {
        ASSERT_EQ(dm()->AddDisk(int(slot)), StatusCode::Success);
        drainMessages();
        ASSERT_EQ(dpm()->hotPlug(uint16_t(slot), DiskPackManager::ADD), StatusCode::Success);
    }
    void insertNew(unsigned slot, const std::string& size) {
        std::string msg;
        ASSERT_TRUE(ctl().insertDisk(slot, size, msg)) << msg;
        putBack(slot);
    }
    static std::string dump() {
        std::ostringstream out;
        dpm()->Dump(out);
        return out.str();
    }
};

TEST_F(PackMemory, TheSameDiskBackIsAResyncCandidateAndAnotherDiskFirstEndsTheChance) {
    makePack({"1G", "1G", "1G"});
    uint16_t oldLd = 99, newLd = 99;
    uint32_t flushTime = 0;
    EXPECT_EQ(dpm()->getResyncDisk(oldLd, newLd, flushTime), StatusCode::NoMoreLogicalDisks);
    ASSERT_EQ(dm()->Flush(2), StatusCode::Success);
    const uint32_t flushedAt = dm()->diskObject(2)->lastFlushSeconds();
    ASSERT_NE(flushedAt, 0u);
    pull(2);
    EXPECT_EQ(dpm()->getResyncDisk(oldLd, newLd, flushTime), StatusCode::NoMoreLogicalDisks) << "not back yet";
    EXPECT_NE(dump().find(" Last removed LD  = 2\n Last flush time  = " + std::to_string(flushedAt)),
              std::string::npos)
        << dump();
    putBack(2);
    ASSERT_EQ(dpm()->getResyncDisk(oldLd, newLd, flushTime), StatusCode::Success);
    EXPECT_EQ(oldLd, 2);
    EXPECT_EQ(newLd, 3) << "the disk that came back has a new LD number";
    EXPECT_EQ(flushTime, flushedAt);
    EXPECT_NE(dump().find(" Resync available, new LD = 3\n"), std::string::npos) << dump();

    // It leaves again; a different disk comes before it returns.
    pull(2);
    insertNew(6, "1G");
    EXPECT_EQ(dpm()->getResyncDisk(oldLd, newLd, flushTime), StatusCode::NoMoreLogicalDisks);
    EXPECT_NE(dump().find("No stored resync disk info"), std::string::npos) << dump();
    putBack(2);
    EXPECT_EQ(dpm()->getResyncDisk(oldLd, newLd, flushTime), StatusCode::NoMoreLogicalDisks);
    uint16_t ld = 99;
    ASSERT_EQ(dpm()->getLdNum(2, ld), StatusCode::Success);
    EXPECT_EQ(ld, 5);
}

TEST_F(PackMemory, DisksThatSwappedSlotsWhileAsleepChangeThePackAndUntouchedDisksDoNot) {
    EXPECT_TRUE(dpm()->diskPackChanged()) << "no pack loaded";
    makePack({"1G", "1G", "1G"});
    dm()->FlushAllDrives();
    EXPECT_FALSE(dpm()->diskPackChanged());
    // The disks go down and come up with slots 0 and 1 swapped; the pack stays loaded.
    dm()->UnloadDiskPack();
    ctl().forget();
    moveDisk(slotBase(0), shelfBase("zero"));
    moveDisk(slotBase(1), slotBase(0));
    moveDisk(shelfBase("zero"), slotBase(1));
    ctl().forget();
    ASSERT_EQ(dm()->LoadDiskPack(false), StatusCode::Success);
    drainMessages();
    EXPECT_TRUE(dpm()->diskPackChanged());
    EXPECT_TRUE(dpm()->packLoaded());
}

TEST_F(PackMemory, ALateErrorOnADisCopyMarksItForRepairAndOtherSectorsAreLeftAlone) {
    makePack({"1G", "1G"});
    DIS::LogicalDiskContainer* c = dpm()->master().container(1);
    ASSERT_NE(c, nullptr);
    const uint32_t copy1 = c->disLba[1];
    dpm()->outOfBandError(1, copy1 + 1, 1, StatusCode::DM_MediaError);
    dpm()->outOfBandError(1, copy1, 2, StatusCode::DM_RecoveredError);
    EXPECT_EQ(c->flags & (DIS_NEEDS_REPAIR | DIS0_BAD | DIS1_BAD | DIS2_BAD), 0u) << "not a DIS sector, or soft";
    const uint32_t before = liveCopy(1, 1).iteration;
    dpm()->outOfBandError(1, copy1, 1, StatusCode::DM_MediaError);
    EXPECT_EQ(c->flags & (DIS_NEEDS_REPAIR | DIS1_BAD), DIS_NEEDS_REPAIR | DIS1_BAD);
    EXPECT_TRUE(dpm()->master().flags & DIS_UNDER_REPAIR) << "a repair is queued";
    dpm()->master().repairDis();
    uint32_t lba = 0;
    independent::Dis d = liveCopy(1, 1, &lba);
    EXPECT_TRUE(d.valid);
    EXPECT_GT(d.iteration, before);
    EXPECT_NE(lba, copy1) << "the copy moved on from the bad sector";
}

TEST_F(PackMemory, AMissingLdIsDeletedOnceAndAFaultLeavesItAsItWas) {
    makePack({"1G", "1G", "1G"});
    pull(2);
    ErrorInjection* dpmPoints = nullptr;
    for (ErrorInjection* e : ErrorInjection::All())
        if (e->module() == "dpm") dpmPoints = e;
    ASSERT_NE(dpmPoints, nullptr);
    ErrorInjection& points = *dpmPoints;
    ASSERT_TRUE(points.enable(true, "deleteLogicalDisk", ErrorInjection::Each, 1, 1, StatusCode::WriteError));
    EXPECT_EQ(dpm()->deleteLogicalDisk(2), StatusCode::WriteError);
    EXPECT_TRUE(dpm()->master().hasLd(2));
    EXPECT_EQ(dpm()->deleteLogicalDisk(2), StatusCode::Success);
    EXPECT_FALSE(dpm()->master().hasLd(2));
    EXPECT_EQ(liveCopy(0, 0).logicalDisks, 0x3u) << "the others hear of it";
    EXPECT_EQ(dpm()->deleteLogicalDisk(2), StatusCode::DiskNotPresent);
    EXPECT_EQ(dpm()->deleteLogicalDisk(1), StatusCode::Success) << "a present LD goes with its container";
    EXPECT_FALSE(dpm()->isPresent(1));
}

}  // namespace

namespace {

TEST_F(PackMemory, TheConsistencyCheckRepairsADiskWhoseRecordsWereWipedAndThenFindsNothing) {
    makePack({"1G", "1G", "1G"});
    std::ostringstream clean;
    ASSERT_EQ(dpm()->externalConsistencyCheck(clean), StatusCode::Success);
    EXPECT_EQ(clean.str(), "");
    // Every sector of disk 1's three DIS ranges is wiped behind the system's back.
    uint8_t zero[512] = {};
    for (uint32_t start : rangeStarts(1))
        for (uint32_t i = 0; i < 0x80; ++i) writeSector(1, start + i, zero);
    std::ostringstream found;
    ASSERT_EQ(dpm()->externalConsistencyCheck(found), StatusCode::Success);
    EXPECT_NE(found.str().find("stale local DIS on disk in slot 1, repairing"), std::string::npos) << found.str();
    EXPECT_TRUE(dpm()->master().flags & DIS_UNDER_REPAIR);
    dpm()->master().repairDis();
    for (unsigned copy = 0; copy < 3; ++copy) {
        independent::Dis d = liveCopy(1, copy);
        EXPECT_TRUE(d.valid) << "copy " << copy;
        EXPECT_EQ(d.ldNumber, 1u);
    }
    std::ostringstream again;
    ASSERT_EQ(dpm()->externalConsistencyCheck(again), StatusCode::Success);
    EXPECT_EQ(again.str(), "");
    EXPECT_TRUE(dpm()->packLoaded());
}

}  // namespace
