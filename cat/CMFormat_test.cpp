// The cluster manager's area read back from the Zone by an independent
// reader written from the record's table (fixed offsets, little-endian), not
// from the system's encoder: the CIS record of a new pack, the Zone and space
// bits of its first Zone, and the cluster bits of what was allocated.
#include <gtest/gtest.h>

#include <cstring>

#include "cat/CMTestSupport.h"

namespace {

uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
bool bitSet(const std::vector<uint8_t>& map, uint64_t bit) { return (map[bit / 8] >> (bit % 8)) & 1; }

class CMFormatOnDisks : public ClusterManagerFixture {};

TEST_F(CMFormatOnDisks, TheAreaIsLaidOutByteForByteAsItsTableSays) {
    loadNewPack();
    const uint32_t zone = cm()->GetNthZoneInUse(1);
    std::vector<ClusterRun> a = allocate(13);  // clusters 0..12
    ASSERT_EQ(a, std::vector<ClusterRun>{ClusterRun(zone, 0, 13)});

    // Slot 1 of the Zone 0 directory: 24-byte slots from byte 24, each
    // startOffset, length, version, signature[8], zone.
    const std::vector<uint8_t> dir = zoneBytes(0, 0, 512);
    const uint8_t* slot = dir.data() + 24 + 1 * 24;
    const uint32_t L = le32(slot + 0), length = le32(slot + 4);
    EXPECT_EQ(le32(slot + 8), 1u) << "version";
    EXPECT_EQ(std::memcmp(slot + 12, "MretsulC", 8), 0);
    const uint32_t areaZone = le32(slot + 20);
    EXPECT_EQ(areaZone, 0u);

    // Clusters per Zone from the Zone size, rounded up to whole bytes, then
    // to whole sectors.
    const uint64_t clusters = SystemDrivePackInfo::GetInstance()->GetZoneSize() / 4096;
    const uint32_t bitmapSize = uint32_t(((clusters + 7) / 8 + 511) / 512 * 512);
    EXPECT_EQ(length, 16384u + 32768u + 32000u * bitmapSize);

    const std::vector<uint8_t> cis = zoneBytes(areaZone, L, 512);
    EXPECT_EQ(le32(cis.data() + 0), 0x7465724du);
    EXPECT_EQ(std::memcmp(cis.data(), "MretsulC", 8), 0) << "the two magic words read as the name";
    EXPECT_EQ(le32(cis.data() + 8), 0u) << "reserved";
    EXPECT_EQ(le32(cis.data() + 12), length) << "cisSize";
    EXPECT_EQ(le32(cis.data() + 16), 1u) << "version";
    EXPECT_EQ(le32(cis.data() + 20), 32768u) << "zoneSpaceBitmapSize";
    EXPECT_EQ(le32(cis.data() + 24), bitmapSize) << "clusterBitmapSize";
    EXPECT_EQ(le32(cis.data() + 28), 1u) << "zoneBitmapSegmentCount";
    EXPECT_EQ(le32(cis.data() + 32), areaZone) << "segment 0 Zone";
    EXPECT_EQ(le32(cis.data() + 36), L + 49152u) << "segment 0 offset";
    EXPECT_EQ(le32(cis.data() + 40), 32000u) << "segment 0 count";
    for (size_t i = 44; i < 512; ++i) ASSERT_EQ(cis[i], 0) << "byte " << i << ": unused segments and the rest are zero";

    const std::vector<uint8_t> zoneBits = zoneBytes(areaZone, L + 16384, 16384);
    const std::vector<uint8_t> spaceBits = zoneBytes(areaZone, L + 32768, 16384);
    for (uint32_t z = 0; z < 64; ++z) {
        EXPECT_EQ(bitSet(zoneBits, z), z == zone) << "Zone bitmap bit " << z;
        EXPECT_EQ(bitSet(spaceBits, z), z == zone) << "space bitmap bit " << z;
    }
    const std::vector<uint8_t> clusterBits = zoneBytes(areaZone, L + 49152 + uint64_t(zone) * bitmapSize, 512);
    for (uint32_t c = 0; c < 64; ++c) EXPECT_EQ(bitSet(clusterBits, c), c < 13) << "cluster bit " << c;
    uint32_t where = 0;
    uint64_t offset = 0;
    ASSERT_EQ(cm()->GetBitmapLocation(zone, where, offset), StatusCode::Success);
    EXPECT_EQ(offset, L + 49152 + uint64_t(zone) * bitmapSize);
}

TEST_F(CMFormatOnDisks, AnEntryOfAnotherOwnerOrABadRecordIsNeverMadeOver) {
    loadNewPack();
    const Zone0UserInfo e = Zone0InfoTable::GetInstance()->GetEntry(1);
    // A CIS with a bad magic: the load refuses rather than making a new area.
    {
        std::vector<uint8_t> sector = zoneBytes(e.zone, e.startOffset, 512);
        sector[0] ^= 0xff;
        DataWindow w(512, 0, 512);
        DataBuffer flat{512, sector.data()};
        w.Write(flat);
        IOTracker t(READ_WRITE);
        ASSERT_EQ(zm()->WriteData(e.zone, e.startOffset, w, t), StatusCode::Success);
        t.commitIfDirty();
    }
    EXPECT_EQ(restart(), StatusCode::CorruptedZone0Entry);
    EXPECT_FALSE(cm()->loaded());
    EXPECT_EQ(Zone0InfoTable::GetInstance()->GetEntry(1).startOffset, e.startOffset);
}

}  // namespace
