#pragma once
// Test fixture of the pack layer: the disk fixture's board plus a pack made
// and loaded on it by DiskPackManager, so that LD numbers come from the DIS
// records as they do in the running system. makePack({"1G","2G"}) fills slots
// 0.. and loads a new pack (LD n in slot n for blank disks); restart() drops
// the pack and the disk layer and loads again from what the disks hold, as a
// power-up would. The second load stage is replaced by one that reports
// success at once, unless a test asks for the system manager's own
// (setSecondStageForTest(nullptr)).
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskPackManager.h"
#include "disk/DiskTestFixture.h"
#include "region/RegionManager.h"
#include "tests/support/IndependentReader.h"

// Board time runs ten times faster than real time while it lives: a pack load
// yields to the I/O path in board ticks (the sector cache drops a large set
// in batches), which a virtual clock that nobody moves would never end.
class FastBoardClock {
public:
    FastBoardClock() { BoardClock::GetInstance().configure(BoardClock::Mode::Accelerated, 10.0); }
    ~FastBoardClock() { BoardClock::GetInstance().configure(BoardClock::Mode::Virtual); }
    FastBoardClock(const FastBoardClock&) = delete;
    FastBoardClock& operator=(const FastBoardClock&) = delete;
};

class PackTestFixture : public DiskTestFixture {
protected:
    // The whole test runs on a fast clock (see FastBoardClock): loads,
    // expunges and repairs all drop cached sets.
    void SetUp() override {
        BoardClock::GetInstance().configure(BoardClock::Mode::Accelerated, 10.0);
        DiskTestFixture::SetUp();
        resetPack();
    }
    void TearDown() override {
        resetPack();
        DiskTestFixture::TearDown();
        BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
    }

    static DiskPackManager* dpm() { return DiskPackManager::GetInstance(); }

    // The second stage of a load as far as the pack layer sees it.
    static bool quickSecondStage() {
        dpm()->diskPackLoadStatus(StatusCode::Success);
        return true;
    }

    void resetPack() {
        // The Region layer's disks were made by the pack's load: they go with it.
        RegionManager::GetInstance()->UnloadDiskPack();
        dpm()->resetForTest();
        dpm()->setSecondStageForTest(&PackTestFixture::quickSecondStage);
        for (uint32_t s = 0; s < uint32_t(DiskManager::kSlots); ++s) DiskLBAMetaDataTracker::GetInstance()->ClearSet(s);
    }

    // Blank disks in slots 0.. (an empty size leaves the slot empty), made into a new pack.
    void makePack(const std::vector<std::string>& sizes, bool clearDisk = true) {
        if (dm()->loaded()) dm()->UnloadDiskPack();
        loadDisks(sizes);
        ASSERT_EQ(dpm()->doColdStart(clearDisk), StatusCode::Success);
    }

    // A power cycle of the pack layer: disk caches written out, pack and disks
    // dropped, then the disks loaded again (after `between`, which may move
    // the disk files around) and the pack discovered afresh.
    StatusCode restart(const std::function<void()>& between = nullptr) {
        dm()->FlushAllDrives();
        resetPack();
        if (dm()->loaded()) dm()->UnloadDiskPack();
        ctl().forget();
        if (between) between();
        ctl().forget();
        if (dm()->LoadDiskPack(false) != StatusCode::Success) return StatusCode::InternalError;
        drainMessages();
        return dpm()->doColdStart(false);
    }

    static std::filesystem::path slotBase(int slot) { return Board::GetInstance().path("slots/" + std::to_string(slot)); }
    static std::filesystem::path shelfBase(const std::string& name) {
        std::filesystem::create_directories(Board::GetInstance().path("shelf"));
        return Board::GetInstance().path("shelf/" + name);
    }
    // Moves a disk's image and identity (only while the disk layer is down).
    static void moveDisk(const std::filesystem::path& from, const std::filesystem::path& to) {
        std::filesystem::rename(from.string() + ".img", to.string() + ".img");
        std::filesystem::rename(from.string() + ".json", to.string() + ".json");
    }

    // ---- what reached the disks, read past every cache of the system

    static std::vector<uint8_t> readSectors(int slot, uint64_t lba, uint32_t count) {
        AlignedBuffer b(count * 512);
        EXPECT_EQ(dm()->ReadData(slot, b.p, lba, count), StatusCode::Success);
        return std::vector<uint8_t>(b.p, b.p + count * 512);
    }
    static void writeSector(int slot, uint64_t lba, const uint8_t* sector) {
        AlignedBuffer b(512);
        std::memcpy(b.p, sector, 512);
        ASSERT_EQ(dm()->WriteData(slot, b.p, lba, 1), StatusCode::Success);
    }
    // The three range starts, from the record table's own formula.
    static std::vector<uint32_t> rangeStarts(int slot) {
        uint32_t cap = uint32_t(dm()->GetDriveCapacity(slot));
        return {0, (cap / 0xD200) * 0x6900, cap - 0x80};
    }
    // The live copy of range `copy`: the valid record with the highest
    // iteration, the later sector on a tie; lba receives its sector.
    static independent::Dis liveCopy(int slot, unsigned copy, uint32_t* lba = nullptr) {
        uint32_t first = rangeStarts(slot)[copy];
        std::vector<uint8_t> range = readSectors(slot, first, 0x80);
        independent::Dis best;
        for (uint32_t i = 0; i < 0x80; ++i) {
            independent::Dis d = independent::readDis(range.data() + i * 512);
            if (!d.valid || (best.valid && d.iteration < best.iteration)) continue;
            best = d;
            if (lba) *lba = first + i;
        }
        return best;
    }
};
