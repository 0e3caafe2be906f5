#pragma once
// Explicit little- and big-endian stores and loads for on-disk and
// battery-backed records: a record is never copied to disk as a host struct.
#include <cstdint>

inline void putLE16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void putLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline void putLE64(uint8_t* p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline uint16_t getLE16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t getLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t getLE64(const uint8_t* p) { return uint64_t(getLE32(p)) | uint64_t(getLE32(p + 4)) << 32; }
inline void putBE16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void putBE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (24 - 8 * i));
}
inline void putBE64(uint8_t* p, uint64_t v) {
    putBE32(p, uint32_t(v >> 32));
    putBE32(p + 4, uint32_t(v));
}
inline uint16_t getBE16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t getBE32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}
inline uint64_t getBE64(const uint8_t* p) { return uint64_t(getBE32(p)) << 32 | getBE32(p + 4); }
