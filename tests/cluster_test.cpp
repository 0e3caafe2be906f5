// The cluster manager on the real esa through its console: allocation and
// freeing, the commands' output, a clean restart and a power cut that find
// the same bitmaps, surplus empty Zones given back, and power cuts at journal
// commit marks in the middle of allocations, after each of which the next
// start's checks find the bitmaps and the counters in agreement.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "platform/board/Board.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;

const char* kAllPassed = "All checks passed OK.";

struct PooledRun {
    unsigned zone, first, count;
};

std::vector<PooledRun> runsIn(const std::string& output) {
    std::vector<PooledRun> runs;
    std::regex line(R"(run (\d+) (\d+) (\d+))");
    for (auto it = std::sregex_iterator(output.begin(), output.end(), line); it != std::sregex_iterator(); ++it)
        runs.push_back({unsigned(std::stoul((*it)[1])), unsigned(std::stoul((*it)[2])), unsigned(std::stoul((*it)[3]))});
    return runs;
}

std::string freeCommand(const PooledRun& r, unsigned offset, unsigned count) {
    return "clearClusterState " + std::to_string(r.zone) + " " + std::to_string(r.first + offset) + " " +
           std::to_string(count);
}

// A command's output without its "Executing command" line.
std::string body(const ConsoleResult& r) {
    size_t nl = r.output.find('\n');
    return r.output.rfind("Executing command", 0) == 0 && nl != std::string::npos ? r.output.substr(nl + 1) : r.output;
}

// Waits for the first scan, then both checks.
void expectConsistent(EsaProcess& esa, const std::string& when) {
    ConsoleResult parse = esa.console("cmparse");
    EXPECT_EQ(parse.rc, 0) << when << "\n" << parse.output;
    ConsoleResult in = esa.console("cmcheck");
    EXPECT_NE(in.output.find(kAllPassed), std::string::npos) << when << "\n" << in.output;
    ConsoleResult ext = esa.console("cmcheck ext");
    EXPECT_NE(ext.output.find(kAllPassed), std::string::npos) << when << "\n" << ext.output;
}

}  // namespace

TEST(ClusterSystem, AllocationsAndFreesSurviveACleanRestartAndAPowerCut) {
    TestBoard board;
    createDisks(board, "16G,16G,16G");
    std::string zonesBefore;
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        expectConsistent(esa, "new pack");
        ConsoleResult a = esa.console("allocclusters 5000");
        ASSERT_EQ(a.rc, 0) << a.output;
        std::vector<PooledRun> runs = runsIn(a.output);
        ASSERT_FALSE(runs.empty()) << a.output;
        ASSERT_EQ(esa.console(freeCommand(runs[0], 100, 50)).rc, 0);
        ConsoleResult s = esa.console("getClusterState " + std::to_string(runs[0].zone) + " " +
                                      std::to_string(runs[0].first + 99) + " 3");
        EXPECT_NE(s.output.find(" " + std::to_string(runs[0].first + 99) + " allocated"), std::string::npos) << s.output;
        EXPECT_NE(s.output.find(" " + std::to_string(runs[0].first + 100) + " free"), std::string::npos) << s.output;
        // Shorter runs on request.
        esa.console("cmFragment 100");
        EXPECT_TRUE(esa.waitForOutput("Setting max ClusterRun length to 100")) << esa.output();
        ConsoleResult b = esa.console("allocclusters 1000");
        for (const PooledRun& r : runsIn(b.output)) EXPECT_LE(r.count, 100u) << b.output;
        EXPECT_EQ(esa.console("cmFragment 262080").rc, 0);
        // The commands' own texts, and their refusals.
        EXPECT_NE(esa.console("getBitmapLocation " + std::to_string(runs[0].zone)).output.find(" resides at zone:offset "),
                  std::string::npos);
        ConsoleResult bad = esa.console("addRun 2 10");
        EXPECT_NE(bad.rc, 0);
        EXPECT_NE(bad.output.find("Usage: addRun <ZoneNumber> <first Cluster> <last Cluster>"), std::string::npos);
        EXPECT_NE(esa.console(freeCommand({999, 0, 0}, 0, 1)).rc, 0);
        ConsoleResult state = esa.console("state CM");
        for (const char* label : {"Usable Clusters per Zone", "ClusterLowThreshold", "Previous pool low Zone Runs was",
                                  "Use of small ClusterRuns", " and greater"})
            EXPECT_NE(state.output.find(label), std::string::npos) << label << "\n" << state.output;
        ConsoleResult perf = esa.console("perf CM");
        for (const char* label : {"Cluster allocation timings:", "Cluster deallocation timings:",
                                  "Add free run to pool timings:", "Evict Zone Clusters from pool timings:",
                                  "Zone bitmap scanning timings:", "Zone parsing timings:"})
            EXPECT_NE(perf.output.find(label), std::string::npos) << label;
        expectConsistent(esa, "after allocations");
        zonesBefore = body(esa.console("cmzones"));
        esa.console("reboot confirm");
        EXPECT_EQ(esa.wait(), 75) << esa.output();
    }
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        expectConsistent(esa, "after a clean restart");
        EXPECT_EQ(body(esa.console("cmzones")), zonesBefore);
        ConsoleResult a = esa.console("allocclusters 777");
        ASSERT_EQ(a.rc, 0) << a.output;
        zonesBefore = body(esa.console("cmzones"));
        esa.kill9();  // the journal holds the last sets
    }
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        expectConsistent(esa, "after a power cut");
        EXPECT_EQ(body(esa.console("cmzones")), zonesBefore);
    }
}

TEST(ClusterSystem, SurplusEmptyZonesAreGivenBackAndTheLowestIsKept) {
    TestBoard board;
    createDisks(board, "16G,16G,16G");
    EsaProcess esa(board.dir().string());
    ASSERT_TRUE(esa.waitForConsole()) << esa.output();
    expectConsistent(esa, "new pack");
    ASSERT_EQ(esa.console("addCMZone").rc, 0);
    ASSERT_EQ(esa.console("addCMZone").rc, 0);
    const std::string zones = body(esa.console("cmzones"));
    std::regex zoneLine(R"(zone (\d+) free)");
    std::vector<unsigned> owned;
    for (auto it = std::sregex_iterator(zones.begin(), zones.end(), zoneLine); it != std::sregex_iterator(); ++it)
        owned.push_back(unsigned(std::stoul((*it)[1])));
    ASSERT_EQ(owned.size(), 3u) << zones;
    esa.console("cmparse");
    for (size_t i = 1; i < owned.size(); ++i)
        EXPECT_TRUE(esa.waitForOutput("Freeing zone " + std::to_string(owned[i]) + " as we have too many empty Zones"))
            << esa.output();
    const std::string after = body(esa.console("cmzones"));
    EXPECT_NE(after.find("zone " + std::to_string(owned[0]) + " free"), std::string::npos) << after;
    EXPECT_EQ(after.find("zone " + std::to_string(owned[1]) + " free"), std::string::npos) << after;
    expectConsistent(esa, "after the Zones were freed");
}

// A power cut at a journal commit mark, in turn later and later from the
// start: during the load, the first scan, allocations that add Zones, and
// frees. Every next start must find the bitmaps and counters in agreement.
// ESA_CM_CUT_MARKS=n sweeps the first n marks one by one instead.
TEST(ClusterSystem, PowerCutsAtCommitMarksDuringAllocationsLeaveBitmapsAndCountersInAgreement) {
    TestBoard board;
    createDisks(board, "16G,16G,16G");
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        esa.console("cmparse");
        esa.console("j2flush");
        esa.kill9();
    }
    std::vector<unsigned> marks = {2, 4, 6, 8, 11, 14, 18, 23, 30, 40};
    if (const char* n = std::getenv("ESA_CM_CUT_MARKS")) {
        marks.clear();
        for (unsigned i = 1; i <= std::strtoul(n, nullptr, 10); ++i) marks.push_back(i);
    }
    unsigned cutInWork = 0;
    for (unsigned mark : marks) {
        const std::string when = "cut at commit mark " + std::to_string(mark);
        {
            EsaProcess esa(board.dir().string(), {}, {{"ESA_CRASH_AT", "j2.commit.mark:" + std::to_string(mark)}});
            bool reached = esa.waitForConsole();
            bool finished = false;
            if (reached) {
                finished = true;
                for (int round = 0; round < 4 && finished; ++round) {
                    ConsoleResult a = esa.console("allocclusters " + std::to_string(2000 + 150000 * (round % 2)));
                    if (a.rc == -1000) finished = false;
                    std::vector<PooledRun> runs = runsIn(a.output);
                    for (size_t i = 0; finished && i < runs.size(); i += 2)
                        if (runs[i].count > 10 && esa.console(freeCommand(runs[i], 3, runs[i].count / 2)).rc == -1000)
                            finished = false;
                }
                if (!finished) ++cutInWork;
            }
            if (finished) esa.kill9();  // every mark passed: an ordinary power cut
            else EXPECT_EQ(esa.wait(), Board::kCrashPointExitStatus) << when << "\n" << esa.output();
        }
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << when << "\n" << esa.output();
        expectConsistent(esa, when);
        esa.console("j2flush");
        esa.kill9();
        ASSERT_FALSE(::testing::Test::HasFailure()) << when;
    }
    EXPECT_GE(cutInWork, 3u) << "the cuts must fall in the middle of allocations and frees";
}
