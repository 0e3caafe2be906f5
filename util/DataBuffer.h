#pragma once
// DataBuffer: a plain descriptor of flat memory for copies to and from
// windows. It neither owns nor counts what it describes.
#include <cstdint>

struct DataBuffer {
    uint32_t length;
    unsigned char* pData;
};

// The sector: every data block length is a multiple of it.
constexpr uint32_t kDataSectorShift = 9;
constexpr uint32_t kDataSectorSize = 1u << kDataSectorShift;
// The size of a cache data block, taken from the block pools.
constexpr uint32_t kDataBlockPoolSize = 32768;
