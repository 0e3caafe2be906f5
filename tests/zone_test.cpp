// Zones on the real esa: Zones allocated on a new pack, a pattern written into
// them, a clean restart with one disk pulled (the pack loads degraded) and the
// pattern read back from what the other disks hold; then the console tools
// that check every Zone type and every copy; a disk pulled while esa runs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;


// A clean shutdown through the console: the journals and the disks' caches
// are written out before the process ends with the restart status.
void cleanRestart(EsaProcess& esa) {
    esa.console("reboot confirm");
    EXPECT_EQ(esa.wait(), 75) << esa.output();
}

}  // namespace

TEST(ZoneSystem, PatternsSurviveARestartWithADiskPulled) {
    TestBoard board;
    createDisks(board, "8G,8G,8G,8G");
    std::vector<unsigned> zones;
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        ConsoleResult alloc = esa.console("alloczones 2");
        ASSERT_EQ(alloc.rc, 0) << alloc.output;
        zones = allocatedZonesIn(alloc.output);
        ASSERT_EQ(zones.size(), 2u) << alloc.output;
        for (unsigned z : zones) {
            // Unaligned stretches over several stripe lines.
            ConsoleResult w = esa.console("writeVerifyZM " + std::to_string(z) + " 0x10200 0x61400 " +
                                          std::to_string(100 + z));
            EXPECT_EQ(w.rc, 0) << w.output;
        }
        ConsoleResult v = esa.console("verifyRedundancy " + std::to_string(zones[0]));
        EXPECT_EQ(v.rc, 0) << v.output;
        EXPECT_NE(v.output.find("1 zones checked, 0 mismatches"), std::string::npos) << v.output;
        cleanRestart(esa);
    }
    pullDisk(board, 2);
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        ConsoleResult state = esa.console("state DPM");
        EXPECT_NE(state.output.find("DISK PACK IS LOADED"), std::string::npos) << state.output << esa.output();
        for (unsigned z : zones) {
            ConsoleResult r = esa.console("writeVerifyZM " + std::to_string(z) + " 0x10200 0x61400 " +
                                          std::to_string(100 + z) + " verify");
            EXPECT_EQ(r.rc, 0) << r.output;
            EXPECT_NE(r.output.find("verify passed"), std::string::npos) << r.output;
            // Another seed's pattern is not there: the check can fail.
            ConsoleResult wrong = esa.console("writeVerifyZM " + std::to_string(z) + " 0x10200 0x61400 " +
                                              std::to_string(200 + z) + " verify");
            EXPECT_NE(wrong.rc, 0) << wrong.output;
        }
        esa.kill9();
    }
}

TEST(ZoneSystem, EveryZoneTypeTheDisksAllowPassesTheConsoleCheck) {
    TestBoard board;
    createDisks(board, "8G,8G,8G,8G,8G");
    EsaProcess esa(board.dir().string());
    ASSERT_TRUE(esa.waitForConsole()) << esa.output();
    ConsoleResult single = esa.console("testZoneData 7");
    EXPECT_EQ(single.rc, 0) << single.output;
    EXPECT_NE(single.output.find("testZoneData: "), std::string::npos) << single.output;
    EXPECT_NE(single.output.find(" 0 failed"), std::string::npos) << single.output;
    ConsoleResult dual = esa.console("testZoneData -dual 8");
    EXPECT_EQ(dual.rc, 0) << dual.output;
    EXPECT_NE(dual.output.find(" 0 failed"), std::string::npos) << dual.output;
    esa.kill9();
}

TEST(ZoneSystem, ADiskPulledWhileRunningLeavesItsLdMissingAndTheDataReadable) {
    TestBoard board;
    createDisks(board, "8G,8G,8G,8G");
    EsaProcess esa(board.dir().string());
    ASSERT_TRUE(esa.waitForConsole()) << esa.output();
    ConsoleResult alloc = esa.console("alloczones 1");
    std::vector<unsigned> zones = allocatedZonesIn(alloc.output);
    ASSERT_EQ(zones.size(), 1u) << alloc.output;
    const std::string zone = std::to_string(zones[0]);
    ASSERT_EQ(esa.console("writeVerifyZM " + zone + " 0x3000 0x50000 31").rc, 0);
    ConsoleResult pulled = esa.console("removeDisk 3");
    ASSERT_EQ(pulled.rc, 0) << pulled.output;
    // The hot-plug path runs on its own thread: wait until the pack has let the LD go.
    std::string state;
    for (int i = 0; i < 100; ++i) {
        state = esa.console("state DPM").output;
        if (state.find("MISSING") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_NE(state.find("LD #3 MISSING"), std::string::npos) << state << esa.output();
    ConsoleResult r = esa.console("writeVerifyZM " + zone + " 0x3000 0x50000 31 verify");
    EXPECT_EQ(r.rc, 0) << r.output;
    esa.kill9();
}
