#pragma once
// DataStore: a reference-counted, ordered list of DataBlocks that makes one
// byte space of mStoreLength bytes. The length is what was asked for, which
// may end inside the last block (a store made for 4,096 bytes holds one
// 32,768-byte block). Windows view stores through panes, each pane holding one
// reference; the store dies with its last DecRef.
//
// Invariants: mRefCount >= 1 while the store lives and >= mLRUCount + 1
// before a release; at destruction mRefCount is 1 and mLRUCount 0. All blocks
// of a pooled store come from one pool; destruction gives them back to it in
// one splice. Counts are atomics; the block list belongs to whoever holds the
// store's range lock.
#include <atomic>
#include <concepts>
#include <cstdint>
#include <list>
#include <ostream>

#include "include/ObjectPool.h"
#include "util/DataBlock.h"

class DataStore : public ObjectPool<DataStore> {
public:
    using BlockList = std::list<DataBlock>;

    DataStore();
    // (size + 32,767) / 32,768 pooled blocks of 32,768 bytes; length `size`.
    DataStore(uint32_t size, bool uncached);
    // numBlocks owned blocks of blockSize bytes; length their product.
    template <std::integral N, std::integral S>
        requires(!std::same_as<S, bool>)
    DataStore(N numBlocks, S blockSize) : DataStore() {
        add(uint32_t(numBlocks), uint32_t(blockSize));
    }
    // One block over outside memory, not owned; returned to `pool` if given.
    DataStore(unsigned char* pData, uint32_t length, MemoryPool* pool = nullptr);
    virtual ~DataStore();
    DataStore(const DataStore&) = delete;
    DataStore& operator=(const DataStore&) = delete;

    void IncRef();
    void DecRef();
    int32_t refCount() const { return mRefCount.load(); }
    int32_t lruCount() const { return mLRUCount.load(); }
    void incLRUCount() { mLRUCount.fetch_add(1); }
    void decLRUCount() { mLRUCount.fetch_sub(1); }

    uint32_t GetLength() const { return mStoreLength; }
    MemoryPool* GetMemoryPool() const;
    size_t blockCount() const { return mStore.size(); }
    BlockList& blocks() { return mStore; }

    void add(const DataBlock& block);
    void add(BlockList::iterator position, const DataBlock& block);
    void add(uint32_t numBlocks, uint32_t blockSize);
    void remove(uint32_t numBlocks);
    void removeBytes(uint32_t numBytes);
    void move(DataStore& source);
    void move(DataStore& source, uint32_t numBlocks, BlockList::iterator position);
    void moveBytes(DataStore& source, uint32_t numBytes);

    // The address of byte `offset` and the bytes from there to the end of its
    // block (within the store's length); null and 0 past the end.
    void begin(uint32_t offset, unsigned char*& pData, uint32_t& length);
    void Validate();

private:
    void shorten(uint32_t bytes) { mStoreLength = bytes > mStoreLength ? 0 : mStoreLength - bytes; }

    BlockList mStore;
    std::atomic<int32_t> mLRUCount{0};
    std::atomic<int32_t> mRefCount{1};
    uint32_t mStoreLength = 0;
};

// The store of an empty window; no window ever takes a reference on it.
extern DataStore nullStore;

std::ostream& operator<<(std::ostream& os, DataStore& store);
