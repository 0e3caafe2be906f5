#pragma once
// MemoryPool: a fixed set of equal data blocks (32 KiB for the caches) and
// the LRU list of what the cache keeps in them. Free blocks sit in a free
// store; GetBlocks moves them into a working store, evicting least recently
// used cache entries while too few are free; a store's destruction returns
// its blocks in one splice (ReturnBlocks), and the last handle of a lone
// block returns it (ReturnBlock). Block values live as long as the pool.
//
// Lock order: the owner's lock (the cache tracker's mLock), then the LRU
// lock; the pool lock is never held while evicting.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>

#include "util/DataStore.h"
#include "util/ReentrantLockObject.h"
#include "util/StatusCode.h"
#include "util/dList.h"

// The owner of LRU entries (the cache tracker): its lock is taken before the
// LRU lock while evicting, and it outlives the entries it destroys.
class LruOwner {
public:
    virtual ~LruOwner() = default;
    virtual void lruLock() = 0;
    virtual void lruUnlock() = 0;
};

// An entry of a pool's LRU list: the cache puts one in each cached range that
// has a store. The cache decides what "dirty" and "locked" mean and how an
// entry is destroyed; the pool decides when.
class LruNode : public dNode {
public:
    bool active = false;  // on the LRU list
    // When it was last put at the tail, in the LRU's count of placements.
    std::atomic<uint64_t> placed{0};
    virtual DataStore* lruStore() = 0;
    // False while the entry is dirty (unless evictDirty) or locked.
    virtual bool lruEvictable(bool evictDirty) = 0;
    // Destroys the entry; its store's last reference returns the blocks.
    virtual void lruEvict() = 0;
    // Without an owner set on the LRU (LRU::setOwner), the lock of the
    // entry's owner, taken through the head entry: only for entries that
    // lruEvict does not destroy.
    virtual void lruLockOwner() {}
    virtual void lruUnlockOwner() {}
};

class MemoryPool {
public:
    class LRU {
    public:
        explicit LRU(const std::string& name);
        void AddToLRU(LruNode& node);
        void RemoveFromLRU(LruNode& node);
        void MarkMostRecentlyUsed(LruNode& node);
        // The same for the hottest path, where the LRU's lock and list ends
        // would be written by every thread's every hit: a node that is
        // already among the most recently placed quarter of the list (at
        // least the last kNewestPlacements placed) stays where it is (no
        // lock, no write); an older one moves to the tail. Eviction order is
        // exact except within that newest part.
        static constexpr uint32_t kNewestPlacements = 32;
        void MarkRecentlyUsed(LruNode& node) {
            uint64_t window = std::max<uint64_t>(mEntries.load(std::memory_order_relaxed) / 4, kNewestPlacements);
            if (mPlacements.load(std::memory_order_relaxed) - node.placed.load(std::memory_order_relaxed) < window)
                return;
            MarkMostRecentlyUsed(node);
        }
        // Evicts from the head until `wanted` blocks came free; entries that
        // cannot go move to the tail. MP_NoFreeEntriesOnLRU after one round
        // with nothing evictable.
        StatusCode FreeLeastRecentlyUsed(uint32_t wanted, bool evictDirty);
        uint32_t entries();
        // The one owner of every entry (the cache tracker that owns the pool).
        void setOwner(LruOwner* owner) { mOwner = owner; }

    private:
        dList<LruNode> mList;  // head: least recently used
        LruOwner* mOwner = nullptr;
        std::atomic<uint32_t> mEntries{0};
        std::atomic<uint64_t> mPlacements{0};  // placements at the tail so far (written under mLock)
        ReentrantLockObject mLock;
    };

    // Takes 512-byte aligned memory for the blocks from the heap.
    MemoryPool(const char* name, uint32_t numBlocks, uint32_t blockSize);
    // Uses memory given by the caller.
    MemoryPool(const char* name, unsigned char* base, uint32_t numBlocks, uint32_t blockSize);
    virtual ~MemoryPool();
    MemoryPool(const MemoryPool&) = delete;
    MemoryPool& operator=(const MemoryPool&) = delete;

    // A new store of numBlocks blocks (length numBlocks x block size).
    DataStore* GetBlocks(uint32_t numBlocks);
    void GetBlocks(DataStore& store, uint32_t numBlocks);
    virtual void ReturnBlock(DataBlock& block);
    virtual void ReturnBlocks(DataStore& store);

    // Pinned metadata must never starve a pool: when eviction finds nothing
    // because committed ranges wait for the journal, GetBlocks asks the
    // journal to spill (it then lets those ranges go) instead of only waiting
    // toward the fatal retry limit. The journal installs the hook; without
    // one (metadata written straight through) nothing is pinned for long.
    using SpillRequest = void (*)(MemoryPool& pool, uint32_t blocksNeeded);
    static void setSpillRequest(SpillRequest hook) { sSpillRequest.store(hook); }
    uint64_t spillRequests() const { return mSpillRequests.load(); }

    LRU& lru() { return mLRU; }
    uint32_t numEntries() const { return mNumEntries; }
    uint32_t freeCount();
    uint32_t blockSize() const { return mBlockSize; }
    const std::string& name() const { return mName; }

protected:
    // A pool that holds no blocks of its own (WJMemoryPool).
    explicit MemoryPool(const char* name);
    void MemoryPoolInit(const char* name, unsigned char* bufferLoc, uint32_t numBlocks, uint32_t blockSize);

    LRU mLRU;
    uint32_t mNumEntries = 0;
    uint32_t mFreeCount = 0;
    DataStore mFreeStore;
    ReentrantLockObject mLock;
    uint32_t mBlockSize = 0;

private:
    static inline std::atomic<SpillRequest> sSpillRequest{nullptr};
    std::atomic<uint64_t> mSpillRequests{0};
    std::string mName;
    unsigned char* mOwnedMemory = nullptr;
};
