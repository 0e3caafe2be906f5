// XOR over windows: windows cut into uneven extents give the same bytes as a
// plain loop over flat memory, chains go to the board 32 stretches at a time,
// and a board failure comes back as InternalError from every entry point.
#include <gtest/gtest.h>

#include <thread>

#include "zone/AdmaXor.h"
#include "zone/ParityTestSupport.h"
#include "zone/XORPerfInfo.h"
#include "zone/XORWindow.h"

using paritytest::randomBytes;
using paritytest::scattered;
using paritytest::whole;

namespace {

std::vector<uint8_t> xorOf(const std::vector<std::vector<uint8_t>>& buffers, size_t length) {
    std::vector<uint8_t> out(length, 0);
    for (auto& b : buffers)
        for (size_t i = 0; i < length; ++i) out[i] ^= b[i];
    return out;
}

class XORWindowTest : public ::testing::Test {
protected:
    void TearDown() override { injectXorFailures(0); }
    std::mt19937 rng{7};
};

TEST_F(XORWindowTest, ManySourcesOverScatteredWindows) {
    for (unsigned count = 1; count <= kXorMaxSources; ++count) {
        for (uint32_t length : {4u, 512u, 4096u, 12288u + 36u, 65536u}) {
            std::vector<std::vector<uint8_t>> src;
            std::vector<ExtentList> windows;
            for (unsigned s = 0; s < count; ++s) src.push_back(randomBytes(length, rng));
            for (auto& s : src) windows.push_back(scattered(s, rng, 4, 300));
            std::vector<uint8_t> dest(length, 0x5A);
            StatusCode status;
            XORWindow(scattered(dest, rng, 4, 300), windows.data(), count, status);
            ASSERT_TRUE(status.ok());
            ASSERT_EQ(dest, xorOf(src, length)) << "count " << count << " length " << length;
        }
    }
}

TEST_F(XORWindowTest, SourcesLongerThanDestAreReadOnlyToDestLength) {
    auto a = randomBytes(8192, rng), b = randomBytes(8192, rng);
    std::vector<uint8_t> dest(4096);
    ExtentList sources[] = {whole(a), whole(b)};
    StatusCode status;
    XORWindow(whole(dest), sources, 2, status);
    ASSERT_TRUE(status.ok());
    for (size_t i = 0; i < 4096; ++i) ASSERT_EQ(dest[i], a[i] ^ b[i]);
}

TEST_F(XORWindowTest, ChainOf32StretchesIsOneBoardRequestAndThe33rdStartsAnother) {
    for (uint32_t stretches : {32u, 33u, 64u, 65u}) {
        std::vector<uint8_t> a = randomBytes(stretches * 512, rng), b = randomBytes(stretches * 512, rng);
        std::vector<uint8_t> dest(stretches * 512);
        ExtentList destWindow;
        for (uint32_t i = 0; i < stretches; ++i) destWindow.add(dest.data() + i * 512, 512);
        ExtentList sources[] = {whole(a), whole(b)};
        const uint32_t before = XORPerfInfo::GetInstance().timings.samples;
        StatusCode status;
        XORWindow(destWindow, sources, 2, status);
        ASSERT_TRUE(status.ok());
        EXPECT_EQ(XORPerfInfo::GetInstance().timings.samples - before, (stretches + 31) / 32);
        EXPECT_EQ(dest, xorOf({a, b}, dest.size()));
    }
}

TEST_F(XORWindowTest, TwoWindowFormAccumulatesIntoDest) {
    auto dest = randomBytes(20000, rng), source = randomBytes(20000, rng);
    auto expect = xorOf({dest, source}, dest.size());
    StatusCode status;
    XORWindow(scattered(dest, rng, 4, 100), scattered(source, rng, 4, 100), status);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(dest, expect);
}

TEST_F(XORWindowTest, ProcessorFormsWithAndWithoutAccumulate) {
    auto a = randomBytes(9000, rng), b = randomBytes(9000, rng), c = randomBytes(9000, rng);
    for (bool accumulate : {false, true}) {
        for (bool three : {false, true}) {
            auto dest = randomBytes(9000, rng);
            std::vector<std::vector<uint8_t>> parts{a, b};
            if (three) parts.push_back(c);
            if (accumulate) parts.push_back(dest);
            auto expect = xorOf(parts, dest.size());
            StatusCode status;
            if (three)
                XORWindow(scattered(a, rng), scattered(b, rng), scattered(c, rng), scattered(dest, rng), accumulate,
                          status);
            else
                XORWindow(scattered(a, rng), scattered(b, rng), scattered(dest, rng), accumulate, status);
            ASSERT_TRUE(status.ok());
            EXPECT_EQ(dest, expect) << "accumulate " << accumulate << " three " << three;
        }
    }
}

TEST_F(XORWindowTest, XORBlockTakesWholeWordsOnly) {
    uint32_t a[4] = {0x11111111, 0x22222222, 0x33333333, 0x44444444};
    uint32_t b[4] = {0x01010101, 0x02020202, 0x03030303, 0x04040404};
    uint32_t c[4] = {0xF0F0F0F0, 0xF0F0F0F0, 0xF0F0F0F0, 0xF0F0F0F0};
    uint32_t dest[4] = {0, 0, 0, 0xDEADBEEF};
    XORBlock(a, b, dest, 15);  // three whole words
    EXPECT_EQ(dest[0], 0x10101010u);
    EXPECT_EQ(dest[2], 0x30303030u);
    EXPECT_EQ(dest[3], 0xDEADBEEFu);
    XORBlock(a, b, c, dest, 16);
    EXPECT_EQ(dest[3], 0x44444444u ^ 0x04040404u ^ 0xF0F0F0F0u);
}

TEST_F(XORWindowTest, BoardFailureIsInternalErrorFromEveryEntryPoint) {
    auto a = randomBytes(4096 * 40, rng), b = randomBytes(4096 * 40, rng), dest = randomBytes(4096 * 40, rng);
    ExtentList destWindow;
    for (uint32_t i = 0; i < 40; ++i) destWindow.add(dest.data() + i * 4096, 4096);
    ExtentList sources[] = {whole(a), whole(b)};
    StatusCode status;

    injectXorFailures(1);
    XORWindow(destWindow, sources, 2, status);
    EXPECT_EQ(status, StatusCode::InternalError);

    injectXorFailures(1, 1);  // the chain's second request (the 33rd stretch onward) fails
    XORWindow(destWindow, sources, 2, status);
    EXPECT_EQ(status, StatusCode::InternalError);

    injectXorFailures(1);
    XORWindow(whole(dest), whole(a), status);
    EXPECT_EQ(status, StatusCode::InternalError);

    // Dual parity: the horizontal request fails, then (one request later) the diagonal.
    std::vector<std::vector<uint8_t>> columns(4, std::vector<uint8_t>(4 * 4096));
    std::vector<ExtentList> src;
    for (unsigned c = 0; c < 4; ++c) src.push_back(whole(columns[c]));
    std::vector<uint8_t> h(4 * 4096), d(4 * 4096);
    for (unsigned pass : {0u, 1u}) {
        injectXorFailures(1, pass);
        XOR2DWindow(whole(h), whole(d), src.data(), 4, 4096, status);
        EXPECT_EQ(status, StatusCode::InternalError) << "failing request " << pass;
    }
    injectXorFailures(0);
    XOR2DWindow(whole(h), whole(d), src.data(), 4, 4096, status);
    EXPECT_TRUE(status.ok());
}

TEST_F(XORWindowTest, BadBoardRequestIsRefusedNotRun) {
    uint8_t dest[64] = {};
    uint8_t* sources[] = {dest, nullptr};
    StatusCode status;
    admaXor(2, sources, dest, sizeof dest, status);
    EXPECT_EQ(status, StatusCode::InternalError);
    admaXor(0, sources, dest, sizeof dest, status);
    EXPECT_EQ(status, StatusCode::InternalError);
}

TEST_F(XORWindowTest, WriterThreadsComputeParityAtTheSameTime) {
    // No lock is shared between callers; every thread must still get its own
    // correct parity while the others run.
    constexpr unsigned kThreads = 4, kRounds = 20;
    std::vector<std::thread> threads;
    std::vector<int> bad(kThreads, 0);
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &bad] {
            std::mt19937 local(100 + t);
            std::vector<std::vector<uint8_t>> cols;
            std::vector<ExtentList> src;
            for (unsigned c = 0; c < 6; ++c) cols.push_back(randomBytes(6 * 4096 * 4, local));
            for (auto& c : cols) src.push_back(whole(c));
            std::vector<uint8_t> h(cols[0].size()), d(cols[0].size()), firstD;
            for (unsigned r = 0; r < kRounds; ++r) {
                StatusCode status;
                XOR2DWindow(whole(h), whole(d), src.data(), 6, 4096, status);
                if (!status.ok() || h != xorOf(cols, h.size())) ++bad[t];
                if (r == 0) firstD = d;
                if (d != firstD) ++bad[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (unsigned t = 0; t < kThreads; ++t) EXPECT_EQ(bad[t], 0) << "thread " << t;
}

}  // namespace
