#include "util/SharedMemoryPool.h"

#include "platform/board/Board.h"
#include "util/Assert.h"

unsigned char* SharedMemoryPool::regionBlocks(const char* regionName, uint32_t numBlocks, uint32_t blockSize) {
    size_t bytes = size_t(numBlocks) * blockSize + 512;
    size_t actual = 0;
    void* region = Board::GetInstance().openRegion(regionName, bytes, &actual);
    ESA_ASSERT_PTR(region, !=, nullptr);
    ESA_ASSERT_OP(actual, >=, bytes);
    uintptr_t a = (reinterpret_cast<uintptr_t>(region) + 511) & ~uintptr_t(511);
    return reinterpret_cast<unsigned char*>(a);
}

SharedMemoryPool::SharedMemoryPool(const char* regionName, const char* name, uint32_t numBlocks, uint32_t blockSize)
    : MemoryPool(name, regionBlocks(regionName, numBlocks, blockSize), numBlocks, blockSize),
      mRegionName(regionName),
      mBase(regionBlocks(regionName, numBlocks, blockSize)) {}
