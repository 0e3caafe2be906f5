// The disk queue when a synchronous caller serves its own request on an idle
// disk: requests that come meanwhile wait behind it in order, a flush queued
// behind it covers it, a hot-plug removal waits for it to end, and the worker
// takes over the queue when the caller is done.
#include <fcntl.h>
#include <unistd.h>

#include "disk/DiskTestFixture.h"

namespace {

using Buffer = DiskTestFixture::AlignedBuffer;

class DiskQueueTest : public DiskTestFixture {
protected:
    static void fill(Buffer& b, int slot, uint64_t lba, uint32_t generation) {
        for (size_t s = 0; s < b.size / kSectorSize; ++s) pattern(b.p + s * kSectorSize, slot, lba + s, generation);
    }
    static bool imageHolds(int slot, uint64_t lba, uint32_t sectors, uint32_t generation) {
        std::vector<uint8_t> out(sectors * kSectorSize);
        int fd = ::open(Board::GetInstance().path("slots/" + std::to_string(slot) + ".img").c_str(), O_RDONLY);
        if (fd < 0) return false;
        bool ok = ::pread(fd, out.data(), out.size(), off_t(lba * kSectorSize)) == ssize_t(out.size());
        ::close(fd);
        uint8_t want[kSectorSize];
        for (uint32_t s = 0; ok && s < sectors; ++s) {
            pattern(want, slot, lba + s, generation);
            ok = std::memcmp(out.data() + s * kSectorSize, want, kSectorSize) == 0;
        }
        return ok;
    }
    static DiskQueue* queue(int slot) { return dm()->diskObject(slot)->queue(); }
};

TEST_F(DiskQueueTest, RequestsThatComeWhileACallerServesItsOwnWaitInOrderAndTheWorkerTakesThemOver) {
    loadDisks({"16M"});
    // The first writer finds the disk idle and is held in the drive by a latency.
    fault(0, {"latency", "write", "lba=0", "once", "ms=3000"});
    Buffer first(8 * kSectorSize);
    fill(first, 0, 0, 1);
    std::atomic<int> firstStatus{-1};
    std::thread holder([&] { firstStatus = int(dm()->WriteData(0, first.p, 0, 8).value()); });
    waitUntil([&] { return ctl().readsAndWritesInFlight(0) == 1; });
    EXPECT_EQ(queue(0)->GetDiskQueueDepth(), 0u);

    // Three more writers to the same sectors queue behind it, one after another,
    // each with its own generation: the last one queued must be what the disk holds.
    std::vector<std::thread> behind;
    std::vector<StatusCode> status(3);
    for (int i = 0; i < 3; ++i) {
        behind.emplace_back([&, i] {
            Buffer b(8 * kSectorSize);
            fill(b, 0, 0, uint32_t(2 + i));
            status[i] = dm()->WriteData(0, b.p, 0, 8);
        });
        waitUntil([&] { return queue(0)->GetDiskQueueDepth() == uint32_t(i + 1); });
    }
    EXPECT_EQ(ctl().readsAndWritesInFlight(0), 1) << "nothing overtook the command in flight";
    EXPECT_EQ(firstStatus, -1);
    pumpUntil([&] { return firstStatus != -1; });
    holder.join();
    for (auto& t : behind) t.join();
    EXPECT_EQ(StatusCode(uint32_t(firstStatus)), StatusCode::Success);
    for (auto st : status) EXPECT_EQ(st, StatusCode::Success);
    Buffer back(8 * kSectorSize);
    ASSERT_EQ(dm()->ReadData(0, back.p, 0, 8), StatusCode::Success);
    Buffer want(8 * kSectorSize);
    fill(want, 0, 0, 4);
    EXPECT_EQ(std::memcmp(back.p, want.p, want.size), 0) << "the requests were served out of order";
    EXPECT_EQ(queue(0)->GetDiskQueueDepth(), 0u);
}

TEST_F(DiskQueueTest, AFlushQueuedBehindAWriteInFlightIsServedAfterItAndMakesItDurable) {
    loadDisks({"16M", "16M"});
    Buffer early(8 * kSectorSize), late(8 * kSectorSize);
    fill(early, 0, 100, 1);
    ASSERT_EQ(dm()->WriteData(0, early.p, 100, 8), StatusCode::Success);
    fault(0, {"latency", "write", "lba=200", "once", "ms=3000"});
    fill(late, 0, 200, 2);
    std::atomic<int> lateStatus{-1};
    std::thread writer([&] { lateStatus = int(dm()->WriteData(0, late.p, 200, 8).value()); });
    waitUntil([&] { return ctl().readsAndWritesInFlight(0) == 1; });

    std::atomic<bool> flushed{false};
    std::thread flusher([&] {
        EXPECT_EQ(dm()->FlushAllDrives(), StatusCode::Success);
        flushed = true;
    });
    // The flush waits in the queue behind the write the caller serves.
    waitUntil([&] { return queue(0)->GetDiskQueueDepth() == 1; });
    EXPECT_FALSE(flushed);
    pumpUntil([&] { return flushed.load(); });
    writer.join();
    flusher.join();
    EXPECT_EQ(StatusCode(uint32_t(lateStatus)), StatusCode::Success);
    // The flush came after the write: a power cut now loses neither.
    ctl().powerCut();
    EXPECT_TRUE(imageHolds(0, 100, 8, 1));
    EXPECT_TRUE(imageHolds(0, 200, 8, 2)) << "the flush was served before the write it queued behind";
}

TEST_F(DiskQueueTest, ARemovalWaitsForTheRequestACallerServesAndEndsEverythingQueued) {
    loadDisks({"16M", "16M"});
    for (int round = 0; round < 3; ++round) {
        if (round > 0) {
            std::string msg;
            ASSERT_TRUE(ctl().insertDisk(0, "16M", msg)) << msg;
            drainMessages();
            ASSERT_EQ(dm()->AddDisk(0), StatusCode::Success);
        }
        fault(0, {"latency", "read", "lba=0", "once", "ms=60000"});
        Buffer a(8 * kSectorSize);
        std::atomic<int> held{-1};
        std::thread holder([&] { held = int(dm()->ReadData(0, a.p, 0, 8).value()); });
        waitUntil([&] { return ctl().readsAndWritesInFlight(0) == 1; });
        std::vector<StatusCode> behind(2);
        std::vector<std::thread> queued;
        for (int i = 0; i < 2; ++i) {
            queued.emplace_back([&, i] {
                Buffer b(8 * kSectorSize);
                behind[i] = dm()->ReadData(0, b.p, 64 + 8 * i, 8);
            });
            waitUntil([&] { return queue(0)->GetDiskQueueDepth() == uint32_t(i + 1); });
        }
        // The removal starts while the caller's request is in the drive; the
        // disk leaves the slot a moment later (as a pulled disk does), which
        // ends the command in flight.
        std::atomic<bool> removed{false};
        std::thread remover([&] {
            EXPECT_EQ(dm()->RemoveDisk(0), StatusCode::Success);
            removed = true;
        });
        for (int i = 0; i < 100 * (round + 1); ++i) std::this_thread::yield();
        std::string where;
        ASSERT_TRUE(ctl().pullDisk(0, where));
        holder.join();
        for (auto& t : queued) t.join();
        remover.join();
        drainMessages();
        EXPECT_EQ(StatusCode(uint32_t(held)), StatusCode::DiskNotPresent);
        for (auto st : behind) EXPECT_EQ(st, StatusCode::DiskNotPresent);
        EXPECT_FALSE(dm()->DriveIsReady(0));
        EXPECT_EQ(dm()->ReadData(0, a.p, 0, 8), StatusCode::DiskNotPresent);
        // The other disk never noticed.
        EXPECT_EQ(dm()->ReadData(1, a.p, 0, 8), StatusCode::Success);
    }
}

// A parallel batch serves its last request on the caller's thread when that
// disk is idle: its status comes back mapped like the others', and a removal
// of that disk meanwhile waits for it and fails it cleanly.
TEST_F(DiskQueueTest, ABatchsLastRequestServedByTheCallerRacesARemovalOfItsDisk) {
    loadDisks({"16M", "16M"});
    Buffer a(8 * kSectorSize), b(8 * kSectorSize);
    fill(a, 1, 40, 1);
    fill(b, 0, 40, 1);
    DiskPane panes[2] = {{a.p, uint32_t(a.size)}, {b.p, uint32_t(b.size)}};
    DiskIoRequest req[2] = {{1, 40, &panes[0], 1, StatusCode()}, {0, 40, &panes[1], 1, StatusCode()}};
    ASSERT_EQ(dm()->ParallelDiskWrite(req, 2), StatusCode::Success);
    EXPECT_EQ(req[0].status, StatusCode::Success);
    EXPECT_EQ(req[1].status, StatusCode::Success);
    Buffer back(8 * kSectorSize);
    ASSERT_EQ(dm()->ReadData(0, back.p, 40, 8), StatusCode::Success);
    EXPECT_EQ(std::memcmp(back.p, b.p, b.size), 0);

    // The last request is held in slot 0's drive while the disk is removed.
    fault(0, {"latency", "read", "lba=40", "once", "ms=60000"});
    DiskIoRequest rd[2] = {{1, 40, &panes[0], 1, StatusCode()}, {0, 40, &panes[1], 1, StatusCode()}};
    std::atomic<int> batch{-1};
    std::thread reader([&] { batch = int(dm()->ParallelDiskRead(rd, 2).value()); });
    waitUntil([&] { return ctl().readsAndWritesInFlight(0) == 1; });
    std::thread remover([&] { EXPECT_EQ(dm()->RemoveDisk(0), StatusCode::Success); });
    for (int i = 0; i < 200; ++i) std::this_thread::yield();
    std::string where;
    ASSERT_TRUE(ctl().pullDisk(0, where));
    reader.join();
    remover.join();
    drainMessages();
    EXPECT_EQ(StatusCode(uint32_t(batch)), StatusCode::DiskNotPresent);
    EXPECT_EQ(rd[0].status, StatusCode::Success) << "the other disk's request was served";
    EXPECT_EQ(rd[1].status, StatusCode::DiskNotPresent);
    EXPECT_FALSE(dm()->DriveIsReady(0));
}

}  // namespace
