#pragma once
// ExtentList: the parity engine's view of a window: its contiguous extents of
// memory (address and length), in window order, exactly as a window's iterator
// gives them. It owns no memory and never copies bytes: slicing appends
// references to the same memory. Whoever builds a list keeps the memory alive
// for as long as the list is used.
//
// Invariant: no extent has length 0, and length() is the sum of the extents.
#include <cstddef>
#include <cstdint>
#include <vector>

struct Extent {
    uint8_t* data;
    uint32_t length;
};

class ExtentList {
public:
    ExtentList() = default;
    ExtentList(uint8_t* data, uint32_t length) { add(data, length); }

    // Appends one extent; an empty one is ignored.
    void add(uint8_t* data, uint32_t length);
    // Appends references to bytes [offset, offset + length) of other, extent by
    // extent as other is cut. The range must lie inside other.
    void add(const ExtentList& other, uint32_t offset, uint32_t length);
    void add(const ExtentList& other) { add(other, 0, other.length()); }
    // A new list over bytes [offset, offset + length) of this one.
    ExtentList slice(uint32_t offset, uint32_t length) const;

    uint32_t length() const { return mLength; }
    size_t count() const { return mExtents.size(); }
    const Extent& operator[](size_t i) const { return mExtents[i]; }
    std::vector<Extent>::const_iterator begin() const { return mExtents.begin(); }
    std::vector<Extent>::const_iterator end() const { return mExtents.end(); }
    void clear() {
        mExtents.clear();
        mLength = 0;
    }
    void reserve(size_t extents) { mExtents.reserve(extents); }

    // Copies between the list and flat memory; length() bytes each way.
    void read(uint8_t* out) const;
    void write(const uint8_t* in) const;

private:
    std::vector<Extent> mExtents;
    uint32_t mLength = 0;
};
