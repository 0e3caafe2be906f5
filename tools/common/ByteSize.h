#pragma once
// Byte counts as the host tools take them on their command lines: a decimal
// number with an optional K, M or G (powers of 1024).
#include <cstdint>
#include <cstdlib>

inline bool parseByteSize(const char* text, uint64_t& out) {
    char* end = nullptr;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text) return false;
    switch (*end) {
    case 'k': case 'K': v <<= 10; ++end; break;
    case 'm': case 'M': v <<= 20; ++end; break;
    case 'g': case 'G': v <<= 30; ++end; break;
    default: break;
    }
    if (*end != 0) return false;
    out = v;
    return true;
}
