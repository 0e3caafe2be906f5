#pragma once
// Test fixture of the Zone table and allocation: a Region pack on simulated
// disks (made by the Region layer's one helper), the Zone layer loaded on it,
// restarts that drop every cache, and raw access to a table copy's sectors.
// Making a Zone pack happens in one place, makeZonePack().
#include <gtest/gtest.h>

#include "cache/RegionMetaDataTracker.h"
#include "cache/ZoneMetaDataTracker.h"
#include "region/RegionTestSupport.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

class ZoneTableTestFixture : public RegionTestFixture {
protected:
    void SetUp() override {
        RegionTestFixture::SetUp();
        unloadZones();
    }
    void TearDown() override {
        unloadZones();
        RegionTestFixture::TearDown();
        // Tests without disks set the geometry they need when none is set.
        SystemDrivePackInfo::GetInstance()->unset(SystemDrivePackInfo::RegionSize);
    }

    static ZoneManager* zm() { return ZoneManager::GetInstance(); }
    static ZoneTable& table() { return *ZoneTable::GetInstance(); }

    // Disks of the given sizes in slots 0.., a Region pack on them, and the
    // Zone layer's first load: the table, Zone 0 and Zone 1 are born.
    void makeZonePack(const std::vector<std::string>& sizes) {
        makePack(sizes);
        ASSERT_EQ(zm()->LoadDiskPack(), StatusCode::Success);
    }

    static void unloadZones() {
        Zone0InfoTable::GetInstance()->UnloadDiskPack();
        zm()->UnloadDiskPack();
        ZoneMetaDataTracker::GetInstance()->flush();
        RegionMetaDataTracker::GetInstance()->flush();
    }

    // A restart of the Region and Zone layers: nothing kept in memory.
    StatusCode reloadZones(bool readOnly = false) {
        unloadZones();
        StatusCode st = reload(!readOnly);
        if (st != StatusCode::Success) return st;
        return readOnly ? zm()->LoadDiskPackReadOnly() : zm()->LoadDiskPack();
    }

    // LBA of a byte offset in a Region (the slot of LD n is n in these packs).
    uint32_t lbaOf(uint16_t ld, uint32_t region, uint32_t offset = 0) {
        uint32_t lba = 0;
        EXPECT_EQ(rm()->GetLBA(lba, ld, offset, region), StatusCode::Success);
        return lba;
    }

    struct Location {
        uint16_t ld;
        uint32_t region;
    };
    Location copy(unsigned i) {
        Location l{0, 0};
        EXPECT_TRUE(table().copyLocation(i, l.ld, l.region));
        return l;
    }

    static uint32_t allocate(RedundancyType* type = nullptr) {
        IOTracker t(READ_WRITE);
        uint32_t zone = 0xFFFFFFFF;
        StatusCode st = zm()->AllocateZone(zone, t);
        EXPECT_EQ(t.commit(), StatusCode::Success);
        EXPECT_EQ(st, StatusCode::Success);
        if (type) {
            ZoneTableEntry e;
            table().RawLookupZone(zone, e);
            *type = e.type();
        }
        return zone;
    }
};
