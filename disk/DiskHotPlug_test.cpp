// Hot-plug debounce and staggered power-up on a virtual board clock: the
// tests move board time and call the driver's periodic callback themselves,
// so every 5-second or 8-second rule is checked to the tick.
#include <gtest/gtest.h>

#include "disk/DiskTestFixture.h"
#include "disk/DriveAdapter.h"

namespace {

class HotPlugRules : public DiskTestFixture {
protected:
    void SetUp() override {
        DiskTestFixture::SetUp();
        BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
        hp()->resetStates();
    }
    static DiskHotPlug* hp() { return DiskHotPlug::GetInstance(); }
    static uint32_t rate() { return uint32_t(sysClkRateGet()); }
    static void advanceAndCheck(uint64_t ticks) {
        BoardClock::GetInstance().advance(ticks);
        DiskHotPlug::CheckDebounceTimers();
    }
};

TEST_F(HotPlugRules, ADiskInsertedAndPulledWithinTheDebounceGivesOneAddThatFindsNoDisk) {
    loadDisks({"64M"});
    std::string msg;
    ASSERT_TRUE(ctl().insertDisk(3, "64M", msg)) << msg;
    drainMessages();
    const unsigned adds = hp()->addsPosted(3), removes = hp()->removesPosted(3);

    hp()->InsertDisk(3);
    EXPECT_EQ(hp()->debounceState(3).state, DiskHotPlug::kDebouncing);
    const uint32_t started = hp()->debounceState(3).tick;
    advanceAndCheck(4 * rate());
    hp()->InsertDisk(3);
    EXPECT_EQ(hp()->debounceState(3).tick, started) << "a second insert does not restart the debounce";
    ASSERT_TRUE(ctl().pullDisk(3, msg)) << msg;
    drainMessages();
    hp()->RemoveDisk(3);
    EXPECT_EQ(hp()->removesPosted(3), removes) << "a pull during the debounce posts nothing";
    advanceAndCheck(rate() - 1);
    EXPECT_EQ(hp()->addsPosted(3), adds) << "not before 5 seconds";
    advanceAndCheck(1);
    EXPECT_EQ(hp()->addsPosted(3), adds + 1) << "one add, not two";
    EXPECT_EQ(hp()->debounceState(3).state, DiskHotPlug::kIdle);
    EXPECT_NE(dm()->AddDisk(3), StatusCode::Success) << "the add fails on its own: the disk has gone";
    advanceAndCheck(60 * rate());
    EXPECT_EQ(hp()->addsPosted(3), adds + 1);
}

TEST_F(HotPlugRules, APullFromIdlePowersTheSlotOffAndPostsTheRemovalAtOnce) {
    loadDisks({"64M", "64M"});
    const unsigned removes = hp()->removesPosted(1);
    std::string msg;
    ASSERT_TRUE(ctl().pullDisk(1, msg)) << msg;
    drainMessages();
    hp()->RemoveDisk(1);
    EXPECT_EQ(hp()->removesPosted(1), removes + 1);
    EXPECT_FALSE(ctl().slotPowered(1));
}

TEST_F(HotPlugRules, DisksFoundTogetherPowerUpEightSecondsApartFromOneSecond) {
    loadDisks({"64M", "64M", "64M", "64M"});
    for (int s = 0; s < 4; ++s) SlotPowerSwitch(s, false);
    drainMessages();
    advanceAndCheck(1);
    const uint32_t now = tickGet();
    hp()->DelayPowerUp();
    for (int s = 0; s < 4; ++s) {
        EXPECT_EQ(hp()->debounceState(s).state, DiskHotPlug::kPowerUpDelayed) << s;
        EXPECT_EQ(hp()->debounceState(s).tick - now, (1 + 8 * uint32_t(s)) * rate()) << "slot " << s;
    }
    hp()->DelayPowerUp();
    EXPECT_EQ(hp()->debounceState(3).tick - now, 25 * rate()) << "a slot already waiting keeps its turn";
    for (int s = 0; s < 3; ++s) {
        const uint32_t due = now + (1 + 8 * uint32_t(s)) * rate();
        advanceAndCheck(due - 1 - tickGet());
        EXPECT_FALSE(ctl().slotPowered(s)) << "slot " << s << " one tick early";
        advanceAndCheck(1);
        EXPECT_TRUE(ctl().slotPowered(s)) << "slot " << s;
        EXPECT_EQ(hp()->debounceState(s).state, DiskHotPlug::kIdle);
    }
    drainMessages();
}

}  // namespace
