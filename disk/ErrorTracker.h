#pragma once
// ErrorTracker: the error counts of one physical disk, keyed by its identity
// (not its slot), so they follow the disk between slots and across reboots.
// ErrorLimit: the system's one set of limits those counts are judged by.
// EpmRecord: a tracker's 164-byte little-endian record in the error policy's
// Zone 0 area.
//
// Invariants: counts never fall, apart from the windows: a second full timeout
// or start failure counts only within 7 days of the last one, and the short
// timeouts restart after their window. regionList holds at most
// kRegionListLength entries, newest first, none older than the rate window.
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "disk/DiskIdentifier.h"

class ErrorTracker;

class ErrorLimit {
public:
    static constexpr uint32_t kBlockLimit = 100;           // distinct bad blocks
    static constexpr uint32_t kBlockRateCount = 10;        // bad blocks ...
    static constexpr uint32_t kBlockRateSeconds = 3600;    // ... within this time
    static constexpr uint32_t kShortTimeoutCount = 8;      // short timeouts ...
    static constexpr uint32_t kShortTimeoutSeconds = 28800;  // ... within this time

    // What limitsExceeded found: the block limit, the rate limit, the short timeout limit.
    enum Exceeded { None = 0, BlockLimit = 1, RateLimit = 3, ShortTimeoutLimit = 5 };

    void setBlockLimit(uint32_t blocks) { mBlockLimit = blocks, mBlockLimitSet = true; }
    void setBlockRate(uint32_t count, uint32_t seconds) {
        mRateCount = count, mRateSeconds = seconds, mRateSet = true;
    }
    void setShortTimeouts(uint32_t count, uint32_t seconds) {
        mShortCount = count, mShortSeconds = seconds, mShortSet = true;
    }
    // The system's values, as the system policy sets them at start.
    void setDefaults();
    bool limitsSet() const { return mBlockLimitSet && mRateSet && mShortSet; }
    uint32_t rateSeconds() const { return mRateSeconds; }
    uint32_t rateCount() const { return mRateCount; }

    // 0, or the last limit found passed (the order of the checks: short
    // timeouts, rate, block count). Posts what it finds; may restart the
    // tracker's short timeout window.
    int limitsExceeded(ErrorTracker& tracker, uint32_t now) const;
    void Dump(std::ostream& out) const;

private:
    uint32_t mBlockLimit = 0, mRateCount = 0, mRateSeconds = 0, mShortCount = 0, mShortSeconds = 0;
    bool mBlockLimitSet = false, mRateSet = false, mShortSet = false;
};

class ErrorTracker {
public:
    static constexpr uint16_t kNoSlot = 8;
    static constexpr uint32_t kSevenDays = 604800;
    static constexpr size_t kRegionListLength = 10;

    ErrorTracker(const DiskIdentifier& id, const ErrorLimit& limits) : diskId(id), limit(limits) {}
    virtual ~ErrorTracker() = default;

    // One hard error in `region`: counted once per distinct Region toward the
    // block limit (a repeat counts as a duplicate), and kept in the rate list.
    void blockError(uint32_t region, uint16_t slot, uint32_t now);
    // A full timeout or a start failure: 1 when the last one is more than
    // 7 days old (or there was none), else one more. Returns the new count.
    static uint32_t countInWeek(uint32_t& count, uint32_t& last, uint32_t now);
    // The error count the host application is shown.
    uint32_t errorCount() const;
    void Dump(std::ostream& out) const;

    DiskIdentifier diskId;
    uint32_t blockCount = 0;
    uint32_t shortTimeouts = 0;
    uint32_t fullTimeouts = 0;
    uint32_t shortTimeoutTotal = 0;
    uint32_t recoveredTimeouts = 0;
    uint32_t startErrors = 0;
    uint32_t blockDuplicates = 0;
    uint32_t lastFullTimeout = 0;
    uint32_t shortWindowStart = 0;
    uint32_t lastStartError = 0;
    std::deque<std::pair<uint32_t, uint32_t>> regionList;  // (Region, seconds), newest first
    uint16_t slot = kNoSlot;
    const ErrorLimit& limit;
    ErrorTracker* next = nullptr;  // the manager's list
};

// The persisted part of a tracker: 164 bytes, little-endian.
namespace EpmRecord {
constexpr uint32_t kSize = 0xA4;
constexpr uint16_t kSignature = 0xED03;
constexpr uint32_t kHeaderSize = 4;
constexpr uint32_t kAreaSize = 0x4000;
constexpr uint32_t kMaxRecords = (kAreaSize - kHeaderSize) / kSize;
void put(uint8_t* p, const ErrorTracker& t);
// Fills the persisted fields of `t` (the identity included).
void get(const uint8_t* p, ErrorTracker& t);
}  // namespace EpmRecord
