// The self-describing sectors esa-load --verify writes: every kind of wrong
// data a read can bring back is told apart from the right data.
#include <gtest/gtest.h>

#include <vector>

#include "tools/esa-load/VerifyBlock.h"

using namespace verify;

TEST(EsaLoadVerifyBlock, TheSectorWrittenIsTheSectorAccepted) {
    std::vector<uint8_t> s(kSector);
    fillSector(s.data(), 1, 1000, 7, 42);
    EXPECT_EQ(checkSector(s.data(), 1, 1000, 7, 42), "");
}

TEST(EsaLoadVerifyBlock, EachKindOfWrongDataIsNamed) {
    std::vector<uint8_t> s(kSector);
    fillSector(s.data(), 1, 1000, 7, 42);
    EXPECT_NE(checkSector(s.data(), 1, 1001, 7, 42).find("misplaced"), std::string::npos);
    EXPECT_NE(checkSector(s.data(), 1, 1000, 8, 42).find("stale"), std::string::npos);
    EXPECT_NE(checkSector(s.data(), 2, 1000, 7, 42).find("LUN"), std::string::npos);
    EXPECT_NE(checkSector(s.data(), 1, 1000, 7, 43).find("another run"), std::string::npos);
    auto flipped = s;
    flipped[300] ^= 0x01;  // one bit of the filler
    EXPECT_NE(checkSector(flipped.data(), 1, 1000, 7, 42).find("checksum"), std::string::npos);
    std::vector<uint8_t> zeros(kSector, 0);
    EXPECT_NE(checkSector(zeros.data(), 1, 1000, 7, 42).find("no block header"), std::string::npos);
}

TEST(EsaLoadVerifyBlock, FillersDifferBetweenGenerationsAndPlaces) {
    std::vector<uint8_t> a(kSector), b(kSector), c(kSector);
    fillSector(a.data(), 0, 5, 1, 9);
    fillSector(b.data(), 0, 5, 2, 9);
    fillSector(c.data(), 0, 6, 1, 9);
    EXPECT_NE(std::vector<uint8_t>(a.begin() + 36, a.end()), std::vector<uint8_t>(b.begin() + 36, b.end()));
    EXPECT_NE(std::vector<uint8_t>(a.begin() + 36, a.end()), std::vector<uint8_t>(c.begin() + 36, c.end()));
}
