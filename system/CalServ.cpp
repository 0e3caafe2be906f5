#include "system/CalServ.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <sstream>

#include "management/EventLogManager.h"
#include "platform/rtos/BoardClock.h"
#include "system/EventManager.h"
#include "util/Assert.h"
#include "util/ConsoleCommand.h"
#include "util/Endian.h"
#include "util/PrintHelpers.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

namespace {
Trace tCal("System", "CalServ", "Info", false);

void postEvent(const std::string& text) { EventLogManager::EventLog()->PostEvent(text); }

std::string hex(uint32_t v) {
    std::ostringstream o;
    o << std::hex << v;
    return o.str();
}

const char* typeName(CalServ::alarmType t) {
    switch (t) {
    case CalServ::ONE_SHOT: return "ONE SHOT";
    case CalServ::REPEATING: return "REPEATING";
    case CalServ::TRACKED: return "TRACKED";
    }
    return "UNKNOWN";
}

// The persistent form, little-endian: header of four words, then 16 bytes an
// alarm. Times are kept as signed 32-bit seconds, since a re-based start may
// lie before the epoch of a clock that lost its battery.
constexpr uint32_t kHeaderBytes = 16;
constexpr uint32_t kAlarmBytes = 16;
static_assert(kHeaderBytes + CalServ::kMaxSavedAlarms * kAlarmBytes <= CalServ::kZone0Size);
}  // namespace

CalServ* CalServ::GetInstance() {
    static CalServ instance;
    return &instance;
}

CalServ::CalServ() {
    mSaveStatePoint = mErrorInjection.addApiPoint("calSaveState", "fail the calendar's save to Zone 0");
}

void CalServ::assertLockedExclusive() {
    ESA_ASSERT(calLock.OwnsLock());
    ESA_ASSERT(calLock.isExclusive() || LockObjectBase::bypass);
}

StatusCode CalServ::getTime(long& now) {
    timespec ts = BoardClock::GetInstance().realtime();
    if (ts.tv_sec < 0) {
        ESA_CONSOLE("CAL::getTime: CAN'T READ WALL CLOCK");
        return StatusCode::InternalError;
    }
    now = long(ts.tv_sec);
    return StatusCode::Success;
}

StatusCode CalServ::setTime(long now) {
    if (now < 0) {
        ESA_CONSOLE("CAL::setTime: CAN'T SET WALL CLOCK");
        return StatusCode::InternalError;
    }
    timespec ts{time_t(now), 0};
    BoardClock::GetInstance().setRealtime(ts);
    return StatusCode::Success;
}

StatusCode CalServ::Initialize() {
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    if (getTime(mCalTime) != StatusCode::Success) {
        ESA_CONSOLE("CAL::Initialize: CAN'T READ WALL CLOCK");
        return StatusCode::InitFailed;
    }
    mZone0Buffer.assign(kZone0Size, 0);
    mInitialised = true;
    return StatusCode::Success;
}

void CalServ::sortAlarms() {
    std::stable_sort(mAlarms.begin(), mAlarms.end(),
                     [](const esaAlarm& a, const esaAlarm& b) { return a.expiryTime < b.expiryTime; });
}

std::vector<CalServ::esaAlarm>::iterator CalServ::find(uint32_t source) {
    return std::find_if(mAlarms.begin(), mAlarms.end(), [source](const esaAlarm& a) { return a.source == source; });
}

StatusCode CalServ::saveState(IOTracker& tracker) {
    assertLockedExclusive();
    // Without a pack there is no Zone 0: the list waits in memory until one loads.
    if (!mPackLoaded) return StatusCode::Success;
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    if (!z0->entryValid(kZone0Entry, kZone0Signature, kZone0Version)) {
        StatusCode s = z0->CreateEntry(kZone0Entry, kZone0Version, kZone0Size, kZone0Signature);
        if (s != StatusCode::Success) {
            ESA_TRACE(tCal, "CAL::saveState: failed to create the Zone0 entry: " << s);
            return s;
        }
    }
    std::fill(mZone0Buffer.begin(), mZone0Buffer.end(), 0);
    size_t n = std::min<size_t>(mAlarms.size(), kMaxSavedAlarms);
    if (mAlarms.size() > kMaxSavedAlarms)
        postEvent("CAL::saveState: TOO MANY ALARMS, NOT SAVING " + std::to_string(mAlarms.size() - kMaxSavedAlarms));
    sortAlarms();
    unsigned char* p = mZone0Buffer.data();
    putLE32(p + 0, kZone0Entry);
    putLE32(p + 4, kZone0Version);
    putLE32(p + 8, uint32_t(int32_t(mCalTime)));
    putLE32(p + 12, uint32_t(n));
    for (size_t i = 0; i < n; ++i) {
        unsigned char* a = p + kHeaderBytes + i * kAlarmBytes;
        putLE32(a + 0, uint32_t(int32_t(mAlarms[i].startTime)));
        putLE32(a + 4, mAlarms[i].duration);
        putLE32(a + 8, uint32_t(mAlarms[i].type));
        putLE32(a + 12, mAlarms[i].source);
    }
    bool fired = false;
    StatusCode injected = mErrorInjection.apiErrorInject(mSaveStatePoint, StatusCode::Success, fired);
    StatusCode s = fired ? injected : z0->WriteArea(kZone0Entry, mZone0Buffer.data(), kZone0Size);
    if (s != StatusCode::Success) ESA_CONSOLE("CAL::saveState: failed to write to Zone0 " << s);
    (void)tracker;  // the write goes through the tracker's transaction once Zone 0 is journalled
    return s;
}

StatusCode CalServ::loadSavedState(IOTracker& tracker) {
    assertLockedExclusive();
    (void)tracker;
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    if (!z0->entryValid(kZone0Entry, kZone0Signature, kZone0Version)) {
        ESA_TRACE(tCal, "CAL::loadSavedState: no zone0 user data");
        return StatusCode::Success;
    }
    StatusCode s = z0->ReadArea(kZone0Entry, mZone0Buffer.data(), kZone0Size);
    if (s != StatusCode::Success) {
        ESA_CONSOLE("CAL::loadSavedState: " << "failed to read from Zone0 " << s);
        return s;
    }
    const unsigned char* p = mZone0Buffer.data();
    uint32_t count = getLE32(p + 12);
    bool bad = getLE32(p) != kZone0Entry || getLE32(p + 4) != kZone0Version || count > kMaxSavedAlarms;
    for (uint32_t i = 0; !bad && i < count; ++i)
        bad = getLE32(p + kHeaderBytes + i * kAlarmBytes + 8) > TRACKED;
    if (bad) {
        postEvent("CAL::loadSavedState: bad calendar record in Zone0, alarms not loaded");
        return StatusCode::Success;
    }
    mCalTime = long(int32_t(getLE32(p + 8)));
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned char* a = p + kHeaderBytes + i * kAlarmBytes;
        esaAlarm alarm{};
        alarm.startTime = long(int32_t(getLE32(a)));
        alarm.duration = getLE32(a + 4);
        alarm.type = alarmType(getLE32(a + 8));
        alarm.source = getLE32(a + 12);
        alarm.expiryTime = alarm.startTime + long(alarm.duration);
        alarm.deliveryTime = 0;
        // An owner that registered before the load keeps its newer alarm.
        if (find(alarm.source) == mAlarms.end()) mAlarms.push_back(alarm);
    }
    sortAlarms();
    return StatusCode::Success;
}

StatusCode CalServ::saveAndCommit() {
    IOTracker tracker(READ_WRITE);
    StatusCode s = saveState(tracker);
    StatusCode c = tracker.commit();
    return s != StatusCode::Success ? s : c;
}

StatusCode CalServ::LoadDiskPack() {
    ESA_ASSERT(mInitialised);
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    IOTracker tracker(READ_WRITE);
    loadSavedState(tracker);
    long clock = 0;
    if (getTime(clock) != StatusCode::Success) {
        ESA_CONSOLE("CAL:LoadDiskPack: failed to read wall clock");
        return StatusCode::InternalError;
    }
    if (mCalTime < clock) {
        ESA_TRACE(tCal, "CAL::LDP: sys time is ahead of cal time, cal is " << mCalTime);
        updateTimeNoLock(clock, true);
    } else {
        // Time never runs backwards across a restart.
        ESA_TRACE(tCal, "CAL::LDP: sys time is behind cal time, sys is " << clock);
        if (setTime(mCalTime) != StatusCode::Success) {
            ESA_CONSOLE("CalServ:LoadDiskPack: failed to set wall clock");
            return StatusCode::InternalError;
        }
    }
    postEvent("CAL::LoadDiskPack: sys and cal time now in sync at " + std::to_string(mCalTime));
    mPackLoaded = true;
    StatusCode s = saveState(tracker);
    tracker.commit();
    if (s != StatusCode::Success) ESA_TRACE(tCal, "CAL::LoadDiskPack: saveState failed " << s);
    return StatusCode::Success;
}

StatusCode CalServ::UnloadDiskPack() {
    ESA_ASSERT(mInitialised);
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    ESA_ASSERT(mPackLoaded);
    getTime(mCalTime);
    saveAndCommit();
    mPackLoaded = false;
    // The alarms belong to the pack: the next pack brings its own.
    mAlarms.clear();
    return StatusCode::Success;
}

StatusCode CalServ::registerAlarm(uint32_t source, alarmType type, uint32_t seconds) {
    if (seconds < kShortAlarmSeconds)
        ESA_TRACE(tCal, "CAL::registerAlarm: alarm of " << seconds << " seconds for source 0x" << hex(source)
                                                        << " is short. Calendar has accuracy of +/- 10 mins");
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    if (find(source) != mAlarms.end()) {
        postEvent("CAL::registerAlarm: alarm already registered for source 0x" + hex(source));
        return StatusCode::BadAlarm;
    }
    long now = 0;
    if (getTime(now) != StatusCode::Success) {
        postEvent("CAL::registerAlarm: failed to read the wall clock");
        return StatusCode::InternalError;
    }
    mAlarms.push_back(esaAlarm{now, now + long(seconds), seconds, 0, type, source});
    sortAlarms();
    saveAndCommit();
    return StatusCode::Success;
}

StatusCode CalServ::cancelAlarm(uint32_t source) {
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    auto it = find(source);
    if (it == mAlarms.end()) return StatusCode::BadAlarm;
    mAlarms.erase(it);
    saveAndCommit();
    return StatusCode::Success;
}

StatusCode CalServ::queryAlarm(uint32_t source, long& remaining) {
    ExtendingLockObject::SharedLockInstance g(&calLock);
    auto it = find(source);
    if (it == mAlarms.end()) return StatusCode::BadAlarm;
    remaining = it->expiryTime - mCalTime;
    return StatusCode::Success;
}

bool CalServ::isAlarmExpired(uint32_t source) {
    ExtendingLockObject::ExclusiveLockInstance g(&calLock);
    auto it = find(source);
    if (it == mAlarms.end()) return false;
    // A tracked alarm never expires; it only keeps time.
    if (it->type == TRACKED) return false;
    if (it->expiryTime > mCalTime) return false;
    if (it->type == ONE_SHOT) {
        ESA_TRACE(tCal, "CAL::isAlarmExpired: deleting alarm with source = 0x" << hex(source));
        mAlarms.erase(it);
    } else {
        ESA_TRACE(tCal, "CAL::isAlarmExpired: priming repeating alarm with source 0x" << hex(source));
        it->startTime = mCalTime;
        it->expiryTime = mCalTime + long(it->duration);
        it->deliveryTime = 0;
        sortAlarms();
    }
    saveAndCommit();
    return true;
}

StatusCode CalServ::updateTimeNoLock(long now, bool warpCheck) {
    assertLockedExclusive();
    long distance = now > mCalTime ? now - mCalTime : mCalTime - now;
    if (warpCheck && distance > kWarpSeconds) {
        // A far jump is a first setting of a clock that had no battery: keep
        // what remains of each alarm rather than firing or freezing them all.
        ESA_CONSOLE("CAL::updateTimeNoLock: clock warp, re-computing alarms");
        for (esaAlarm& a : mAlarms) {
            long elapsed = mCalTime - a.startTime;
            a.startTime = now - elapsed;
            a.expiryTime = a.startTime + long(a.duration);
            a.deliveryTime = 0;
        }
    }
    mCalTime = now;
    return StatusCode::Success;
}

// The alarm that decides delivery: the earliest one that can expire. A
// tracked alarm only keeps time; at the head it would hold back every later
// alarm for ever, since only the head is tested.
CalServ::esaAlarm* CalServ::headAlarm() {
    for (esaAlarm& a : mAlarms)
        if (a.type != TRACKED) return &a;
    return nullptr;
}

void CalServ::checkAndDispatchAlarms() {
    esaAlarm* head = headAlarm();
    if (!head) return;
    if (head->expiryTime <= mCalTime && head->deliveryTime == 0) {
        head->deliveryTime = mCalTime;
        // The event only says that something is due; each owner asks isAlarmExpired.
        EventManager::GetInstance()->NewEvent(eCalendar, false, 0UL);
    }
}

StatusCode CalServ::updateTime(long now, bool warpCheck) {
    bool stale = false;
    uint32_t staleSource = 0;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&calLock);
        StatusCode s = updateTimeNoLock(now, warpCheck);
        if (s != StatusCode::Success) {
            ESA_TRACE(tCal, "CAL::updateTime: failed to update");
            return s;
        }
        sortAlarms();
        checkAndDispatchAlarms();
        if (const esaAlarm* head = headAlarm()) {
            if (head->deliveryTime != 0 && now - head->deliveryTime >= kStaleSeconds) {
                ESA_TRACE(tCal, "Cal: discarding stale alarm: 0x" << hex(head->source));
                stale = true;
                staleSource = head->source;
            }
        }
        saveAndCommit();
    }
    if (stale) isAlarmExpired(staleSource);
    return StatusCode::Success;
}

long CalServ::calendarTime() {
    ExtendingLockObject::SharedLockInstance g(&calLock);
    return mCalTime;
}

std::vector<CalServ::esaAlarm> CalServ::alarms() {
    ExtendingLockObject::SharedLockInstance g(&calLock);
    return mAlarms;
}

bool CalServ::packLoaded() {
    ExtendingLockObject::SharedLockInstance g(&calLock);
    return mPackLoaded;
}

namespace {
std::string calendarText(long seconds) {
    time_t t = time_t(seconds);
    struct tm tmv;
    localtime_r(&t, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &tmv);
    return buf;
}
}  // namespace

void CalServ::Dump(std::ostream& out) {
    ExtendingLockObject::SharedLockInstance g(&calLock);
    out << "Calendar time: " << calendarText(mCalTime) << " (" << mCalTime << ")"
        << (mPackLoaded ? "" : ", no pack loaded") << "\n";
    for (const esaAlarm& a : mAlarms)
        out << "  alarm source 0x" << hex(a.source) << " " << typeName(a.type) << " every " << a.duration
            << " s, remaining " << (a.expiryTime - mCalTime) << " s"
            << (a.deliveryTime ? ", delivered at " + std::to_string(a.deliveryTime) : std::string()) << "\n";
}

namespace {
int timeCommand(int, char**, std::ostream& out) {
    long now = 0;
    CalServ::GetInstance()->getTime(now);
    out << "Current time: " << calendarText(now) << " (" << now << ")\n";
    CalServ::GetInstance()->Dump(out);
    return 0;
}
ConsoleCommand gTime("time", "Display current time", timeCommand);
}  // namespace
