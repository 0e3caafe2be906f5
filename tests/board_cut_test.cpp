// The board's own power cut (esa-board cut): it ends the running esa as
// kill -9 does, at a moment the board chooses, notes it in board.log, and
// refuses a board where no esa runs; what was acknowledged before the cut is
// there at the next start, and the start prints the drives' seed so a run can
// be replayed.
#include <gtest/gtest.h>

#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

using namespace packimage;

namespace {
int boardCut(const TestBoard& board, const std::string& options = "") {
    std::string cmd = esaBinary("esa-board") + " cut " + board.dir().string() + " " + options + " >/dev/null 2>&1";
    return std::system(cmd.c_str());
}
}  // namespace

TEST(BoardCut, EndsTheRunningEsaAsAPowerCutAndTheAcknowledgedWritesSurvive) {
    TestBoard board;
    createDisks(board, "8G,8G,8G");
    EXPECT_NE(boardCut(board), 0) << "no esa runs on the board yet";
    std::vector<unsigned> zones;
    {
        EsaProcess esa(board.dir().string(), {}, {{"ESA_DRIVE_SEED", "4242"}});
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        EXPECT_NE(esa.output().find("drive cache random, ESA_DRIVE_SEED=4242"), std::string::npos) << esa.output();
        ConsoleResult alloc = esa.console("alloczones 1");
        zones = allocatedZonesIn(alloc.output);
        ASSERT_EQ(zones.size(), 1u) << alloc.output;
        ASSERT_EQ(esa.console("writeVerifyZM " + std::to_string(zones[0]) + " 0x2000 0x40000 77").rc, 0);
        EXPECT_EQ(boardCut(board, "--within 50 --seed 3"), 0);
        EXPECT_EQ(esa.wait(), 128 + 9) << "the process ends as by kill -9";
    }
    EXPECT_NE(board.readFile("board.log").find("power cut by the board"), std::string::npos);
    EXPECT_NE(boardCut(board), 0) << "the esa is gone";
    EsaProcess esa(board.dir().string());
    ASSERT_TRUE(esa.waitForConsole()) << esa.output();
    EXPECT_NE(esa.output().find("ESA_DRIVE_SEED="), std::string::npos) << "a drawn seed is printed too";
    ConsoleResult r = esa.console("writeVerifyZM " + std::to_string(zones[0]) + " 0x2000 0x40000 77 verify");
    EXPECT_EQ(r.rc, 0) << r.output;
    esa.kill9();
}
