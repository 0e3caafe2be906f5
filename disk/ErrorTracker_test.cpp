// The error policy's arithmetic: the block, rate and short timeout limits,
// the 7-day window of timeouts and start failures, and the 164-byte record
// read back at the offsets of its on-disk table.
#include <gtest/gtest.h>

#include "disk/ErrorTracker.h"
#include "util/Endian.h"

namespace {

DiskIdentifier disk(const char* serial) {
    DiskIdentifier id;
    id.Initialise("SIM DISK", "1.0", serial);
    return id;
}

class ErrorLimits : public ::testing::Test {
protected:
    void SetUp() override { limit.setDefaults(); }
    ErrorLimit limit;
    ErrorTracker t{disk("S1"), limit};
    static constexpr uint32_t kStart = 1'800'000'000u;
};

TEST_F(ErrorLimits, DistinctBadBlocksPassTheBlockLimitAtTheHundredAndFirstButOneBlockNever) {
    // 401 s apart: never ten in an hour, so the rate limit stays out of it.
    uint32_t now = kStart;
    for (uint32_t region = 0; region < 100; ++region, now += 401) {
        t.blockError(region, 2, now);
        ASSERT_EQ(limit.limitsExceeded(t, now), ErrorLimit::None) << "region " << region;
    }
    t.blockError(100, 2, now);
    EXPECT_EQ(limit.limitsExceeded(t, now), ErrorLimit::BlockLimit);
    EXPECT_EQ(t.slot, 2);

    ErrorTracker same(disk("S2"), limit);
    for (int i = 0; i < 200; ++i, now += 401) {
        same.blockError(7, 3, now);
        ASSERT_EQ(limit.limitsExceeded(same, now), ErrorLimit::None) << "error " << i;
    }
    EXPECT_EQ(same.blockCount, 200u);
    EXPECT_EQ(same.blockDuplicates, 199u);
    EXPECT_EQ(same.regionList.size(), 1u);
}

TEST_F(ErrorLimits, TenDistinctBadBlocksInAnHourPassTheRateLimitNineOrASlowerTenthDoNot) {
    for (uint32_t r = 0; r < 9; ++r) t.blockError(r, 1, kStart + r * 100);
    EXPECT_EQ(limit.limitsExceeded(t, kStart + 900), ErrorLimit::None);
    t.blockError(9, 1, kStart + 3600);
    EXPECT_EQ(limit.limitsExceeded(t, kStart + 3600), ErrorLimit::RateLimit);

    ErrorTracker slow(disk("S2"), limit);
    for (uint32_t r = 0; r < 9; ++r) slow.blockError(r, 1, kStart + r * 100);
    slow.blockError(9, 1, kStart + 3601);
    EXPECT_EQ(slow.regionList.size(), 9u) << "the first block is pruned after an hour";
    EXPECT_EQ(limit.limitsExceeded(slow, kStart + 3601), ErrorLimit::None);

    // A repeated block counts once toward the rate as well.
    ErrorTracker repeat(disk("S3"), limit);
    for (uint32_t i = 0; i < 20; ++i) repeat.blockError(i % 5, 1, kStart + i);
    EXPECT_EQ(repeat.regionList.size(), 5u);
    EXPECT_EQ(limit.limitsExceeded(repeat, kStart + 20), ErrorLimit::None);
}

TEST_F(ErrorLimits, ShortTimeoutsPassTheirLimitWithinTheWindowAndStartAgainAfterIt) {
    t.shortWindowStart = kStart;
    t.shortTimeouts = 8;
    EXPECT_EQ(limit.limitsExceeded(t, kStart + 100), ErrorLimit::None) << "eight are allowed";
    t.shortTimeouts = 9;
    EXPECT_EQ(limit.limitsExceeded(t, kStart + 28800), ErrorLimit::ShortTimeoutLimit);
    EXPECT_EQ(limit.limitsExceeded(t, kStart + 28801), ErrorLimit::None);
    EXPECT_EQ(t.shortTimeouts, 1u);
    EXPECT_EQ(t.shortWindowStart, 0u) << "a new window opens at the next short timeout";
}

TEST_F(ErrorLimits, TimeoutsAndStartFailuresCountWithinSevenDaysOfTheLast) {
    uint32_t count = 0, last = 0;
    EXPECT_EQ(ErrorTracker::countInWeek(count, last, kStart), 1u);
    EXPECT_EQ(ErrorTracker::countInWeek(count, last, kStart + 7 * 86400), 2u) << "a week to the second";
    EXPECT_EQ(ErrorTracker::countInWeek(count, last, kStart + 15 * 86400 + 1), 1u) << "eight days later";
    EXPECT_EQ(last, kStart + 15 * 86400 + 1);
}

TEST_F(ErrorLimits, TheErrorCountShownToTheHostAddsFourCountsAndStopsAt0xFFFF) {
    t.blockCount = 3, t.startErrors = 1, t.fullTimeouts = 2, t.recoveredTimeouts = 4, t.shortTimeoutTotal = 50;
    EXPECT_EQ(t.errorCount(), 10u);
    t.blockCount = 0x20000;
    EXPECT_EQ(t.errorCount(), 0xFFFFu);
}

TEST_F(ErrorLimits, TheRecordLaysEachCountAtItsOffsetAndReadsBackWithoutTheWindows) {
    t.blockCount = 0x11, t.shortTimeoutTotal = 0x22, t.blockDuplicates = 0x33, t.recoveredTimeouts = 0x44;
    t.fullTimeouts = 0x55, t.lastFullTimeout = 0x66, t.startErrors = 0x77, t.lastStartError = 0x88;
    t.shortTimeouts = 5, t.shortWindowStart = 9;
    uint8_t rec[EpmRecord::kSize + 8];
    std::memset(rec, 0xEE, sizeof rec);
    EpmRecord::put(rec, t);
    EXPECT_EQ(std::memcmp(rec, &t.diskId, 68), 0);
    const uint32_t want[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(getLE32(rec + 0x44 + 4 * i), want[i]) << "field " << i;
    for (unsigned i = 0x64; i < EpmRecord::kSize; ++i) ASSERT_EQ(rec[i], 0) << "reserved byte " << i;
    EXPECT_EQ(rec[EpmRecord::kSize], 0xEE) << "nothing beyond the record";
    ErrorTracker back(DiskIdentifier(), limit);
    EpmRecord::get(rec, back);
    EXPECT_EQ(back.diskId, t.diskId);
    EXPECT_EQ(back.blockCount, 0x11u);
    EXPECT_EQ(back.lastStartError, 0x88u);
    EXPECT_EQ(back.shortTimeouts, 0u);
    EXPECT_EQ(EpmRecord::kMaxRecords, 99u);
}

}  // namespace
