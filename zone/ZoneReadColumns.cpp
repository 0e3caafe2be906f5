#include "zone/ZoneReadColumns.h"

#include <algorithm>

#include "util/Assert.h"

StripeColumns::StripeColumns(const DataWindow& window, uint32_t offset, unsigned d, uint32_t boundary)
    : mD(d), mLine(d * kBlock), mBoundary(boundary), mOffset(offset), mEnd(offset + window.GetLength()),
      mColumns(d) {
    ESA_ASSERT_OP(d, >, 0u);
    ESA_ASSERT_OP(mOffset / boundary, ==, (mEnd - 1) / boundary);
    mFirstFull = (mOffset + mLine - 1) / mLine * mLine;
    mLastFull = mEnd / mLine * mLine;
    walk(window, mOffset, std::min(mFirstFull, mEnd));
    if (mFirstFull < mLastFull)
        window.buildStripeWindows(mFirstFull - mOffset, kBlock, (mLastFull - mFirstFull) / kBlock, mColumns, d, 0);
    if (mLastFull < mEnd && mFirstFull < mEnd) walk(window, std::max(mLastFull, mFirstFull), mEnd);
}

void StripeColumns::walk(const DataWindow& window, uint32_t from, uint32_t to) {
    for (uint32_t pos = from; pos < to;) {
        const uint32_t next = std::min(to, (pos / kBlock + 1) * kBlock);
        DataWindow piece(window, pos - mOffset, next - pos);
        mColumns[(pos / kBlock) % mD].add(piece);
        pos = next;
    }
}

uint32_t StripeColumns::zoneOffset(unsigned c) const {
    const uint32_t base = mOffset / mLine * mLine;
    uint32_t o;
    if (base < mFirstFull) {
        o = base + c * kBlock;
        if (c < (mOffset % mLine) / kBlock) o += mLine;
    } else {
        o = mFirstFull + c * kBlock;
    }
    return std::max(o, mOffset);
}
