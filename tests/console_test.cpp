// The console over its socket, on a running appliance: help, unknown
// commands, traces, reboot and crash.
#include <gtest/gtest.h>

#include "tests/support/EsaProcess.h"
#include "tests/support/TestBoard.h"

namespace {

class Console : public ::testing::Test {
protected:
    void SetUp() override {
        esa = std::make_unique<EsaProcess>(board.dir().string(), std::vector<std::string>{"-r"});
        ASSERT_TRUE(esa->waitForConsole()) << esa->output();
    }
    TestBoard board;
    std::unique_ptr<EsaProcess> esa;
};

TEST_F(Console, HelpListsEveryCommandSorted) {
    ConsoleResult r = esa->console("help");
    EXPECT_EQ(r.rc, 0);
    for (const char* name : {"apiError", "apropos", "crash", "flash", "help", "ioError", "listTraces", "reboot",
                             "trace", "tracing", "uptime"})
        EXPECT_NE(r.output.find(std::string("\n") + name + " - "), std::string::npos) << name;
    EXPECT_LT(r.output.find("\napiError - "), r.output.find("\napropos - "));
}

TEST_F(Console, UnknownCommandAndEmptyApropos) {
    ConsoleResult r = esa->console("noSuchCommand 1 2");
    EXPECT_EQ(r.rc, -1);
    EXPECT_NE(r.output.find("Command 'noSuchCommand' not found"), std::string::npos);
    ConsoleResult all = esa->console("apropos");
    ConsoleResult help = esa->console("help");
    auto body = [](const std::string& s) { return s.substr(s.find('\n') + 1); };
    EXPECT_EQ(body(all.output), body(help.output));
}

TEST_F(Console, TraceSwitchesMatchingStreams) {
    ConsoleResult r = esa->console("trace :vrbh: on");
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.output.find("systemmanager:vrbh:flow is enabled"), std::string::npos);
    r = esa->console("trace systemmanager");
    EXPECT_NE(r.output.find("Missing colon"), std::string::npos);
    r = esa->console("trace nosuch:: on");
    EXPECT_NE(r.output.find("No matching streams found"), std::string::npos);
    r = esa->console("trace a:b:c sideways");
    EXPECT_NE(r.output.find("Unknown parameter sideways"), std::string::npos);
    r = esa->console("listTraces");
    EXPECT_NE(r.output.find("Debug tracing is globally enabled"), std::string::npos);
    EXPECT_NE(r.output.find("systemmanager:vrbh:flow is enabled"), std::string::npos);
}

TEST_F(Console, RebootNeedsConfirm) {
    ConsoleResult r = esa->console("reboot");
    EXPECT_EQ(r.rc, -1);
    EXPECT_NE(r.output.find("Append the word \"confirm\" to reboot the array"), std::string::npos);
    r = esa->console("reboot confirm now");
    EXPECT_EQ(r.rc, -1);
    EXPECT_TRUE(esa->running());
    // Only seven characters are compared.
    r = esa->console("reboot confirmXYZ");
    EXPECT_EQ(esa->wait(), 75);
    EXPECT_NE(r.output.find("Performing a clean shutdown and reboot of the array"), std::string::npos);
    EXPECT_NE(esa->output().find("Calling safeReboot"), std::string::npos);
    EXPECT_EQ(board.readFile("rebootreason"), "esa reboot command");
}

TEST_F(Console, CrashConfirmTakesTheAssertionPath) {
    ConsoleResult r = esa->console("crash");
    EXPECT_NE(r.rc, 0);
    esa->console("crash confirm");
    EXPECT_EQ(esa->wait(), 75);
    EXPECT_NE(esa->output().find("Assertion failed: crash confirm"), std::string::npos);
    EXPECT_NE(board.readFile("rebootreason").find("'crash confirm'"), std::string::npos);
}

TEST_F(Console, FlashSettingSurvivesRestart) {
    ConsoleResult r = esa->console("flash set nohost 1");
    EXPECT_EQ(r.rc, 0);
    r = esa->console("flash set nosuchkey 1");
    EXPECT_NE(r.output.find("Flash value nosuchkey not known"), std::string::npos);
    esa->kill9();
    esa = std::make_unique<EsaProcess>(board.dir().string(), std::vector<std::string>{"-r"});
    ASSERT_TRUE(esa->waitForConsole());
    EXPECT_NE(esa->output().find("Host connection bringup DISABLED"), std::string::npos);
    // With the host side disabled a failed load does not bring the transport up.
    EXPECT_EQ(esa->output().find("DISK PACK FAILED TO LOAD!"), std::string::npos);
    r = esa->console("flash get nohost");
    EXPECT_NE(r.output.find("nohost = 1"), std::string::npos);
}

}  // namespace
