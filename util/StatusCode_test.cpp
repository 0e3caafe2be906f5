#include "util/StatusCode.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "util/Assert.h"
#include "util/PerfAccumulator.h"
#include "util/PrintHelpers.h"

TEST(StatusCode, PrintsNamesAndUnknownValues) {
    EXPECT_EQ(StatusCode(StatusCode::NoMoreLuns).Dump(), "StatusCode::NoMoreLuns");
    EXPECT_EQ(StatusCode(uint32_t(0x22)).Dump(), "*** ERROR - UNKNOWN STATUSCODE (34) ***");
    EXPECT_EQ(StatusCode(uint32_t(0xd02)).Dump(), "StatusCode::DM_DeviceTimeoutFlush");
    EXPECT_EQ(StatusCode(uint32_t(0xf02)).Dump(), "StatusCode::LastStatusCode");
    StatusCode ok;
    EXPECT_TRUE(ok == 0);
    EXPECT_FALSE(StatusCode(StatusCode::ReadError) == 0);
}

TEST(Accumulators, BinsByPowerOfTwoAndClamp) {
    EXPECT_EQ(PerfAccumulator::binFor(0), 0);
    EXPECT_EQ(PerfAccumulator::binFor(1), 0);
    EXPECT_EQ(PerfAccumulator::binFor(2), 1);
    EXPECT_EQ(PerfAccumulator::binFor(1023), 9);
    EXPECT_EQ(PerfAccumulator::binFor(1ull << 40), 31);
    PerfAccumulator acc;
    acc.add(5);
    acc.add(100);
    EXPECT_EQ(acc.samples, 2u);
    EXPECT_EQ(acc.min, 5u);
    EXPECT_EQ(acc.max, 100u);
    EXPECT_EQ(acc.total, 105u);
    LinearAccumulator lin;
    lin.add(3);
    lin.add(300);
    EXPECT_EQ(lin.bins[3], 1u);
    EXPECT_EQ(lin.bins[31], 1u);
}

TEST(PrintHelpers, TimeSizeAndHex) {
    EXPECT_EQ(TimeDumper(0).str(), "0us");
    EXPECT_EQ(TimeDumper(90061001001ull).str(), "1Days 1Hrs 1Mins 1Secs 1ms 1us");
    EXPECT_EQ(TimeDumper(90061001001ull, 2).str(), "1Days 1Hrs");
    EXPECT_EQ(SizeDumper(512).str(), "512 Bytes");
    EXPECT_EQ(SizeDumper(3ull << 30, 1).str(), "3.0 GiB");
    std::ostringstream os;
    os << std::dec << HexPrint(255, 4);
    EXPECT_EQ(os.str(), "0x00ff");
}

TEST(Assertion, RebootReasonStartsWithDateAndTime) {
    std::string r = assertionRebootReason("Assert@x.cpp:1 'a'");
    EXPECT_EQ(r.size(), 256u);
    EXPECT_TRUE(std::regex_match(r.substr(0, 15), std::regex("[0-9]{8} [0-9]{2}:[0-9]{2} ")));
    EXPECT_EQ(r.substr(15, 18), "Assert@x.cpp:1 'a'");
    std::string longText(400, 'x');
    EXPECT_EQ(assertionRebootReason(longText).find_last_not_of(' '), 15u + 241u - 1u);
}
