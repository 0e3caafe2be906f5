#pragma once
// ObjectPool<T>: a static pool of fixed-size entries for the small, long-lived
// objects of one class. A class takes part by deriving from ObjectPool<T>,
// which gives it class-level operator new and delete.
//
// Every entry is a 32-byte header followed by the object, so objects are
// 32-byte aligned. The header's first word is the link word: while an entry is
// free it links the stack of free entries; while an object lives it is 0 for a
// pool entry and the entry's own address for one taken from the heap. The word
// lies outside the object so that no constructor can overwrite it.
//
// An empty pool never fails: it falls back on the heap and counts that in
// mAllocFromHeap, the tuning record beside mMaxAllocated. A heap entry goes
// back to the heap even when the pool has room again. The state of each pool is
// guarded by its own small mutex, never by a process-wide lock.
//
// Each thread keeps a few entries it freed (up to kThreadCacheEntries, fewer
// for a small pool) and takes them back first, without the pool's mutex: the
// objects of the hottest paths (a cache hit's CTO and window panes) are made
// and freed by one thread, and many threads doing so must not queue on one
// mutex. A thread's entries go back to the pool when it ends. allocated()
// stays exact (entries a thread keeps are free); mMaxAllocated counts them as
// taken, so it may read a little high, never low.
#include <cstddef>
#include <cstdint>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <ostream>

#include "util/Assert.h"

template <class T>
class ObjectPool {
public:
    static constexpr size_t kHeaderBytes = 32;
    static constexpr size_t kAlignment = 32;

    // Adds entries until the pool holds `entries` in all. Later calls with a
    // larger count grow it; a smaller count changes nothing.
    static void Initialize(size_t entries) {
        std::lock_guard<std::mutex> g(lock());
        if (entries <= mPoolEntries) return;
        size_t add = entries - mPoolEntries;
        size_t stride = entryStride();
        void* chunk = std::aligned_alloc(kAlignment, add * stride);
        ESA_ASSERT_PTR(chunk, !=, nullptr);
        if (!pPoolBase) pPoolBase = chunk;
        char* base = static_cast<char*>(chunk);
        for (size_t i = 0; i < add; ++i) {
            void** link = reinterpret_cast<void**>(base + i * stride);
            *link = pStackTop;
            pStackTop = link;
        }
        mPoolEntries = entries;
        mObjectSize = sizeof(T);
    }

    static constexpr unsigned kThreadCacheEntries = 16;

    static void* operator new(size_t size) {
        void** link = nullptr;
        if (size == sizeof(T)) {
            ThreadCache& c = threadCache();
            if (c.top) {
                link = static_cast<void**>(c.top);
                c.top = *link;
                --c.count;
                *link = nullptr;
                cachedSlot().fetch_sub(1, std::memory_order_relaxed);
                return reinterpret_cast<char*>(link) + kHeaderBytes;
            }
            std::lock_guard<std::mutex> g(lock());
            if (pStackTop) {
                link = static_cast<void**>(pStackTop);
                pStackTop = *link;
                *link = nullptr;
                noteAllocated(false);
            }
        }
        if (!link) {
            void* mem = std::aligned_alloc(kAlignment, roundUp(kHeaderBytes + size));
            if (!mem) throw std::bad_alloc();
            link = static_cast<void**>(mem);
            *link = mem;
            std::lock_guard<std::mutex> g(lock());
            noteAllocated(true);
        }
        return reinterpret_cast<char*>(link) + kHeaderBytes;
    }

    static void operator delete(void* object) {
        if (!object) return;
        void** link = reinterpret_cast<void**>(static_cast<char*>(object) - kHeaderBytes);
        if (*link == nullptr) {
            ThreadCache& c = threadCache();
            if (c.count < threadCacheLimit() && !c.ending) {
                *link = c.top;
                c.top = link;
                ++c.count;
                cachedSlot().fetch_add(1, std::memory_order_relaxed);
                return;
            }
            std::lock_guard<std::mutex> g(lock());
            *link = pStackTop;
            pStackTop = link;
            --mAllocated;
            return;
        }
        ESA_ASSERT_PTR(*link, ==, link);
        {
            std::lock_guard<std::mutex> g(lock());
            --mAllocated;
        }
        std::free(link);
    }

    static void DumpPoolInfo(std::ostream& out) {
        int64_t kept = keptByThreads();
        std::lock_guard<std::mutex> g(lock());
        out << "ObjectPool Info: " << "mPoolEntries: " << mPoolEntries << " pPoolBase: " << pPoolBase
            << " mObjectSize: " << mObjectSize << "\n"
            << "Currently allocated: " << int64_t(mAllocated) - kept << "\n"
            << "Max allocated: " << mMaxAllocated << "\n"
            << "Allocated from the heap: " << mAllocFromHeap << "\n";
    }

    static size_t poolEntries() { return mPoolEntries; }
    static size_t allocated() {
        int64_t kept = keptByThreads();
        std::lock_guard<std::mutex> g(lock());
        return size_t(int64_t(mAllocated) - kept);
    }
    static size_t maxAllocated() { return mMaxAllocated; }
    static size_t allocFromHeap() { return mAllocFromHeap; }

private:
    static size_t roundUp(size_t n) { return (n + kAlignment - 1) / kAlignment * kAlignment; }
    static size_t entryStride() { return roundUp(kHeaderBytes + sizeof(T)); }
    static void noteAllocated(bool fromHeap) {
        if (fromHeap) ++mAllocFromHeap;
        if (++mAllocated > mMaxAllocated) mMaxAllocated = mAllocated;
    }
    static std::mutex& lock() {
        static std::mutex m;
        return m;
    }

    // The free entries one thread keeps, linked through their link words.
    struct ThreadCache {
        void* top = nullptr;
        unsigned count = 0;
        bool ending = false;
        ~ThreadCache() {
            ending = true;
            if (!top) return;
            std::lock_guard<std::mutex> g(lock());
            while (top) {
                void** link = static_cast<void**>(top);
                top = *link;
                *link = pStackTop;
                pStackTop = link;
                --mAllocated;
            }
            cachedSlot().fetch_sub(int64_t(count), std::memory_order_relaxed);
            count = 0;
        }
    };
    static ThreadCache& threadCache() {
        thread_local ThreadCache c;
        return c;
    }
    static unsigned threadCacheLimit() {
        size_t byPool = mPoolEntries / 64;  // a small pool is not spread over threads
        return unsigned(byPool < kThreadCacheEntries ? byPool : kThreadCacheEntries);
    }
    // How many entries the threads keep, counted in per-thread slots so that
    // keeping one writes no line that other threads write.
    static constexpr unsigned kCachedSlots = 16;
    struct alignas(64) CachedSlot {
        std::atomic<int64_t> value{0};
    };
    static std::atomic<int64_t>& cachedSlot() {
        static std::atomic<unsigned> next{0};
        thread_local unsigned mine = next.fetch_add(1, std::memory_order_relaxed) % kCachedSlots;
        return sCached[mine].value;
    }
    static inline CachedSlot sCached[kCachedSlots];
    static int64_t keptByThreads() {
        int64_t kept = 0;
        for (const CachedSlot& c : sCached) kept += c.value.load(std::memory_order_relaxed);
        return kept;
    }

    static inline void* pPoolBase = nullptr;
    static inline void* pStackTop = nullptr;
    static inline size_t mPoolEntries = 0;
    static inline size_t mObjectSize = 0;
    static inline size_t mAllocated = 0;
    static inline size_t mMaxAllocated = 0;
    static inline size_t mAllocFromHeap = 0;
};
