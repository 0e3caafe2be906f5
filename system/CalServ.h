#pragma once
// CalServ: the appliance's calendar. It holds the alarms of its owners (each
// known by a four-letter source word), measured against a calendar time that
// follows the wall clock, and keeps them in the pack's Zone 0 (entry 9,
// "CALENDAR") so that they survive restarts.
//
// Invariants: the list is guarded by calLock ("eCalLock"); saveState,
// loadSavedState and updateTimeNoLock run with it held exclusively. Only the
// head of the list (earliest expiry) is tested for delivery; an alarm that is
// due is announced once with eCalendar and each owner asks isAlarmExpired.
// The wall clock never runs backwards across a restart, and a jump of more
// than 365 days re-bases every alarm instead of firing them all.
#include <cstdint>
#include <ostream>
#include <vector>

#include "include/ManagerBase.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"

class CalServ : public ManagerBase {
public:
    enum alarmType { ONE_SHOT = 0, REPEATING = 1, TRACKED = 2 };

    struct esaAlarm {
        long startTime;
        long expiryTime;
        uint32_t duration;
        long deliveryTime;
        alarmType type;
        uint32_t source;
    };

    static constexpr unsigned kZone0Entry = 9;
    static constexpr uint32_t kZone0Version = 1;
    static constexpr uint32_t kZone0Size = 4096;
    static constexpr const char* kZone0Signature = "CALENDAR";
    static constexpr unsigned kMaxSavedAlarms = 255;
    static constexpr long kWarpSeconds = 0x1E13380;  // 365 days
    static constexpr long kStaleSeconds = 301;
    static constexpr uint32_t kShortAlarmSeconds = 600;

    static constexpr uint32_t kSourceDefragmenter = 0x47415246;
    static constexpr uint32_t kSourceMetadataScrub = 0x5243534D;
    static constexpr uint32_t kSourceUserDataScrub = 0x52435355;
    static constexpr uint32_t kSourceSystemManager = 0x534D4C44;

    static CalServ* GetInstance();
    // Tests build their own instances to model a restart.
    CalServ();

    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;

    StatusCode registerAlarm(uint32_t source, alarmType type, uint32_t seconds);
    StatusCode cancelAlarm(uint32_t source);
    StatusCode queryAlarm(uint32_t source, long& remaining);
    bool isAlarmExpired(uint32_t source);

    // The calendar's tick.
    StatusCode updateTime(long now, bool warpCheck);

    // The wall clock.
    StatusCode getTime(long& now);
    StatusCode setTime(long now);

    StatusCode saveState(IOTracker& tracker);
    StatusCode loadSavedState(IOTracker& tracker);

    long calendarTime();
    std::vector<esaAlarm> alarms();
    bool packLoaded();
    void Dump(std::ostream& out);

private:
    StatusCode updateTimeNoLock(long now, bool warpCheck);
    void checkAndDispatchAlarms();
    esaAlarm* headAlarm();
    void sortAlarms();
    std::vector<esaAlarm>::iterator find(uint32_t source);
    void assertLockedExclusive();
    StatusCode saveAndCommit();

    std::vector<esaAlarm> mAlarms;
    long mCalTime = 0;
    bool mInitialised = false;
    bool mPackLoaded = false;
    std::vector<unsigned char> mZone0Buffer;
    ExtendingLockObject calLock{"eCalLock", 0};
    ErrorInjection mErrorInjection{"cal"};
    int mSaveStatePoint;
};
