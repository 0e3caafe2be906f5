// Power cut at every ordered store: in a commit of a set over three disks, in
// a spill, and in a commit that follows a reset. The next start applies each
// set on every disk or on none, and completes a set whose marks were torn.
#include <map>

#include "journal/j2/J2TestHarness.h"

namespace {
// Counts cut points and turns the power off at the N-th.
struct Cutter {
    explicit Cutter(int n) : cutAt(n) {
        J2Nvram::setCutHook([this](const char* point) {
            if (count++ >= cutAt) {
                cut = true;
                return false;
            }
            reached[point]++;
            return true;
        });
    }
    int cutAt;
    int count = 0;
    bool cut = false;
    std::map<std::string, int> reached;
};

// The set under test: three writes on three disks, gen `gen`.
struct Write {
    int slot;
    uint32_t lba, sectors;
};
const Write kSet[] = {{0, 100, 2}, {1, 200, 1}, {2, 300, 3}};
}  // namespace

class J2CutSweep : public J2Harness {
protected:
    void SetUp() override {
        J2Harness::SetUp();
        loadDisks({"16M", "16M", "16M"});
        std::memset(partition(), 0, j2::kPartitionSize);
        bootAndLoad();
    }
    // Every write of the set holds gen `a` or every one holds gen `b`.
    int setGeneration() {
        int g = generationOf(kSet[0].slot, kSet[0].lba, kSet[0].sectors);
        for (const Write& w : kSet)
            if (generationOf(w.slot, w.lba, w.sectors) != g) return -1;
        return g;
    }
    void baseline(uint32_t gen) {
        for (const Write& w : kSet) writeDisk(w.slot, w.lba, w.sectors, gen);
    }
    void addSet(IOTracker& t, uint32_t gen) {
        for (const Write& w : kSet) ASSERT_EQ(write(t, w.slot, w.lba, w.sectors, gen), StatusCode::Success);
    }
};

TEST_F(J2CutSweep, ACommitCutAtEveryStoreAppliesTheSetOnEveryDiskOrOnNone) {
    bool sawNone = false, sawAll = false, sawRepair = false;
    for (int n = 0;; ++n) {
        SCOPED_TRACE("cut at store " + std::to_string(n));
        baseline(1);
        IOTracker t(READ_WRITE);
        // An earlier set of the same transaction, committed whole: it must
        // survive, and must not make the set under test look committed.
        ASSERT_EQ(write(t, 1, 500, 1, 2), StatusCode::Success);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        addSet(t, 3);
        Cutter cutter(n);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        bool finished = !cutter.cut;
        int marks = cutter.reached["j2.commit.mark"];
        powerCut();
        std::string out = captured([&] { boot(); });
        int g = setGeneration();
        EXPECT_TRUE(g == 1 || g == 3) << "set applied on some disks only: " << out;
        EXPECT_EQ(generationOf(1, 500, 1), 2) << "an earlier committed set was lost";
        if (marks > 0) {
            EXPECT_EQ(g, 3) << "a set with its first mark written is committed";
        } else {
            EXPECT_EQ(g, 1) << "a set with no mark written is not committed";
        }
        bool torn = marks > 0 && marks < 3;
        EXPECT_EQ(out.find("J2: Repaired " + std::to_string(3 - marks) + " broken sub-tranasctions") !=
                      std::string::npos,
                  torn)
            << out;
        sawNone |= g == 1;
        sawAll |= g == 3;
        sawRepair |= torn;
        ASSERT_EQ(j2->LoadDiskPack(), StatusCode::Success);
        if (finished) break;
    }
    EXPECT_TRUE(sawNone && sawAll && sawRepair);
}

TEST_F(J2CutSweep, ASpillCutAnywhereLosesNoCommittedSet) {
    for (int n = 0;; ++n) {
        SCOPED_TRACE("cut at point " + std::to_string(n));
        baseline(1);
        IOTracker t(READ_WRITE);
        addSet(t, 2);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        IOTracker u(READ_WRITE);  // a second set over the same sectors
        addSet(u, 4);
        ASSERT_EQ(j2->commit(u), StatusCode::Success);
        Cutter cutter(n);
        for (unsigned s = 0; s < 3; ++s) j2->doSpill(s, false);
        bool finished = !cutter.cut;
        powerCut();
        boot();
        EXPECT_EQ(setGeneration(), 4) << "the newest committed set must be on every disk after the replay";
        ASSERT_EQ(j2->LoadDiskPack(), StatusCode::Success);
        if (finished) break;
    }
}

TEST_F(J2CutSweep, ACommitAfterAResetNeverRevivesTheRecordsOfAnEarlierSet) {
    for (int n = 0;; ++n) {
        SCOPED_TRACE("cut at store " + std::to_string(n));
        baseline(1);
        IOTracker t(READ_WRITE);
        addSet(t, 2);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        baseline(5);  // the disks move on past the journalled set
        for (unsigned s = 0; s < 3; ++s) j2->resetSoftJournalette(int(s));
        // A smaller set of the same transaction takes the first record places.
        ASSERT_EQ(write(t, 0, 100, 2, 3), StatusCode::Success);
        Cutter cutter(n);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        bool finished = !cutter.cut;
        int marks = cutter.reached["j2.commit.mark"];
        powerCut();
        boot();
        EXPECT_EQ(generationOf(0, 100, 2), marks ? 3 : 5);
        EXPECT_EQ(generationOf(1, 200, 1), 5) << "a reset record was replayed";
        EXPECT_EQ(generationOf(2, 300, 3), 5) << "a reset record was replayed";
        ASSERT_EQ(j2->LoadDiskPack(), StatusCode::Success);
        if (finished) break;
    }
}

TEST_F(J2CutSweep, AResetCutAtEveryStoreLeavesTheJournalReplayable) {
    for (int n = 0;; ++n) {
        SCOPED_TRACE("cut at store " + std::to_string(n));
        baseline(1);
        IOTracker t(READ_WRITE);
        addSet(t, 2);
        ASSERT_EQ(j2->commit(t), StatusCode::Success);
        for (unsigned s = 0; s < 3; ++s) {
            j2->doSpill(s, false);  // written and flushed
        }
        baseline(6);  // later data reach the disks straight
        IOTracker u(READ_WRITE);
        addSet(u, 7);
        ASSERT_EQ(j2->commit(u), StatusCode::Success);
        baseline(6);
        Cutter cutter(n);
        for (unsigned s = 0; s < 3; ++s) j2->resetSoftJournalette(int(s));
        bool finished = !cutter.cut;
        powerCut();
        boot();
        // Whatever the cut, a slot either replays the set whole or was reset.
        for (const Write& w : kSet) {
            int g = generationOf(w.slot, w.lba, w.sectors);
            EXPECT_TRUE(g == 6 || g == 7) << "slot " << w.slot << " holds " << g;
        }
        ASSERT_EQ(j2->LoadDiskPack(), StatusCode::Success);
        if (finished) break;
    }
}
