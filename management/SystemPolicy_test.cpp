// The slot light policy on its own: the reports drive the slot status, and
// the decision is checked as the colours it gives each slot and the two LED
// phase words LEDMan would show. No disk is present to the disk layer here,
// so the rules that ask it (smallest safe disk, one drive only) are left to
// the system tests; the policy's thread is not started, so each report
// decides at once.
#include "management/SystemPolicy.h"

#include <gtest/gtest.h>

#include "management/LEDMan.h"

namespace {
using SP = SystemPolicy;

class SlotPolicy : public testing::Test {
protected:
    void SetUp() override {
        sp = SystemPolicy::GetInstance();
        sp->SetLEDOverTemp(false);
        sp->Rebuild(0);
        sp->UnloadDiskPack();
        sp->SetSysState(SP::ValidDiskSet);
    }
    std::vector<int> colours() {
        unsigned char c[8];
        sp->GetSlotLEDColors(c);
        return std::vector<int>(c, c + 8);
    }
    // The two phases LEDMan holds for a slot: 0 yellow, 1 red, 2 green, 3 off.
    static std::pair<int, int> phases(unsigned slot) {
        LEDMan* led = LEDMan::GetInstance();
        return {led->slotsColor1() >> (2 * slot) & 3, led->slotsColor2() >> (2 * slot) & 3};
    }
    SystemPolicy* sp = nullptr;
};

TEST_F(SlotPolicy, MountedDisksAreGreenAndAPackWithoutMarginAsksForADiskInTheFirstEmptySlot) {
    for (unsigned short s : {0, 1, 3}) sp->DiskMounted(s);
    EXPECT_EQ(colours(), (std::vector<int>{SP::Green, SP::Green, SP::Off, SP::Green, SP::Off, SP::Off, SP::Off, SP::Off}));
    EXPECT_EQ(phases(0), std::make_pair(2, 2));
    EXPECT_EQ(phases(2), std::make_pair(3, 3));
    // No redundancy margin (a member pulled, degraded Zones): the lowest empty slot turns red.
    sp->DiskUtilization(4);
    EXPECT_EQ(colours()[2], SP::Red);
    EXPECT_EQ(colours()[4], SP::Off);
    // Low watermark: yellow; low with no margin: red.
    sp->DiskUtilization(1);
    EXPECT_EQ(colours()[2], SP::Yellow);
    sp->DiskUtilization(5);
    EXPECT_EQ(colours()[2], SP::Red);
    // High watermark: red.
    sp->DiskUtilization(2);
    EXPECT_EQ(colours()[2], SP::Red);
    // Back to no prompt.
    sp->DiskUtilization(0);
    EXPECT_EQ(colours()[2], SP::Off);
    EXPECT_EQ(colours()[0], SP::Green);
}

TEST_F(SlotPolicy, ARebuildFlashesTheMembersAndKeepsALowPromptYellow) {
    for (unsigned short s : {0, 1}) sp->DiskMounted(s);
    sp->Rebuild(0x8000);
    EXPECT_TRUE(sp->rebuildInProgress());
    EXPECT_EQ(sp->slotStatus(0) & SP::SLOT_REBUILDING, SP::SLOT_REBUILDING);
    EXPECT_EQ(colours()[0], SP::FlashYellowGreen);
    EXPECT_EQ(phases(0), std::make_pair(0, 2));
    // While any slot rebuilds, a low prompt stays yellow even without margin.
    sp->DiskUtilization(5);
    EXPECT_EQ(colours()[2], SP::Yellow);
    // A disk mounted during the rebuild takes part in it.
    sp->DiskMounted(3);
    EXPECT_EQ(colours()[3], SP::FlashYellowGreen);
    // 0x7FFF: the rebuild bit is clear, so it has ended.
    sp->Rebuild(0x7FFF);
    EXPECT_FALSE(sp->rebuildInProgress());
    EXPECT_EQ(colours()[0], SP::Green);
    EXPECT_EQ(colours()[2], SP::Red);
}

TEST_F(SlotPolicy, AFailedDiskFlashesRedAndSilencesEveryPrompt) {
    for (unsigned short s : {0, 1, 3}) sp->DiskMounted(s);
    sp->DiskUtilization(4);
    sp->DiskFail(1);
    EXPECT_TRUE(sp->AnyBadSlots());
    EXPECT_EQ(colours()[1], SP::FlashRed);
    EXPECT_EQ(phases(1), std::make_pair(1, 3));
    EXPECT_EQ(colours()[2], SP::Off) << "no prompt while a slot is bad";
    // Pulled, the slot is empty again and the prompt comes back.
    sp->RemoveDisk(1);
    EXPECT_FALSE(sp->AnyBadSlots());
    EXPECT_EQ(colours()[1], SP::Red);
    // An expunged disk is bad as well.
    sp->ExpungeDisk(3);
    EXPECT_EQ(colours()[3], SP::FlashRed);
}

TEST_F(SlotPolicy, SystemStatesOverrideTheSlots) {
    sp->DiskMounted(0);
    sp->SetSysState(SP::Standby);
    EXPECT_EQ(colours(), std::vector<int>(8, SP::Off));
    // No valid pack and no drive at all: slot 0 asks for one.
    sp->SetSysState(SP::NoValidDiskSet);
    EXPECT_EQ(colours(), (std::vector<int>{SP::Red, SP::Off, SP::Off, SP::Off, SP::Off, SP::Off, SP::Off, SP::Off}));
    sp->SetSysState(SP::ValidDiskSet);
    EXPECT_EQ(colours()[0], SP::Green);
    sp->SetLEDOverTemp(true);
    EXPECT_EQ(colours(), std::vector<int>(8, SP::Off));
    sp->SetLEDOverTemp(false);
    // A resume ends in the state the pack gives.
    sp->SetSysState(SP::Resuming);
    EXPECT_NE(sp->systemState(), SP::Resuming);
}
}  // namespace
