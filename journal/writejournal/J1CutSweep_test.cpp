// Power cut at every store of the replay tags in a small workload (merges, a
// partial overlap, an exact repeat, several LUNs, flushes), one point at a
// time, with one write thread; and cuts inside the replay that follows. After
// each, the next start replays and every acknowledged sector holds its newest
// acknowledged data; the journal then starts empty.
#include <functional>
#include <map>

#include "journal/writejournal/J1TestHarness.h"

namespace {
// Counts the points passed and cuts the power at the N-th.
struct Cutter {
    explicit Cutter(int n) : target(n) {
        J1Replay::setCutHook([this](const char* point) {
            if (count++ == target) {
                where = point;
                throw J1PowerCut();
            }
        });
    }
    ~Cutter() { J1Replay::setCutHook(nullptr); }
    int target;
    int count = 0;
    std::string where;
};

// Runs `work` with the power cut at the n-th point; true when it was cut
// (and where, if asked).
bool cutAt(int n, const std::function<void()>& work, std::string* where = nullptr) {
    Cutter cutter(n);
    try {
        work();
    } catch (const J1PowerCut&) {
        if (where) *where = cutter.where;
        return true;
    }
    return false;
}
}  // namespace

class J1CutSweep : public J1Harness {
protected:
    void fresh() {
        stop();
        nv.assign(nv.size(), 0);
        header.assign(header.size(), 0);
        disk = J1DiskModel();
        writes.clear();
        acked.clear();
        events.clear();
        replayWrites = 0;
        ASSERT_EQ(start(), StatusCode::Success);
    }
    void workload() {
        hostWrite(0, 0, 8, 1);
        hostWrite(0, 8, 8, 2);  // merges after
        hostWrite(0, 4, 1, 3);  // partial overlap: its own stream
        writeOneSet();
        hostWrite(1, 0, 3, 4);
        hostWrite(0, 4, 1, 5);  // exact repeat of a waiting stream
        writeOneSet();
        writeOneSet();
        replay->flushIfNeeded(true);
        hostWrite(0, 0, 16, 6);
        hostWrite(0, 2, 2, 7);
        writeOneSet();
        replay->flushIfNeeded(true);
        hostWrite(1, 1, 1, 8);
        drain();
        replay->flushIfNeeded(true);
    }
    // A start after the cut: the replay, then the check and a clean journal.
    void restartAndCheck(const std::string& context) {
        powerCut();
        ASSERT_EQ(start(), StatusCode::Success) << context;
        expectNothingLost(context);
        EXPECT_EQ(replay->numFree(), replay->numTags()) << context;
        EXPECT_TRUE(replay->isClean(false)) << context;
    }
};

TEST_F(J1CutSweep, ACutAtEveryTagStoreLosesNoAcknowledgedWrite) {
    std::map<std::string, int> pointsCut;
    int n = 0;
    for (;; ++n) {
        fresh();
        disk.rng.seed(n);
        std::string where;
        if (!cutAt(n, [&] { workload(); }, &where)) break;
        pointsCut[where]++;
        restartAndCheck("cut at point " + std::to_string(n) + " (" + where + ")");
    }
    EXPECT_GT(n, 40);
    for (const char* p : {"j1r.tag.allocated", "j1r.tag.pending", "j1r.tag.executed", "j1r.tag.flushed", "j1r.tag.free",
                          "j1r.flush.begin", "j1r.flush.done"})
        EXPECT_GT(pointsCut[p], 0) << p << " was never cut at";
}

TEST_F(J1CutSweep, ACutInsideTheReplayIsRepairedByTheNextReplay) {
    int cutsInReplay = 0;
    for (int n = 3; n < 60; n += 7) {
        for (int m = 0;; ++m) {
            fresh();
            disk.rng.seed(n * 100 + m);
            if (!cutAt(n, [&] { workload(); })) break;
            powerCut();
            if (!cutAt(m, [&] { start(); })) {
                expectNothingLost("no second cut");
                break;
            }
            cutsInReplay++;
            restartAndCheck("cut at " + std::to_string(n) + ", then at replay point " + std::to_string(m));
        }
    }
    EXPECT_GT(cutsInReplay, 10);
}

// Several seeds of the drive's write-back for the same cut: any subset of
// unflushed sectors on the medium must do.
TEST_F(J1CutSweep, EveryWriteBackSubsetAfterACutIsRepaired) {
    for (int seed = 0; seed < 20; ++seed) {
        fresh();
        disk.rng.seed(seed);
        for (uint32_t i = 0; i < 30; ++i) hostWrite(i % 2, (i * 5) % 40, 1 + i % 9, i + 1);
        for (int k = 0; k < 6; ++k) writeOneSet();
        replay->flushIfNeeded(true);
        for (int k = 0; k < 6; ++k) writeOneSet();
        restartAndCheck("seed " + std::to_string(seed));
    }
}
