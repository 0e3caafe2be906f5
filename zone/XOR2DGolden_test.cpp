// The dual-parity layout is an on-disk format. These tests compute the parity
// of every DRStripe code from its defining formulas, byte by byte and without
// the engine, and demand the engine's parity be identical:
//   horizontal: E[n][r] = XOR of E[c][r] over c = 0..n-1
//   diagonal:   D[j] = XOR of E[(t + j) mod S][t] over t = 0..n-1, j = 0..n-1
// with the zero columns first among the n sources and S = n + 1.
#include <gtest/gtest.h>

#include "zone/DRStripeCode.h"
#include "zone/ParityTestSupport.h"
#include "zone/XORWindow.h"

using paritytest::scattered;
using paritytest::whole;

namespace {

constexpr uint32_t kBlock = DRStripeCode::kBlockSize;

// Deliberately naive: one byte at a time, straight from the formulas.
struct ReferenceDualParity {
    ReferenceDualParity(const DRStripeCode& code, const std::vector<std::vector<uint8_t>>& data, uint32_t lines,
                        bool textbookDiagonals = false)
        : code(code), data(data), lines(lines) {
        const unsigned n = code.sources(), S = code.columns(), R = code.rows();
        horizontal.assign(size_t(lines) * R * kBlock, 0);
        diagonal.assign(horizontal.size(), 0);
        for (uint32_t line = 0; line < lines; ++line)
            for (unsigned r = 0; r < R; ++r)
                for (uint32_t i = 0; i < kBlock; ++i) {
                    uint8_t v = 0;
                    for (unsigned c = 0; c < n; ++c) v ^= E(c, r, line, i);
                    horizontal[(size_t(line) * R + r) * kBlock + i] = v;
                }
        for (uint32_t line = 0; line < lines; ++line)
            for (unsigned j = 0; j < n; ++j)
                for (uint32_t i = 0; i < kBlock; ++i) {
                    uint8_t v = 0;
                    for (unsigned t = 0; t < n; ++t) {
                        // The textbook numbering (c + r) mod S, kept only to show the test can tell.
                        unsigned c = textbookDiagonals ? (j + S - t) % S : (t + j) % S;
                        v ^= E(c, t, line, i);
                    }
                    diagonal[(size_t(line) * R + j) * kBlock + i] = v;
                }
    }

    uint8_t E(unsigned c, unsigned r, uint32_t line, uint32_t i) const {
        const unsigned n = code.sources(), z = code.zeroColumns;
        const size_t at = (size_t(line) * code.rows() + r) * kBlock + i;
        if (c < z) return 0;
        if (c < n) return data[c - z][at];
        return horizontal[at];
    }

    const DRStripeCode& code;
    const std::vector<std::vector<uint8_t>>& data;
    uint32_t lines;
    std::vector<uint8_t> horizontal, diagonal;
};

// The engine's parity of the data columns, through windows cut unevenly. With
// zeroMemoryNamed the zero columns' memory is named to the engine, which then
// leaves those sources out.
void engineDualParity(const DRStripeCode& code, std::vector<std::vector<uint8_t>>& data, uint32_t lines,
                      std::vector<uint8_t>& horizontal, std::vector<uint8_t>& diagonal, std::mt19937& rng,
                      bool zeroMemoryNamed = false) {
    const size_t columnLength = size_t(lines) * code.columnBlockSize();
    std::vector<uint8_t> zeros(columnLength, 0);
    if (zeroMemoryNamed) setZeroSourceMemory(zeros.data(), zeros.size());
    std::vector<ExtentList> sources;
    for (unsigned z = 0; z < code.zeroColumns; ++z) sources.push_back(whole(zeros));
    for (auto& column : data) sources.push_back(scattered(column, rng, 512, 24));
    horizontal.assign(columnLength, 0xCC);
    diagonal.assign(columnLength, 0xCC);
    StatusCode status;
    XOR2DWindow(scattered(horizontal, rng, 512, 24), scattered(diagonal, rng, 512, 24), sources.data(),
                code.sources(), kBlock, status);
    setZeroSourceMemory(nullptr, 0);
    ASSERT_TRUE(status.ok());
}

std::vector<std::vector<uint8_t>> patternData(const DRStripeCode& code, uint32_t lines) {
    std::vector<std::vector<uint8_t>> data(code.dataColumns,
                                           std::vector<uint8_t>(size_t(lines) * code.columnBlockSize()));
    for (unsigned c = 0; c < code.dataColumns; ++c)
        for (size_t i = 0; i < data[c].size(); ++i)
            data[c][i] = uint8_t(c * 131 + (i / kBlock) * 17 + (i % kBlock) * 13 + (i >> 14));
    return data;
}

uint64_t fnv1a(const std::vector<uint8_t>& bytes, uint64_t h = 1469598103934665603ull) {
    for (uint8_t b : bytes) h = (h ^ b) * 1099511628211ull;
    return h;
}

TEST(DualParityGolden, DRStripe4VectorsOfTheDefinition) {
    // n = 2, S = 3, R = 2; every block a single distinct bit.
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(4, code));
    std::vector<std::vector<uint8_t>> data(2, std::vector<uint8_t>(2 * kBlock));
    auto fill = [&](unsigned c, unsigned r, uint8_t v) { std::fill_n(data[c].begin() + r * kBlock, kBlock, v); };
    fill(0, 0, 0x01);  // E[0][0]
    fill(0, 1, 0x02);  // E[0][1]
    fill(1, 0, 0x04);  // E[1][0]
    fill(1, 1, 0x08);  // E[1][1]
    std::mt19937 rng(4);
    std::vector<uint8_t> h, d;
    engineDualParity(code, data, 1, h, d, rng);
    // E[2][0] = 0x05, E[2][1] = 0x0A
    EXPECT_EQ(h[0], 0x05);
    EXPECT_EQ(h[kBlock], 0x0A);
    // D[0] = E[0][0] ^ E[1][1]; D[1] = E[1][0] ^ E[2][1]
    for (uint32_t i = 0; i < kBlock; ++i) {
        ASSERT_EQ(d[i], 0x01 ^ 0x08);
        ASSERT_EQ(d[kBlock + i], 0x04 ^ 0x0A);
    }
}

TEST(DualParityGolden, EveryCodeMatchesTheFormulasOverOneTwoAndManyLines) {
    std::mt19937 rng(11);
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        const uint32_t batchLines = 0x100000 / code.superStripeLineSize();  // up to 1 MiB of Zone data
        for (uint32_t lines : {1u, 2u, batchLines}) {
            std::vector<std::vector<uint8_t>> data(code.dataColumns);
            for (auto& column : data) column = paritytest::randomBytes(size_t(lines) * code.columnBlockSize(), rng);
            ReferenceDualParity ref(code, data, lines);
            std::vector<uint8_t> h, d;
            engineDualParity(code, data, lines, h, d, rng);
            ASSERT_EQ(h, ref.horizontal) << "DRStripe" << width << " lines " << lines;
            ASSERT_EQ(d, ref.diagonal) << "DRStripe" << width << " lines " << lines;
            // And the textbook numbering would not have passed.
            ReferenceDualParity textbook(code, data, lines, true);
            EXPECT_NE(d, textbook.diagonal) << "DRStripe" << width;
        }
    }
}

TEST(DualParityGolden, FixedPatternGivesTheRecordedParity) {
    // Digests of the parity of a fixed pattern, recorded from the byte-by-byte
    // reference: they pin the on-disk layout even if both sides were changed.
    struct Expected {
        unsigned width;
        uint64_t horizontal, diagonal;
    };
    const Expected expected[] = {
        {4, 0xd2fda3e40db1c383ull, 0xb07cdc8a53e9e383ull},  {5, 0x59cfb26dcf418383ull, 0x669ac215e831f383ull},
        {6, 0xc7e886b97ece2383ull, 0xcb0d46dbc9e4f383ull},  {8, 0xe8fd282ebbd34383ull, 0xaebac901e63a5383ull},
        {10, 0x9c6ebfcda030c383ull, 0xec1044622d302383ull},
    };
    std::mt19937 rng(12);
    for (const Expected& e : expected) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(e.width, code));
        auto data = patternData(code, 2);
        ReferenceDualParity ref(code, data, 2);
        std::vector<uint8_t> h, d;
        engineDualParity(code, data, 2, h, d, rng);
        EXPECT_EQ(fnv1a(ref.horizontal), e.horizontal) << "DRStripe" << e.width;
        EXPECT_EQ(fnv1a(ref.diagonal), e.diagonal) << "DRStripe" << e.width;
        EXPECT_EQ(h, ref.horizontal);
        EXPECT_EQ(d, ref.diagonal);
    }
}

TEST(DualParityGolden, ZeroColumnsLeftOutWhenTheirMemoryIsNamedGiveTheSameParity) {
    std::mt19937 rng(15);
    for (unsigned width : {5u, 10u}) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        std::vector<std::vector<uint8_t>> data(code.dataColumns);
        for (auto& column : data) column = paritytest::randomBytes(2 * code.columnBlockSize(), rng);
        ReferenceDualParity ref(code, data, 2);
        std::vector<uint8_t> h, d;
        engineDualParity(code, data, 2, h, d, rng, true);
        EXPECT_EQ(h, ref.horizontal) << "DRStripe" << width;
        EXPECT_EQ(d, ref.diagonal) << "DRStripe" << width;
    }
    // A stretch whose every source is zero memory comes out as zeros.
    std::vector<uint8_t> zeros(8192, 0), dest(8192, 0xEE);
    setZeroSourceMemory(zeros.data(), zeros.size());
    ExtentList sources[] = {whole(zeros), whole(zeros)};
    StatusCode status;
    XORWindow(whole(dest), sources, 2, status);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(dest, zeros);
    // The named memory is not read at all: were it not zeros, it would still
    // count as zeros.
    std::fill(zeros.begin(), zeros.end(), uint8_t(0xFF));
    std::vector<uint8_t> data = paritytest::randomBytes(8192, rng);
    ExtentList mixed[] = {whole(zeros), whole(data)};
    XORWindow(whole(dest), mixed, 2, status);
    setZeroSourceMemory(nullptr, 0);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(dest, data);
}

TEST(DualParityGolden, ZeroColumnsTakePartAsZeros) {
    // DRStripe5: one zero column in front; its blocks lie on diagonals too, so
    // the diagonal differs from a code that left the column out.
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(5, code));
    ASSERT_EQ(code.sources(), 4u);
    ASSERT_EQ(code.columns(), 5u);
    std::mt19937 rng(13);
    std::vector<std::vector<uint8_t>> data(3);
    for (auto& column : data) column = paritytest::randomBytes(code.columnBlockSize(), rng);
    std::vector<uint8_t> h, d;
    engineDualParity(code, data, 1, h, d, rng);
    // D[0] = E[0][0] ^ E[1][1] ^ E[2][2] ^ E[3][3] with E[0] the zero column.
    for (uint32_t i = 0; i < kBlock; i += 97)
        ASSERT_EQ(d[i], data[0][kBlock + i] ^ data[1][2 * kBlock + i] ^ data[2][3 * kBlock + i]);
    // D[1] = E[1][0] ^ E[2][1] ^ E[3][2] ^ E[4][3], E[4] the horizontal parity.
    for (uint32_t i = 0; i < kBlock; i += 97)
        ASSERT_EQ(d[kBlock + i], data[0][i] ^ data[1][kBlock + i] ^ data[2][2 * kBlock + i] ^ h[3 * kBlock + i]);
}

TEST(DualParityGolden, TargetsHoldEachDiagonalAtItsPositionWithTheSkipResetEveryLine) {
    // Columns whose blocks carry their own (column, row) in their first bytes.
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        ASSERT_TRUE(DRStripeCode::forWidth(width, code));
        const unsigned S = code.columns(), R = code.rows();
        const uint32_t lines = 2;
        std::vector<std::vector<uint8_t>> columns(S, std::vector<uint8_t>(size_t(lines) * R * kBlock));
        std::vector<ExtentList> windows;
        for (unsigned c = 0; c < S; ++c) {
            for (unsigned row = 0; row < lines * R; ++row) {
                columns[c][row * kBlock] = uint8_t(c);
                columns[c][row * kBlock + 1] = uint8_t(row);
            }
            windows.push_back(whole(columns[c]));
        }
        std::vector<ExtentList> targets(S - 1);
        buildXOR2DWindows(kBlock, windows.data(), targets.data(), S);
        for (unsigned t = 0; t < S - 1; ++t) {
            ASSERT_EQ(targets[t].length(), lines * (S - 1) * kBlock);
            for (uint32_t line = 0; line < lines; ++line)
                for (unsigned i = 0; i < S - 1; ++i) {
                    const uint8_t* block = targets[t][line * (S - 1) + i].data;
                    ASSERT_EQ(block[0], (t + i) % S) << "DRStripe" << width << " target " << t << " position " << i;
                    ASSERT_EQ(block[1], line * R + t);
                }
        }
    }
}

TEST(DualParityGolden, DiagonalAloneEqualsTheDiagonalOfBoth) {
    std::mt19937 rng(14);
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(8, code));
    std::vector<std::vector<uint8_t>> data(code.dataColumns);
    for (auto& column : data) column = paritytest::randomBytes(3 * code.columnBlockSize(), rng);
    std::vector<uint8_t> h, d;
    engineDualParity(code, data, 3, h, d, rng);
    std::vector<ExtentList> columns;
    for (auto& column : data) columns.push_back(scattered(column, rng, 4, 2000));
    columns.push_back(whole(h));
    std::vector<uint8_t> alone(d.size(), 0x33);
    StatusCode status;
    XORDiagonalWindow(whole(alone), columns.data(), code.columns(), kBlock, status);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(alone, d);
}

}  // namespace
