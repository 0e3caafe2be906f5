#include "util/DataBlock.h"

#include <cstdlib>

#include "util/Assert.h"
#include "util/MemoryPool.h"
#include "util/PrintHelpers.h"

namespace {
unsigned char* alignedBlock(void* element) {
    uintptr_t a = reinterpret_cast<uintptr_t>(element);
    return static_cast<unsigned char*>(element) + 36 - ((a + 4) % 32);
}
}  // namespace

DataBlock::DataBlockValue::DataBlockValue(uint32_t blockSize, bool uncached) : blockSize(blockSize), owned(true) {
    ESA_ASSERT_OP(blockSize % (1 << (9)), ==, 0u);
    uint32_t size = blockSize;
    if (size == kDataBlockPoolSize) {
        if (uncached) {
            mUncachedBlock = new MemoryBlockUncached;
            pBlock = alignedBlock(mUncachedBlock->element);
        } else {
            mCachedBlock = new MemoryBlock;
            pBlock = alignedBlock(mCachedBlock->element);
        }
    } else if (size > 0) {
        pBlock = static_cast<unsigned char*>(std::aligned_alloc(32, size));
        ESA_ASSERT_PTR(pBlock, !=, nullptr);
    }
}

DataBlock::DataBlockValue::DataBlockValue(unsigned char* block, uint32_t size, MemoryPool* pool)
    : pBlock(block), blockSize(size), owned(false), mMemoryPool(pool) {
    ESA_ASSERT_PTR(pBlock, !=, NULL);
}

DataBlock::DataBlockValue::~DataBlockValue() {
    if (!owned) return;
    ESA_ASSERT_OP(mRefCount.load(), ==, 0u);
    if (mCachedBlock) delete mCachedBlock;
    else if (mUncachedBlock) delete mUncachedBlock;
    else std::free(pBlock);
}

DataBlock::DataBlock(DataBlockValue* value) : mValue(value) { mValue->mRefCount.fetch_add(1); }

DataBlock::DataBlock(const DataBlock& other) : mValue(other.mValue) { mValue->mRefCount.fetch_add(1); }

DataBlock& DataBlock::operator=(const DataBlock& other) {
    if (other.mValue == mValue) return *this;
    other.mValue->mRefCount.fetch_add(1);
    release();
    mValue = other.mValue;
    return *this;
}

DataBlock::~DataBlock() { release(); }

void DataBlock::release() {
    DataBlockValue* v = mValue;
    if (!v) return;
    uint32_t n = v->mRefCount.load();
    for (;;) {
        if (n == 1 && v->mMemoryPool) {
            // The pool takes this handle's reference; the value lives on in its free store.
            v->mMemoryPool->ReturnBlock(*this);
            mValue = nullptr;
            return;
        }
        if (v->mRefCount.compare_exchange_weak(n, n - 1)) break;
    }
    mValue = nullptr;
    if (n == 1) delete v;
}

std::ostream& operator<<(std::ostream& os, const DataBlock& block) {
    os << "DB: block 0x" << std::hex << uintptr_t(&block) << std::dec << " len = " << block.length()
       << " pData = 0x" << std::hex << uintptr_t(block.data()) << std::dec
       << " owned = " << block.value()->owned << " refCount = " << block.refCount();
    return os;
}
