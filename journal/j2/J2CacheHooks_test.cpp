// The cache's view of J2: dirty while a set is built, pinned from commit until
// its journalette is on the platter, never touched on a replay; the console
// and the manager registry.
#include <sstream>

#include "journal/j2/J2CacheHooks.h"
#include "journal/j2/J2TestHarness.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"

namespace {
std::vector<std::string> gCalls;
CacheTrackerObject* fake(uintptr_t n) { return reinterpret_cast<CacheTrackerObject*>(n * 64); }
std::string name(const char* what, CacheTrackerObject* c) {
    return std::string(what) + std::to_string(reinterpret_cast<uintptr_t>(c) / 64);
}
}  // namespace

class J2CacheHooksTest : public J2Harness {
protected:
    void SetUp() override {
        J2Harness::SetUp();
        std::memset(partition(), 0, j2::kPartitionSize);
        gCalls.clear();
        J2CacheHooks& h = J2CacheHooks::get();
        mSaved = h;
        h.markRangeDirty = [](CacheTrackerObject* c) { gCalls.push_back(name("dirty", c)); };
        h.preventEviction = [](CacheTrackerObject* c) { gCalls.push_back(name("pin", c)); };
        h.markRangeClean = [](CacheTrackerObject* c) { gCalls.push_back(name("clean", c)); };
        h.allowEviction = [](CacheTrackerObject* c) { gCalls.push_back(name("unpin", c)); };
        h.clearSet = [](unsigned slot) { gCalls.push_back("clearSet" + std::to_string(slot)); };
    }
    void TearDown() override {
        J2CacheHooks::get() = mSaved;  // the cache's own hooks
        J2Harness::TearDown();
    }
    J2CacheHooks mSaved;
};

TEST_F(J2CacheHooksTest, RangesArePinnedFromCommitUntilTheirDiskIsFlushedAndNeverTouchedOnReplay) {
    loadDisks({"16M", "16M"});
    bootAndLoad();
    IOTracker t(READ_WRITE);
    t.setCacheTracker(fake(1));
    ASSERT_EQ(write(t, 0, 10, 1, 1), StatusCode::Success);
    t.setCacheTracker(fake(2));
    ASSERT_EQ(write(t, 1, 10, 1, 1), StatusCode::Success);
    ASSERT_EQ(j2->addClid(t, fake(3)), StatusCode::Success);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"dirty1", "dirty2", "dirty3"}));
    gCalls.clear();
    ASSERT_EQ(j2->commit(t), StatusCode::Success);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"pin1", "clean1", "pin2", "clean2", "pin3", "clean3"}));
    gCalls.clear();
    j2->doSpill(1, false);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"unpin2"}));
    gCalls.clear();
    j2->doSpill(0, false);  // slot 0 holds the extra list: the first slot with a record takes it
    EXPECT_EQ(gCalls, (std::vector<std::string>{"unpin1", "unpin3"}));

    // Committed and not spilled at a power cut: the replay writes the data and
    // tells the cache to forget the slot, but never follows a stored clid.
    IOTracker u(READ_WRITE);
    u.setCacheTracker(fake(4));
    ASSERT_EQ(write(u, 0, 20, 1, 2), StatusCode::Success);
    ASSERT_EQ(j2->commit(u), StatusCode::Success);
    powerCut();
    gCalls.clear();
    boot();
    EXPECT_EQ(gCalls, (std::vector<std::string>{"clearSet0"}));
    EXPECT_EQ(generationOf(0, 20, 1), 2);
}

TEST_F(J2CacheHooksTest, ARemovedDiskReleasesItsPinsButKeepsItsJournalette) {
    loadDisks({"16M", "16M"});
    bootAndLoad();
    IOTracker t(READ_WRITE);
    t.setCacheTracker(fake(5));
    ASSERT_EQ(write(t, 1, 10, 1, 1), StatusCode::Success);
    ASSERT_EQ(j2->commit(t), StatusCode::Success);
    gCalls.clear();
    j2->hotPlug(1, hotRemove);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"unpin5"}));
    EXPECT_EQ(j2->header().diskHeaders[1].getClean(), 0);
    gCalls.clear();
    j2->forceFlush(false);
    EXPECT_TRUE(gCalls.empty()) << "an absent disk's journalette is not spilled";
}

TEST_F(J2CacheHooksTest, ACachePressureRequestSpillsWithoutWaiting) {
    loadDisks({"16M"});
    bootAndLoad(true);
    IOTracker t(READ_WRITE);
    t.setCacheTracker(fake(6));
    ASSERT_EQ(write(t, 0, 10, 1, 1), StatusCode::Success);
    ASSERT_EQ(j2->commit(t), StatusCode::Success);
    j2->requestSpill();  // returns at once; the timer task spills
    waitUntil([&] { return j2->journalsClean(); });
    waitUntil([&] { return !gCalls.empty() && gCalls.back() == "unpin6"; });
}

TEST_F(J2CacheHooksTest, AHeldFlushMakesTheTimerSkipItsTurnInsteadOfWaiting) {
    loadDisks({"16M"});
    bootAndLoad(true);
    IOTracker t(READ_WRITE);
    ASSERT_EQ(write(t, 0, 10, 1, 1), StatusCode::Success);
    ASSERT_EQ(j2->commit(t), StatusCode::Success);
    {
        J2Manager::FlushHold hold(*j2);
        uint32_t turns = j2->timerTurns();
        j2->requestSpill();
        waitUntil([&] { return j2->timerTurns() > turns; });  // the timer did not block on the hold
        EXPECT_FALSE(j2->journalsClean());
    }
    j2->forceFlush(false);
    EXPECT_TRUE(j2->journalsClean());
}

TEST_F(J2CacheHooksTest, TheConsoleShowsTheJournal) {
    std::ostringstream out;
    EXPECT_EQ(ConsoleCommand::ExecuteLine("j2dump", out), 0);
    EXPECT_NE(out.str().find("J2Manager:"), std::string::npos) << out.str();
    std::ostringstream bad;
    EXPECT_NE(ConsoleCommand::ExecuteLine("j2dump slot", bad), 0);
    EXPECT_NE(bad.str().find("usage: j2dump [slot]"), std::string::npos);
    std::ostringstream perf;
    EXPECT_TRUE(ManagerRegistry::perf("J2Manager", perf));
    EXPECT_NE(perf.str().find("J2Manager commit timings:"), std::string::npos);
    EXPECT_NE(perf.str().find("J2Manager disk flushes:"), std::string::npos);
    std::ostringstream state;
    EXPECT_TRUE(ManagerRegistry::dump("J2Manager", state));

    loadDisks({"16M"});
    bootAndLoad();
    IOTracker t(READ_WRITE);
    ASSERT_EQ(write(t, 0, 0x77, 2, 1), StatusCode::Success);
    ASSERT_EQ(j2->commit(t), StatusCode::Success);
    std::ostringstream trans;
    j2->DumpTrans(trans, 0);
    EXPECT_NE(trans.str().find("J2Transaction lba 0x77 place 34 numSecs 2"), std::string::npos) << trans.str();
}
