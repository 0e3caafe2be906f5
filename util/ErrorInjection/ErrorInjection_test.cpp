#include "util/ErrorInjection/ErrorInjection.h"

#include <gtest/gtest.h>

#include <sstream>

#include "util/ConsoleCommand.h"
#include "util/IOTracker.h"

namespace {

std::vector<bool> passes(ErrorInjection& e, int point, int n) {
    std::vector<bool> fired;
    for (int i = 0; i < n; ++i) {
        bool f = false;
        e.apiErrorInject(point, StatusCode::ReadError, f);
        fired.push_back(f);
    }
    return fired;
}

TEST(ErrorInjection, ModesFireAsTheOperatorAsked) {
    ErrorInjection e("zm");
    int p = e.addApiPoint("readFail", "fail a read");
    ASSERT_TRUE(e.enable(true, "readFail", ErrorInjection::Each, 3, 0, StatusCode()));
    EXPECT_EQ(passes(e, p, 7), (std::vector<bool>{false, false, true, false, false, true, false}));
    ASSERT_TRUE(e.enable(true, "readFail", ErrorInjection::After, 3, 0, StatusCode()));
    EXPECT_EQ(passes(e, p, 7), (std::vector<bool>{false, false, true, false, false, false, false}));
    ASSERT_TRUE(e.enable(true, "readFail", ErrorInjection::Until, 3, 0, StatusCode()));
    EXPECT_EQ(passes(e, p, 6), (std::vector<bool>{true, true, true, false, false, false}));
}

TEST(ErrorInjection, StatusReplacesTheCallersOwnOnlyWhenFired) {
    ErrorInjection e("rm");
    int p = e.addApiPoint("alloc", "fail an allocation");
    bool fired = true;
    EXPECT_EQ(e.apiErrorInject(p, StatusCode::ReadError, fired), StatusCode::Success);
    EXPECT_FALSE(fired);
    e.enable(true, "alloc", ErrorInjection::Each, 1, 0, StatusCode(StatusCode::OutOfSpace));
    EXPECT_EQ(e.apiErrorInject(p, StatusCode::ReadError, fired), StatusCode::OutOfSpace);
    EXPECT_TRUE(fired);
    e.enable(true, "alloc", ErrorInjection::Each, 1, 0, StatusCode());
    EXPECT_EQ(e.apiErrorInject(p, StatusCode::ReadError, fired), StatusCode::ReadError);
}

TEST(ErrorInjection, IoPointMarksTheTransaction) {
    ErrorInjection e("dm");
    int p = e.addIoPoint("write", "fail a write");
    IOTracker t(READ_WRITE);
    EXPECT_FALSE(e.ioErrorInject(p, t));
    EXPECT_EQ(t.flags & IOTracker::kFailNextIo, 0u);
    e.enable(false, "write", ErrorInjection::After, 2, 0, StatusCode());
    EXPECT_FALSE(e.ioErrorInject(p, t));
    EXPECT_TRUE(e.ioErrorInject(p, t));
    EXPECT_NE(t.flags & IOTracker::kFailNextIo, 0u);
    IOTracker u(READ_WRITE);
    EXPECT_FALSE(e.ioErrorInject(p, u)) << "after fires once";
    t.commit();
    u.commit();
}

TEST(ErrorInjection, ConsoleCommandsEnableByModule) {
    ErrorInjection e("cm");
    int p = e.addApiPoint("parse", "fail the parser");
    std::ostringstream out;
    EXPECT_EQ(ConsoleCommand::ExecuteLine("apiError cm enable parse after 2 0x0f", out), 0) << out.str();
    EXPECT_EQ(passes(e, p, 3), (std::vector<bool>{false, true, false}));
    out.str("");
    EXPECT_NE(ConsoleCommand::ExecuteLine("apiError nosuch list", out), 0);
    EXPECT_NE(out.str().find("Error: Unknown manager: nosuch"), std::string::npos);
    out.str("");
    EXPECT_NE(ConsoleCommand::ExecuteLine("ioError cm enable", out), 0);
    EXPECT_NE(out.str().find("Invalid IO Injection command."), std::string::npos);
    out.str("");
    EXPECT_EQ(ConsoleCommand::ExecuteLine("ioError clt list", out), -1) << "clt has no I/O points";
    EXPECT_NE(out.str().find("ioError injection modules are: rm zm dpm dis dm cm"), std::string::npos);
}

}  // namespace
