#pragma once
// Helpers of the parity engine's tests: pseudo-random buffers and windows cut
// into extents of uneven sizes, as windows over several stores are.
#include <cstdint>
#include <random>
#include <vector>

#include "zone/ExtentList.h"

namespace paritytest {

inline std::vector<uint8_t> randomBytes(size_t length, std::mt19937& rng) {
    std::vector<uint8_t> out(length);
    for (auto& b : out) b = uint8_t(rng());
    return out;
}

// A window over buffer, cut at random points (multiples of `grain` bytes)
// into extents of 1 to maxExtent grains.
inline ExtentList scattered(std::vector<uint8_t>& buffer, std::mt19937& rng, uint32_t grain = 4,
                            uint32_t maxExtent = 64) {
    ExtentList list;
    uint32_t pos = 0, length = uint32_t(buffer.size());
    while (pos < length) {
        uint32_t take = grain * (1 + rng() % maxExtent);
        if (take > length - pos) take = length - pos;
        list.add(buffer.data() + pos, take);
        pos += take;
    }
    return list;
}

inline ExtentList whole(std::vector<uint8_t>& buffer) { return ExtentList(buffer.data(), uint32_t(buffer.size())); }

}  // namespace paritytest
