#include "util/WJMemoryPool.h"

#include "util/Trace.h"
#include "util/WriteBuffer.h"

namespace {
Trace tWJPool("Util", "WJMemoryPool", "Info", false);

// The partition lives in this process on this board: the free goes straight to it.
void freeToPartition(unsigned char* address, unsigned long length) {
    WriteBuffer::GetInstance().FreeBuffer(address, uint32_t(length));
}
}  // namespace

WJMemoryPool::WJMemoryPool(FreeWriteBuffer release)
    : MemoryPool("WJMemoryPool"), mRelease(release ? release : freeToPartition) {}

DataStore* WJMemoryPool::CreateStore(unsigned char* buffer, unsigned long length) {
    ++mStores;
    return new DataStore(buffer, uint32_t(length), this);
}

void WJMemoryPool::ReturnBlock(DataBlock& block) {
    DataBlock::DataBlockValue* v = block.value();
    mRelease(v->pBlock, v->blockSize);
    // The handle's reference was the last: the value dies here, not in a free store.
    block.forgetValue();
    v->mRefCount.store(0);
    delete v;
    --mStores;
}

void WJMemoryPool::ReturnBlocks(DataStore& store) {
    // The store's blocks return one by one as their handles go (ReturnBlock).
    ESA_TRACE(tWJPool, "WJMemoryPool::ReturnBlocks " << store.GetLength() << " bytes");
}
