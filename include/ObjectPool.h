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
#include <cstddef>
#include <cstdint>
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

    static void* operator new(size_t size) {
        void** link = nullptr;
        if (size == sizeof(T)) {
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
        std::lock_guard<std::mutex> g(lock());
        out << "ObjectPool Info: " << "mPoolEntries: " << mPoolEntries << " pPoolBase: " << pPoolBase
            << " mObjectSize: " << mObjectSize << "\n"
            << "Currently allocated: " << mAllocated << "\n"
            << "Max allocated: " << mMaxAllocated << "\n"
            << "Allocated from the heap: " << mAllocFromHeap << "\n";
    }

    static size_t poolEntries() { return mPoolEntries; }
    static size_t allocated() { return mAllocated; }
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

    static inline void* pPoolBase = nullptr;
    static inline void* pStackTop = nullptr;
    static inline size_t mPoolEntries = 0;
    static inline size_t mObjectSize = 0;
    static inline size_t mAllocated = 0;
    static inline size_t mMaxAllocated = 0;
    static inline size_t mAllocFromHeap = 0;
};
