// The "dlbat" cache against simulated disks on the temporary board: data
// written through the cache reach the disk, reads are served from the cache,
// a failing sector leaves nothing cached, and the checks of its set and range.
#include "cache/DiskLBAMetaDataTracker.h"

#include <gtest/gtest.h>

#include <cstring>

#include "cache/CacheTrackerObject.h"
#include "disk/DiskTestFixture.h"

namespace {

class DlbatTest : public DiskTestFixture {
protected:
    void SetUp() override {
        DiskTestFixture::SetUp();
        dlbat()->Flush(0);
    }
    void TearDown() override {
        dlbat()->Flush(0);
        DiskTestFixture::TearDown();
    }
    static DiskLBAMetaDataTracker* dlbat() { return DiskLBAMetaDataTracker::GetInstance(); }
    static std::vector<uint8_t> sectors(uint32_t n, uint8_t seed) {
        std::vector<uint8_t> v(n * 512);
        for (size_t i = 0; i < v.size(); ++i) v[i] = uint8_t(seed + i * 7);
        return v;
    }
};

TEST_F(DlbatTest, WriteThroughReachesTheDiskAndReadsComeFromTheCache) {
    loadDisks({"16M", "16M"});
    auto data = sectors(8, 3);
    IOTracker w(READ_WRITE);
    ASSERT_EQ(dlbat()->WriteThroughCache(data.data(), 8, 1, 100, false, w), StatusCode::Success);
    ASSERT_EQ(w.commitIfDirty(), StatusCode::Success);
    // On the disk: read it straight from the drive, around the cache.
    std::vector<uint8_t> raw(8 * 512);
    ASSERT_EQ(dm()->ReadData(1, raw.data(), 100, 8), StatusCode::Success);
    EXPECT_EQ(raw, data);
    // A read inside the range is a cache hit.
    uint64_t readsBefore = dlbat()->stats().reads;
    std::vector<uint8_t> back(4 * 512);
    IOTracker r(READ_ONLY);
    ASSERT_EQ(dlbat()->ReadThroughCache(back.data(), 4, 1, 102, r), StatusCode::Success);
    EXPECT_EQ(std::memcmp(back.data(), data.data() + 2 * 512, back.size()), 0);
    EXPECT_EQ(dlbat()->stats().reads, readsBefore);
    // The other disk's same LBAs are another set.
    ASSERT_EQ(dlbat()->ReadThroughCache(back.data(), 4, 0, 102, r), StatusCode::Success);
    EXPECT_NE(std::memcmp(back.data(), data.data() + 2 * 512, back.size()), 0);
}

TEST_F(DlbatTest, ADiskChangedBehindTheCacheIsFoundAndAnInvalidationRereadsIt) {
    loadDisks({"16M"});
    auto data = sectors(2, 9);
    IOTracker r(READ_ONLY);
    std::vector<uint8_t> back(2 * 512);
    ASSERT_EQ(dlbat()->ReadThroughCache(back.data(), 2, 0, 50, r), StatusCode::Success);
    ASSERT_EQ(dm()->WriteData(0, data.data(), 50, 2), StatusCode::Success);
    std::ostringstream os;
    EXPECT_FALSE(dlbat()->internalConsistencyCheck(os));
    EXPECT_NE(os.str().find(" INCONSISTENT"), std::string::npos);
    IOTracker inv(READ_WRITE);
    ASSERT_EQ(dlbat()->InvalidateRange(0, 50, 2, inv), StatusCode::Success);
    ASSERT_EQ(dlbat()->ReadThroughCache(back.data(), 2, 0, 50, r), StatusCode::Success);
    EXPECT_EQ(back, data);
}

TEST_F(DlbatTest, AFailingSectorLeavesNothingCachedAndTheNextReadTriesAgain) {
    loadDisks({"16M"});
    fault(0, {"media", "read", "lba=300-301", "once"});
    std::vector<uint8_t> back(4 * 512);
    IOTracker r(READ_ONLY);
    EXPECT_NE(dlbat()->ReadThroughCache(back.data(), 4, 0, 298, r), StatusCode::Success);
    EXPECT_TRUE(dlbat()->view(0).empty());
    auto data = sectors(4, 1);
    ASSERT_EQ(dm()->WriteData(0, data.data(), 298, 4), StatusCode::Success);
    ASSERT_EQ(dlbat()->ReadThroughCache(back.data(), 4, 0, 298, r), StatusCode::Success);
    EXPECT_EQ(back, data);
}

TEST_F(DlbatTest, SlotsAndLbasOutsideThePackLayersAreRefused) {
    loadDisks({"16M"});
    std::vector<uint8_t> back(512);
    IOTracker r(READ_ONLY);
    EXPECT_EQ(dlbat()->ReadThroughCache(back.data(), 1, 8, 0, r), StatusCode::CACHE_InvalidSet);
    EXPECT_EQ(dlbat()->ReadThroughCache(back.data(), 1, 0, 0xFFFFFFFFull + 1, r), StatusCode::CACHE_InvalidRange);
    // The table's figures for this instance.
    EXPECT_STREQ(dlbat()->CacheName(), "DLBAT");
    EXPECT_EQ(dlbat()->pool().numEntries(), 0xc80u);
    EXPECT_EQ(dlbat()->GetBlockSize(), 512u);
    EXPECT_EQ(dlbat()->pool().name(), "lDLBATLockMemPool");
}

}  // namespace
