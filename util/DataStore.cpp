#include "util/DataStore.h"

#include "util/Assert.h"
#include "util/MemoryPool.h"

DataStore nullStore;

DataStore::DataStore() = default;

DataStore::DataStore(uint32_t size, bool uncached) {
    uint32_t n = (size + kDataBlockPoolSize - 1) / kDataBlockPoolSize;
    for (uint32_t i = 0; i < n; ++i) mStore.emplace_back(new DataBlock::DataBlockValue(kDataBlockPoolSize, uncached));
    mStoreLength = size;
}

DataStore::DataStore(unsigned char* pData, uint32_t length, MemoryPool* pool) {
    add(DataBlock(new DataBlock::DataBlockValue(pData, length, pool)));
}

DataStore::~DataStore() {
    ESA_ASSERT_OP(mLRUCount.load(), ==, 0);
    ESA_ASSERT_OP(mRefCount.load(), ==, 1);
    if (!mStore.empty() && mStore.front().pool()) mStore.front().pool()->ReturnBlocks(*this);
}

void DataStore::IncRef() {
    int32_t before = mRefCount.fetch_add(1);
    ESA_ASSERT_OP(before, >=, 1);
}

void DataStore::DecRef() {
    int32_t refs = mRefCount.load();
    ESA_ASSERT_OP(refs, >=, 1);
    ESA_ASSERT_OP(refs, >=, mLRUCount + 1);
    if (mRefCount.fetch_sub(1) == 1) {
        // The last holder: the destructor finds the count it expects.
        mRefCount.store(1);
        delete this;
    }
}

MemoryPool* DataStore::GetMemoryPool() const { return mStore.empty() ? nullptr : mStore.front().pool(); }

void DataStore::add(const DataBlock& block) {
    mStore.push_back(block);
    mStoreLength += block.length();
}

void DataStore::add(BlockList::iterator position, const DataBlock& block) {
    mStore.insert(position, block);
    mStoreLength += block.length();
}

void DataStore::add(uint32_t numBlocks, uint32_t blockSize) {
    for (uint32_t i = 0; i < numBlocks; ++i) add(DataBlock(new DataBlock::DataBlockValue(blockSize, false)));
}

void DataStore::remove(uint32_t numBlocks) {
    for (uint32_t i = 0; i < numBlocks; ++i) {
        ESA_ASSERT(!mStore.empty());
        shorten(mStore.front().length());
        mStore.pop_front();
    }
}

void DataStore::removeBytes(uint32_t numBytes) {
    uint32_t bytesRemoved = 0;
    while (bytesRemoved < numBytes) {
        ESA_ASSERT(!mStore.empty());
        bytesRemoved += mStore.front().length();
        ESA_ASSERT_OP(bytesRemoved, <=, numBytes);
        shorten(mStore.front().length());
        mStore.pop_front();
    }
}

void DataStore::move(DataStore& source) {
    mStore.splice(mStore.end(), source.mStore);
    mStoreLength += source.mStoreLength;
    source.mStoreLength = 0;
}

void DataStore::move(DataStore& source, uint32_t numBlocks, BlockList::iterator position) {
    for (uint32_t i = 0; i < numBlocks && !source.mStore.empty(); ++i) {
        uint32_t len = source.mStore.front().length();
        mStore.splice(position, source.mStore, source.mStore.begin());
        mStoreLength += len;
        source.shorten(len);
    }
}

void DataStore::moveBytes(DataStore& source, uint32_t numBytes) {
    uint32_t bytesMoved = 0;
    while (bytesMoved < numBytes) {
        ESA_ASSERT(!source.mStore.empty());
        uint32_t len = source.mStore.front().length();
        bytesMoved += len;
        ESA_ASSERT_OP(bytesMoved, <=, numBytes);
        mStore.splice(mStore.end(), source.mStore, source.mStore.begin());
        mStoreLength += len;
        source.shorten(len);
    }
}

void DataStore::begin(uint32_t offset, unsigned char*& pData, uint32_t& length) {
    pData = nullptr;
    length = 0;
    if (offset >= mStoreLength) return;
    uint32_t start = 0;
    for (DataBlock& b : mStore) {
        if (offset < start + b.length()) {
            uint32_t end = std::min(start + b.length(), mStoreLength);
            pData = b.data() + (offset - start);
            length = end - offset;
            return;
        }
        start += b.length();
    }
}

void DataStore::Validate() {
    // The blocks cover the length, and the last block is needed for it: a
    // store asked for 4,096 bytes legitimately holds one 32,768-byte block.
    uint64_t totalLength = 0;
    for (DataBlock& b : mStore) totalLength += b.length();
    ESA_ASSERT_OP(mStoreLength, <=, totalLength);
    if (!mStore.empty() && mStoreLength > 0) ESA_ASSERT_OP(totalLength - mStore.back().length(), <, uint64_t(mStoreLength));
}

std::ostream& operator<<(std::ostream& os, DataStore& store) {
    os << "DS: 0x" << std::hex << uintptr_t(&store) << std::dec << " refCount: " << store.refCount()
       << " LRU count: " << store.lruCount() << " storeLength: " << store.GetLength() << "\n"
       << "List of DataBlocks in DataStore:\n";
    for (DataBlock& b : store.blocks()) os << "  " << b << "\n";
    return os;
}
