// Power cuts (kill -9) at random moments while the pack is made and Zones are
// allocated and freed, start after start. Every start must load the pack, and
// once the metadata journal has been written out, an independent reader of
// the disk images must find every record valid and the records consistent
// with each other: DIS copies, both Region metadata copies and bitmaps, the
// three Zone table copies, and every Region of an in-use Zone allocated in
// its disk's bitmap and owned by no other Zone.
//
// ESA_SOAK_ITERATIONS sets the number of power cuts (a short run by default).
// A second test cuts the first start at every commit mark of a pack's making
// in turn, so each boundary between its sets is met, not only by chance.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "platform/board/Board.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/IndependentReader.h"
#include "tests/support/PackChecks.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;

constexpr int kDisks = 3;

unsigned iterations() {
    const char* v = std::getenv("ESA_SOAK_ITERATIONS");
    return v ? unsigned(std::strtoul(v, nullptr, 10)) : 6;
}

// The start after a cut replays the journal and must load the pack; with the
// journal written out, the disks alone must be consistent. Returns the number
// of Zones in use (0 after a failed check: the caller stops on HasFailure()).
unsigned restartAndCheck(const TestBoard& board, const std::string& after) {
    EsaProcess esa(board.dir().string());
    EXPECT_TRUE(esa.waitForConsole()) << esa.output();
    ConsoleResult state = esa.console("state DPM");
    EXPECT_NE(state.output.find("DISK PACK IS LOADED"), std::string::npos)
        << after << "\n"
        << state.output << esa.output();
    if (::testing::Test::HasFailure()) return 0;
    esa.console("j2flush");
    esa.kill9();
    return checkPackRecords(board.dir(), kDisks);
}

}  // namespace

TEST(CrashSoak, EveryStartAfterAPowerCutLoadsAConsistentPack) {
    TestBoard board;
    createDisks(board, "8G,8G,12G");
    std::mt19937 random(20261123);
    const unsigned rounds = iterations();
    unsigned mostZones = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        {
            // The power is cut at a random moment from the start on: while the
            // pack is made or loaded, or while Zones come and go.
            EsaProcess esa(board.dir().string());
            std::atomic<bool> stop{false};
            std::thread churn([&, seed = random()] {
                std::mt19937 r(seed);
                if (!esa.waitForConsole(std::chrono::seconds(30))) return;
                std::vector<unsigned> live;
                while (!stop) {
                    ConsoleResult a = esa.console("alloczones " + std::to_string(1 + r() % 3));
                    if (a.rc == -1000) break;
                    for (unsigned z : allocatedZonesIn(a.output)) live.push_back(z);
                    if (live.size() > 2) {
                        size_t k = r() % live.size();
                        if (esa.console("deallocateZone " + std::to_string(live[k])).rc == -1000) break;
                        live.erase(live.begin() + long(k));
                    }
                }
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 2500));
            esa.kill9();
            stop = true;
            churn.join();
        }
        mostZones = std::max(mostZones, restartAndCheck(board, "after power cut " + std::to_string(round)));
        ASSERT_FALSE(HasFailure()) << "after power cut " << round;
    }
    // Zones 0 and 1 are the pack's own; the churn must have left some behind.
    EXPECT_GT(mostZones, 2u) << "no power cut fell while Zones were allocated";
}

// The making of a new pack spans several journal sets (the pack record and
// Region metadata, the Zone table with Zone 0, Zone 1, Zone 0's directory),
// and so do the first Zones allocated and freed on it. A power cut just
// before the commit mark of each of them in turn (and between the marks of one
// set, which leaves them torn) must leave a pack that the next start loads and
// whose records are consistent. Every mark store is cut at in turn;
// ESA_MAKING_CUT_STRIDE=n cuts at every n-th only.
TEST(CrashSoak, ACutAtEachCommitOfAPacksMakingAndFirstZonesLeavesAPackTheNextStartLoads) {
    const char* s = std::getenv("ESA_MAKING_CUT_STRIDE");
    const unsigned stride = std::max(1ul, s ? std::strtoul(s, nullptr, 10) : 1ul);
    // The work after the making: Zones 2 to 4 made, Zone 3 freed, two more made.
    auto work = [](EsaProcess& esa) {
        for (const char* line : {"alloczones 3", "deallocateZone 3", "alloczones 2"})
            if (esa.console(line).rc == -1000) return false;  // the cut fell in this command
        return true;
    };
    unsigned cuts = 0;
    for (unsigned pass = 1; pass < 1000; pass += stride) {
        TestBoard board;
        createDisks(board, "8G,8G,12G");
        {
            EsaProcess esa(board.dir().string(), {}, {{"ESA_CRASH_AT", "j2.commit.mark:" + std::to_string(pass)}});
            if (esa.waitForConsole() && work(esa)) break;  // all of it took fewer marks: the sweep is over
            ASSERT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
        }
        ++cuts;
        const std::string after = "cut at commit mark " + std::to_string(pass);
        EXPECT_GE(restartAndCheck(board, after), 2u) << "Zones 0 and 1";
        ASSERT_FALSE(HasFailure()) << after;
    }
    EXPECT_GE(cuts, 20u) << "the making of a pack and its first Zones commit many sets";
}
