// The error policy on a loaded pack: errors counted by the disk's identity
// wherever it sits, what counts nothing, the saved counts merged with errors
// that came during a load, and the trimming of the saved list. The event
// thread's handler is run by the tests themselves.
#include <gtest/gtest.h>

#include "disk/ErrorPolicy.h"
#include "disk/PackTestFixture.h"
#include "zone/Zone0InfoTable.h"

namespace {

class ErrorPolicyPack : public PackTestFixture {
protected:
    void SetUp() override {
        PackTestFixture::SetUp();
        RegionManager::GetInstance()->UnloadDiskPack();
        ASSERT_EQ(RegionManager::GetInstance()->Initialize(), StatusCode::Success);
        Zone0InfoTable::GetInstance()->UseMemoryZone();
        epm()->resetForTest();
    }
    void TearDown() override {
        epm()->resetForTest();
        PackTestFixture::TearDown();
    }
    static ErrorPolicy* epm() { return ErrorPolicy::GetInstance(); }
    static ErrorTracker* trackerOf(int slot) {
        const DiskIdentifier* id = dm()->GetDiskWWN(slot);
        return id ? epm()->getErrorTracker(*id) : nullptr;
    }
    // A hard read error in the data area of the disk (clear of the pack's records).
    static void hardRead(int slot, uint64_t lba, StatusCode status = StatusCode::DM_MediaError) {
        epm()->blockError(ErrorPolicy::HardRead, status, uint16_t(slot), lba, 1);
    }
    static constexpr uint64_t kDataLba = 0x100000;
    // A new pack on blank disks, with the Region layer loaded on it (the
    // policy finds the Region of each error).
    void load(const std::vector<std::string>& sizes) {
        makePack(sizes);
        ASSERT_EQ(RegionManager::GetInstance()->LoadDiskPack(), StatusCode::Success);
        ASSERT_EQ(epm()->LoadDiskPack(), StatusCode::Success);
    }
};

TEST_F(ErrorPolicyPack, ErrorsCountByTheDisksIdentityAndFollowItToAnotherSlot) {
    load({"1G", "1G", "1G"});
    hardRead(1, kDataLba);
    hardRead(1, kDataLba + 0x40000);
    epm()->trackAndDispatchError();
    ErrorTracker* t = trackerOf(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->blockCount, 2u);
    EXPECT_EQ(t->slot, 1);
    uint32_t count = 0;
    EXPECT_EQ(epm()->GetErrorCount(1, count), StatusCode::Success);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(epm()->GetErrorCount(0, count), StatusCode::DiskNotPresent);

    // The disk moves from slot 1 to slot 5 across a power cycle of the pack.
    ASSERT_EQ(restart([] { moveDisk(slotBase(1), slotBase(5)); }), StatusCode::Success);
    ASSERT_EQ(RegionManager::GetInstance()->LoadDiskPack(), StatusCode::Success);
    hardRead(5, kDataLba);
    epm()->trackAndDispatchError();
    t = trackerOf(5);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->blockCount, 3u) << "the same counts, in the new slot";
    EXPECT_EQ(t->slot, 5);
    EXPECT_EQ(epm()->GetErrorCount(1, count), StatusCode::DiskNotPresent);
}

TEST_F(ErrorPolicyPack, FlushedRequestsAndRemovedDisksCountNothing) {
    load({"1G", "1G"});
    hardRead(1, kDataLba, StatusCode::DM_DeviceTimeoutFlush);
    epm()->blockError(ErrorPolicy::HardWrite, StatusCode::DM_DeviceTimeoutFlush, 1, kDataLba, 8);
    epm()->trackAndDispatchError();
    ASSERT_NE(trackerOf(1), nullptr);
    EXPECT_EQ(trackerOf(1)->blockCount, 0u);
    const unsigned trackers = epm()->trackerCount();
    hardRead(0, kDataLba, StatusCode::DiskNotPresent);
    EXPECT_TRUE(epm()->pendingErrors().empty()) << "the removal has its own path";
    hardRead(6, kDataLba);  // an empty slot
    EXPECT_TRUE(epm()->pendingErrors().empty());
    epm()->trackAndDispatchError();
    EXPECT_EQ(epm()->trackerCount(), trackers);
}

TEST_F(ErrorPolicyPack, SavedCountsMergeWithAnErrorThatCameDuringTheLoad) {
    load({"1G", "1G"});
    for (uint64_t i = 0; i < 3; ++i) hardRead(1, kDataLba + i * 0x40000);
    epm()->trackAndDispatchError();  // counts and saves
    ASSERT_TRUE(Zone0InfoTable::GetInstance()->entryValid(8, "EPM-Z0IT", 2));
    ASSERT_EQ(epm()->UnloadDiskPack(), StatusCode::Success);
    EXPECT_EQ(epm()->trackerCount(), 0u);
    hardRead(1, kDataLba);  // before the load: it waits
    ASSERT_EQ(epm()->pendingErrors().size(), 1u);
    ASSERT_EQ(epm()->LoadDiskPack(), StatusCode::Success);
    EXPECT_TRUE(epm()->pendingErrors().empty());
    ASSERT_NE(trackerOf(1), nullptr);
    EXPECT_EQ(trackerOf(1)->blockCount, 4u);
    EXPECT_EQ(trackerOf(1)->slot, 1);
    EXPECT_EQ(epm()->trackerCount(), 1u);
}

TEST_F(ErrorPolicyPack, ElevenTrackersOfWhichOneIsAbsentSaveAsTenWithThePresentFirst) {
    load({"1G", "1G", "1G"});
    // Eight disks seen once and gone, then the three present ones.
    for (int i = 0; i < 8; ++i) {
        DiskIdentifier gone;
        gone.Initialise("GONE", "1.0", ("OLD" + std::to_string(i)).c_str());
        epm()->getErrorTracker(gone)->blockCount = uint32_t(i + 1);
    }
    for (int s = 0; s < 3; ++s) hardRead(s, kDataLba);
    epm()->trackAndDispatchError();
    EXPECT_EQ(epm()->trackerCount(), 10u);
    std::ostringstream out;
    epm()->Dump(out);
    const std::string d = out.str();
    EXPECT_EQ(d.find("SIM1.00 OLD0\n"), std::string::npos) << "the oldest absent disk goes\n" << d;
    EXPECT_LT(d.find("  => slot\t\t\t: 2"), d.find("  => slot\t\t\t: 8")) << "present disks lead the list\n" << d;
    // What was saved reads back as the same ten.
    ASSERT_EQ(epm()->UnloadDiskPack(), StatusCode::Success);
    ASSERT_EQ(epm()->loadErrorList(), StatusCode::Success);
    EXPECT_EQ(epm()->trackerCount(), 10u);
}

}  // namespace

namespace {

TEST_F(ErrorPolicyPack, AFirstFullTimeoutPowerCyclesTheSlotASecondInAWeekExpungesAndOneAWeekLaterCyclesAgain) {
    load({"1G", "1G", "1G"});
    EventManager* em = EventManager::GetInstance();
    auto timeout = [](int slot) {
        epm()->blockError(ErrorPolicy::FullTimeout, StatusCode::DM_DeviceTimeout, uint16_t(slot), kDataLba, 8, 20,
                          true);
        epm()->trackAndDispatchError();
    };
    timeout(1);
    EXPECT_FALSE(dpm()->isPresent(1)) << "the power cycle takes the disk out of the pack";
    EXPECT_EQ(trackerOf(1)->fullTimeouts, 1u);
    // The slot comes back on after its time off, and the disk rejoins.
    waitUntil([] { return !ctl().slotPowered(1); });
    waitUntil([] { return ctl().slotPowered(1); });
    ASSERT_EQ(dm()->RemoveDisk(1), StatusCode::Success);
    ASSERT_EQ(dm()->AddDisk(1), StatusCode::Success);
    drainMessages();
    ASSERT_EQ(dpm()->hotPlug(1, DiskPackManager::ADD), StatusCode::Success);
    uint16_t ld = 99;
    ASSERT_EQ(dpm()->getLdNum(1, ld), StatusCode::Success);
    EXPECT_EQ(ld, 3);

    const unsigned expunges = em->queued(eLogExpung);
    timeout(1);
    EXPECT_EQ(trackerOf(1)->fullTimeouts, 2u);
    EXPECT_EQ(em->queued(eLogExpung), expunges + 1) << "a second timeout within a week asks for the expunge";
    EXPECT_TRUE(dpm()->isPresent(3)) << "no power cycle this time";

    // Eight days on, a timeout is a first one again.
    BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
    BoardClock::GetInstance().advance(8ull * 86400 * BoardClock::kTicksPerSecond);
    BoardClock::GetInstance().configure(BoardClock::Mode::Accelerated, 10.0);
    timeout(1);
    EXPECT_EQ(trackerOf(1)->fullTimeouts, 1u);
    EXPECT_EQ(em->queued(eLogExpung), expunges + 1);
    EXPECT_FALSE(dpm()->isPresent(3));
    waitUntil([] { return ctl().slotPowered(1); });
    drainMessages();
}

}  // namespace
