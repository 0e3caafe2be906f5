#include "management/EventLogManager.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "platform/flash/Flash.h"
#include "util/ConsoleCommand.h"

namespace {
class EventLog : public testing::Test {
protected:
    void SetUp() override { std::remove(flashPath("/RFA/eventLog").c_str()); }
    std::unique_ptr<EventLogManager> fresh() {
        auto log = std::make_unique<EventLogManager>();
        log->Initialize(4, "EventLog", "/RFA/eventLog");
        return log;
    }
};
}  // namespace

TEST_F(EventLog, APostIsKeptInMemoryAndInTheFlashCopy) {
    auto log = fresh();
    testing::internal::CaptureStdout();
    log->PostEvent("disk inserted in slot 3");
    std::string console = testing::internal::GetCapturedStdout();
    EXPECT_NE(console.find("ELM: "), std::string::npos);
    EXPECT_NE(console.find(": disk inserted in slot 3"), std::string::npos) << console;
    ASSERT_EQ(log->events().size(), 1u);
    EXPECT_EQ(log->events().back(), "disk inserted in slot 3");
    EXPECT_EQ(log->flashEvents(), std::deque<std::string>{"disk inserted in slot 3"});
}

TEST_F(EventLog, LongLinesAreCutTo119Characters) {
    auto log = fresh();
    log->PostEvent(std::string(200, 'x'));
    EXPECT_EQ(log->events().back(), std::string(119, 'x'));
    EXPECT_EQ(log->flashEvents().back(), std::string(119, 'x'));
}

TEST_F(EventLog, TheFlashCopyKeepsTheLast200LinesAcrossARestart) {
    {
        auto log = fresh();
        for (int i = 0; i < 250; ++i) log->PostEvent("line " + std::to_string(i));
    }
    auto restarted = fresh();
    restarted->PostEvent("after restart");
    auto lines = restarted->flashEvents();
    ASSERT_EQ(lines.size(), 200u);
    EXPECT_EQ(lines.front(), "line 51");
    EXPECT_EQ(lines[198], "line 249");
    EXPECT_EQ(lines.back(), "after restart");
}

TEST_F(EventLog, TheDiskLogHasNoFlashCopy) {
    EventLogManager disk;
    disk.Initialize(12, "DiskLog ", "");
    disk.PostEvent("disk log line");
    EXPECT_TRUE(disk.flashEvents().empty());
    EXPECT_EQ(disk.events().size(), 1u);
}

TEST_F(EventLog, TheConsolePostsToTheEventLog) {
    EventLogManager::EventLog()->Initialize(4, "EventLog", "/RFA/eventLog");
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("eventpost operator was here", out);
    EXPECT_EQ(EventLogManager::EventLog()->events().back(), "operator was here");
}
