#pragma once
// StripeColumns: one piece of a stripe Zone (inside one Region boundary) dealt
// out to its d data columns. Each column window is a list of references into
// the caller's window, in the order the bytes lie in the column's Region, so
// that one transfer per column reads (or one rebuild per column recovers) the
// whole piece. Nothing is copied.
//
// Invariants after build: the column windows together hold every byte of the
// piece exactly once; column c's window, when not empty, starts at Zone
// offset zoneOffset(c) and at regionOffset(c) in the column's Region.
#include <cstdint>
#include <vector>

#include "util/DataWindow.h"

class StripeColumns {
public:
    static constexpr uint32_t kBlock = 0x1000;

    // `window` holds Zone bytes [offset, offset + window length), which lie
    // inside one Region boundary of a stripe Zone of d data columns.
    StripeColumns(const DataWindow& window, uint32_t offset, unsigned d, uint32_t boundary);

    unsigned columns() const { return mD; }
    DataWindow& column(unsigned c) { return mColumns[c]; }
    bool empty(unsigned c) const { return mColumns[c].GetLength() == 0; }
    // The first Zone offset of column c at or after the piece's start.
    uint32_t zoneOffset(unsigned c) const;
    // Where that byte lies in the column's Region.
    uint32_t regionOffset(unsigned c) const { return regionOffsetOf(zoneOffset(c)); }
    uint32_t regionOffsetOf(uint32_t zoneOffset) const {
        return (zoneOffset % mBoundary) / mLine * kBlock + zoneOffset % kBlock;
    }
    uint32_t line() const { return mLine; }

private:
    // Adds the bytes of [from, to) to their columns, stopping at every block edge.
    void walk(const DataWindow& window, uint32_t from, uint32_t to);

    unsigned mD;
    uint32_t mLine, mBoundary, mOffset, mEnd, mFirstFull, mLastFull;
    std::vector<DataWindow> mColumns;
};
