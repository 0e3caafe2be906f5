#include "disk/ErrorTracker.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "management/EventLogManager.h"
#include "util/Endian.h"
#include "util/Trace.h"

namespace {
Trace trackerTrace("EPM", "tracker", "flow", false);
}  // namespace

// ---- limits

void ErrorLimit::setDefaults() {
    setBlockLimit(kBlockLimit);
    setBlockRate(kBlockRateCount, kBlockRateSeconds);
    setShortTimeouts(kShortTimeoutCount, kShortTimeoutSeconds);
}

int ErrorLimit::limitsExceeded(ErrorTracker& t, uint32_t now) const {
    int result = None;
    if (t.shortTimeouts > mShortCount) {
        uint32_t elapsed = now - t.shortWindowStart;
        if (elapsed <= mShortSeconds) {
            std::ostringstream os;
            os << "EPM: SHORT TIMEOUT LIMIT on " << t.diskId << " err=" << t.shortTimeouts << " lim=" << mShortCount
               << " av rate= " << std::setprecision(3) << double(t.shortTimeouts) / std::max<uint32_t>(elapsed, 1)
               << "/S";
            EventLogManager::EventLog()->PostEvent(os.str());
            result = ShortTimeoutLimit;
        } else {
            // The window has run out: a new one opens at the next short timeout.
            t.shortTimeouts = 1;
            t.shortWindowStart = 0;
        }
    }
    if (t.regionList.size() >= mRateCount && !t.regionList.empty() &&
        now - t.regionList.back().second <= mRateSeconds) {
        uint32_t span = now - t.regionList.back().second;
        std::ostringstream os;
        os << "EPM: HARD RATE LIMIT on " << t.diskId << " err=" << t.regionList.size() << " lim=" << mRateCount
           << " av rate=" << span / t.regionList.size() << "s / block";
        EventLogManager::EventLog()->PostEvent(os.str());
        result = RateLimit;
    }
    if (t.blockCount > mBlockLimit + t.blockDuplicates) {
        std::ostringstream os;
        os << "EPM: HARD BLOCK LIMIT on " << t.diskId << " err=" << t.blockCount << " ignored=" << t.blockDuplicates
           << " lim=" << mBlockLimit;
        EventLogManager::EventLog()->PostEvent(os.str());
        result = BlockLimit;
    }
    return result;
}

void ErrorLimit::Dump(std::ostream& out) const {
    out << "Block Limit\t\t\t: " << mBlockLimit << "\n";
    out << "Block Rate Limit\t\t: " << mRateCount << " per " << mRateSeconds << "s\n";
    out << "Short timeout Limit\t\t: " << mShortCount << " per " << mShortSeconds << "s\n";
}

// ---- one disk's counts

void ErrorTracker::blockError(uint32_t region, uint16_t inSlot, uint32_t now) {
    slot = inSlot;
    ++blockCount;
    auto same = std::find_if(regionList.begin(), regionList.end(), [&](auto& e) { return e.first == region; });
    if (same != regionList.end()) {
        regionList.erase(same);
        ++blockDuplicates;
    }
    regionList.emplace_front(region, now);
    while (!regionList.empty() &&
           (now - regionList.back().second > limit.rateSeconds() || regionList.size() > kRegionListLength)) {
        ESA_TRACE(trackerTrace, "pruning region tracker RN #" << regionList.back().first);
        regionList.pop_back();
    }
}

uint32_t ErrorTracker::countInWeek(uint32_t& count, uint32_t& last, uint32_t now) {
    if (last == 0 || now - last > kSevenDays) count = 1;
    else ++count;
    last = now;
    return count;
}

uint32_t ErrorTracker::errorCount() const {
    uint64_t n = uint64_t(blockCount) + startErrors + fullTimeouts + recoveredTimeouts;
    return uint32_t(std::min<uint64_t>(n, 0xFFFF));
}

void ErrorTracker::Dump(std::ostream& out) const {
    out << "disk:" << diskId << "\n";
    out << "  => slot\t\t\t: " << slot << "\n";
    out << "  => block\t\t\t: " << blockCount << " (list length = " << regionList.size() << ")\n";
    out << "  => block duplicate\t\t: " << blockDuplicates << "\n";
    out << "  => SHORT timeout\t\t: " << shortTimeouts << "\n";
    out << "  => SHORT timeout total\t: " << shortTimeoutTotal << "\n";
    out << "  => FULL timeout\t\t: " << fullTimeouts << "\n";
    out << "  => RECOVERED timeout\t\t: " << recoveredTimeouts << "\n";
    out << "  => DISK START ERROR timeout\t: " << startErrors << "\n";
}

// ---- the Zone 0 record

namespace EpmRecord {
void put(uint8_t* p, const ErrorTracker& t) {
    std::memset(p, 0, kSize);
    std::memcpy(p, &t.diskId, sizeof t.diskId);  // a byte string: no byte order
    putLE32(p + 0x44, t.blockCount);
    putLE32(p + 0x48, t.shortTimeoutTotal);
    putLE32(p + 0x4C, t.blockDuplicates);
    putLE32(p + 0x50, t.recoveredTimeouts);
    putLE32(p + 0x54, t.fullTimeouts);
    putLE32(p + 0x58, t.lastFullTimeout);
    putLE32(p + 0x5C, t.startErrors);
    putLE32(p + 0x60, t.lastStartError);
}

void get(const uint8_t* p, ErrorTracker& t) {
    std::memcpy(&t.diskId, p, sizeof t.diskId);
    t.blockCount = getLE32(p + 0x44);
    t.shortTimeoutTotal = getLE32(p + 0x48);
    t.blockDuplicates = getLE32(p + 0x4C);
    t.recoveredTimeouts = getLE32(p + 0x50);
    t.fullTimeouts = getLE32(p + 0x54);
    t.lastFullTimeout = getLE32(p + 0x58);
    t.startErrors = getLE32(p + 0x5C);
    t.lastStartError = getLE32(p + 0x60);
}
}  // namespace EpmRecord
