#include "util/Crc.h"

#include <mutex>

namespace {
uint32_t gTable[256];
std::once_flag gTableOnce;

void buildTable() {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        gTable[i] = c;
    }
}
}  // namespace

void InitCRC() { std::call_once(gTableOnce, buildTable); }

uint32_t GetCRC(const void* buffer, size_t length) {
    InitCRC();
    const auto* p = static_cast<const uint8_t*>(buffer);
    uint32_t crc = 0;
    for (size_t i = 0; i < length; ++i) crc = gTable[(crc ^ p[i]) & 0xff] ^ (crc >> 8);
    return crc;
}
