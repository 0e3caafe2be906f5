#include "util/BufferAllocator.h"

#include <cstdlib>

#include "util/Assert.h"

BufferAllocator::BufferAllocator(int count, unsigned short size) : mCount(count), mSize(size), mIndex(size_t(count)) {
    size_t bytes = (size_t(count) * size + 31) / 32 * 32;
    mBase = static_cast<unsigned char*>(std::aligned_alloc(32, bytes ? bytes : 32));
    ESA_ASSERT_PTR(mBase, !=, nullptr);
    for (int i = count - 1; i >= 0; --i) {
        mIndex[size_t(i)].index = i;
        mIndex[size_t(i)].buffer = mBase + size_t(i) * size;
        push(mFree, &mIndex[size_t(i)]);
    }
}

BufferAllocator::~BufferAllocator() { std::free(mBase); }

void BufferAllocator::unlink(Descriptor*& head, Descriptor* d) {
    if (d->prev) d->prev->next = d->next;
    else head = d->next;
    if (d->next) d->next->prev = d->prev;
    d->next = d->prev = nullptr;
}

void BufferAllocator::push(Descriptor*& head, Descriptor* d) {
    d->prev = nullptr;
    d->next = head;
    if (head) head->prev = d;
    head = d;
}

void* BufferAllocator::GetBlock() {
    std::lock_guard<std::mutex> g(mMutex);
    Descriptor* d = mFree;
    if (!d) return nullptr;
    unlink(mFree, d);
    push(mBusy, d);
    d->busy = true;
    return d->buffer;
}

void BufferAllocator::FreeBlock(void* address) {
    auto* p = static_cast<unsigned char*>(address);
    if (!p || p < mBase || mSize == 0) return;
    size_t index = size_t(p - mBase) / mSize;
    if (index >= size_t(mCount)) return;
    std::lock_guard<std::mutex> g(mMutex);
    Descriptor* d = &mIndex[index];
    if (!d->busy || d->buffer != p) return;
    unlink(mBusy, d);
    push(mFree, d);
    d->busy = false;
}

int BufferAllocator::busyCount() {
    std::lock_guard<std::mutex> g(mMutex);
    int n = 0;
    for (Descriptor* d = mBusy; d; d = d->next) ++n;
    return n;
}
