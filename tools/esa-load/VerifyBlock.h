#pragma once
// Self-describing sectors for esa-load --verify. Every 512-byte sector of a
// written block says where it belongs and which write put it there: LUN,
// LBA, generation, the run's seed, and a checksum over the whole sector, so
// a read can tell misplaced, stale, torn and corrupt data apart.
// Layout (little-endian): 0 magic "ESAL", 4 LUN, 8 LBA, 16 generation,
// 24 seed, 32 checksum (FNV-1a over the sector with this field zero),
// 36.. filler derived from LBA, generation and seed.
#include <cstdint>
#include <cstring>
#include <string>

namespace verify {

constexpr uint32_t kSector = 512;
constexpr uint32_t kMagic = 0x4c415345;  // "ESAL"

inline void put32(uint8_t* p, uint32_t v) { for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i)); }
inline void put64(uint8_t* p, uint64_t v) { for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (8 * i)); }
inline uint32_t get32(const uint8_t* p) { uint32_t v = 0; for (int i = 3; i >= 0; --i) v = (v << 8) | p[i]; return v; }
inline uint64_t get64(const uint8_t* p) { uint64_t v = 0; for (int i = 7; i >= 0; --i) v = (v << 8) | p[i]; return v; }

inline uint32_t checksum(const uint8_t* sector) {
    uint32_t h = 2166136261u;
    for (uint32_t i = 0; i < kSector; ++i) h = (h ^ (i >= 32 && i < 36 ? 0 : sector[i])) * 16777619u;
    return h;
}

inline void fillSector(uint8_t* s, uint32_t lun, uint64_t lba, uint64_t generation, uint64_t seed) {
    put32(s, kMagic);
    put32(s + 4, lun);
    put64(s + 8, lba);
    put64(s + 16, generation);
    put64(s + 24, seed);
    put32(s + 32, 0);
    uint64_t x = (lba * 0x9e3779b97f4a7c15ull) ^ (generation << 17) ^ seed ^ 0x5851f42d4c957f2dull;
    for (uint32_t i = 36; i < kSector; i += 4) {
        x ^= x << 13; x ^= x >> 7; x ^= x << 17;
        put32(s + i, uint32_t(x));
    }
    put32(s + 32, checksum(s));
}

// Empty when the sector is the one expected, else what is wrong with it.
inline std::string checkSector(const uint8_t* s, uint32_t lun, uint64_t lba, uint64_t generation, uint64_t seed) {
    if (get32(s) != kMagic) return "no block header (never written, or overwritten by something else)";
    if (get32(s + 32) != checksum(s)) return "checksum mismatch (corrupt or torn sector)";
    if (get32(s + 4) != lun) return "sector of LUN " + std::to_string(get32(s + 4));
    if (get64(s + 8) != lba) return "sector of LBA " + std::to_string(get64(s + 8)) + " (misplaced)";
    if (get64(s + 24) != seed) return "sector of another run";
    if (get64(s + 16) != generation)
        return "generation " + std::to_string(get64(s + 16)) + ", expected " + std::to_string(generation) +
               " (stale or lost write)";
    return {};
}

}  // namespace verify
