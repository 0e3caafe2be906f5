// A loaded pack that changes: disks joining and leaving, an expunge, the write
// test of a new disk, the Region layer moving its metadata, and the console
// commands that rename the pack or throw a disk out.
#include <gtest/gtest.h>

#include <sstream>

#include "disk/PackTestFixture.h"
#include "util/ConsoleCommand.h"
#include "util/Endian.h"
#include "util/ManagerRegistry.h"

using namespace DisLayout;

class PackChange : public PackTestFixture {
protected:
    void insert(unsigned slot, const std::string& size) {
        std::string msg;
        ASSERT_TRUE(ctl().insertDisk(slot, size, msg)) << msg;
        drainMessages();
        ASSERT_EQ(dm()->AddDisk(int(slot)), StatusCode::Success);
    }
    static std::string run(const std::string& line, int* rc = nullptr) {
        std::ostringstream out;
        int r = ConsoleCommand::ExecuteLine(line, out);
        if (rc) *rc = r;
        return out.str();
    }
};

TEST_F(PackChange, AddedDiskTakesTheNextLdAndThePackMovesToANewGeneration) {
    makePack({"1G", "1G"});
    insert(5, "2G");
    ASSERT_EQ(dpm()->hotPlug(5, DiskPackManager::ADD), StatusCode::Success);
    uint16_t ld = 99;
    ASSERT_EQ(dpm()->getLdNum(5, ld), StatusCode::Success);
    EXPECT_EQ(ld, 2);
    for (int s : {0, 1, 5}) {
        independent::Dis d = liveCopy(s, 1);
        EXPECT_EQ(d.generation, 2u) << "slot " << s;
        EXPECT_EQ(d.logicalDisks, 0x7u);
    }
    EXPECT_EQ(dpm()->hotPlug(5, DiskPackManager::ADD), StatusCode::Success) << "a second add changes nothing";
    EXPECT_EQ(dpm()->generation(), 2u);
}

TEST_F(PackChange, RemovedDiskLeavesItsLdMissingAndTheOthersAtANewGeneration) {
    makePack({"1G", "1G", "1G"});
    ASSERT_EQ(dm()->RemoveDisk(1), StatusCode::Success);
    drainMessages();
    ASSERT_EQ(dpm()->hotPlug(1, DiskPackManager::REMOVE), StatusCode::Success);
    EXPECT_FALSE(dpm()->isPresent(1));
    EXPECT_EQ(dpm()->getNumberOfMissingDisks(), 1u);
    for (int s : {0, 2}) {
        EXPECT_EQ(liveCopy(s, 0).generation, 2u);
        EXPECT_EQ(liveCopy(s, 0).logicalDisks, 0x7u) << "a missing LD stays a member";
    }
    std::ostringstream out;
    dpm()->Dump(out);
    EXPECT_NE(out.str().find("LD #1 MISSING"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("Last removed LD  = 1"), std::string::npos) << out.str();
    // I/O to the missing LD is refused, not sent to another disk.
    DataWindow w(512, 0, 512);
    IOTracker t(READ_ONLY);
    EXPECT_EQ(dpm()->readData(1, w, 0, t), StatusCode::DiskNotPresent);
    t.commitIfDirty();
}

TEST_F(PackChange, ExpungedDiskCarriesTheMarkAndLeavesThePack) {
    makePack({"1G", "1G"});
    DiskPackManager::ExpungeParams p;
    p.slot = 1;
    std::strcpy(p.reason, "HARD ERROR RATE");
    EXPECT_EQ(dpm()->expungePhysicalDisk(&p), StatusCode::Success);
    EXPECT_FALSE(dpm()->isPresent(1));
    for (unsigned copy = 0; copy < 3; ++copy) {
        independent::Dis d = liveCopy(1, copy);
        EXPECT_TRUE(d.flags & DIS_EXPUNGED);
        EXPECT_EQ(d.expungeReason, "HARD ERROR RATE");
        EXPECT_EQ(d.generation, 1u) << "the expunged disk hears of nothing after its mark";
    }
    EXPECT_EQ(liveCopy(0, 0).generation, 2u);
    // Put back, it is refused.
    EXPECT_EQ(dpm()->hotPlug(1, DiskPackManager::ADD), StatusCode::DiskError);
    EXPECT_FALSE(dpm()->isPresent(1));
    p.slot = 1;
    EXPECT_EQ(dpm()->expungePhysicalDisk(&p), StatusCode::DiskNotPresent);
}

TEST_F(PackChange, QualificationWritesItsPatternBesideTheRangesAndReportsFailures) {
    makePack({"1G"});
    insert(3, "1G");
    EXPECT_TRUE(dpm()->isDiskUsable(3));
    std::vector<uint8_t> s = readSectors(3, 0x80, 0x80);
    for (uint32_t i = 0; i < 0x4000; i += 0x3FF) EXPECT_EQ(getLE32(s.data() + 4 * i), i);
    EXPECT_FALSE(dpm()->isDiskUsable(0)) << "a member is not a new disk";
    fault(3, {"media", "write", "lba=128-255", "always"});
    EXPECT_EQ(dpm()->qualifyDisk(3, 0x80), StatusCode::WriteError);
    EXPECT_FALSE(dpm()->isDiskUsable(3));
    fault(3, {"notpresent", "read", "always"});
    EXPECT_EQ(dpm()->qualifyDisk(3, 0x80), StatusCode::DiskNotPresent);
}

TEST_F(PackChange, RegionMetadataMoveRewritesTheDisksRecord) {
    makePack({"1G", "1G"});
    const uint32_t before = liveCopy(1, 0).iteration;
    IOTracker t(READ_WRITE);
    ASSERT_EQ(dpm()->updateRMLBA(t, 1, 0x1234, 0x5678), StatusCode::Success);
    ASSERT_EQ(t.commit(), StatusCode::Success);
    for (unsigned copy = 0; copy < 3; ++copy) {
        independent::Dis d = liveCopy(1, copy);
        EXPECT_EQ(d.rmLba0, 0x1234u);
        EXPECT_EQ(d.rmLba1, 0x5678u);
        EXPECT_EQ(d.iteration, before + 1);
        EXPECT_EQ(d.generation, 1u);
    }
    EXPECT_EQ(liveCopy(0, 0).iteration, before) << "one disk's write touches no other";
    uint32_t a = 0, b = 0;
    ASSERT_EQ(dpm()->getRMLBA(1, a, b), StatusCode::Success);
    EXPECT_EQ(a, 0x1234u);
    uint32_t sectors = 0, lba = 0;
    ASSERT_EQ(dpm()->getDPMMetaDataLBA(1, 1, sectors, lba), StatusCode::Success);
    EXPECT_EQ(sectors, 0x80u);
    EXPECT_EQ(lba, rangeStarts(1)[1]);
}

TEST_F(PackChange, ConsoleRenamesThePackAndRefusesBadArguments) {
    int rc = 0;
    run("setPackName Early", &rc);
    EXPECT_NE(rc, 0) << "no pack loaded";
    makePack({"1G", "1G"});
    std::string out = run("setPackName \"Office Pack\"", &rc);
    EXPECT_EQ(rc, 0) << out;
    for (int s : {0, 1}) {
        EXPECT_EQ(liveCopy(s, 2).name, "Office Pack");
        EXPECT_EQ(liveCopy(s, 2).generation, 2u);
    }
    run("setPackName ThisNameIsFarTooLongForThePackRecord", &rc);
    EXPECT_NE(rc, 0);
    EXPECT_EQ(liveCopy(0, 0).name, "Office Pack");
    out = run("expungeDisk 9", &rc);
    EXPECT_NE(rc, 0);
    EXPECT_NE(out.find("usage: expungeDisk"), std::string::npos);
    out = run("expungeDisk 4", &rc);
    EXPECT_NE(rc, 0) << "no member in slot 4";
    std::ostringstream state;
    ASSERT_TRUE(ManagerRegistry::dump("DPM", state));
    EXPECT_NE(state.str().find("DISK PACK IS LOADED"), std::string::npos);
    EXPECT_NE(state.str().find("name\t\t: Office Pack"), std::string::npos) << state.str();
}
