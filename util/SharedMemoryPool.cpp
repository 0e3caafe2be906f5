#include "util/SharedMemoryPool.h"

#include "platform/board/Board.h"
#include "util/Assert.h"

unsigned char* SharedMemoryPool::openRegion(const char* regionName, uint32_t numBlocks, uint32_t blockSize) {
    size_t wanted = size_t(numBlocks) * blockSize;
    size_t actual = 0;
    void* base = Board::GetInstance().openRegion(regionName, wanted, &actual);
    ESA_ASSERT_PTR(base, !=, nullptr);
    ESA_ASSERT_OP(actual, >=, wanted);
    return static_cast<unsigned char*>(base);
}

SharedMemoryPool::SharedMemoryPool(const char* regionName, const char* name, uint32_t numBlocks, uint32_t blockSize)
    : MemoryPool(name, openRegion(regionName, numBlocks, blockSize), numBlocks, blockSize), mRegionName(regionName) {}
