#pragma once
// SharedMemoryPool: a MemoryPool whose blocks lie in a named shared region of
// the board ("/readbuffer" for the host LBA cache), so that the side that
// shares the region can read them in place. The region is opened (created on
// first use) with room for the blocks at a 512-byte boundary; the pool never
// frees it: regions live as long as the board.
#include <cstdint>
#include <string>

#include "util/MemoryPool.h"

class SharedMemoryPool : public MemoryPool {
public:
    SharedMemoryPool(const char* regionName, const char* name, uint32_t numBlocks, uint32_t blockSize);

    const std::string& regionName() const { return mRegionName; }
    unsigned char* base() const { return mBase; }

private:
    static unsigned char* regionBlocks(const char* regionName, uint32_t numBlocks, uint32_t blockSize);
    std::string mRegionName;
    unsigned char* mBase;
};
