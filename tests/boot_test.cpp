// The appliance's start: switches, the decision to clear the disks, the
// initialisation order and boot checkpoints, the assertion path and the
// restart that reports it, run on the real esa binary on temporary boards.
#include <gtest/gtest.h>

#include <signal.h>

#include <regex>
#include <sstream>

#include "tests/support/EsaProcess.h"
#include "tests/support/TestBoard.h"

namespace {

constexpr int kRestartStatus = 75;

std::vector<std::string> linesContaining(const std::string& text, const std::string& needle) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.find(needle) != std::string::npos) out.push_back(line);
    return out;
}

// Boots to the idle loop and returns the output.
std::string bootToIdle(TestBoard& board, std::vector<std::string> args = {}) {
    EsaProcess esa(board.dir(), args);
    EXPECT_TRUE(esa.waitForConsole()) << esa.output();
    std::string out = esa.output();
    esa.kill9();
    return out;
}

TEST(Boot, WipeSwitchTouchesNothing) {
    TestBoard board;
    EsaProcess esa(board.path("never-created").string(), {"-w"});
    EXPECT_EQ(esa.wait(), 0);
    EXPECT_NE(esa.output().find("USE STANDANLONE WIPEDISK PROGRAM"), std::string::npos);
    EXPECT_FALSE(board.exists("never-created/board.json"));
    EXPECT_FALSE(board.exists("never-created/rfa"));
}

TEST(Boot, BadSwitchPrintsUsageAndFails) {
    TestBoard board;
    EsaProcess esa(board.path("never-created").string(), {"-x"});
    EXPECT_EQ(esa.wait(), 1);
    EXPECT_NE(esa.output().find("usage: "), std::string::npos);
    EXPECT_NE(esa.output().find("-f(actroyReset) -w(ipe disks)"), std::string::npos);
    EXPECT_FALSE(board.exists("never-created/board.json"));
}

TEST(Boot, PlainStartDoesNotClear) {
    TestBoard board;
    std::string out = bootToIdle(board, {"-r"});
    EXPECT_NE(out.find("ClearDisk(final) = 0"), std::string::npos);
    EXPECT_NE(out.find("FlashConfigData: ClearDisk = 0"), std::string::npos);
    EXPECT_EQ(out.find("The CLEARDISK flag is set"), std::string::npos);
}

TEST(Boot, ClearSwitchClears) {
    TestBoard board;
    std::string out = bootToIdle(board, {"-C"});
    EXPECT_NE(out.find("ClearDisk(final) = 1"), std::string::npos);
    EXPECT_NE(out.find("The CLEARDISK flag is set - the disks will be cleared"), std::string::npos);
}

TEST(Boot, FactoryResetDeletesFlashBeforeReadingIt) {
    TestBoard board;
    board.configure([](nlohmann::json&) {});
    board.writeFile("rfa/FlashConfigData", "demomode 1\ncleardisk 1\nmaxlunsize 7\n");
    std::string out = bootToIdle(board, {"-f", "-r"});
    EXPECT_NE(out.find("Performing Factory Reset"), std::string::npos);
    EXPECT_NE(out.find("FlashConfigData: DemoMode = 0"), std::string::npos);
    EXPECT_NE(out.find("ClearDisk(final) = 1"), std::string::npos);
    EXPECT_EQ(board.readFile("rfa/FlashConfigData").find("maxlunsize 7"), std::string::npos);
}

TEST(Boot, FormatOnStartMarkerClearsOnceAndIsLogged) {
    TestBoard board;
    board.configure([](nlohmann::json&) {});
    board.writeFile("rfa/FormatOnStart", "");
    std::string out = bootToIdle(board, {"-r"});
    EXPECT_NE(out.find("FormatOnStart file exists.  Will do ClearDisk."), std::string::npos);
    EXPECT_NE(out.find("ClearDisk(final) = 1"), std::string::npos);
    EXPECT_FALSE(board.exists("rfa/FormatOnStart"));
    EXPECT_NE(out.find("STANDALONE: software cleardisk DISCARDED because no disks available to load"),
              std::string::npos);
    // The marker triggers one clear only.
    std::string again = bootToIdle(board, {"-r"});
    EXPECT_NE(again.find("ClearDisk(final) = 0"), std::string::npos);
}

TEST(Boot, HeldButtonWinsOverFlashAndResetsLunSize) {
    TestBoard board;
    board.configure([](nlohmann::json& j) { j["clearButton"] = 1; });
    board.writeFile("rfa/FlashConfigData", "cleardisk 1\nmaxlunsize 9\n");
    std::string out = bootToIdle(board, {"-r"});
    EXPECT_NE(out.find("DISK_CLEAR button: 1"), std::string::npos);
    EXPECT_NE(out.find("  Clearing any prior MaxLUN size from flash"), std::string::npos);
    EXPECT_EQ(out.find("FlashConfigData: ClearDisk ="), std::string::npos);
    EXPECT_NE(out.find("ClearDisk(final) = 1"), std::string::npos);
    std::string flash = board.readFile("rfa/FlashConfigData");
    EXPECT_NE(flash.find("maxlunsize 0"), std::string::npos);
    EXPECT_NE(flash.find("cleardisk 1"), std::string::npos) << "only the management operation clears the key";
}

TEST(Boot, FlickeringButtonCountsAsReleased) {
    TestBoard board;
    board.configure([](nlohmann::json& j) { j["clearButton"] = "flicker"; });
    std::string out = bootToIdle(board, {"-r"});
    EXPECT_NE(out.find("DISK_CLEAR button not stable."), std::string::npos);
    EXPECT_NE(out.find("DISK_CLEAR button: 0"), std::string::npos);
    EXPECT_NE(out.find("ClearDisk(final) = 0"), std::string::npos);
}

TEST(Boot, FlashClearDiskKeyClearsAtEveryStart) {
    TestBoard board;
    board.configure([](nlohmann::json&) {});
    board.writeFile("rfa/FlashConfigData", "cleardisk 1\n");
    for (int start = 0; start < 2; ++start) {
        std::string out = bootToIdle(board, {"-r"});
        EXPECT_NE(out.find("ClearDisk flag is set in flash.  Will do ClearDisk automatically without button being "
                           "pressed!!!"),
                  std::string::npos);
        EXPECT_NE(out.find("ClearDisk(final) = 1"), std::string::npos);
    }
}

// The initialisation steps, as their checkpoints and lines appear, in order.
TEST(Boot, InitialisationRunsInOrder) {
    TestBoard board;
    std::string out = bootToIdle(board, {"-r"});
    const char* expected[] = {
        "ClearDisk(final) = 0", "Console configured", "TARVOPRO PLATFORM SOFTWARE BUILD",
        "Displaying enabled board features:", "After signals", "Debug init", "Creating MemoryBlockUncached pool",
        "SHJ1 @ 0x", "IdleMonitor Initialize passed", "EventLogManager Initialize passed",
        "RebootReason: ", "SM::ResetFirmwareBootCount", "NVRAM Initialize passed", "J2 Initialize passed",
        "HRManager Initialize passed", "EPM Initialize passed", "DiskManager Initialize passed",
        "DiskPackManager Initialize passed", "RegionManager Initialize passed", "ZoneManager Initialize passed",
        "LayoutManager Initialize passed", "Zone0InfoTable Initialize passed", "Calendar Server Initialize passed",
        "ClusterManager Initialize passed", "CatManager Initialize passed", "DeadlockWatchdog Initialize passed",
        "Host App Manager Initialize passed", "DiskUtilizationDaemon Initialize passed", "J1tag Initialize passed",
        "TopEnd Initialize passed", "Writejournal Initialize passed", "Dispatcher Initialize passed",
        "DataScrubber Initialize passed", "Cache init complete", "disabling event handling",
        "enabling event handling", "Load failure, clearing LEDs",
        "DISK PACK FAILED TO LOAD! USB IS UP BUT YOU CAN'T WRITE UNTIL PROBLEMS RECTIFIED!"};
    size_t pos = 0;
    for (const char* e : expected) {
        size_t at = out.find(e, pos);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << e << "\n" << out;
        pos = at;
    }
}

// The LED bar walks one light along and fixes one more LED at each pass; the
// patterns the board saw must be exactly what that rule gives.
TEST(Boot, CheckpointsDriveTheLedBar) {
    TestBoard board;
    bootToIdle(board, {"-r"});
    std::string log = board.readFile("board.log");
    std::vector<uint32_t> seen;
    std::regex ledWrite("ioctl 0x5444001a (0x[0-9a-f]+)");
    for (auto& line : linesContaining(log, "ioctl 0x5444001a")) {
        std::smatch m;
        ASSERT_TRUE(std::regex_search(line, m, ledWrite));
        seen.push_back(uint32_t(std::stoul(m[1].str(), nullptr, 16)));
    }
    ASSERT_GT(seen.size(), 12u) << "a boot passes more checkpoints than the bar has LEDs";
    // The independent model of the bar: all writes up to the final reset.
    int ledCount = 10, position = 0;
    uint32_t filled = 0;
    for (size_t i = 0; i + 1 < seen.size(); ++i) {
        position += 1;
        if (position > ledCount) {
            ledCount -= 1;
            filled |= 1u << ledCount;
            position = 1;
        }
        uint32_t expected = (filled + 0x3ff0000u) | (1u << (position - 1));
        ASSERT_EQ(seen[i], expected) << "checkpoint " << i;
    }
    EXPECT_EQ(seen.back(), 0x3ff0000u) << "a failed load resets the bar";
    EXPECT_NE(board.readFile("leds.json").find("\"ledBar\":67043328"), std::string::npos);
}

// A fatal Initialize step ends in the assertion path: the reason is recorded
// with the date, the board restarts the process, and the next start reports it.
TEST(Boot, FailedInitializeAssertsAndNextStartReportsIt) {
    TestBoard board;
    board.configure([](nlohmann::json& j) { j["pmuFail"] = true; });
    {
        EsaProcess esa(board.dir(), {"-r"});
        EXPECT_EQ(esa.wait(), kRestartStatus);
        std::string out = esa.output();
        EXPECT_NE(out.find("**SystemManager**Get PMU state syscall failed"), std::string::npos);
        EXPECT_NE(out.find("SystemManager Initialize failed - rebooting"), std::string::npos);
        EXPECT_NE(out.find("Assertion failed: pass"), std::string::npos);
        EXPECT_NE(out.find("Invoking DiagnosticHandler function for"), std::string::npos);
    }
    std::string reason = board.readFile("rebootreason");
    ASSERT_GE(reason.size(), 16u);
    EXPECT_TRUE(std::regex_match(reason.substr(0, 15), std::regex("[0-9]{8} [0-9]{2}:[0-9]{2} ")));
    EXPECT_EQ(reason.substr(15, 7), "Assert@");
    EXPECT_NE(reason.find("'pass'"), std::string::npos);

    board.configure([](nlohmann::json& j) { j["pmuFail"] = false; });
    EsaProcess esa(board.dir(), {"-r"});
    ASSERT_TRUE(esa.waitForConsole());
    EXPECT_NE(esa.output().find("RebootReason: " + reason.substr(0, 40)), std::string::npos);
    // From then on an unexpected end during boot leaves this reason.
    EXPECT_EQ(board.readFile("rebootreason"), "Unexpected reboot - possible OS crash during bootup");
    esa.kill9();
}

TEST(Boot, PowerSwitchEndsTheProcessQuietly) {
    TestBoard board;
    EsaProcess esa(board.dir(), {"-r"});
    ASSERT_TRUE(esa.waitForConsole());
    ::kill(esa.pid(), SIGTERM);
    EXPECT_EQ(esa.wait(), 0);
}

TEST(Boot, CrashPointEndsTheProcessThere) {
    TestBoard board;
    EsaProcess esa(board.dir(), {"-r"}, {{"ESA_CRASH_AT", "init.DiskManager"}});
    EXPECT_EQ(esa.wait(), 137);
    std::string out = esa.output();
    EXPECT_NE(out.find("EPM Initialize passed"), std::string::npos);
    EXPECT_EQ(out.find("DiskManager Initialize passed"), std::string::npos);
}

}  // namespace
