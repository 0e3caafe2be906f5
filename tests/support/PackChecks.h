#pragma once
// PackChecks: every record of a pack read from its disk images by the
// independent readers and checked against each other: DIS copies (one pack
// id and generation), both Region metadata copies and bitmaps alike, the
// three Zone table copies alike, and every Region of an in-use Zone allocated
// in its disk's bitmap and held by no other Zone. For images at rest with the
// journal written out (after j2flush and the end of the process).
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "tests/support/IndependentReader.h"
#include "tests/support/PackImage.h"

namespace packimage {

inline std::filesystem::path slotImage(const std::filesystem::path& board, int slot) {
    return board / "slots" / (std::to_string(slot) + ".img");
}

struct DiskRecords {
    int slot = 0;
    independent::Dis dis;
    independent::RMHeader rm;
    std::vector<uint8_t> bitmap;
};

// Reads and checks every record of the pack from the images; returns the
// disks by LD number.
inline std::map<uint16_t, DiskRecords> checkDisRegionRecords(const std::filesystem::path& board, int disks) {
    std::map<uint16_t, DiskRecords> byLd;
    const independent::Dis* first = nullptr;
    std::vector<std::vector<Copy>> all;
    for (int slot = 0; slot < disks; ++slot) all.push_back(liveCopies(slotImage(board, slot)));
    for (int slot = 0; slot < disks; ++slot) {
        for (unsigned c = 0; c < 3; ++c) {
            const independent::Dis& d = all[slot][c].dis;
            EXPECT_TRUE(d.valid) << "slot " << slot << " DIS copy " << c;
            if (!d.valid) continue;
            if (!first) first = &d;
            EXPECT_EQ(d.packId0, first->packId0) << "slot " << slot;
            EXPECT_EQ(d.packId1, first->packId1) << "slot " << slot;
            EXPECT_EQ(d.generation, first->generation) << "slot " << slot << " copy " << c;
            EXPECT_EQ(d.ldNumber, all[slot][0].dis.ldNumber) << "slot " << slot;
        }
        DiskRecords r;
        r.slot = slot;
        r.dis = all[slot][0].dis;
        for (unsigned copy = 0; copy < 2; ++copy) {
            uint32_t lba = copy == 0 ? r.dis.rmLba0 : r.dis.rmLba1;
            independent::RMHeader h = independent::readRMHeader(readImage(slotImage(board, slot), lba, 1).data());
            EXPECT_TRUE(h.valid) << "slot " << slot << " Region metadata copy " << copy;
            std::vector<uint8_t> bitmap = readImage(slotImage(board, slot), lba + 1, h.bitmapBytes / 512);
            EXPECT_TRUE(independent::rabmValid(bitmap.data(), uint32_t(bitmap.size())))
                << "slot " << slot << " bitmap copy " << copy;
            if (copy == 0) {
                r.rm = h;
                r.bitmap = bitmap;
            } else {
                EXPECT_EQ(h.generation, r.rm.generation) << "slot " << slot << ": both copies written";
                EXPECT_EQ(bitmap, r.bitmap) << "slot " << slot << ": both bitmaps alike";
            }
        }
        byLd[r.dis.ldNumber] = r;
    }
    return byLd;
}

// Returns the number of Zones in use.
inline unsigned checkZoneTable(const std::filesystem::path& board, const std::map<uint16_t, DiskRecords>& byLd) {
    const DiskRecords& any = byLd.begin()->second;
    for (const auto& [ld, r] : byLd)
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(r.rm.savedLd[i], any.rm.savedLd[i]) << "LD " << ld << " saved table location " << i;
            EXPECT_EQ(r.rm.savedRegion[i], any.rm.savedRegion[i]) << "LD " << ld << " saved table location " << i;
        }
    const uint32_t stride = any.rm.regionSectors + any.rm.padding;
    std::vector<independent::ZisHeader> copies;
    std::set<std::pair<uint16_t, uint32_t>> owned;
    for (int i = 0; i < 3; ++i) {
        auto disk = byLd.find(any.rm.savedLd[i]);
        EXPECT_NE(disk, byLd.end()) << "table copy " << i << " on an unknown LD";
        EXPECT_NE(any.rm.savedRegion[i], 0u) << "table copy " << i;
        if (disk == byLd.end() || any.rm.savedRegion[i] == 0) return 0;
        const uint64_t lba = uint64_t(any.rm.savedRegion[i]) * stride;
        independent::ZisHeader h = independent::readZisHeader(readImage(slotImage(board, disk->second.slot), lba, 8).data());
        EXPECT_TRUE(h.valid) << "table copy " << i;
        EXPECT_TRUE(independent::rabmAllocated(disk->second.bitmap.data(), any.rm.savedRegion[i]))
            << "table copy " << i << "'s Region is allocated";
        owned.insert({any.rm.savedLd[i], any.rm.savedRegion[i]});
        if (i > 0) {
            EXPECT_EQ(h.generation, copies[0].generation) << "table copy " << i;
            EXPECT_EQ(h.entries, copies[0].entries) << "table copy " << i;
        }
        copies.push_back(h);
    }
    // The entries of the primary copy: each in-use Zone's Regions are
    // allocated, and no Region belongs to two Zones or to a table copy.
    const independent::ZisHeader& h = copies[0];
    auto primary = byLd.find(any.rm.savedLd[0]);
    const uint64_t tableLba = uint64_t(any.rm.savedRegion[0]) * stride + h.tableOffset / 512;
    const uint32_t sectors = (h.entries * 0x1C0 + 511) / 512;
    std::vector<uint8_t> table = readImage(slotImage(board, primary->second.slot), tableLba, sectors);
    unsigned inUse = 0;
    for (uint32_t z = 0; z < h.entries; ++z) {
        independent::ZoneEntry e = independent::readZoneEntry(table.data() + z * 0x1C0);
        EXPECT_EQ(e.number, z);
        if (!e.inUse()) continue;
        ++inUse;
        for (int s = 0; s < 72; ++s) {
            if (e.region[s] == 0) continue;
            auto disk = byLd.find(e.disk[s]);
            if (disk == byLd.end()) continue;
            EXPECT_TRUE(independent::rabmAllocated(disk->second.bitmap.data(), e.region[s]))
                << "Zone " << z << " slot " << s << " LD " << e.disk[s] << " Region " << e.region[s];
            EXPECT_TRUE(owned.insert({e.disk[s], e.region[s]}).second)
                << "Zone " << z << " slot " << s << ": LD " << e.disk[s] << " Region " << e.region[s]
                << " is held twice";
        }
    }
    EXPECT_GE(inUse, 1u) << "Zone 0 at least";
    return inUse;
}

// The disks in slots 0 to disks - 1: all records valid and consistent; returns
// the number of Zones in use (0 when a check failed).
inline unsigned checkPackRecords(const std::filesystem::path& board, int disks) {
    std::map<uint16_t, DiskRecords> byLd = checkDisRegionRecords(board, disks);
    EXPECT_EQ(byLd.size(), size_t(disks));
    return byLd.size() == size_t(disks) && !::testing::Test::HasFailure() ? checkZoneTable(board, byLd) : 0;
}

}  // namespace packimage
