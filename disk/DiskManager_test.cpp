// The physical disk layer over simulated drives: load, data paths, flush and
// cache loss, faults in the middle of I/O, queue flush on timeout, parallel
// I/O, hot add and remove while other disks work.
#include <fcntl.h>
#include <unistd.h>

#include <sstream>

#include "disk/DiskTestFixture.h"
#include "disk/DriveAdapter.h"
#include "tests/support/DriveCacheScope.h"
#include "util/ConsoleCommand.h"

namespace {

using Buffer = DiskTestFixture::AlignedBuffer;

class DiskManagerTest : public DiskTestFixture {
protected:
    void flushedDataSurviveACut(bool ordered);
    static std::vector<uint8_t> imageSectors(int slot, uint64_t lba, uint32_t sectors) {
        std::vector<uint8_t> out(sectors * kSectorSize);
        int fd = ::open(Board::GetInstance().path("slots/" + std::to_string(slot) + ".img").c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::pread(fd, out.data(), out.size(), off_t(lba * kSectorSize)), ssize_t(out.size()));
        ::close(fd);
        return out;
    }
    static void fill(Buffer& b, int slot, uint64_t lba, uint32_t generation) {
        for (size_t s = 0; s < b.size / kSectorSize; ++s) pattern(b.p + s * kSectorSize, slot, lba + s, generation);
    }
    static bool hasPattern(const uint8_t* p, int slot, uint64_t lba, uint32_t generation) {
        uint8_t want[kSectorSize];
        pattern(want, slot, lba, generation);
        return std::memcmp(p, want, kSectorSize) == 0;
    }
    static bool policyHeard(uint32_t type, int slot) {
        for (auto& e : ErrorPolicy::GetInstance()->pendingErrors())
            if (e.type == type && e.slot == slot) return true;
        return false;
    }
};

TEST_F(DiskManagerTest, FourDisksOfMixedSizesAreFoundWithIdentityAndCapacity) {
    loadDisks({"64M", "64M", "32M", "32M"});
    EXPECT_EQ(dm()->readyBitmap(), 0xfu);
    EXPECT_EQ(dm()->readyCount(), 4);
    EXPECT_EQ(dm()->GetDriveCapacity(0), 64ull << 11);
    EXPECT_EQ(dm()->GetDriveCapacity(3), 32ull << 11);
    EXPECT_EQ(dm()->GetDriveCapacity(4), 0u);
    auto map = dm()->GetDiskWWNMap();
    ASSERT_EQ(map.size(), 4u);
    // The identity read through IDENTIFY (byte-swapped words) is the sidecar's.
    for (int s = 0; s < 4; ++s) {
        auto id = ctl().disk(s)->identity();
        EXPECT_EQ(map[s]->GetSerialNumString(), id.serial);
        EXPECT_EQ(map[s]->GetModelString(), id.model);
        EXPECT_EQ(map[s]->GetRevisionString(), id.firmware);
    }
    EXPECT_NE(*map[0], *map[1]);
    std::ostringstream dump;
    dm()->Dump(dump);
    EXPECT_NE(dump.str().find(ctl().disk(2)->identity().serial), std::string::npos);
    EXPECT_EQ(dm()->LoadDiskPack(false), StatusCode::InitFailed) << "a second load is refused";
}

TEST_F(DiskManagerTest, WindowsOfManyPanesRoundTripInOrder) {
    loadDisks({"16M"});
    // 300 panes of one sector each: two commands on the synchronous path.
    const size_t n = 300;
    Buffer out(n * kSectorSize), in(n * kSectorSize);
    fill(out, 0, 5000, 1);
    std::vector<DiskPane> wp(n), rp(n);
    for (size_t i = 0; i < n; ++i) {
        wp[i] = {out.p + i * kSectorSize, kSectorSize};
        rp[i] = {in.p + (n - 1 - i) * kSectorSize, kSectorSize};  // read scattered backwards
    }
    ASSERT_EQ(dm()->WriteData(0, wp.data(), n, 5000, 0), StatusCode::Success);
    IOTracker t(READ_ONLY);
    ASSERT_EQ(dm()->ReadData(0, rp.data(), n, 5000, t), StatusCode::Success);
    for (size_t i = 0; i < n; ++i) EXPECT_TRUE(hasPattern(in.p + (n - 1 - i) * kSectorSize, 0, 5000 + i, 1)) << i;

    // The NoWait path cannot split a window.
    __DiskQReqStruct r;
    DiskSGL* list = DiskSGL::Allocate();
    r.data = list;
    EXPECT_EQ(dm()->ReadDataNoWait(0, rp.data(), 257, 0, &r), StatusCode::DM_SGLTooLong);
    DiskSGL::Free(list);

    // Bad requests get a status, not a crash.
    EXPECT_EQ(dm()->ReadData(9, rp.data(), 1, 0, t), StatusCode::InternalError);
    EXPECT_EQ(dm()->ReadData(0, rp.data(), 0, 0, t), StatusCode::BadIOLength);
    EXPECT_EQ(dm()->ReadData(0, in.p, 0, 0), StatusCode::BadIOLength);
    DiskPane odd{in.p, 100};
    EXPECT_EQ(dm()->WriteData(0, &odd, 1, 0, 0), StatusCode::BadIOLength);
    t.flags = IOTracker::kFailNextIo;
    EXPECT_EQ(dm()->ReadData(0, rp.data(), 1, 0, t), StatusCode::MediaError);
}

TEST_F(DiskManagerTest, DataWindowsGoToDiskWithoutACopyPieceByPiece) {
    loadDisks({"16M"});
    // 8 KiB seen through three blocks of a store: pieces of 3.5 KiB, 4 KiB and 0.5 KiB.
    DataWindow out(3, 4096, 512, 8192), in(1, 8192, 0, 8192);
    Buffer src(8192);
    fill(src, 0, 700, 3);
    DataBuffer flat{8192, src.p};
    out.Write(flat);
    IOTracker tracker(READ_WRITE);
    ASSERT_EQ(dm()->WriteData(0, out, 700, tracker, 0), StatusCode::Success);
    IOTracker reader(READ_ONLY);
    ASSERT_EQ(dm()->ReadData(0, in, 700, reader), StatusCode::Success);
    EXPECT_EQ(in.CompareContents(out), StatusCode::Success);
    Buffer back(8192);
    ASSERT_EQ(dm()->ReadData(0, back.p, 700, 16), StatusCode::Success);
    for (uint64_t s = 0; s < 16; ++s) EXPECT_TRUE(hasPattern(back.p + s * kSectorSize, 0, 700 + s, 3)) << s;
}

// Flushed data survive a cut whole; of the unflushed, each sector holds the
// old data or the new, never a mixture or another sector's data. The ordered
// cache also shows its eviction: the oldest of more than it holds were
// written out, the newest were not.
void DiskManagerTest::flushedDataSurviveACut(bool ordered) {
    loadDisks({"64M", "64M"});
    Buffer a(64 * kSectorSize), b(64 * kSectorSize);
    fill(a, 0, 1000, 1);
    ASSERT_EQ(dm()->WriteData(0, a.p, 1000, 64), StatusCode::Success);
    ASSERT_EQ(dm()->FlushAllDrives(), StatusCode::Success);
    // Nothing written since: the next flush does nothing.
    __DiskQReqStruct r;
    EXPECT_EQ(dm()->diskObject(0)->FlushWriteCacheSync(&r, nullptr), StatusCode::DM_DiskAlreadyFlushed);

    // Overwrite part of it and write far more than the drive's cache holds, unflushed.
    fill(b, 0, 1000, 2);
    ASSERT_EQ(dm()->WriteData(0, b.p, 1000, 32), StatusCode::Success);
    Buffer big(4096 * kSectorSize);
    for (int round = 0; round < 6; ++round) {
        fill(big, 0, 10000 + round * 4096, 3);
        ASSERT_EQ(dm()->WriteData(0, big.p, 10000 + round * 4096, 4096), StatusCode::Success);
    }
    ctl().powerCut();

    auto flushed = imageSectors(0, 1000, 64);
    for (uint64_t s = 0; s < 64; ++s) {
        const uint8_t* p = flushed.data() + s * kSectorSize;
        if (s < 32) EXPECT_TRUE(hasPattern(p, 0, 1000 + s, 1) || hasPattern(p, 0, 1000 + s, 2)) << s;
        else EXPECT_TRUE(hasPattern(p, 0, 1000 + s, 1)) << "flushed data lost at " << s;
    }
    auto rest = imageSectors(0, 10000, 6 * 4096);
    static const uint8_t zero[kSectorSize] = {};
    size_t survived = 0;
    for (uint64_t s = 0; s < 6 * 4096; ++s) {
        const uint8_t* p = rest.data() + s * kSectorSize;
        bool isNew = hasPattern(p, 0, 10000 + s, 3);
        EXPECT_TRUE(isNew || std::memcmp(p, zero, kSectorSize) == 0) << "torn or misplaced sector " << s;
        survived += isNew;
    }
    if (ordered) {
        EXPECT_GT(survived, 0u) << "the cache wrote its oldest data out when full";
        EXPECT_LT(survived, size_t(6 * 4096)) << "the newest data were still in the cache";
    }

    // After the cut a flush through the queue makes new data durable again.
    fill(b, 1, 7, 4);
    ASSERT_EQ(dm()->WriteData(1, b.p, 7, 64), StatusCode::Success);
    ASSERT_EQ(dm()->Flush(1), StatusCode::Success);
    ctl().powerCut();
    auto back = imageSectors(1, 7, 64);
    for (uint64_t s = 0; s < 64; ++s) EXPECT_TRUE(hasPattern(back.data() + s * kSectorSize, 1, 7 + s, 4));
}

TEST_F(DiskManagerTest, FlushedDataSurvivesAPowerCutAndUnflushedIsNeverTornOrMisplaced) {
    flushedDataSurviveACut(SimDriveController::GetInstance().cacheMode() == DriveCacheMode::Ordered);
}

TEST_F(DiskManagerTest, TheOrderedCacheWritesOutItsOldestWhenFull) {
    DriveCacheScope scope(DriveCacheMode::Ordered, false);
    flushedDataSurviveACut(true);
}

TEST_F(DiskManagerTest, NoDiskWritesModeTouchesNothing) {
    loadDisks({"8M"});
    SystemManager::GetInstance()->setReadOnly(true);
    Buffer b(8 * kSectorSize);
    fill(b, 0, 0, 9);
    EXPECT_EQ(dm()->WriteData(0, b.p, 0, 8), StatusCode::Success);
    DiskIoRequest req;
    DiskPane pane{b.p, uint32_t(b.size)};
    req.panes = &pane;
    req.paneCount = 1;
    EXPECT_EQ(dm()->ParallelDiskWrite(&req, 1), StatusCode::Success);
    SystemManager::GetInstance()->setReadOnly(false);
    Buffer in(8 * kSectorSize);
    ASSERT_EQ(dm()->ReadData(0, in.p, 0, 8), StatusCode::Success);
    EXPECT_EQ(std::vector<uint8_t>(in.p, in.p + in.size), std::vector<uint8_t>(in.size, 0));
}

TEST_F(DiskManagerTest, ATimeoutFailsEveryRequestQueuedBehindItWhileOtherDisksCarryOn) {
    loadDisks({"16M", "16M"});
    fault(0, {"accesstimeout", "read", "lba=100", "once"});
    Buffer first(kSectorSize);
    std::atomic<int> firstStatus{-1};
    std::thread stuck([&] { firstStatus = int(dm()->ReadData(0, first.p, 100, 1).value()); });
    // Three synchronous readers queue up behind the stuck command.
    std::atomic<int> done{0};
    std::vector<StatusCode> behind(3);
    std::vector<std::thread> readers;
    waitUntil([&] { return ctl().readsAndWritesInFlight(0) == 1; });
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&, i] {
            Buffer b(kSectorSize);
            behind[i] = dm()->ReadData(0, b.p, 200 + i, 1);
            done++;
        });
    waitUntil([&] { return dm()->diskObject(0)->queue()->GetDiskQueueDepth() == 3; });
    // Slot 1 is not held up.
    Buffer other(8 * kSectorSize);
    fill(other, 1, 50, 1);
    EXPECT_EQ(dm()->WriteData(1, other.p, 50, 8), StatusCode::Success);
    EXPECT_EQ(dm()->ReadData(1, other.p, 50, 8), StatusCode::Success);
    EXPECT_EQ(firstStatus, -1);
    // Board time reaches the command's 20 seconds: everything behind fails at once.
    pumpUntil([&] { return done == 3 && firstStatus != -1; }, 30);
    stuck.join();
    for (auto& t : readers) t.join();
    EXPECT_EQ(StatusCode(uint32_t(firstStatus)), StatusCode::DM_DeviceTimeout);
    for (auto st : behind) EXPECT_EQ(st, StatusCode::DM_DeviceTimeoutFlush);
    EXPECT_TRUE(policyHeard(ErrorPolicy::FullTimeout, 0));
    // The queue stays open.
    EXPECT_EQ(dm()->ReadData(0, first.p, 100, 1), StatusCode::Success);
}

TEST_F(DiskManagerTest, ARequestThatWaitedTooLongForItsShortTimeoutIsNotServed) {
    loadDisks({"16M"});
    fault(0, {"latency", "read", "lba=0", "once", "ms=5000"});
    DiskQueue* q = dm()->diskObject(0)->queue();
    SEM_ID sem = semCCreate(SEM_Q_FIFO, 0);
    Buffer b(3 * kSectorSize);
    DiskSGL* lists[3];
    __DiskQReqStruct r[3];
    for (int i = 0; i < 3; ++i) {
        lists[i] = DiskSGL::Allocate();
        lists[i]->append(b.p + i * kSectorSize, kSectorSize);
        r[i].command = DiskCommand::ReadSGL;
        r[i].lba = uint64_t(i) * 10;
        r[i].count = 1;
        r[i].data = lists[i];
        r[i].groupSemaphore = sem;
        r[i].enqueueTick = tick64Get();
    }
    r[1].timeout = 5;   // waits 5 s behind the slow one: refused
    r[2].timeout = 20;  // the same wait with the normal timeout: served
    for (auto& x : r) ASSERT_EQ(q->PushToQNoWait(&x), 1);
    int got = 0;
    pumpUntil([&] {
        while (semTake(sem, NO_WAIT) == OK) got++;
        return got == 3;
    });
    EXPECT_EQ(r[0].status, StatusCode::Success);
    EXPECT_EQ(r[1].status, StatusCode::DM_QueueTimeout);
    EXPECT_EQ(r[2].status, StatusCode::Success);
    EXPECT_EQ(dm()->DiskErrorHandler(0, DiskCommand::ReadSGL, 10, r[1].status), StatusCode::DM_DeviceTimeoutFlush);
    for (auto* l : lists) DiskSGL::Free(l);
    semDelete(sem);
}

TEST_F(DiskManagerTest, FaultsInTheMiddleOfIoMapAsTheLayersAboveExpect) {
    loadDisks({"16M", "16M"});
    Buffer b(16 * kSectorSize);
    // A media error on a read inside the range; the sector stays bad until rewritten.
    fault(0, {"media", "read", "lba=300-301", "once"});
    EXPECT_EQ(dm()->ReadData(0, b.p, 296, 16), StatusCode::DM_MediaError);
    EXPECT_TRUE(policyHeard(ErrorPolicy::HardRead, 0));
    EXPECT_EQ(dm()->ReadData(0, b.p, 296, 16), StatusCode::DM_MediaError);
    EXPECT_EQ(dm()->WriteData(0, b.p, 296, 16), StatusCode::Success);
    EXPECT_EQ(dm()->ReadData(0, b.p, 296, 16), StatusCode::Success);

    // Recovered errors are success to the caller and a soft error to the policy.
    fault(1, {"recovered", "write", "once"});
    fill(b, 1, 40, 5);
    EXPECT_EQ(dm()->WriteData(1, b.p, 40, 16), StatusCode::Success);
    EXPECT_TRUE(policyHeard(ErrorPolicy::SoftWrite, 1));
    fault(1, {"recoveredchannel", "read", "once"});
    Buffer in(16 * kSectorSize);
    EXPECT_EQ(dm()->ReadData(1, in.p, 40, 16), StatusCode::Success);
    EXPECT_TRUE(policyHeard(ErrorPolicy::SoftRead, 1));
    EXPECT_EQ(std::memcmp(in.p, b.p, b.size), 0) << "a recovered write wrote its data";

    // The one-shot injector fails exactly the next read of its slot.
    dm()->InjectOneShotFault(1, true, false);
    EXPECT_EQ(dm()->ReadData(0, in.p, 40, 1), StatusCode::Success) << "another slot";
    EXPECT_EQ(dm()->ReadData(1, in.p, 40, 1), StatusCode::DM_MediaError);
    EXPECT_EQ(dm()->ReadData(1, in.p, 40, 1), StatusCode::Success);

    // A failed spin-up is a drive start failure to the policy.
    fault(1, {"startfailure", "once"});
    EXPECT_EQ(dm()->diskObject(1)->SpinupDrive(), StatusCode::DiskError);
    EXPECT_TRUE(policyHeard(ErrorPolicy::DiskStartFailure, 1));
    EXPECT_EQ(dm()->diskObject(1)->SpinupDrive(), StatusCode::Success);
}

TEST_F(DiskManagerTest, AChannelFailurePowerCyclesTheSlot) {
    loadDisks({"16M"});
    fault(0, {"channel", "write", "once"});
    Buffer b(kSectorSize);
    EXPECT_EQ(dm()->WriteData(0, b.p, 0, 1), StatusCode::DiskNotPresent);
    EXPECT_TRUE(policyHeard(ErrorPolicy::SlotPowerCycled, 0));
    EXPECT_FALSE(ctl().slotPowered(0));
    pumpUntil([&] { return ctl().slotPowered(0); }, 60);
    auto m = drainMessages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Removed);
    EXPECT_EQ(m[1].event, HotPlugEvent::Inserted);
    // The disk comes back as a hot add.
    EXPECT_EQ(dm()->RemoveDisk(0), StatusCode::Success);
    EXPECT_EQ(dm()->AddDisk(0), StatusCode::Success);
    EXPECT_EQ(dm()->WriteData(0, b.p, 0, 1), StatusCode::Success);
}

TEST_F(DiskManagerTest, ParallelIoAcrossEightDisks) {
    loadDisks({"8M", "8M", "8M", "8M", "8M", "8M", "8M", "8M"});
    ASSERT_EQ(dm()->readyBitmap(), 0xffu);
    std::vector<std::unique_ptr<Buffer>> out, in;
    DiskPane wp[8][2], rp[8][2];
    DiskIoRequest w[8], r[8];
    for (int s = 0; s < 8; ++s) {
        out.push_back(std::make_unique<Buffer>(16 * kSectorSize));
        in.push_back(std::make_unique<Buffer>(16 * kSectorSize));
        fill(*out[s], s, 64 * s, 7);
        for (int p = 0; p < 2; ++p) {
            wp[s][p] = {out[s]->p + p * 8 * kSectorSize, 8 * kSectorSize};
            rp[s][p] = {in[s]->p + p * 8 * kSectorSize, 8 * kSectorSize};
        }
        w[s].slot = r[s].slot = uint16_t(s);
        w[s].lba = r[s].lba = uint32_t(64 * s);
        w[s].panes = wp[s];
        r[s].panes = rp[s];
        w[s].paneCount = r[s].paneCount = 2;
    }
    ASSERT_EQ(dm()->ParallelDiskWrite(w, 8), StatusCode::Success);
    ASSERT_EQ(dm()->ParallelDiskRead(r, 8), StatusCode::Success);
    for (int s = 0; s < 8; ++s) EXPECT_EQ(std::memcmp(in[s]->p, out[s]->p, out[s]->size), 0) << s;

    EXPECT_EQ(dm()->ParallelDiskRead(r, 0), StatusCode::InternalError);
    EXPECT_EQ(dm()->ParallelDiskRead(r, 9), StatusCode::InternalError);
    for (auto& x : r) x.status = StatusCode::DiskError;
    EXPECT_EQ(dm()->ParallelDiskRead(r, 8), StatusCode::NotExecuted);
    for (auto& x : r) x.status = StatusCode::Success;

    // One disk failing in the batch fails only its own element.
    fault(5, {"media", "read", "once"});
    EXPECT_EQ(dm()->ParallelDiskRead(r, 8), StatusCode::DM_MediaError);
    for (int s = 0; s < 8; ++s) EXPECT_EQ(r[s].status, s == 5 ? StatusCode::DM_MediaError : StatusCode::Success) << s;
}

TEST_F(DiskManagerTest, PullAndInsertWhileOtherDisksWorkLoseNothing) {
    loadDisks({"16M", "16M", "16M", "16M"});
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0}, rounds{0};
    std::vector<std::thread> workers;
    for (int s = 1; s < 4; ++s)
        workers.emplace_back([&, s] {
            Buffer b(32 * kSectorSize), back(32 * kSectorSize);
            DiskIoRequest req[1];
            for (uint32_t gen = 1; !stop; ++gen) {
                uint64_t lba = (gen * 37) % 1000 * 32;
                fill(b, s, lba, gen);
                if (dm()->WriteData(s, b.p, lba, 32) != StatusCode::Success) failures++;
                DiskPane pane{back.p, uint32_t(back.size)};
                req[0] = DiskIoRequest{uint16_t(s), uint32_t(lba), &pane, 1, StatusCode()};
                if (dm()->ParallelDiskRead(req, 1) != StatusCode::Success) failures++;
                if (std::memcmp(b.p, back.p, b.size) != 0) failures++;
                rounds++;
            }
        });
    // Slot 0 works too, and its disk is pulled under it.
    std::atomic<int> slot0Done{0};
    std::thread victim([&] {
        Buffer b(8 * kSectorSize);
        while (!stop) {
            StatusCode st = dm()->WriteData(0, b.p, 0, 8);
            if (st != StatusCode::Success && st != StatusCode::DiskNotPresent) failures++;
            slot0Done++;
        }
    });
    waitUntil([&] { return rounds > 20 && slot0Done > 5; });
    std::string where;
    ASSERT_TRUE(ctl().pullDisk(0, where));
    auto m = drainMessages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Removed);
    int slot = -1;
    ASSERT_EQ(MapToDriveNumber(int(m[0].adapterId), int(m[0].driveId), &slot), 0);
    EXPECT_EQ(slot, 0);
    EXPECT_EQ(dm()->RemoveDisk(0), StatusCode::Success);
    EXPECT_FALSE(dm()->DriveIsReady(0));

    // A fresh disk goes into the slot and joins while the others still work.
    std::string msg;
    ASSERT_TRUE(ctl().insertDisk(0, "32M", msg)) << msg;
    m = drainMessages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Inserted);
    EXPECT_EQ(dm()->AddDisk(0), StatusCode::Success);
    EXPECT_TRUE(dm()->DriveIsReady(0));
    EXPECT_EQ(dm()->GetDriveCapacity(0), 32ull << 11);
    int before = rounds;
    waitUntil([&] { return rounds > before + 20; });
    stop = true;
    for (auto& t : workers) t.join();
    victim.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(DiskManagerTest, ADiskThatVanishesMidCommandEndsTheCommandAndIsReported) {
    loadDisks({"16M", "16M"});
    fault(1, {"notpresent", "write", "once"});
    Buffer b(8 * kSectorSize);
    EXPECT_EQ(dm()->WriteData(1, b.p, 0, 8), StatusCode::DiskNotPresent);
    auto m = drainMessages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Removed);
    EXPECT_EQ(m[0].adapterId * kDrivesPerAdapter + m[0].driveId, 1u);
    EXPECT_EQ(dm()->ReadData(1, b.p, 0, 8), StatusCode::DiskNotPresent) << "no hang on the empty slot";
    EXPECT_EQ(dm()->RemoveDisk(1), StatusCode::Success);
    EXPECT_EQ(dm()->ReadData(1, b.p, 0, 8), StatusCode::DiskNotPresent);
    EXPECT_EQ(dm()->ReadData(0, b.p, 0, 8), StatusCode::Success);
}

TEST_F(DiskManagerTest, TheDiskTestDecidesOnTheFirstReadAndRefusesOversizedDisks) {
    // Middle and last reads failing do not fail the disk; the first one does.
    for (auto size : {"16M", "16M"}) (void)size;
    uint64_t sectors = 16ull << 11;
    std::string err;
    for (int s = 0; s < 2; ++s)
        ASSERT_TRUE(SimDisk::create(Board::GetInstance().path("slots/" + std::to_string(s)), sectors, {}, err));
    ctl().forget();
    fault(0, {"media", "read", "lba=" + std::to_string(sectors / 2) + "-" + std::to_string(sectors - 1)});
    fault(1, {"media", "read", "lba=0-1"});
    ASSERT_EQ(dm()->LoadDiskPack(false), StatusCode::Success);
    EXPECT_TRUE(dm()->DriveIsReady(0));
    EXPECT_FALSE(dm()->DriveIsReady(1));
    EXPECT_EQ(dm()->diskObject(1)->state(), DiskObject::StateFailed);
    EXPECT_EQ(dm()->FailedDiskCount(), 1);
    EXPECT_EQ(dm()->RunDiskTest(1), -1) << "a failed disk is never re-tested";
}

TEST_F(DiskManagerTest, DisksAtTheThirtyTwoBitLimit) {
    // 2 TiB exactly, 2 TiB plus 512 MiB, and 2 TiB plus 1 GiB: the first two are
    // taken and show the pack 2^32 sectors; the third is refused.
    loadDisks({"4294967296s", "4296015872s", "4297064448s"});
    EXPECT_TRUE(dm()->DriveIsReady(0));
    EXPECT_TRUE(dm()->DriveIsReady(1));
    EXPECT_FALSE(dm()->DriveIsReady(2));
    EXPECT_EQ(dm()->GetDriveCapacity(0), 1ull << 32);
    EXPECT_EQ(dm()->GetDriveCapacity(1), 1ull << 32);
    Buffer b(kSectorSize), in(kSectorSize);
    fill(b, 1, 0xffffffffull, 1);
    ASSERT_EQ(dm()->WriteData(1, b.p, 0xffffffffull, 1), StatusCode::Success);
    ASSERT_EQ(dm()->ReadData(1, in.p, 0xffffffffull, 1), StatusCode::Success);
    EXPECT_TRUE(hasPattern(in.p, 1, 0xffffffffull, 1));
}

TEST_F(DiskManagerTest, ADriveThatReportsSizeZeroIsAskedAgain) {
    std::string err;
    ASSERT_TRUE(SimDisk::create(Board::GetInstance().path("slots/0"), 1 << 15, {}, err));
    ASSERT_TRUE(SimDisk::create(Board::GetInstance().path("slots/1"), 1 << 15, {}, err));
    ctl().forget();
    fault(0, {"sizezero", "queries=3"});
    fault(1, {"sizezero", "queries=20"});
    std::atomic<bool> done{false};
    std::thread load([&] {
        dm()->LoadDiskPack(false);
        done = true;
    });
    pumpUntil([&] { return bool(done); }, 30);
    load.join();
    EXPECT_TRUE(dm()->DriveIsReady(0));
    EXPECT_EQ(dm()->GetDriveCapacity(0), 1u << 15);
    EXPECT_FALSE(dm()->DriveIsReady(1)) << "still 0 after 15 tries";
}

TEST_F(DiskManagerTest, SmartDataGivesTemperatureAndBadness) {
    loadDisks({"8M", "", "8M"});
    diskSmartInfo info[8];
    ASSERT_EQ(dm()->GetDrivesInfo(info, false), 8);
    EXPECT_EQ(info[0].temperature, 35) << "the board's slot temperature";
    EXPECT_EQ(info[1].temperature, 0) << "an empty slot reports nothing";
    EXPECT_EQ(dm()->GetCachedTemperature(2), 35);
    EXPECT_EQ(dm()->GetCachedTemperature(9), 0);
    dm()->RecordTemperatureHistory();
    dm()->RecordDiskUtilization();
    std::ostringstream out;
    dm()->DumpHistory(out, true);
    EXPECT_NE(out.str().find("35"), std::string::npos);

    uint8_t data[512] = {};
    auto entry = [&](int i, uint8_t id, uint8_t value, uint8_t raw) {
        data[2 + 12 * i] = id;
        data[2 + 12 * i + 3] = value;
        data[2 + 12 * i + 5] = raw;
    };
    entry(0, 1, 90, 0);
    entry(1, 5, 150, 0);
    entry(2, 0xc2, 61, 44);
    entry(3, 0xc6, 250, 0);  // after the temperature, as drives order them
    diskSmartInfo d{};
    data[0] = 0x10;
    ASSERT_TRUE(SmartData::parse(data, d));
    EXPECT_EQ(d.temperature, 44) << "revision 0x10 keeps degrees in the raw value";
    EXPECT_EQ(d.rawReadErrors, 10);
    EXPECT_EQ(d.reallocatedSectors, 50);
    EXPECT_EQ(d.offlineUncorrectable, 3);
    data[0] = 0x0f;
    ASSERT_TRUE(SmartData::parse(data, d));
    EXPECT_EQ(d.temperature, 61);
}

TEST_F(DiskManagerTest, ConsoleCommandsActOnTheBoardAndTheDisks) {
    loadDisks({"8M", "8M"});
    std::ostringstream out;
    Buffer b(kSectorSize);
    std::memcpy(b.p, "HELLO-DISK", 10);
    ASSERT_EQ(dm()->WriteData(1, b.p, 3, 1), StatusCode::Success);
    EXPECT_EQ(ConsoleCommand::ExecuteLine("dmdump 1 3 1", out), 0);
    EXPECT_NE(out.str().find("HELLO-DISK"), std::string::npos) << out.str();
    EXPECT_NE(ConsoleCommand::ExecuteLine("dmdump 9 3 1", out), 0);
    EXPECT_EQ(ConsoleCommand::ExecuteLine("SmartStatus 2", out), 0);
    EXPECT_NE(out.str().find("temperature 35"), std::string::npos);

    EXPECT_EQ(ConsoleCommand::ExecuteLine("injectError 1 read", out), 0);
    EXPECT_EQ(dm()->ReadData(1, b.p, 3, 1), StatusCode::DM_MediaError);
    EXPECT_EQ(ConsoleCommand::ExecuteLine("injectError 1 drive media write once", out), 0);
    EXPECT_EQ(dm()->WriteData(1, b.p, 3, 1), StatusCode::DM_MediaError);
    EXPECT_NE(ConsoleCommand::ExecuteLine("injectError 1 drive melt", out), 0);

    EXPECT_EQ(ConsoleCommand::ExecuteLine("removeDisk 0", out), 0);
    EXPECT_NE(ConsoleCommand::ExecuteLine("removeDisk 0", out), 0) << "already empty";
    EXPECT_EQ(ConsoleCommand::ExecuteLine("insertDisk 2 16M", out), 0);
    auto m = drainMessages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].event, HotPlugEvent::Removed);
    EXPECT_EQ(m[1].event, HotPlugEvent::Inserted);
    EXPECT_EQ(dm()->AddDisk(2), StatusCode::Success);
    EXPECT_TRUE(dm()->DriveIsReady(2));
}

TEST(DiskIdentifierTest, SixtyEightBytesComparedWhole) {
    DiskIdentifier a, b;
    a.Initialise("MODEL-A", "FW1", "SERIAL-0123456789-ABCDEF");
    EXPECT_EQ(a.GetSerialNumString(), "SERIAL-0123456789-AB") << "truncated to 20";
    EXPECT_EQ(a.GetModelString(), "MODEL-A");
    b = a;
    EXPECT_EQ(a, b);
    b.Initialise("MODEL-A", "FW1", "SERIAL-0123456789-AC");
    EXPECT_NE(a, b);
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(&a);
    EXPECT_EQ(raw[7], 0) << "the model's tail is zero";
    EXPECT_EQ(std::memcmp(raw + 40, "FW1", 3), 0);
    EXPECT_EQ(std::memcmp(raw + 48, "SERIAL", 6), 0);
    a.Reset();
    EXPECT_TRUE(a.isZero());
}

}  // namespace
