#include "zone/XORWindow.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <vector>

#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/AdmaXor.h"

namespace {

// Bytes of all columns of a dual-parity computation kept in the processor's
// cache between its horizontal and diagonal passes: half of a typical
// per-core second-level cache.
constexpr uint32_t kXor2DChunkBytes = 512 * 1024;

// The memory that always holds zeros; sources inside it are left out.
std::atomic<const uint8_t*> gZeroBegin{nullptr};
std::atomic<const uint8_t*> gZeroEnd{nullptr};

// A position in an ExtentList that moves forward across its extents.
class ExtentCursor {
public:
    ExtentCursor() = default;
    explicit ExtentCursor(const ExtentList& list) : mList(&list) {}
    uint8_t* data() const { return (*mList)[mIndex].data + mOffset; }
    uint32_t remaining() const { return (*mList)[mIndex].length - mOffset; }
    void advance(uint32_t bytes) {
        mOffset += bytes;
        if (mOffset == (*mList)[mIndex].length) {
            ++mIndex;
            mOffset = 0;
        }
    }
    // Moves over the next `length` bytes, appending references to them to
    // target unless it is null.
    void take(uint32_t length, ExtentList* target) {
        while (length > 0) {
            const uint32_t step = std::min(length, remaining());
            if (target) target->add(data(), step);
            advance(step);
            length -= step;
        }
    }

private:
    const ExtentList* mList = nullptr;
    size_t mIndex = 0;
    uint32_t mOffset = 0;
};

// Walks `count` lists in step over `length` bytes, calling fn(pointers, step)
// for each stretch common to the current extent of every list. The lists must
// hold at least `length` bytes each. Stops early when fn returns false.
template <class Fn>
bool walkInStep(const ExtentList* const* lists, unsigned count, uint32_t length, Fn&& fn) {
    std::array<ExtentCursor, kXorMaxSources + 1> cursors;
    ESA_ASSERT_OP(count, <=, cursors.size());
    for (unsigned i = 0; i < count; ++i) {
        ESA_ASSERT_OP(lists[i]->length(), >=, length);
        cursors[i] = ExtentCursor(*lists[i]);
    }
    std::array<uint8_t*, kXorMaxSources + 1> pointers{};
    while (length > 0) {
        uint32_t step = length;
        for (unsigned i = 0; i < count; ++i) {
            pointers[i] = cursors[i].data();
            if (cursors[i].remaining() < step) step = cursors[i].remaining();
        }
        if (!fn(pointers.data(), step)) return false;
        for (unsigned i = 0; i < count; ++i) cursors[i].advance(step);
        length -= step;
    }
    return true;
}

// Sends the chain built so far to the board and empties it.
struct XorChain {
    unsigned long elements = 0;
    unsigned long sourceCounts[kXorChainElements];
    XorSourceRow sourceRows[kXorChainElements];
    uint8_t* dests[kXorChainElements];
    unsigned long lengths[kXorChainElements];

    void flush(StatusCode& status) {
        if (elements == 0) return;
        chainedXor(elements, sourceCounts, sourceRows, dests, lengths, status);
        if (!status.ok()) tracef(coutTrace, "Chained XOR failed\n");
        elements = 0;
    }
};

void processorXor(const ExtentList& a, const ExtentList& b, const ExtentList* c, const ExtentList& dest,
                  bool accumulate, StatusCode& status) {
    std::array<const ExtentList*, 4> lists{&dest, &a, &b, c};
    const unsigned count = c ? 4 : 3;
    // With accumulate the current dest is a source; otherwise it is only written.
    const unsigned firstSource = accumulate ? 0 : 1;
    const XorEngine& engine = XorEngine::GetInstance();
    walkInStep(lists.data(), count, dest.length(), [&](uint8_t* const* p, uint32_t step) {
        engine.xorSources(p + firstSource, count - firstSource, p[0], step);
        return true;
    });
    status = StatusCode::Success;
}

void buildTargets(uint32_t blockSize, const ExtentList* const* columns, ExtentList* targets, unsigned S) {
    ESA_ASSERT(S >= 3 && S <= kXorMaxSources);
    const uint32_t lines = columns[0]->length() / blockSize;
    for (unsigned c = 1; c < S; ++c) ESA_ASSERT_OP(columns[c]->length(), ==, columns[0]->length());
    for (unsigned t = 0; t + 1 < S; ++t) targets[t].reserve(targets[t].count() + lines);
    std::array<ExtentCursor, kXorMaxSources> cursors;
    for (unsigned c = 0; c < S; ++c) cursors[c] = ExtentCursor(*columns[c]);
    walkXOR2DBlocks(S, lines, [&](unsigned t, unsigned column) {
        cursors[column].take(blockSize, t == kSkippedBlock ? nullptr : &targets[t]);
    });
}

void diagonalParity(const ExtentList& diagonal, const ExtentList* const* columns, unsigned S, uint32_t blockSize,
                    StatusCode& status) {
    // Whole superstripe lines only: S - 1 rows of blocks per line.
    ESA_ASSERT_OP(columns[0]->length() % ((S - 1) * blockSize), ==, 0);
    std::array<ExtentList, kXorMaxSources> targets;
    buildTargets(blockSize, columns, targets.data(), S);
    XORWindow(diagonal, targets.data(), S - 1, status);
}

}  // namespace

void setZeroSourceMemory(const uint8_t* data, size_t length) {
    gZeroEnd.store(nullptr, std::memory_order_release);
    gZeroBegin.store(data, std::memory_order_release);
    gZeroEnd.store(data ? data + length : nullptr, std::memory_order_release);
}

void XORBlock(const uint32_t* a, const uint32_t* b, uint32_t* dest, uint32_t length) {
    const uint8_t* sources[] = {reinterpret_cast<const uint8_t*>(a), reinterpret_cast<const uint8_t*>(b)};
    XorEngine::GetInstance().xorSources(sources, 2, reinterpret_cast<uint8_t*>(dest), length & ~3u);
}

void XORBlock(const uint32_t* a, const uint32_t* b, const uint32_t* c, uint32_t* dest, uint32_t length) {
    const uint8_t* sources[] = {reinterpret_cast<const uint8_t*>(a), reinterpret_cast<const uint8_t*>(b),
                                reinterpret_cast<const uint8_t*>(c)};
    XorEngine::GetInstance().xorSources(sources, 3, reinterpret_cast<uint8_t*>(dest), length & ~3u);
}

void XORWindow(const ExtentList& dest, const ExtentList* sources, unsigned count, StatusCode& status) {
    ESA_ASSERT(count >= 1 && count <= kXorMaxSources);
    status = StatusCode::Success;
    std::array<const ExtentList*, kXorMaxSources + 1> lists;
    lists[0] = &dest;
    for (unsigned i = 0; i < count; ++i) lists[i + 1] = &sources[i];
    XorChain chain;
    const uintptr_t zeroBegin = uintptr_t(gZeroBegin.load(std::memory_order_acquire));
    const uintptr_t zeroEnd = uintptr_t(gZeroEnd.load(std::memory_order_acquire));
    bool done = walkInStep(lists.data(), count + 1, dest.length(), [&](uint8_t* const* p, uint32_t step) {
        unsigned long e = chain.elements++;
        unsigned long used = 0;
        for (unsigned i = 0; i < count; ++i)
            if (uintptr_t(p[i + 1]) < zeroBegin || uintptr_t(p[i + 1]) + step > zeroEnd)
                chain.sourceRows[e][used++] = p[i + 1];
        if (used == 0) chain.sourceRows[e][used++] = p[1];  // all zeros: dest becomes zeros
        chain.sourceCounts[e] = used;
        chain.dests[e] = p[0];
        chain.lengths[e] = step;
        if (chain.elements == kXorChainElements) chain.flush(status);
        return status.ok();
    });
    if (done) chain.flush(status);
}

void XORWindow(const ExtentList& dest, const ExtentList& source, StatusCode& status) {
    status = StatusCode::Success;
    std::array<const ExtentList*, 2> lists{&dest, &source};
    walkInStep(lists.data(), 2, dest.length(), [&](uint8_t* const* p, uint32_t step) {
        admaXor(2, p, p[0], step, status);
        return status.ok();
    });
}

void XORWindow(const ExtentList& a, const ExtentList& b, const ExtentList& dest, bool accumulate,
               StatusCode& status) {
    processorXor(a, b, nullptr, dest, accumulate, status);
}

void XORWindow(const ExtentList& a, const ExtentList& b, const ExtentList& c, const ExtentList& dest,
               bool accumulate, StatusCode& status) {
    processorXor(a, b, &c, dest, accumulate, status);
}

void buildXOR2DWindows(uint32_t blockSize, const ExtentList* columns, ExtentList* targets, unsigned S) {
    std::array<const ExtentList*, kXorMaxSources> pointers;
    ESA_ASSERT_OP(S, <=, pointers.size());
    for (unsigned c = 0; c < S; ++c) pointers[c] = &columns[c];
    buildTargets(blockSize, pointers.data(), targets, S);
}

void XORDiagonalWindow(const ExtentList& diagonal, const ExtentList* columns, unsigned S, uint32_t blockSize,
                       StatusCode& status) {
    std::array<const ExtentList*, kXorMaxSources> pointers;
    ESA_ASSERT_OP(S, <=, pointers.size());
    for (unsigned c = 0; c < S; ++c) pointers[c] = &columns[c];
    diagonalParity(diagonal, pointers.data(), S, blockSize, status);
}

void XOR2DWindow(const ExtentList& horizontal, const ExtentList& diagonal, const ExtentList* sources, unsigned n,
                 uint32_t blockSize, StatusCode& status) {
    ESA_ASSERT(n >= 2 && n + 1 <= kXorMaxSources);
    // Superstripe lines are independent, so the window is done a few lines at a
    // time: the diagonal pass then reads blocks that the horizontal pass has
    // just brought into the processor's cache, instead of memory.
    const uint32_t lineBytes = n * blockSize;  // one column's share of a superstripe line
    const uint32_t length = horizontal.length();
    ESA_ASSERT_OP(length % lineBytes, ==, 0);
    const uint32_t chunkLines = std::max<uint32_t>(1, kXor2DChunkBytes / ((n + 2) * lineBytes));
    const uint32_t chunk = chunkLines * lineBytes;
    std::array<ExtentList, kXorMaxSources> slices;
    std::array<const ExtentList*, kXorMaxSources> columns;
    status = StatusCode::Success;
    for (uint32_t pos = 0; pos < length && status.ok(); pos += chunk) {
        const uint32_t take = std::min(chunk, length - pos);
        const bool whole = take == length;
        for (unsigned c = 0; c < n; ++c) {
            if (!whole) slices[c] = sources[c].slice(pos, take);
            columns[c] = whole ? &sources[c] : &slices[c];
        }
        if (!whole) slices[n] = horizontal.slice(pos, take);
        columns[n] = whole ? &horizontal : &slices[n];

        XORWindow(*columns[n], whole ? sources : slices.data(), n, status);
        if (!status.ok()) {
            tracef(coutTrace, "XOR2DWindow failed to generate horizontal parity - StatusCode=%s\n",
                   status.Dump().c_str());
            return;
        }
        diagonalParity(whole ? diagonal : diagonal.slice(pos, take), columns.data(), n + 1, blockSize, status);
        if (!status.ok())
            tracef(coutTrace, "XOR2DWindow failed to generate diagonal parity - StatusCode=%s\n",
                   status.Dump().c_str());
    }
}
