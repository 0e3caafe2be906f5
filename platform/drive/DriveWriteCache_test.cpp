// The drives' realistic write cache seen from outside, through the driver's
// commands and the disk images: after a power cut or a pull the medium holds
// an arbitrary subset of the unflushed sectors (not a prefix of the writes,
// multi-sector writes torn), never less than what a flush covered, and the
// same seed leaves the same medium; the write-back thread empties the cache
// by itself.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "tests/support/DriveCacheScope.h"

namespace fs = std::filesystem;

namespace {

SimDriveController& ctl() { return SimDriveController::GetInstance(); }

// A known write pattern: every sector carries its LBA and the number of the
// write that put it there, so the medium says which write each sector holds.
struct Write {
    uint64_t lba;
    uint32_t sectors;
    bool flushAfter;
};
// Write 1 lays a flushed base; 2 to 4 are flushed; 5 to 10 are not, and
// overlap each other and what was flushed, across chunk boundaries.
const std::vector<Write> kPattern = {
    {0, 256, true},  {0, 32, false},  {40, 16, false}, {100, 64, true},  {20, 30, false}, {200, 24, false},
    {120, 20, false}, {300, 40, false}, {8, 4, false},  {250, 60, false},
};

void stamp(uint8_t* sector, uint64_t lba, uint32_t write) {
    std::memset(sector, int(write), kSectorSize);
    std::memcpy(sector, &lba, 8);
    std::memcpy(sector + 8, &write, 4);
}

class DriveWriteCacheTest : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { ctl().forget(); }
    void reset() {
        ctl().forget();
        fs::remove_all(Board::GetInstance().path("slots"));
        fs::remove_all(Board::GetInstance().path("shelf"));
        fs::create_directories(Board::GetInstance().path("slots"));
    }
    static uint32_t command(DriveCommand& c) {
        int fd = driveOpen("/sata00");
        driveIoctl(fd, kDriveIoctl, &c);
        driveClose(fd);
        return c.block.status;
    }
    static void write(const Write& w, uint32_t number) {
        std::vector<uint8_t> data(size_t(w.sectors) * kSectorSize);
        for (uint32_t s = 0; s < w.sectors; ++s) stamp(data.data() + size_t(s) * kSectorSize, w.lba + s, number);
        DriveCommand c{};
        c.block.opcode = DriveOp::WriteSGL;
        c.block.lba = w.lba;
        c.block.count = w.sectors;
        c.block.entryCount = 1;
        c.entries[0] = {w.sectors, uint64_t(uintptr_t(data.data()))};
        ASSERT_EQ(command(c), DriveStatus::Success);
        if (!w.flushAfter) return;
        DriveCommand f{};
        f.block.opcode = DriveOp::FlushCache;
        ASSERT_EQ(command(f), DriveStatus::Success);
    }
    // The write number each sector of [0, n) holds on the image (0: never written).
    static std::vector<uint32_t> medium(const fs::path& image, uint64_t n) {
        std::vector<uint8_t> bytes(n * kSectorSize);
        int fd = ::open(image.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0) << image;
        EXPECT_EQ(::pread(fd, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
        ::close(fd);
        std::vector<uint32_t> out(n);
        for (uint64_t l = 0; l < n; ++l) {
            const uint8_t* p = bytes.data() + l * kSectorSize;
            uint64_t lba;
            std::memcpy(&lba, p, 8);
            std::memcpy(&out[l], p + 8, 4);
            uint8_t expect[kSectorSize];
            if (out[l] == 0 && lba == 0) continue;
            stamp(expect, l, out[l]);
            EXPECT_EQ(std::memcmp(p, expect, kSectorSize), 0) << "sector " << l << " is not whole: a torn sector";
        }
        return out;
    }
    // Runs the pattern on a fresh 8 MiB disk in slot 0 with the seed, with
    // `writeBacks` write-back steps after each write, then cuts the power
    // (or pulls the disk); returns what the medium holds.
    std::vector<uint32_t> runPattern(uint64_t seed, unsigned writeBacks, bool pull) {
        reset();
        ctl().setDriveSeed(seed);
        std::string msg;
        EXPECT_TRUE(ctl().insertDisk(0, "8M", msg)) << msg;
        auto disk = ctl().disk(0);
        for (uint32_t i = 0; i < kPattern.size(); ++i) {
            write(kPattern[i], i + 1);
            for (unsigned k = 0; k < writeBacks; ++k) disk->writeBackSome();
        }
        fs::path image = Board::GetInstance().path("slots/0.img");
        if (pull) {
            EXPECT_TRUE(ctl().pullDisk(0, msg)) << msg;
            image = msg;
        } else {
            ctl().powerCut();
        }
        return medium(image, kSectors);
    }
    static constexpr uint64_t kSectors = 400;
    DriveCacheScope mScope{DriveCacheMode::Random, false};  // the cut alone decides: replayable
};

}  // namespace

TEST_F(DriveWriteCacheTest, CutsLeaveArbitrarySubsetsAndTornWritesButEveryFlushedWrite) {
    // What may lie in each sector: the last write to it that a flush covered
    // (or nothing), or any unflushed write to it after that.
    std::vector<std::set<uint32_t>> allowed(kSectors);
    std::vector<uint32_t> last(kSectors, 0);  // the newest write of each sector
    for (uint32_t i = 0; i < kPattern.size(); ++i) {
        const Write& w = kPattern[i];
        for (uint64_t l = w.lba; l < w.lba + w.sectors; ++l) last[l] = i + 1;
        if (w.flushAfter)
            for (uint64_t l = 0; l < kSectors; ++l) allowed[l] = {last[l]};
        else
            for (uint64_t l = w.lba; l < w.lba + w.sectors; ++l) allowed[l].insert(i + 1);
    }
    unsigned torn = 0, notPrefix = 0, nothing = 0, cuts = 0;
    for (uint64_t seed = 1; seed <= 48; ++seed)
        for (unsigned writeBacks : {0u, 2u}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", " + std::to_string(writeBacks) + " write-backs a write");
            std::vector<uint32_t> m = runPattern(seed, writeBacks, seed % 4 == 0);
            ++cuts;
            for (uint64_t l = 0; l < kSectors; ++l)
                ASSERT_TRUE(allowed[l].count(m[l])) << "sector " << l << " holds write " << m[l];
            // Each unflushed write, on the sectors no later write covers: all, some or none landed.
            std::vector<int> landed;  // per unflushed write: 0 none, 1 some, 2 all
            bool anyUnflushedLanded = false;
            for (uint32_t i = 4; i < kPattern.size(); ++i) {
                unsigned own = 0, there = 0;
                for (uint64_t l = kPattern[i].lba; l < kPattern[i].lba + kPattern[i].sectors; ++l)
                    if (last[l] == i + 1) {
                        ++own;
                        there += m[l] == i + 1;
                    }
                landed.push_back(there == 0 ? 0 : there == own ? 2 : 1);
                anyUnflushedLanded |= there > 0;
                if (there > 0 && there < own && kPattern[i].sectors > 1) ++torn;
            }
            nothing += !anyUnflushedLanded;
            // A prefix: the writes up to some point whole (the next one perhaps
            // in part), nothing of the later ones.
            size_t k = 0;
            while (k < landed.size() && landed[k] == 2) ++k;
            if (k < landed.size() && landed[k] == 1) ++k;
            bool prefix = true;
            for (; k < landed.size(); ++k) prefix &= landed[k] == 0;
            notPrefix += !prefix;
        }
    EXPECT_GT(torn, cuts) << "multi-sector writes are torn by the cuts";
    EXPECT_GT(notPrefix, cuts / 2) << "the medium holds subsets that are not prefixes of the writes";
    EXPECT_GT(nothing, 0u) << "a cut can also land nothing";
}

TEST_F(DriveWriteCacheTest, TheSameSeedLeavesTheSameMedium) {
    std::vector<uint32_t> a = runPattern(77, 1, false), b = runPattern(77, 1, false), c = runPattern(78, 1, false);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c) << "another seed, another subset";
}

TEST_F(DriveWriteCacheTest, TheWriteBackThreadEmptiesTheCacheByItselfAndAFlushStillCoversEverything) {
    ctl().setCacheMode(DriveCacheMode::Random, true);
    std::string msg;
    ASSERT_TRUE(ctl().insertDisk(0, "8M", msg)) << msg;
    for (uint32_t i = 0; i < 4; ++i) write({uint64_t(i) * 64, 64, false}, i + 1);
    auto disk = ctl().disk(0);
    // The drive's own pace: wait for the condition (the limit only ends a hang).
    for (int i = 0; i < 60000 && disk->cachedSectors() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(disk->cachedSectors(), 0u) << "the write-back thread left data in the cache";
    std::vector<uint32_t> m = medium(Board::GetInstance().path("slots/0.img"), 256);
    for (uint64_t l = 0; l < 256; ++l) EXPECT_EQ(m[l], l / 64 + 1) << l;
    write({0, 256, true}, 9);
    EXPECT_EQ(disk->cachedSectors(), 0u);
    ctl().powerCut();
    m = medium(Board::GetInstance().path("slots/0.img"), 256);
    for (uint64_t l = 0; l < 256; ++l) EXPECT_EQ(m[l], 9u) << l;
}
