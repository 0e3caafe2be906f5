#pragma once
// LunPattern: self-describing test data for a LUN. Every 32-bit word is a
// function of (seed, host LBA, word in the sector) only, so any stretch read
// back can be checked without a copy, and a misplaced or stale sector is
// recognised. Seed 0 means zeros (what a never-written LUN reads).
#include <cstdint>
#include <ostream>

#include "util/DataWindow.h"

namespace LunPattern {
inline uint32_t word(uint32_t seed, uint64_t lba, uint32_t index) {
    if (seed == 0) return 0;
    uint64_t x = (uint64_t(seed) << 32 ^ lba * 0x9E3779B97F4A7C15ull) + index * 0xBF58476D1CE4E5B9ull;
    x ^= x >> 31;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 29;
    return uint32_t(x) | 1u;  // never zero: a zeroed sector never passes for a pattern
}

// Fills `sectors` sectors of `window` from byte 0 with the pattern of `lba` on.
void fill(DataWindow& window, uint32_t seed, uint64_t lba, uint32_t sectors);
// Whether the window holds the pattern; the first bad sector goes to out.
bool matches(const DataWindow& window, uint32_t seed, uint64_t lba, uint32_t sectors, std::ostream* out);
}  // namespace LunPattern
