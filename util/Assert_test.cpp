// The assertion path inside one process: the restart status, the recorded
// reason, and a second failure met while diagnostics run.
#include "util/Assert.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/board/Board.h"
#include "util/Diagnostics.h"

namespace {

std::atomic<bool> gFailInsideDiagnostics{false};
void diagnosticThatFails(std::ostream& out) {
    out << "diagnostic running\n";
    if (gFailInsideDiagnostics) ESA_ASSERT(!"second failure inside diagnostics");
}
DiagnosticHandler gFailing(diagnosticThatFails, "TestFailingHandler", 5);

// The flush leaves a mark on the board, where the parent process can see it.
void countFlush() {
    std::ofstream(Board::GetInstance().path("flushed")) << "flushed";
    (void)!::write(2, "FLUSHED DISKS\n", 14);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(AssertionDeathTest, PrimaryFailureRecordsReasonAndFlushesDisks) {
    AssertionHooks::flushAllDisksBypassQueue = countFlush;
    EXPECT_EXIT(
        {
            ::dup2(2, 1);
            int x = 3;
            ESA_ASSERT_OP(x, ==, 4);
        },
        ::testing::ExitedWithCode(Board::kRestartExitStatus), "FLUSHED DISKS");
    std::string reason = readFile(Board::GetInstance().path("rebootreason"));
    EXPECT_NE(reason.find("3 == 4"), std::string::npos) << reason;
    EXPECT_EQ(reason.substr(15, 7), "Assert@");
}

TEST(AssertionDeathTest, SecondaryFailureInDiagnosticsDoesNotFlush) {
    std::filesystem::remove(Board::GetInstance().path("flushed"));
    AssertionHooks::flushAllDisksBypassQueue = countFlush;
    EXPECT_EXIT(
        {
            ::dup2(2, 1);
            gFailInsideDiagnostics = true;
            ESA_ASSERT(!"first failure");
        },
        ::testing::ExitedWithCode(Board::kRestartExitStatus),
        "Secondary ASSERT failure generating diags - scroll up to start of diags see original failure");
    EXPECT_FALSE(std::filesystem::exists(Board::GetInstance().path("flushed")));
}

}  // namespace
