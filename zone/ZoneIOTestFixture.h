#pragma once
// Test fixture of the Zone I/O paths: simulated disks loaded through the disk
// and Region layers, Zones made by hand over them, and an independent reader
// of the raw disk images that works out where each byte of a Zone lies, and
// what its parity must be, from the layout rules alone (no system geometry,
// no parity engine), so that placement and parity are checked on the disks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "disk/DiskPackManager.h"
#include "platform/rtos/BoardClock.h"
#include "region/RegionManager.h"
#include "region/RegionTestSupport.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"
#include "zone/ZoneWriteReadCheck.h"

class ZoneIOTest : public RegionTestFixture {
protected:
    void SetUp() override {
        RegionTestFixture::SetUp();
        LayoutManager::GetInstance()->clearPatchRequests();
        ZoneManager::GetInstance()->setParallelIOs(true);
        ZoneManager::GetInstance()->setCoopEnabled(true);
    }
    void TearDown() override {
        for (uint32_t zone : mZones) ZoneDataCheck::freeScratchZone(zone);
        mZones.clear();
        ZoneManager::GetInstance()->UnloadDiskPack();
        RegionTestFixture::TearDown();
    }

    // `count` disks of `size`, a new pack on them, the Zone table loaded
    // (which makes Zones 0 and 1).
    void loadPack(unsigned count, const std::string& size = "16G") {
        makePack(std::vector<std::string>(count, size));
        ASSERT_EQ(ZoneManager::GetInstance()->LoadDiskPack(), StatusCode::Success);
    }

    uint32_t makeZone(RedundancyType type, std::vector<uint16_t> disks = {}) {
        if (disks.empty()) disks = ZoneDataCheck::presentDisks();
        uint32_t zone = 0;
        StatusCode st = ZoneDataCheck::makeScratchZone(type, disks, zone);
        EXPECT_EQ(st, StatusCode::Success) << RedundancyGeometry::DecodeRedundancyType(uint32_t(type));
        mZones.push_back(zone);
        return zone;
    }
    static ZoneTableEntry entryOf(uint32_t zone) {
        ZoneTableEntry e;
        EXPECT_EQ(ZoneTable::GetInstance()->LookupZone(zone, e), StatusCode::Success);
        return e;
    }
    static uint32_t regionSize() { return uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize()); }
    static uint64_t zoneSize() { return SystemDrivePackInfo::GetInstance()->GetZoneSize(); }

    static StatusCode write(uint32_t zone, uint32_t offset, uint32_t length, uint32_t seed) {
        DataWindow w(length, 0, length);
        ZoneDataCheck::fill(w, seed, offset);
        IOTracker t(READ_WRITE);
        StatusCode st = ZoneManager::GetInstance()->WriteData(zone, offset, w, t);
        t.commitIfDirty();
        return st;
    }
    static StatusCode read(uint32_t zone, uint32_t offset, uint32_t length, DataWindow& w) {
        w = DataWindow(length, 0, length);
        IOTracker t(READ_ONLY);
        StatusCode st = ZoneManager::GetInstance()->ReadData(zone, offset, w, t);
        t.commitIfDirty();
        return st;
    }
    static bool readMatches(uint32_t zone, uint32_t offset, uint32_t length, uint32_t seed) {
        DataWindow w;
        StatusCode st = read(zone, offset, length, w);
        EXPECT_EQ(st, StatusCode::Success) << "read of Zone " << zone << " at " << offset;
        return st.ok() && ZoneDataCheck::matches(w, seed, offset, &std::cerr);
    }

    // ---- the independent reader ------------------------------------------
    struct Place {
        unsigned slot;
        uint32_t offset;  // in the Region
    };
    // Where a copy (0 data, 1 primary, 2 secondary) of Zone byte `off` lies,
    // from the layout rules of each type.
    static bool placeOf(const ZoneTableEntry& e, unsigned copy, uint32_t off, Place& p) {
        const uint32_t R = regionSize(), Z = 24 * R, zn = e.zoneNumber;
        const uint32_t t = e.redundancyType;
        if (t <= 2 || t == 12) {  // None, SelfMirrored, Mirrored, Mirrored3
            uint32_t base = off;
            if (t == 0) base = off;
            else if (t == 1) base = copy == 0 ? off : copy == 1 ? off + Z : ~0u;
            else if (t == 2) base = ((zn % 2 == 0) == (copy == 0)) ? off : off + Z;
            else base = Z * ((zn + copy) % 3) + off;
            if (base == ~0u || (t != 12 && copy == 2) || (t == 0 && copy > 0)) return false;
            p = {base / R, off % R};
            return true;
        }
        static constexpr unsigned kHWidth[] = {3, 4, 5, 7, 9}, kDRWidth[] = {4, 5, 6, 8, 10},
                                  kDRRows[] = {2, 4, 4, 6, 10};
        unsigned w = 0, d = 0;
        if (t >= 7 && t <= 11) w = kHWidth[t - 7], d = w - 1;
        else w = kDRWidth[t - 13], d = w - 2;
        if (copy == 2 && t < 13) return false;
        const uint32_t q = 24 / d;
        uint32_t b = R * d;
        if (t >= 13) {
            const uint32_t rows = kDRRows[t - 13];
            b = b / (d * rows * 4096) * (d * rows * 4096);
        }
        const unsigned column = copy == 0 ? (off >> 12) % d : d + copy - 1;
        p = {off / b + column * q, (off % b) / (d * 4096) * 4096 + off % 4096};
        return true;
    }
    // Raw bytes of a Region, straight from the disk image (after a flush).
    static std::vector<uint8_t> rawRead(uint16_t ld, uint32_t region, uint32_t offset, uint32_t length) {
        uint16_t slot = 0;
        EXPECT_EQ(DiskPackManager::GetInstance()->getSlotNum(ld, slot), StatusCode::Success);
        uint32_t lba = 0;
        EXPECT_EQ(RegionManager::GetInstance()->GetLBA(lba, ld, offset, region), StatusCode::Success);
        if (auto disk = ctl().disk(slot)) disk->flushCache();
        std::vector<uint8_t> out(length);
        const std::string path = Board::GetInstance().path("slots/" + std::to_string(slot) + ".img").string();
        int fd = ::open(path.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0) << path;
        if (fd >= 0) {
            EXPECT_EQ(::pread(fd, out.data(), length, off_t(lba) * 512), ssize_t(length));
            ::close(fd);
        }
        return out;
    }
    static std::vector<uint8_t> rawCopy(const ZoneTableEntry& e, unsigned copy, uint32_t off, uint32_t length) {
        Place p{};
        EXPECT_TRUE(placeOf(e, copy, off, p));
        return rawRead(e.disk[p.slot], e.region[p.slot], p.offset, length);
    }

    // The Zone data one parity computation covers: a line, or a superstripe line.
    static uint32_t parityUnit(const ZoneTableEntry& e) {
        const unsigned d = e.GetStripeDataWidth();
        return RedundancyGeometry::IsDRStripe(e.type()) ? d * 0x1000 * codeSources(e) : d * 0x1000;
    }
    // Zero columns and data columns of a DRStripe code (n); d for HStripe.
    static unsigned codeSources(const ZoneTableEntry& e) {
        const unsigned d = e.GetStripeDataWidth();
        if (e.type() == RedundancyType::DRStripe5) return d + 1;
        if (e.type() == RedundancyType::DRStripe10) return d + 2;
        return d;
    }
    // The parities of the unit at Zone offset `start`, computed from the raw
    // data columns by the code's definition, equal what lies on the disks:
    //   horizontal: E[n][r] = XOR of E[c][r], c = 0..n-1 (zero columns first)
    //   diagonal:   D[j] = XOR of E[(t + j) mod (n + 1)][t], t = 0..n-1
    static void expectParityOnDisk(const ZoneTableEntry& e, uint32_t start) {
        const bool dual = RedundancyGeometry::IsDRStripe(e.type());
        const unsigned d = e.GetStripeDataWidth(), n = codeSources(e), z = n - d, S = n + 1, rows = dual ? n : 1;
        auto xorInto = [](std::vector<uint8_t>& acc, const std::vector<uint8_t>& b) {
            for (size_t i = 0; i < acc.size(); ++i) acc[i] ^= b[i];
        };
        std::vector<std::vector<std::vector<uint8_t>>> E(n + 1, std::vector<std::vector<uint8_t>>(rows));
        for (unsigned r = 0; r < rows; ++r) {
            for (unsigned c = 0; c < z; ++c) E[c][r].assign(0x1000, 0);
            for (unsigned c = 0; c < d; ++c) E[z + c][r] = rawCopy(e, 0, start + r * d * 0x1000 + c * 0x1000, 0x1000);
            E[n][r] = rawCopy(e, 1, start + r * d * 0x1000, 0x1000);
            std::vector<uint8_t> h(0x1000, 0);
            for (unsigned c = 0; c < n; ++c) xorInto(h, E[c][r]);
            ASSERT_EQ(h, E[n][r]) << "horizontal parity of line at " << start + r * d * 0x1000;
        }
        for (unsigned j = 0; dual && j < n; ++j) {
            std::vector<uint8_t> diag(0x1000, 0);
            for (unsigned t = 0; t < n; ++t) xorInto(diag, E[(t + j) % S][t]);
            ASSERT_EQ(diag, rawCopy(e, 2, start + j * d * 0x1000, 0x1000))
                << "diagonal " << j << " of superstripe line at " << start;
        }
    }

    // Moves board time on while `done` is false (waits of write threads end by the clock).
    static void pumpClockUntil(const std::function<bool()>& done) {
        while (!done()) {
            BoardClock::GetInstance().advance(1);
            std::this_thread::yield();
        }
    }
    // A thread registered under a task name (the write threads' names matter).
    static std::thread runAs(const std::string& name, std::function<void()> body) {
        return std::thread([name, body] {
            taskRegisterSelf(name, 120);
            body();
            taskExitSelf();
        });
    }

    std::vector<uint32_t> mZones;
};
