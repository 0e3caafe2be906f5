#pragma once
// The HRM's Zone 0 record (directory entry 6, "HRM-Z0IT", version 1): the
// highest LUN in use and the LUN creates that wait for the next pack load.
// Little-endian, one 512-byte block at the start of the area:
//   0  1 byte   maxLun
//   4  4 bytes  "HRM-" (0x2d4d5248)
//   8  4 bytes  "Z0IT" (0x5449305a)
//   12 1 byte   number of pending LUN creates
//   16 8 each   sizes of the pending creates, in sectors
// Read and written field by field through the endian helpers.
#include <cstdint>
#include <cstring>

#include "util/Endian.h"

struct HrmZone0Record {
    static constexpr uint32_t kBlockBytes = 512;
    static constexpr uint32_t kWord1 = 0x2d4d5248;  // "HRM-"
    static constexpr uint32_t kWord2 = 0x5449305a;  // "Z0IT"
    static constexpr uint32_t kMaxPending = (kBlockBytes - 16) / 8;

    uint8_t bytes[kBlockBytes] = {};

    uint8_t maxLun() const { return bytes[0]; }
    void setMaxLun(uint8_t lun) { bytes[0] = lun; }
    bool signed_() const { return getLE32(bytes + 4) == kWord1 && getLE32(bytes + 8) == kWord2; }
    void sign() {
        putLE32(bytes + 4, kWord1);
        putLE32(bytes + 8, kWord2);
    }
    uint8_t pendingCount() const { return bytes[12]; }
    void setPendingCount(uint8_t n) { bytes[12] = n; }
    uint64_t pendingSize(unsigned i) const { return getLE64(bytes + 16 + 8 * i); }
    void setPendingSize(unsigned i, uint64_t size) { putLE64(bytes + 16 + 8 * i, size); }
    void clearPending() {
        setPendingCount(0);
        std::memset(bytes + 16, 0, kBlockBytes - 16);
    }
};
static_assert(sizeof(HrmZone0Record) == 512);
