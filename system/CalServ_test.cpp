#include "system/CalServ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <sstream>

#include "management/EventLogManager.h"
#include "platform/rtos/BoardClock.h"
#include "system/EventManager.h"
#include "util/ConsoleCommand.h"
#include "util/Eventually.h"
#include "zone/Zone0InfoTable.h"

namespace {
constexpr uint32_t kSource = CalServ::kSourceDefragmenter;
constexpr long kDay = 86400;

std::atomic<int> gCalendarEvents{0};
void countCalendarEvent(EVENT_TYPE, void*, unsigned long, void*) { gCalendarEvents++; }

class Calendar : public testing::Test {
protected:
    void SetUp() override {
        EventManager::GetInstance()->Initialize();
        EventManager::GetInstance()->EnableEventHandling();
        EventManager::GetInstance()->AddHandlerEnd(eCalendar, nullptr, countCalendarEvent, &mHandlerId);
        Zone0InfoTable::GetInstance()->UseMemoryZone();
        setWall(wall());  // on a whole second, so that the sums below are exact
        cal = start();
    }
    void TearDown() override {
        EventManager::GetInstance()->RemoveHandler(eCalendar, mHandlerId);
        if (cal && cal->packLoaded()) cal->UnloadDiskPack();
    }
    // A start of the system: a new calendar that loads the pack.
    std::unique_ptr<CalServ> start() {
        auto c = std::make_unique<CalServ>();
        EXPECT_EQ(c->Initialize(), StatusCode::Success);
        EXPECT_EQ(c->LoadDiskPack(), StatusCode::Success);
        return c;
    }
    void restart() {
        cal->UnloadDiskPack();
        cal = start();
    }
    static long wall() { return long(BoardClock::GetInstance().realtime().tv_sec); }
    static void advanceSeconds(long s) { BoardClock::GetInstance().advanceNanoseconds(uint64_t(s) * 1000000000ull); }
    static void setWall(long s) { BoardClock::GetInstance().setRealtime(timespec{time_t(s), 0}); }
    // The calendar's tick, as the disk utilisation daemon gives it.
    void tick(bool warpCheck = false) { cal->updateTime(wall(), warpCheck); }
    // Waits until the calendar events delivered so far reach n.
    bool delivered(int n) {
        return eventually([n] { return gCalendarEvents.load() >= n; }) && gCalendarEvents.load() == n;
    }
    long remaining(uint32_t source) {
        long r = 0;
        EXPECT_EQ(cal->queryAlarm(source, r), StatusCode::Success);
        return r;
    }

    std::unique_ptr<CalServ> cal;
    uint32_t mHandlerId = 0;
};
}  // namespace

TEST_F(Calendar, AlarmsSurviveARestart) {
    ASSERT_EQ(cal->registerAlarm(kSource, CalServ::REPEATING, 3600), StatusCode::Success);
    ASSERT_EQ(cal->registerAlarm(CalServ::kSourceSystemManager, CalServ::ONE_SHOT, 600), StatusCode::Success);
    advanceSeconds(1000);
    restart();
    auto alarms = cal->alarms();
    ASSERT_EQ(alarms.size(), 2u);
    EXPECT_EQ(alarms[0].source, CalServ::kSourceSystemManager) << "kept in expiry order";
    EXPECT_EQ(alarms[0].deliveryTime, 0);
    EXPECT_EQ(remaining(kSource), 2600);
    EXPECT_EQ(remaining(CalServ::kSourceSystemManager), -400);
    EXPECT_EQ(cal->registerAlarm(kSource, CalServ::REPEATING, 3600), StatusCode::BadAlarm);
    ASSERT_EQ(cal->cancelAlarm(kSource), StatusCode::Success);
    EXPECT_EQ(cal->cancelAlarm(kSource), StatusCode::BadAlarm);
    restart();
    EXPECT_EQ(cal->alarms().size(), 1u) << "a cancel is saved too";
}

TEST_F(Calendar, AClockSetBackIsMovedForwardAtTheNextStart) {
    advanceSeconds(500);
    long saved = wall();
    cal->UnloadDiskPack();
    setWall(saved - 5 * kDay);  // the board lost its clock while off
    cal = start();
    EXPECT_EQ(wall(), saved) << "time never runs backwards across a restart";
    EXPECT_EQ(cal->calendarTime(), saved);
}

TEST_F(Calendar, AJumpOfMoreThanAYearRebasesTheAlarms) {
    ASSERT_EQ(cal->registerAlarm(kSource, CalServ::ONE_SHOT, 7200), StatusCode::Success);
    advanceSeconds(1200);
    tick();
    int events = gCalendarEvents.load();
    setWall(wall() + 366 * kDay);
    tick(true);
    EXPECT_EQ(remaining(kSource), 6000) << "what remained of the alarm is kept";
    EXPECT_FALSE(cal->isAlarmExpired(kSource));
    EXPECT_TRUE(delivered(events));

    // Across a restart too.
    cal->UnloadDiskPack();
    setWall(wall() + 400 * kDay);
    cal = start();
    EXPECT_EQ(remaining(kSource), 6000);
}

TEST_F(Calendar, AJumpOfLessThanAYearLetsTheAlarmsFallDue) {
    ASSERT_EQ(cal->registerAlarm(kSource, CalServ::ONE_SHOT, 7200), StatusCode::Success);
    int events = gCalendarEvents.load();
    setWall(wall() + 364 * kDay);
    tick(true);
    EXPECT_TRUE(delivered(events + 1));
    EXPECT_TRUE(cal->isAlarmExpired(kSource));
    EXPECT_TRUE(cal->alarms().empty()) << "a one-shot alarm goes once its owner has seen it";
}

TEST_F(Calendar, OnlyTheHeadOfTheListIsDelivered) {
    ASSERT_EQ(cal->registerAlarm(CalServ::kSourceMetadataScrub, CalServ::ONE_SHOT, 600), StatusCode::Success);
    ASSERT_EQ(cal->registerAlarm(CalServ::kSourceUserDataScrub, CalServ::ONE_SHOT, 600), StatusCode::Success);
    int events = gCalendarEvents.load();
    advanceSeconds(700);
    tick();
    tick();
    EXPECT_TRUE(delivered(events + 1)) << "two alarms due together: one event";
    EXPECT_FALSE(cal->isAlarmExpired(0x12345678));
    EXPECT_TRUE(cal->isAlarmExpired(CalServ::kSourceMetadataScrub));
    tick();
    EXPECT_TRUE(delivered(events + 2)) << "the second goes out once the first is removed";
    EXPECT_TRUE(cal->isAlarmExpired(CalServ::kSourceUserDataScrub));
}

TEST_F(Calendar, ARepeatingAlarmNobodyAsksForIsDroppedToTheNextPeriod) {
    ASSERT_EQ(cal->registerAlarm(kSource, CalServ::REPEATING, 600), StatusCode::Success);
    int events = gCalendarEvents.load();
    advanceSeconds(600);
    tick();
    EXPECT_TRUE(delivered(events + 1));
    advanceSeconds(300);
    tick();
    EXPECT_NE(cal->alarms()[0].deliveryTime, 0) << "not stale yet";
    advanceSeconds(1);
    tick();
    auto alarms = cal->alarms();
    ASSERT_EQ(alarms.size(), 1u);
    EXPECT_EQ(alarms[0].deliveryTime, 0);
    EXPECT_EQ(remaining(kSource), 600) << "re-armed from now";
}

TEST_F(Calendar, ATrackedAlarmOnlyKeepsTimeAndHoldsNothingBack) {
    ASSERT_EQ(cal->registerAlarm(CalServ::kSourceUserDataScrub, CalServ::TRACKED, 600), StatusCode::Success);
    ASSERT_EQ(cal->registerAlarm(kSource, CalServ::ONE_SHOT, 900), StatusCode::Success);
    int events = gCalendarEvents.load();
    advanceSeconds(1000);
    tick();
    EXPECT_EQ(remaining(CalServ::kSourceUserDataScrub), -400);
    EXPECT_FALSE(cal->isAlarmExpired(CalServ::kSourceUserDataScrub));
    EXPECT_TRUE(delivered(events + 1)) << "the one-shot behind the tracked alarm is delivered";
    EXPECT_TRUE(cal->isAlarmExpired(kSource));
}

TEST_F(Calendar, OnlyTheFirst255AlarmsAreSaved) {
    for (uint32_t i = 0; i < 256; ++i)
        ASSERT_EQ(cal->registerAlarm(0x1000 + i, CalServ::ONE_SHOT, 600 + i), StatusCode::Success);
    bool said = false;
    for (const std::string& e : EventLogManager::EventLog()->events())
        said |= e == "CAL::saveState: TOO MANY ALARMS, NOT SAVING 1";
    EXPECT_TRUE(said);
    restart();
    auto alarms = cal->alarms();
    ASSERT_EQ(alarms.size(), 255u);
    EXPECT_EQ(alarms.back().source, 0x1000u + 254) << "the latest expiry is the one left out";
}

TEST_F(Calendar, TheTimeCommandShowsTheClockAndTheAlarms) {
    CalServ* system = CalServ::GetInstance();
    system->Initialize();
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("time", out);
    EXPECT_NE(out.str().find("Current time: "), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("(" + std::to_string(wall()) + ")"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("Calendar time: "), std::string::npos);
}
