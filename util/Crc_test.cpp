#include "util/Crc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {
// Bit by bit, straight from the definition, as an independent check of the table form.
uint32_t bitwiseCrc(const uint8_t* p, size_t n) {
    uint32_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}
}  // namespace

TEST(Crc, KnownValuesAndZeroRuns) {
    EXPECT_EQ(GetCRC("123456789", 9), 0x2DFD2D88u);
    EXPECT_EQ(GetCRC("", 0), 0u);
    std::vector<uint8_t> zeros(512, 0);
    EXPECT_EQ(GetCRC(zeros.data(), zeros.size()), 0u);
}

TEST(Crc, TableFormMatchesTheDefinition) {
    std::vector<uint8_t> data(4096);
    uint32_t x = 12345;
    for (auto& b : data) {
        x = x * 1103515245u + 12345u;
        b = uint8_t(x >> 16);
    }
    for (size_t n : {1u, 7u, 96u, 512u, 4096u}) EXPECT_EQ(GetCRC(data.data(), n), bitwiseCrc(data.data(), n)) << n;
}
