// The simulated drives as the board sees them: hot-plug messages, slot power,
// disks that travel with their files, the volatile cache and the faults.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/Rtos.h"
#include "tests/support/DriveCacheScope.h"

namespace fs = std::filesystem;

namespace {

class SimDriveTest : public ::testing::Test {
protected:
    void SetUp() override {
        ctl().forget();
        fs::remove_all(Board::GetInstance().path("slots"));
        fs::remove_all(Board::GetInstance().path("shelf"));
        fs::create_directories(Board::GetInstance().path("slots"));
        drain();
    }
    void TearDown() override { ctl().forget(); }

    static SimDriveController& ctl() { return SimDriveController::GetInstance(); }
    static MSG_Q_ID queue() {
        static MSG_Q_ID q = msgQOpen(kHotPlugQueueName, kHotPlugQueueDepth, sizeof(HotPlugMessage));
        return q;
    }
    static std::vector<HotPlugMessage> drain() {
        std::vector<HotPlugMessage> out;
        HotPlugMessage m;
        while (msgQReceive(queue(), &m, sizeof m, NO_WAIT) == int(sizeof m)) out.push_back(m);
        return out;
    }
    static void insert(unsigned slot, const std::string& what = "32M") {
        std::string msg;
        ASSERT_TRUE(ctl().insertDisk(slot, what, msg)) << msg;
    }
    // One command on a slot's device; returns the driver status.
    static uint32_t command(unsigned slot, DriveCommand& c) {
        int fd = driveOpen(driveDeviceName(slot / 4, slot % 4).c_str());
        if (fd < 0) return DriveStatus::NotPresent;
        driveIoctl(fd, kDriveIoctl, &c);
        driveClose(fd);
        return c.block.status;
    }
    static uint32_t io(unsigned slot, bool write, uint64_t lba, void* buf, uint32_t sectors, uint32_t timeout = 20) {
        DriveCommand c{};
        c.block.opcode = write ? DriveOp::WriteSGL : DriveOp::ReadSGL;
        c.block.lba = lba;
        c.block.count = sectors;
        c.block.timeout = timeout;
        c.block.entryCount = 1;
        c.entries[0] = {sectors, uint64_t(uintptr_t(buf))};
        return command(slot, c);
    }
    static std::vector<uint8_t> imageSectors(const fs::path& image, uint64_t lba, uint32_t sectors) {
        std::vector<uint8_t> out(sectors * kSectorSize);
        int fd = ::open(image.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::pread(fd, out.data(), out.size(), off_t(lba * kSectorSize)), ssize_t(out.size()));
        ::close(fd);
        return out;
    }
};

TEST_F(SimDriveTest, HotPlugMessagesFollowSlotPower) {
    insert(5);  // powered slot: inserted, adapter 1 drive 1
    auto m = drain();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Inserted);
    EXPECT_EQ(m[0].adapterId, 1u);
    EXPECT_EQ(m[0].driveId, 1u);

    // Power off: the disk vanishes for the system (removed), the record shows it still there.
    DriveCommand off{};
    off.block.opcode = DriveOp::SlotPower;
    off.block.lba = 5;
    off.block.param = 0;
    EXPECT_EQ(command(0, off), DriveStatus::Success);
    m = drain();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Removed);
    SlotPowerRecord r{};
    ASSERT_EQ(driveSlotPowerSyscall(&r), 0);
    EXPECT_TRUE(r.diskDetected >> 5 & 1);
    EXPECT_FALSE(r.slotPowered >> 5 & 1);
    EXPECT_LT(driveOpen("/sata11"), 0);

    // Pulled while unpowered: nothing to report. Inserted into the unpowered slot: change detected.
    std::string msg;
    ASSERT_TRUE(ctl().pullDisk(5, msg)) << msg;
    EXPECT_TRUE(drain().empty());
    insert(5);
    m = drain();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::DiskChangeDetected);
    DriveCommand on = off;
    on.block.param = 1;
    EXPECT_EQ(command(0, on), DriveStatus::Success);
    m = drain();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Inserted);
}

TEST_F(SimDriveTest, HotPlugQueueIsBoundedAndNeverBlocks) {
    for (int i = 0; i < 70; ++i) {  // 140 messages for a queue of 128
        insert(2);
        std::string msg;
        ASSERT_TRUE(ctl().pullDisk(2, msg));
    }
    EXPECT_EQ(drain().size(), size_t(kHotPlugQueueDepth));
}

TEST_F(SimDriveTest, DiskTravelsWithItsFilesAndKeepsDataAndIdentity) {
    insert(0);
    std::vector<uint8_t> data(4 * kSectorSize, 0xA5), back(data.size());
    ASSERT_EQ(io(0, true, 1000, data.data(), 4), DriveStatus::Success);
    DriveCommand flush{};
    flush.block.opcode = DriveOp::FlushCache;
    ASSERT_EQ(command(0, flush), DriveStatus::Success);
    std::string serial = ctl().disk(0)->identity().serial;
    std::string where;
    ASSERT_TRUE(ctl().pullDisk(0, where));
    EXPECT_FALSE(fs::exists(Board::GetInstance().path("slots/0.img")));
    insert(7, where);  // the same disk, now in slot 7
    EXPECT_EQ(ctl().disk(7)->identity().serial, serial);
    ASSERT_EQ(io(7, false, 1000, back.data(), 4), DriveStatus::Success);
    EXPECT_EQ(back, data);
    // And it survives a restart of the board.
    ctl().forget();
    ASSERT_TRUE(ctl().diskPresent(7));
    EXPECT_EQ(ctl().disk(7)->identity().serial, serial);
}

// The former cache, kept as the ordered mode: nothing moves before a flush.
TEST_F(SimDriveTest, WriteCacheIsVolatileUntilFlushed) {
    DriveCacheScope ordered(DriveCacheMode::Ordered, false);
    insert(1, "8M");
    fs::path image = Board::GetInstance().path("slots/1.img");
    std::vector<uint8_t> a(8 * kSectorSize), b(8 * kSectorSize), back(8 * kSectorSize);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = uint8_t(i / kSectorSize + 1);
        b[i] = uint8_t(0x80 + i / kSectorSize);
    }
    ASSERT_EQ(io(1, true, 64, a.data(), 8), DriveStatus::Success);
    ASSERT_EQ(io(1, false, 64, back.data(), 8), DriveStatus::Success);
    EXPECT_EQ(back, a) << "reads see the cache";
    EXPECT_EQ(imageSectors(image, 64, 8), std::vector<uint8_t>(a.size(), 0)) << "not yet on the medium";
    DriveCommand flush{};
    flush.block.opcode = DriveOp::FlushCache;
    ASSERT_EQ(command(1, flush), DriveStatus::Success);
    EXPECT_EQ(imageSectors(image, 64, 8), a);
    ASSERT_EQ(io(1, true, 64, b.data(), 8), DriveStatus::Success);
    ctl().powerCut();
    EXPECT_EQ(imageSectors(image, 64, 8), a) << "the unflushed write is lost whole";
    ASSERT_EQ(io(1, false, 64, back.data(), 8), DriveStatus::Success);
    EXPECT_EQ(back, a);
}

TEST_F(SimDriveTest, FaultsPersistInTheSidecarAndFireAsArmed) {
    insert(3);
    std::string err;
    auto f = DiskFault::parse({"media", "read", "lba=100-103", "times=2"}, err);
    ASSERT_TRUE(f) << err;
    ASSERT_TRUE(ctl().addFault(3, *f, err));
    ctl().forget();  // a restart keeps armed faults
    std::vector<uint8_t> buf(8 * kSectorSize);
    EXPECT_EQ(io(3, true, 96, buf.data(), 8), DriveStatus::Success) << "writes are not affected";
    EXPECT_EQ(io(3, false, 0, buf.data(), 8), DriveStatus::Success) << "outside the range";
    EXPECT_EQ(io(3, false, 96, buf.data(), 8), DriveStatus::MediaError);
    // A read media error leaves a bad sector behind; writing it reallocates it.
    EXPECT_EQ(io(3, false, 100, buf.data(), 1), DriveStatus::MediaError);
    EXPECT_EQ(io(3, true, 100, buf.data(), 1), DriveStatus::Success);
    EXPECT_EQ(io(3, false, 96, buf.data(), 8), DriveStatus::Success);
    EXPECT_TRUE(ctl().disk(3)->faults().empty());

    EXPECT_FALSE(DiskFault::parse({"melt"}, err));
    EXPECT_FALSE(DiskFault::parse({"media", "lba=9-3"}, err));
}

TEST_F(SimDriveTest, ReadPastTheEndIsABadLbaNotACrash) {
    insert(4, "1M");
    std::vector<uint8_t> buf(2 * kSectorSize);
    EXPECT_EQ(io(4, false, 2047, buf.data(), 2), DriveStatus::BadLba);
    uint64_t sectors = 0;
    EXPECT_TRUE(SimDisk::parseSize("64G", sectors));
    EXPECT_EQ(sectors, 64ull << 21);
    EXPECT_FALSE(SimDisk::parseSize("big", sectors));
    std::string msg;
    EXPECT_FALSE(ctl().insertDisk(4, "1M", msg)) << "slot already holds a disk";
    EXPECT_FALSE(ctl().insertDisk(9, "1M", msg));
}

// Two reads on one slot at once, the first held by a latency fault on a board
// clock that never moves.
void twoCommandsAtOnce() {
    std::string msg, err;
    SimDriveController& c = SimDriveController::GetInstance();
    c.insertDisk(6, "32M", msg);
    c.addFault(6, *DiskFault::parse({"latency", "ms=60000"}, err), err);
    std::vector<uint8_t> a(kSectorSize), b(kSectorSize);
    auto read = [](uint8_t* buf, uint64_t lba) {
        DriveCommand cmd{};
        cmd.block.opcode = DriveOp::ReadSGL;
        cmd.block.lba = lba;
        cmd.block.count = 1;
        cmd.block.entryCount = 1;
        cmd.entries[0] = {1, uint64_t(uintptr_t(buf))};
        int fd = driveOpen("/sata12");
        driveIoctl(fd, kDriveIoctl, &cmd);
    };
    std::thread first([&] { read(a.data(), 0); });
    while (c.readsAndWritesInFlight(6) == 0) std::this_thread::yield();
    read(b.data(), 8);
    std::_Exit(0);  // reached only if the second read was let through
}

TEST_F(SimDriveTest, TwoReadsOrWritesInFlightOnOneSlotAreAFatalAssertion) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(twoCommandsAtOnce(), ::testing::ExitedWithCode(Board::kRestartExitStatus), "");
}

}  // namespace
