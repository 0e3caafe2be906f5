#pragma once
// J2io: the extents a spill writes, a doubly linked list sorted by LBA with no
// two extents overlapping. Inserting an extent cuts away whatever older
// extents held of its sectors, so after all inserts each sector is described
// once, by the newest copy journalled. Extents point into battery-backed
// memory: nothing is copied.
#include <cstdint>
#include <ostream>

#include "include/ObjectPool.h"

class J2io {
public:
    struct elem : ObjectPool<elem> {
        elem* next = nullptr;
        elem* prev = nullptr;
        uint32_t lba = 0;
        uint32_t sectors = 0;
        unsigned char* data = nullptr;
    };

    J2io() = default;
    ~J2io();
    J2io(const J2io&) = delete;
    J2io& operator=(const J2io&) = delete;

    void insert(uint32_t lba, uint32_t sectors, unsigned char* data);
    // Takes the lowest extent off the list; null when empty. The caller deletes it.
    elem* pop();
    const elem* front() const { return mHead; }
    bool empty() const { return mHead == nullptr; }
    size_t size() const;

private:
    void link(elem* e, elem* before);  // before == null: at the end
    void unlink(elem* e);
    elem* mHead = nullptr;
    elem* mTail = nullptr;
};

std::ostream& operator<<(std::ostream& os, const J2io& io);
