#pragma once
// DataBlock: a counted handle on one contiguous piece of memory, the
// DataBlockValue. Copying a handle adds a reference. When the last handle of a
// pooled block goes, the block returns to its MemoryPool (the pool keeps the
// value alive for ever); otherwise the last handle destroys the value, which
// frees the memory if it owns it.
//
// Blocks of exactly 32,768 bytes come from the MemoryBlock pools (cached or
// uncached), so the I/O path does not allocate; other sizes are 32-byte
// aligned heap memory. Every block length is a multiple of 512.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "include/ObjectPool.h"
#include "util/DataBuffer.h"

class MemoryPool;

// The pool elements behind 32 KiB blocks: room for the block plus its
// alignment and bookkeeping.
struct MemoryBlock : ObjectPool<MemoryBlock> {
    static constexpr uint32_t kElementSize = 32804;
    unsigned char element[kElementSize];
};
struct MemoryBlockUncached : ObjectPool<MemoryBlockUncached> {
    static constexpr uint32_t kElementSize = 32804;
    unsigned char element[kElementSize];
};

class DataBlock {
public:
    class DataBlockValue {
    public:
        // Owned memory of `size` bytes.
        DataBlockValue(uint32_t size, bool uncached);
        // Memory owned elsewhere; returned to `pool` (may be null) with the last handle.
        DataBlockValue(unsigned char* pBlock, uint32_t size, MemoryPool* pool);
        ~DataBlockValue();
        DataBlockValue(const DataBlockValue&) = delete;
        DataBlockValue& operator=(const DataBlockValue&) = delete;

        std::atomic<uint32_t> mRefCount{0};
        unsigned char* pBlock = nullptr;
        uint32_t blockSize = 0;
        bool owned = false;
        MemoryPool* mMemoryPool = nullptr;
        MemoryBlock* mCachedBlock = nullptr;
        MemoryBlockUncached* mUncachedBlock = nullptr;
    };

    // Takes a reference on `value`.
    explicit DataBlock(DataBlockValue* value);
    DataBlock(const DataBlock& other);
    DataBlock& operator=(const DataBlock& other);
    virtual ~DataBlock();

    unsigned char* data() const { return mValue->pBlock; }
    uint32_t length() const { return mValue->blockSize; }
    MemoryPool* pool() const { return mValue->mMemoryPool; }
    uint32_t refCount() const { return mValue->mRefCount.load(); }
    DataBlockValue* value() const { return mValue; }

    // For MemoryPool::ReturnBlock: the pool has taken this handle's reference.
    void forgetValue() { mValue = nullptr; }

private:
    void release();
    DataBlockValue* mValue;
};

std::ostream& operator<<(std::ostream& os, const DataBlock& block);
