// Rebuilding lost columns: any one column of a single-parity stripe, any one
// or two columns of every dual-parity code, over every window size a recovery
// batch can have, come back byte for byte; three lost columns are refused.
#include <gtest/gtest.h>

#include <sstream>

#include "util/ConsoleCommand.h"
#include "zone/AdmaXor.h"
#include "zone/DRRecovery.h"
#include "zone/ParityTestSupport.h"
#include "zone/XORWindow.h"

using paritytest::randomBytes;
using paritytest::scattered;

namespace {

constexpr uint32_t kBlock = DRStripeCode::kBlockSize;

TEST(DRRecoveryMatrix, DiagonalListsAreTheBlocksOfTheSameDiagonalNumber) {
    // Independently of the walk: block (c, r) lies on diagonal (c - r) mod S,
    // whose parity is row (c - r) mod S of the diagonal column; diagonal S - 1
    // has none.
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        const DRRecoveryMatrix& m = DRRecoveryMatrix::ForCode(code);
        const unsigned W = code.paddedWidth(), S = code.columns(), R = code.rows();
        ASSERT_EQ(m.width(), W);
        ASSERT_EQ(m.rows(), R);
        for (unsigned x = 0; x < S; ++x)
            for (unsigned y = 0; y < R; ++y) {
                const unsigned diagonal = (x + S - y) % S;
                ASSERT_EQ(m.recoverableByDiagonal(x, y), diagonal != S - 1)
                    << "W " << W << " (" << x << "," << y << ")";
                if (diagonal == S - 1) continue;
                std::vector<unsigned> expect;
                for (unsigned r = 0; r < R; ++r) {
                    unsigned c = (diagonal + r) % S;
                    if (!(c == x && r == y)) expect.push_back(r * W + c);
                }
                std::vector<unsigned> list = m.diagonalList(x, y);
                ASSERT_EQ(list.size(), R);
                EXPECT_EQ(list.back(), diagonal * W + (W - 1));
                list.pop_back();
                std::sort(list.begin(), list.end());
                EXPECT_EQ(list, expect) << "W " << W << " (" << x << "," << y << ")";
            }
    }
}

// One DRStripe code's columns in memory, with windows cut unevenly.
struct DRStripeFixture {
    DRStripeFixture(const DRStripeCode& code, uint32_t lines, std::mt19937& rng) : code(code) {
        const size_t length = size_t(lines) * code.columnBlockSize();
        zeros.assign(length, 0);
        for (unsigned c = 0; c < code.width; ++c)
            stored.push_back(c < code.dataColumns ? randomBytes(length, rng) : std::vector<uint8_t>(length));
        for (unsigned z = 0; z < code.zeroColumns; ++z) windows.push_back(ExtentList(zeros.data(), uint32_t(length)));
        for (auto& column : stored) windows.push_back(scattered(column, rng, 512, 40));
        StatusCode status;
        XOR2DWindow(windows[code.paddedWidth() - 2], windows[code.paddedWidth() - 1], windows.data(),
                    code.sources(), kBlock, status);
        EXPECT_TRUE(status.ok());
        original = stored;
    }
    // Loses the given stored columns (garbage in their place) and rebuilds them.
    StatusCode loseAndRebuild(const std::vector<unsigned>& lostStored) {
        bool present[kXorMaxSources + 1];
        for (unsigned x = 0; x < code.paddedWidth(); ++x) present[x] = true;
        stored = original;
        for (unsigned c : lostStored) {
            present[code.zeroColumns + c] = false;
            std::fill(stored[c].begin(), stored[c].end(), uint8_t(0x6B));
        }
        return rebuildDRStripeColumns(code, windows.data(), present);
    }
    const DRStripeCode& code;
    std::vector<uint8_t> zeros;
    std::vector<std::vector<uint8_t>> stored, original;  // data columns, horizontal, diagonal
    std::vector<ExtentList> windows;
};

TEST(DRRecovery, AnyOneOrTwoColumnsOfEveryCodeComeBackForEveryBatchSize) {
    std::mt19937 rng(21);
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        const uint32_t batchLines = 0x100000 / code.superStripeLineSize();
        for (uint32_t lines : {1u, 2u, batchLines}) {
            DRStripeFixture f(code, lines, rng);
            for (unsigned a = 0; a < code.width; ++a)
                for (unsigned b = a; b < code.width; ++b) {
                    std::vector<unsigned> lost{a};
                    if (b != a) lost.push_back(b);
                    ASSERT_TRUE(f.loseAndRebuild(lost).ok()) << "DRStripe" << width << " lost " << a << "," << b;
                    for (unsigned c = 0; c < code.width; ++c)
                        ASSERT_EQ(f.stored[c], f.original[c]) << "DRStripe" << width << " lines " << lines << " lost "
                                                              << a << "," << b << " column " << c;
                }
        }
    }
}

TEST(DRRecovery, BothDataColumnsOfDRStripe4AlternateToTheEnd) {
    std::mt19937 rng(22);
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(4, code));
    DRStripeFixture f(code, 3, rng);
    ASSERT_TRUE(f.loseAndRebuild({0, 1}).ok());
    EXPECT_EQ(f.stored, f.original);
}

TEST(DRRecovery, ThreeLostColumnsAreRefused) {
    std::mt19937 rng(23);
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        DRStripeFixture f(code, 1, rng);
        EXPECT_EQ(f.loseAndRebuild({0, 1, code.width - 2}), StatusCode::InternalError) << "DRStripe" << width;
    }
}

TEST(DRRecovery, AFailedXorFailsTheRecovery) {
    std::mt19937 rng(24);
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(6, code));
    DRStripeFixture f(code, 1, rng);
    injectXorFailures(1);
    EXPECT_EQ(f.loseAndRebuild({0, 2}), StatusCode::InternalError);
    injectXorFailures(0);
    EXPECT_TRUE(f.loseAndRebuild({0, 2}).ok());
}

TEST(SingleParityRecovery, AnyOneColumnOfEveryHStripeWidthComesBack) {
    // HStripe3, 4, 5, 7, 9: d data columns and one parity; windows from one
    // block to 1 MiB of Zone data, cut unevenly.
    std::mt19937 rng(25);
    for (unsigned d : {2u, 3u, 4u, 6u, 8u}) {
        for (uint32_t length : {kBlock, 2 * kBlock, 0x100000 / d / kBlock * kBlock}) {
            std::vector<std::vector<uint8_t>> columns;
            for (unsigned c = 0; c < d; ++c) columns.push_back(randomBytes(length, rng));
            columns.emplace_back(length);
            std::vector<ExtentList> windows;
            for (auto& column : columns) windows.push_back(scattered(column, rng, 512, 30));
            StatusCode status;
            XORWindow(windows[d], windows.data(), d, status);
            ASSERT_TRUE(status.ok());
            const auto original = columns;
            for (unsigned lost = 0; lost <= d; ++lost) {
                columns = original;
                std::fill(columns[lost].begin(), columns[lost].end(), uint8_t(0x77));
                std::vector<ExtentList> others;
                for (unsigned c = 0; c <= d; ++c)
                    if (c != lost) others.push_back(windows[c]);
                XORWindow(windows[lost], others.data(), d, status);
                ASSERT_TRUE(status.ok());
                ASSERT_EQ(columns, original) << "d " << d << " length " << length << " lost " << lost;
            }
        }
    }
}

TEST(ParityConsole, TestDRRecoveryPassesAndSaysSo) {
    std::ostringstream out;
    EXPECT_EQ(ConsoleCommand::ExecuteLine("testDRRecovery", out), 0);
    EXPECT_NE(out.str().find("testDRRecovery PASSED"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("DRStripe10: 55 combinations"), std::string::npos) << out.str();
}

TEST(ParityConsole, CommandsFailOnBadArgumentsAndOnXorFailure) {
    std::ostringstream out;
    EXPECT_NE(ConsoleCommand::ExecuteLine("testDRRecovery zero", out), 0);
    EXPECT_NE(ConsoleCommand::ExecuteLine("xorPerf 3", out), 0);
    injectXorFailures(1);
    EXPECT_NE(ConsoleCommand::ExecuteLine("testDRRecovery 1", out), 0);
    EXPECT_NE(out.str().find("testDRRecovery FAILED"), std::string::npos);
    injectXorFailures(1, 3);
    EXPECT_NE(ConsoleCommand::ExecuteLine("xorPerf 4", out), 0);
    injectXorFailures(0);
    std::ostringstream good;
    EXPECT_EQ(ConsoleCommand::ExecuteLine("xorPerf 4", good), 0) << good.str();
    EXPECT_NE(good.str().find("XOR timings:"), std::string::npos);
}

}  // namespace
