#pragma once
// WJMemoryPool: the link between host write buffers in journal memory and
// DataBlocks. It has no blocks of its own: CreateStore wraps a buffer the
// transport placed in the write-buffer partition in a DataStore owned by this
// pool, and when the last reference to that store goes the buffer returns to
// the partition (ReturnBlock). It counts the stores it has made and not yet
// seen returned.
#include <atomic>
#include <cstdint>

#include "util/MemoryPool.h"

class WJMemoryPool : public MemoryPool {
public:
    // How a buffer goes back to the side that owns the partition.
    using FreeWriteBuffer = void (*)(unsigned char* address, unsigned long length);

    explicit WJMemoryPool(FreeWriteBuffer release = nullptr);

    DataStore* CreateStore(unsigned char* buffer, unsigned long length);
    void ReturnBlock(DataBlock& block) override;
    void ReturnBlocks(DataStore& store) override;

    uint32_t storesOut() const { return mStores.load(); }

private:
    FreeWriteBuffer mRelease;
    std::atomic<uint32_t> mStores{0};
};
