#pragma once
// BufferAllocator: `count` fixed buffers of `size` bytes in one 32-byte
// aligned area, for driver-facing uses such as test reads. A descriptor per
// buffer sits on the free or the busy list. FreeBlock of an address outside
// the area, or of a buffer that is not busy, changes nothing.
#include <cstdint>
#include <mutex>
#include <vector>

class BufferAllocator {
public:
    BufferAllocator(int count, unsigned short size);
    ~BufferAllocator();
    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    // A free buffer, or null when all are busy.
    void* GetBlock();
    void FreeBlock(void* address);

    int count() const { return mCount; }
    int busyCount();

private:
    struct Descriptor {
        Descriptor* next = nullptr;
        Descriptor* prev = nullptr;
        int index = 0;
        unsigned char* buffer = nullptr;
        bool busy = false;
    };
    static void unlink(Descriptor*& head, Descriptor* d);
    static void push(Descriptor*& head, Descriptor* d);

    std::mutex mMutex;
    int mCount;
    unsigned short mSize;
    Descriptor* mFree = nullptr;
    Descriptor* mBusy = nullptr;
    unsigned char* mBase = nullptr;
    std::vector<Descriptor> mIndex;
};
