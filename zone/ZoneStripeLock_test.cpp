// Where stripe locks fall: two pieces of a Zone collide exactly when they
// share a line (a superstripe line for DRStripe; a byte for mirrors), so a
// writer can never change a line under another writer or a reader.
#include "zone/ZoneStripeLock.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "include/DrivePackInfo.h"

namespace {

constexpr uint32_t kRegion = 120 * 0x1000;  // whole rows of every dual-parity code

// The pack geometry of these tests for the length of one test; whatever an
// earlier test of the process left is put back.
class Geometry {
public:
    Geometry() {
        for (auto f : {SystemDrivePackInfo::RegionSize, SystemDrivePackInfo::ZoneSize}) {
            mWasSet.push_back(info()->isSet(f));
            mValue.push_back(mWasSet.back() ? info()->get(f) : 0);
        }
        info()->set(SystemDrivePackInfo::RegionSize, kRegion);
        info()->set(SystemDrivePackInfo::ZoneSize, 24ull * kRegion);
    }
    ~Geometry() {
        unsigned i = 0;
        for (auto f : {SystemDrivePackInfo::RegionSize, SystemDrivePackInfo::ZoneSize}) {
            if (mWasSet[i]) info()->set(f, mValue[i]);
            else info()->unset(f);
            ++i;
        }
    }

private:
    static SystemDrivePackInfo* info() { return SystemDrivePackInfo::GetInstance(); }
    std::vector<bool> mWasSet;
    std::vector<uint64_t> mValue;
};

ZoneTableEntry entryOf(RedundancyType type, uint32_t zone) {
    ZoneTableEntry e;
    e.zoneNumber = zone;
    e.redundancyType = uint32_t(type);
    e.flags = ZoneTableEntry::kInUse;
    for (unsigned i = 0; i < ZoneTableEntry::kSlots; ++i) {
        e.disk[i] = uint16_t(i % 5);
        e.region[i] = 1000 + i;
    }
    return e;
}

TEST(StripeLockRange, TypesWithoutLocksAndBadEntries) {
    Geometry geometry;
    StripeLockRange r;
    bool locks = true;
    EXPECT_EQ(StripeLockRange::compute(entryOf(RedundancyType::None, 2), 0, 512, r, locks), StatusCode::Success);
    EXPECT_FALSE(locks);
    EXPECT_EQ(StripeLockRange::compute(entryOf(RedundancyType::SelfMirrored, 2), 0, 512, r, locks),
              StatusCode::Success);
    EXPECT_FALSE(locks);
    ZoneTableEntry unknown = entryOf(RedundancyType::None, 2);
    unknown.redundancyType = 5;
    EXPECT_EQ(StripeLockRange::compute(unknown, 0, 512, r, locks), StatusCode::UnsupportedZoneType);
    // A lost parity Region: the first data column of the row stands in, at
    // the same place, so readers can still lock the line and rebuild it.
    ZoneTableEntry hole = entryOf(RedundancyType::HStripe4, 2);
    StripeLockRange whole;
    ASSERT_EQ(StripeLockRange::compute(hole, 0x3000, 512, whole, locks), StatusCode::Success);
    hole.region[3 * 8] = 0;  // the parity Region of the first row
    ASSERT_EQ(StripeLockRange::compute(hole, 0x3000, 512, r, locks), StatusCode::Success);
    EXPECT_TRUE(locks);
    EXPECT_EQ(r.region, hole.region[0]);
    EXPECT_EQ(r.regionFirst, whole.regionFirst);
    EXPECT_EQ(r.regionLast, whole.regionLast);
    hole.region[0] = hole.region[8] = hole.region[16] = 0;  // and every data Region of the row
    EXPECT_EQ(StripeLockRange::compute(hole, 0x3000, 512, r, locks), StatusCode::ZM_UnusableRegion);
    ZoneTableEntry mirror = entryOf(RedundancyType::Mirrored3, 4);  // data in slots 24.. for Zone 4
    mirror.region[24] = 0;
    ASSERT_EQ(StripeLockRange::compute(mirror, 512, 512, r, locks), StatusCode::Success);
    EXPECT_EQ(r.region, mirror.region[48]) << "the primary copy stands in";
    EXPECT_EQ(StripeLockRange::arrayLength(RedundancyType::Mirrored), 2u);
    EXPECT_EQ(StripeLockRange::arrayLength(RedundancyType::Mirrored3), 3u);
    EXPECT_EQ(StripeLockRange::arrayLength(RedundancyType::DRStripe8), 8u);
}

TEST(StripeLockRange, PiecesCollideExactlyWhenTheyShareALine) {
    Geometry geometry;
    std::mt19937 rng(17);
    for (RedundancyType type : kRedundancyTypes) {
        if (type == RedundancyType::None || type == RedundancyType::SelfMirrored) continue;
        for (uint32_t zone : {2u, 3u, 4u}) {
            const ZoneTableEntry e = entryOf(type, zone);
            SCOPED_TRACE(RedundancyGeometry::DecodeRedundancyType(e.redundancyType) + " zone " + std::to_string(zone));
            const bool stripe = RedundancyGeometry::IsStripe(type);
            const uint32_t d = e.GetStripeDataWidth();
            const uint32_t line = !stripe ? 512
                                  : RedundancyGeometry::IsDRStripe(type) ? e.GetSuperStripeLineSize()
                                                                         : d * 0x1000;
            const uint32_t b = e.GetRegionBoundary();
            const uint32_t groups = 24 * kRegion / b;
            for (int i = 0; i < 400; ++i) {
                const uint32_t g = rng() % groups;
                auto piece = [&](uint32_t& off, uint32_t& len) {
                    off = g * b + (rng() % (b / 512)) * 512;
                    len = (1 + rng() % std::min<uint32_t>((g + 1) * b - off, 3 * line) / 512) * 512;
                    len = std::min(len, (g + 1) * b - off);
                };
                uint32_t o1, l1, o2, l2;
                piece(o1, l1);
                piece(o2, l2);
                StripeLockRange r1, r2;
                bool k1 = false, k2 = false;
                ASSERT_EQ(StripeLockRange::compute(e, o1, l1, r1, k1), StatusCode::Success);
                ASSERT_EQ(StripeLockRange::compute(e, o2, l2, r2, k2), StatusCode::Success);
                ASSERT_TRUE(k1 && k2);
                ASSERT_LT(r1.first, r1.last);
                ASSERT_EQ(r1.first % 512, 0u);
                ASSERT_EQ(r1.last % 512, 0u);
                const bool shareLine = o1 / line <= (o2 + l2 - 1) / line && o2 / line <= (o1 + l1 - 1) / line;
                const bool collide = r1.ld == r2.ld && r1.first < r2.last && r2.first < r1.last;
                ASSERT_EQ(collide, shareLine) << "pieces [" << o1 << "+" << l1 << ") and [" << o2 << "+" << l2
                                              << ")";
            }
        }
    }
}

TEST(RegionPieces, CutAtEveryBoundary) {
    std::vector<std::pair<uint32_t, uint32_t>> pieces;
    forEachRegionPiece(100 * 512, 9000 * 512, 4096 * 512 / 2, [&](uint32_t pos, uint32_t len) {
        pieces.emplace_back(pos, len);
        return true;
    });
    ASSERT_EQ(pieces.size(), 5u);
    EXPECT_EQ(pieces[0], std::make_pair(100u * 512, (2048u - 100) * 512));
    EXPECT_EQ(pieces[1], std::make_pair(2048u * 512, 2048u * 512));
    EXPECT_EQ(pieces.back().first + pieces.back().second, 9100u * 512);
    // Ending exactly at 4 GiB does not wrap.
    unsigned count = 0;
    forEachRegionPiece(0xFFFFF000u, 0x1000, 0x80000000u, [&](uint32_t, uint32_t) { return ++count < 5; });
    EXPECT_EQ(count, 1u);
}

}  // namespace
