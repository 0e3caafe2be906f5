#pragma once
// SharedMemoryPool: a MemoryPool whose blocks lie in a named shared data
// region of the board (opened, or created, with room for every block), so
// that another address space can reach the same memory.
#include <string>

#include "util/MemoryPool.h"

class SharedMemoryPool : public MemoryPool {
public:
    SharedMemoryPool(const char* regionName, const char* name, uint32_t numBlocks, uint32_t blockSize);
    const std::string& regionName() const { return mRegionName; }

private:
    static unsigned char* openRegion(const char* regionName, uint32_t numBlocks, uint32_t blockSize);
    std::string mRegionName;
};
