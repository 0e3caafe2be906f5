#pragma once
// Test fixture of the Region layer: simulated disks in the slots, a pack made
// on them, raw sector access beside the system's own paths (to check and to
// damage what reached the disks), and reloads that drop every cached sector.
// Making a pack happens in one place, makePackOnPresentDisks().
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskPackManager.h"
#include "disk/DiskTestFixture.h"
#include "disk/PackTestFixture.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "tests/support/IndependentReader.h"

// Reaches into the manager where a test must stage what only an old pack or a
// damaged disk would give.
class RegionManagerTestAccess {
public:
    static void setNewDiskPadding(uint32_t padding) { RegionManager::GetInstance()->mPadding = padding; }
    static uint32_t copyLba(uint16_t ld, unsigned copy) {
        LogicalDiskMap* m = RegionManager::GetInstance()->map(ld);
        return m ? m->rmLba[copy] : 0;
    }
    static uint32_t generation(uint16_t ld) {
        LogicalDiskMap* m = RegionManager::GetInstance()->map(ld);
        return m ? m->header.generation : 0;
    }
};

class RegionTestFixture : public DiskTestFixture {
protected:
    void SetUp() override {
        DiskTestFixture::SetUp();
        rm()->UnloadDiskPack();
        dlbat()->flush();
        ASSERT_EQ(rm()->Initialize(), StatusCode::Success);
    }
    void TearDown() override {
        rm()->UnloadDiskPack();
        dlbat()->flush();
        DiskPackManager::GetInstance()->resetForTest();  // no pack outlives its test
        DiskTestFixture::TearDown();
    }

    static RegionManager* rm() { return RegionManager::GetInstance(); }
    static DiskLBAMetaDataTracker* dlbat() { return DiskLBAMetaDataTracker::GetInstance(); }

    // Disks of the given sizes in slots 0.., and a new pack made on them.
    void makePack(const std::vector<std::string>& sizes) {
        loadDisks(sizes);
        makePackOnPresentDisks();
    }

    // The one place a test pack is made: the pack layer makes a new pack of
    // the present disks (blank disks in slot order become LDs 0..; Region
    // metadata is created on each as it joins), then the Region layer loads.
    void makePackOnPresentDisks() {
        ASSERT_EQ(loadPackThroughDiscovery(true), StatusCode::Success);
    }

    // The pack layer chooses (or, with `clear`, makes) the pack from what the
    // present disks hold, with a second load stage that only reports success;
    // then the Region layer loads.
    StatusCode loadPackThroughDiscovery(bool clear) {
        DiskPackManager* dpm = DiskPackManager::GetInstance();
        dpm->resetForTest();
        dpm->setSecondStageForTest([] {
            DiskPackManager::GetInstance()->diskPackLoadStatus(StatusCode::Success);
            return true;
        });
        FastBoardClock fast;
        StatusCode st = dpm->doColdStart(clear);
        if (st != StatusCode::Success) return st;
        return rm()->LoadDiskPack();
    }

    // The pack found again as a power-up finds it: the pack layer reads the
    // disks' records (a disk no longer in its slot is a missing member), then
    // the Region layer loads. The disk layer must already be up.
    StatusCode reloadPackFromDisks() {
        rm()->UnloadDiskPack();
        dlbat()->flush();
        return loadPackThroughDiscovery(false);
    }

    // A disk that joins the pack without the pack layer's Region work (the
    // test installs it): it gets the lowest free LD number.
    uint16_t joinPack(uint16_t slot) {
        uint16_t ld = 99;
        EXPECT_EQ(DiskPackManager::GetInstance()->attachDiskForTest(slot, ld), StatusCode::Success);
        return ld;
    }
    // A disk that left: its LD stays a member, missing.
    void leavePack(uint16_t slot) {
        EXPECT_EQ(DiskPackManager::GetInstance()->master().removeDiskInSlot(slot), StatusCode::Success);
    }

    // A restart as far as the Region layer sees one: nothing kept in memory.
    StatusCode reload(bool readWrite = true) {
        SystemManager::GetInstance()->setClearDiskRequested(false);  // a restart clears nothing
        rm()->UnloadDiskPack();
        dlbat()->flush();
        return readWrite ? rm()->LoadDiskPack() : rm()->LoadDiskPackReadOnly();
    }

    // Raw sectors, past every cache of the system.
    std::vector<uint8_t> raw(int slot, uint64_t lba, uint32_t sectors = 1) {
        std::vector<uint8_t> out(size_t(sectors) * 512);
        EXPECT_EQ(dm()->ReadData(slot, out.data(), lba, sectors), StatusCode::Success);
        return out;
    }
    void writeRaw(int slot, uint64_t lba, std::vector<uint8_t> bytes) {
        EXPECT_EQ(dm()->WriteData(slot, bytes.data(), lba, uint32_t(bytes.size() / 512)), StatusCode::Success);
        dlbat()->flush();
    }

    // The two copies as an independent reader sees them on the disk.
    struct Copy {
        independent::RMHeader header;
        std::vector<uint8_t> bitmap;
        bool bitmapValid = false;
    };
    Copy readCopy(int slot, uint32_t lba) {
        Copy c;
        c.header = independent::readRMHeader(raw(slot, lba).data());
        if (c.header.bitmapBytes == 0 || c.header.bitmapBytes % 512 != 0 || c.header.bitmapBytes > (1u << 20)) return c;
        c.bitmap = raw(slot, lba + 1, c.header.bitmapBytes / 512);
        c.bitmapValid = independent::rabmValid(c.bitmap.data(), c.header.bitmapBytes);
        return c;
    }

    // Rewrites fields of a metadata header on the disk with a fresh checksum,
    // as a damaged or older disk would carry them.
    void patchHeader(int slot, uint32_t lba, const std::function<void(uint8_t*)>& change, bool fixCrc = true) {
        auto s = raw(slot, lba);
        change(s.data());
        if (fixCrc) {
            std::memset(s.data() + 0x70, 0, 4);
            putBE(s.data() + 0x70, independent::crc(s.data(), 512));
        }
        writeRaw(slot, lba, s);
    }
    // Sets or clears one Region's bit in a copy's bitmap, with a fresh checksum.
    void patchBitmap(int slot, uint32_t headerLba, uint32_t region, bool allocated) {
        Copy c = readCopy(slot, headerLba);
        uint8_t bit = uint8_t(1u << (region % 8));
        if (allocated)
            c.bitmap[12 + region / 8] |= bit;
        else
            c.bitmap[12 + region / 8] &= uint8_t(~bit);
        std::memset(c.bitmap.data() + 8, 0, 4);
        putBE(c.bitmap.data() + 8, independent::crc(c.bitmap.data(), c.bitmap.size()));
        writeRaw(slot, headerLba + 1, c.bitmap);
    }
    static void putBE(uint8_t* p, uint32_t v) {
        p[0] = uint8_t(v >> 24);
        p[1] = uint8_t(v >> 16);
        p[2] = uint8_t(v >> 8);
        p[3] = uint8_t(v);
    }

    static std::vector<uint8_t> pattern(uint32_t bytes, uint32_t seed) {
        std::vector<uint8_t> v(bytes);
        for (uint32_t i = 0; i < bytes; ++i) v[i] = uint8_t((i * 131 + seed * 7 + (i >> 9)) ^ (seed >> 3));
        return v;
    }
    static DataWindow windowOf(const std::vector<uint8_t>& bytes) {
        DataWindow w(uint32_t(bytes.size()), 0, uint32_t(bytes.size()));
        DataBuffer b{uint32_t(bytes.size()), const_cast<uint8_t*>(bytes.data())};
        w.Write(b);
        return w;
    }
    static std::vector<uint8_t> bytesOf(const DataWindow& w) {
        std::vector<uint8_t> v(w.GetLength());
        DataBuffer b{uint32_t(v.size()), v.data()};
        w.Read(b);
        return v;
    }
};
