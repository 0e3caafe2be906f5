#include "zone/ExtentList.h"

#include <cstring>

#include "util/Assert.h"

void ExtentList::add(uint8_t* data, uint32_t length) {
    if (length == 0) return;
    ESA_ASSERT_PTR(data, !=, nullptr);
    mExtents.push_back({data, length});
    mLength += length;
}

void ExtentList::add(const ExtentList& other, uint32_t offset, uint32_t length) {
    ESA_ASSERT_OP(uint64_t(offset) + length, <=, other.length());
    size_t i = 0;
    while (i < other.count() && offset >= other[i].length) offset -= other[i++].length;
    for (; length > 0; ++i, offset = 0) {
        const Extent& e = other[i];
        uint32_t take = e.length - offset < length ? e.length - offset : length;
        add(e.data + offset, take);
        length -= take;
    }
}

ExtentList ExtentList::slice(uint32_t offset, uint32_t length) const {
    ExtentList out;
    out.add(*this, offset, length);
    return out;
}

void ExtentList::read(uint8_t* out) const {
    for (const Extent& e : mExtents) {
        std::memcpy(out, e.data, e.length);
        out += e.length;
    }
}

void ExtentList::write(const uint8_t* in) const {
    for (const Extent& e : mExtents) {
        std::memcpy(e.data, in, e.length);
        in += e.length;
    }
}
