// The dealing of a stripe piece to its columns, checked against the placement
// worked out byte by byte: every byte once, in its column, at its Region offset.
#include "zone/ZoneReadColumns.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kBlock = 0x1000;

std::vector<uint8_t> bytesOf(const DataWindow& w) {
    std::vector<uint8_t> out(w.GetLength());
    DataBuffer b{uint32_t(out.size()), out.data()};
    w.Read(b);
    return out;
}

// A window of `length` bytes over several stores of uneven sizes, byte i of
// the piece holding a value derived from its Zone offset.
DataWindow pieceWindow(uint32_t offset, uint32_t length, std::mt19937& rng) {
    DataWindow window;
    for (uint32_t pos = 0; pos < length;) {
        uint32_t take = std::min<uint32_t>(length - pos, 512 * (1 + rng() % 24));
        DataWindow part(take, 0, take);
        std::vector<uint8_t> bytes(take);
        for (uint32_t i = 0; i < take; ++i) bytes[i] = uint8_t((offset + pos + i) * 2654435761u >> 13);
        DataBuffer b{take, bytes.data()};
        part.Write(b);
        window.add(part);
        pos += take;
    }
    return window;
}

void checkPiece(unsigned d, uint32_t boundary, uint32_t offset, uint32_t length, std::mt19937& rng) {
    SCOPED_TRACE("d=" + std::to_string(d) + " offset=" + std::to_string(offset) + " length=" + std::to_string(length));
    DataWindow window = pieceWindow(offset, length, rng);
    StripeColumns columns(window, offset, d, boundary);
    const uint32_t line = d * kBlock;
    // Expected: per column, Region offset -> byte, and the first Zone offset.
    std::vector<std::map<uint32_t, uint8_t>> expected(d);
    std::vector<int64_t> firstZone(d, -1);
    for (uint32_t x = offset; x < offset + length; ++x) {
        const unsigned c = (x / kBlock) % d;
        const uint32_t inRegion = (x % boundary) / line * kBlock + x % kBlock;
        expected[c][inRegion] = uint8_t(x * 2654435761u >> 13);
        if (firstZone[c] < 0) firstZone[c] = x;
    }
    uint32_t total = 0;
    for (unsigned c = 0; c < d; ++c) {
        total += columns.column(c).GetLength();
        ASSERT_EQ(columns.column(c).GetLength(), expected[c].size()) << "column " << c;
        if (expected[c].empty()) {
            EXPECT_TRUE(columns.empty(c));
            continue;
        }
        EXPECT_EQ(columns.zoneOffset(c), uint32_t(firstZone[c])) << "column " << c;
        const uint32_t start = expected[c].begin()->first;
        EXPECT_EQ(columns.regionOffset(c), start) << "column " << c;
        EXPECT_EQ(expected[c].rbegin()->first - start + 1, expected[c].size()) << "column " << c << " not contiguous";
        const std::vector<uint8_t> got = bytesOf(columns.column(c));
        for (const auto& [at, byte] : expected[c]) ASSERT_EQ(got[at - start], byte) << "column " << c << " at " << at;
    }
    EXPECT_EQ(total, length);
}

TEST(StripeColumns, EveryByteOnceInItsColumnAtItsRegionOffset) {
    std::mt19937 rng(9);
    for (unsigned d : {1u, 2u, 3u, 4u, 6u, 8u}) {
        const uint32_t boundary = d * 40 * kBlock;  // 40 lines per Region row
        for (int i = 0; i < 30; ++i) {
            const uint32_t group = rng() % 3;
            const uint32_t start = group * boundary + (rng() % (boundary / 512)) * 512;
            const uint32_t room = (group + 1) * boundary - start;
            uint32_t length = (1 + rng() % std::min<uint32_t>(room / 512, i % 3 ? 40 : 2000)) * 512;
            if (i % 7 == 0) length = std::min(room, 2 * d * kBlock);
            checkPiece(d, boundary, start, length, rng);
        }
    }
}

TEST(StripeColumns, EdgeShapes) {
    std::mt19937 rng(3);
    const unsigned d = 3;
    const uint32_t line = d * kBlock, boundary = 40 * line;
    // Inside one block: one column window.
    DataWindow inBlock = pieceWindow(kBlock + 512, 1024, rng);
    StripeColumns one(inBlock, kBlock + 512, d, boundary);
    EXPECT_TRUE(one.empty(0));
    EXPECT_EQ(one.column(1).GetLength(), 1024u);
    EXPECT_TRUE(one.empty(2));
    // Mid-line to mid-line of the next line: no full line, both ends walked.
    checkPiece(d, boundary, line + 2 * kBlock + 512, line, rng);
    // Exactly whole lines, starting at a Region row.
    checkPiece(d, boundary, boundary, 5 * line, rng);
    // Up to the end of a Region row.
    checkPiece(d, boundary, boundary - line - 512, line + 512, rng);
}

}  // namespace
