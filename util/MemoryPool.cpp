#include "util/MemoryPool.h"

#include <cstdlib>

#include "platform/rtos/Rtos.h"
#include "util/Assert.h"
#include "util/Trace.h"

namespace {
Trace tMemoryPool("Util", "MemoryPool", "Info", true);
}

// ---- LRU

MemoryPool::LRU::LRU(const std::string& name) : mLock((name + "LRU").c_str(), 45) {}

void MemoryPool::LRU::AddToLRU(LruNode& node) {
    ReentrantLockObject::LockInstance g(&mLock);
    ESA_ASSERT(!node.active);
    mList.push_back(&node);
    node.active = true;
    node.placed.store(mPlacements.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    ++mEntries;
    node.lruStore()->incLRUCount();
}

void MemoryPool::LRU::RemoveFromLRU(LruNode& node) {
    ReentrantLockObject::LockInstance g(&mLock);
    ESA_ASSERT(node.active);
    mList.remove(&node);
    node.active = false;
    --mEntries;
    node.lruStore()->decLRUCount();
}

void MemoryPool::LRU::MarkMostRecentlyUsed(LruNode& node) {
    ReentrantLockObject::LockInstance g(&mLock);
    ESA_ASSERT(node.active);
    mList.remove(&node);
    mList.push_back(&node);
    node.placed.store(mPlacements.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

uint32_t MemoryPool::LRU::entries() {
    ReentrantLockObject::LockInstance g(&mLock);
    return mEntries;
}

StatusCode MemoryPool::LRU::FreeLeastRecentlyUsed(uint32_t wanted, bool evictDirty) {
    // The owner's lock first, with the LRU lock released. A pool with one
    // owner takes it without looking at the head, which another pass may be
    // destroying at this moment.
    LruOwner* owner = mOwner;
    if (owner) owner->lruLock();
    LruNode* head;
    {
        ReentrantLockObject::LockInstance g(&mLock);
        head = mList.front();
    }
    if (!head) {
        if (owner) owner->lruUnlock();
        return StatusCode::Success;
    }
    if (!owner) head->lruLockOwner();
    auto unlockOwner = [&] {
        if (owner) owner->lruUnlock();
        else head->lruUnlockOwner();
    };
    uint32_t freed = 0;
    while (freed < wanted) {
        mLock.Lock();
        LruNode* first = nullptr;
        LruNode* node = nullptr;
        for (;;) {
            node = mList.front();
            if (!node || node == first) {
                mLock.LockRelease();
                unlockOwner();
                return StatusCode::MP_NoFreeEntriesOnLRU;
            }
            mList.remove(node);
            DataStore* store = node->lruStore();
            if (store->refCount() == store->lruCount() && node->lruEvictable(evictDirty)) break;
            mList.push_back(node);
            if (!first) first = node;
        }
        node->active = false;
        --mEntries;
        DataStore* store = node->lruStore();
        freed += uint32_t(store->blockCount());
        store->decLRUCount();
        mLock.LockRelease();
        node->lruEvict();
    }
    unlockOwner();
    return StatusCode::Success;
}

// ---- pool

MemoryPool::MemoryPool(const char* name, uint32_t numBlocks, uint32_t blockSize)
    : mLRU(name), mLock((std::string(name) + "Lock").c_str(), 44), mName(name) {
    mOwnedMemory = static_cast<unsigned char*>(std::aligned_alloc(512, size_t(numBlocks) * blockSize));
    MemoryPoolInit(name, mOwnedMemory, numBlocks, blockSize);
}

MemoryPool::MemoryPool(const char* name, unsigned char* base, uint32_t numBlocks, uint32_t blockSize)
    : mLRU(name), mLock((std::string(name) + "Lock").c_str(), 44), mName(name) {
    MemoryPoolInit(name, base, numBlocks, blockSize);
}

MemoryPool::MemoryPool(const char* name)
    : mLRU(name), mLock((std::string(name) + "Lock").c_str(), 44), mName(name) {}

void MemoryPool::MemoryPoolInit(const char* name, unsigned char* bufferLoc, uint32_t numBlocks, uint32_t blockSize) {
    ESA_ASSERT_PTR(bufferLoc, !=, nullptr);
    ESA_ASSERT_OP(blockSize % (1 << (9)), ==, 0u);
    mBlockSize = blockSize;
    mNumEntries = numBlocks;
    for (uint32_t i = 0; i < numBlocks; ++i)
        mFreeStore.add(DataBlock(new DataBlock::DataBlockValue(bufferLoc + size_t(i) * blockSize, blockSize, this)));
    mFreeCount = numBlocks;
}

MemoryPool::~MemoryPool() {
    // The free blocks' values die with the pool, not back into it.
    for (DataBlock& b : mFreeStore.blocks()) b.value()->mMemoryPool = nullptr;
    mFreeStore.blocks().clear();
    std::free(mOwnedMemory);
}

uint32_t MemoryPool::freeCount() {
    ReentrantLockObject::LockInstance g(&mLock);
    return mFreeCount;
}

DataStore* MemoryPool::GetBlocks(uint32_t numBlocks) {
    DataStore* store = new DataStore;
    GetBlocks(*store, numBlocks);
    return store;
}

void MemoryPool::GetBlocks(DataStore& store, uint32_t numBlocks) {
    uint32_t blocksReqd = numBlocks;
    ESA_ASSERT_OP(blocksReqd, <=, mNumEntries);
    uint32_t attempts = 0;
    mLock.Lock();
    while (mFreeCount < blocksReqd) {
        uint32_t needed = blocksReqd - mFreeCount;
        mLock.LockRelease();
        if (mLRU.FreeLeastRecentlyUsed(needed, false) != StatusCode::Success) {
            if (SpillRequest hook = sSpillRequest.load()) {
                ++mSpillRequests;
                hook(*this, needed);
            }
            if (mLRU.FreeLeastRecentlyUsed(needed, false) != StatusCode::Success) {
                taskDelay(1);
                ++attempts;
            }
        }
        mLock.Lock();
        if (mFreeCount >= blocksReqd) break;
        if (attempts && attempts % 600 == 0)
            ESA_TRACE(tMemoryPool, "MemoryPool cannot service request: reqd=" << blocksReqd << ", avail=" << mFreeCount
                                                                              << ", poolsize=" << mNumEntries << " "
                                                                              << mName << " (Attempt number "
                                                                              << attempts << ") thread "
                                                                              << taskName(taskIdSelf()));
        if (attempts && attempts % 3600 == 0) ESA_ASSERT_OP(mFreeCount, >=, blocksReqd);
    }
    store.move(mFreeStore, blocksReqd, store.blocks().begin());
    mFreeCount -= blocksReqd;
    mLock.LockRelease();
}

void MemoryPool::ReturnBlock(DataBlock& block) {
    ReentrantLockObject::LockInstance g(&mLock);
    mFreeStore.add(block);
    block.value()->mRefCount.fetch_sub(1);
    block.forgetValue();
    ++mFreeCount;
}

void MemoryPool::ReturnBlocks(DataStore& store) {
    ReentrantLockObject::LockInstance g(&mLock);
    mFreeCount += uint32_t(store.blockCount());
    mFreeStore.move(store);
}
