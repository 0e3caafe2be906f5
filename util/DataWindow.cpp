#include "util/DataWindow.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "util/Assert.h"
#include "util/Trace.h"

// ---- panes

DataWindow::DataPane::DataPane(DataStore& store, uint32_t offset, uint32_t length)
    : pStore(&store), mPaneOffset(offset), mPaneLength(length) {
    ESA_ASSERT_OP(offset + length, <=, store.GetLength());
    store.IncRef();
}

DataWindow::DataPane::~DataPane() { pStore->DecRef(); }

// ---- iterator

void DataWindow::iterator::firstExtent(DataPane* pane) {
    for (mPane = pane; mPane; mPane = static_cast<DataPane*>(mPane->next)) {
        if (mPane->mPaneLength == 0) continue;
        DataStore::BlockList& blocks = mPane->pStore->blocks();
        uint32_t start = 0;
        for (auto b = blocks.begin(); b != blocks.end(); ++b) {
            if (mPane->mPaneOffset < start + b->length()) {
                mBlock = b;
                mBlockStart = start;
                mPosition = mPane->mPaneOffset;
                mData = b->data() + (mPosition - start);
                mLength = std::min(start + b->length() - mPosition, mPane->mPaneLength);
                return;
            }
            start += b->length();
        }
    }
    mBlock = nullStore.blocks().end();
}

void DataWindow::iterator::GetNext(unsigned char*& pData, uint32_t& length) {
    if (!mPane) return;
    uint32_t paneEnd = mPane->mPaneOffset + mPane->mPaneLength;
    mPosition += mLength;
    mBlockStart += mBlock->length();
    ++mBlock;
    if (mPosition < paneEnd && mBlock != mPane->pStore->blocks().end()) {
        mData = mBlock->data();
        mLength = std::min(mBlock->length(), paneEnd - mPosition);
    } else {
        firstExtent(static_cast<DataPane*>(mPane->next));
        if (!mPane) return;  // at the end: the extent is left as it was
    }
    pData = mData;
    length = mLength;
}

// ---- construction

DataWindow::DataWindow() = default;

DataWindow::DataWindow(DataStore& store, uint32_t offset, uint32_t length) { add(store, offset, length); }

DataWindow::DataWindow(const DataWindow& window, uint32_t offset, uint32_t length) {
    ESA_ASSERT_OP(offset + length, <=, window.GetLength());
    uint32_t skip = offset, want = length;
    for (auto p = window.mPanes.begin(); p != window.mPanes.end() && want > 0; ++p) {
        if (skip >= p->mPaneLength) {
            skip -= p->mPaneLength;
            continue;
        }
        uint32_t take = std::min(p->mPaneLength - skip, want);
        add(*p->pStore, p->mPaneOffset + skip, take);
        want -= take;
        skip = 0;
    }
}

DataWindow::DataWindow(uint32_t size, uint32_t offset, uint32_t length) {
    ESA_ASSERT_OP(offset + length, <=, size);
    DataStore* store = new DataStore(size, false);
    add(*store, offset, length);
    store->DecRef();
}

DataWindow::DataWindow(uint32_t numBlocks, uint32_t blockSize, uint32_t offset, uint32_t length) {
    ESA_ASSERT_OP(offset + length, <=, numBlocks * blockSize);
    DataStore* store = new DataStore(numBlocks, blockSize);
    add(*store, offset, length);
    store->DecRef();
}

DataWindow::DataWindow(const DataWindow& other) { InitWindow(other); }

DataWindow& DataWindow::operator=(const DataWindow& other) {
    if (this != &other) {
        clear();
        InitWindow(other);
    }
    return *this;
}

DataWindow::~DataWindow() {
    if (mPaneCount != 0) mPanes.clearAndDelete();
}

void DataWindow::InitWindow(const DataWindow& other) { add(other); }

void DataWindow::clear() {
    mPanes.clearAndDelete();
    mPaneCount = 0;
    mWindowLength = 0;
}

void DataWindow::append(DataPane* pane) {
    mPanes.push_back(pane);
    ++mPaneCount;
    mWindowLength += pane->mPaneLength;
}

void DataWindow::add(DataStore& store, uint32_t offset, uint32_t length) {
    append(new DataPane(store, offset, length));
}

void DataWindow::add(DataStore& store) { add(store, 0, store.GetLength()); }

void DataWindow::add(const DataWindow& window) {
    for (auto p = window.mPanes.begin(); p != window.mPanes.end(); ++p) add(*p->pStore, p->mPaneOffset, p->mPaneLength);
}

void DataWindow::InitializeAndTransferStore(DataStore& store, uint32_t offset, uint32_t length) {
    clear();
    add(store, offset, length);
    store.DecRef();
}

// ---- rearranging

uint32_t DataWindow::cropFront(DataWindow& destination, uint32_t numBytes) {
    uint32_t moved = 0, panes = 0;
    DataPane* first = mPanes.front();
    DataPane* last = nullptr;
    for (DataPane* p = first; p && moved + p->mPaneLength <= numBytes; p = static_cast<DataPane*>(p->next)) {
        last = p;
        moved += p->mPaneLength;
        ++panes;
    }
    if (last) {
        mPanes.splice(first, last, destination.mPanes);
        mPaneCount -= panes;
        mWindowLength -= moved;
        destination.mPaneCount += panes;
        destination.mWindowLength += moved;
    }
    DataPane* head = mPanes.front();
    if (moved < numBytes && head) {
        uint32_t rest = numBytes - moved;
        destination.add(*head->pStore, head->mPaneOffset, rest);
        head->mPaneOffset += rest;
        head->mPaneLength -= rest;
        mWindowLength -= rest;
        moved += rest;
    }
    return moved;
}

StatusCode DataWindow::copyFrontToEnd(DataWindow& destination, uint32_t numBytes) const {
    uint32_t remaining = numBytes;
    for (auto p = mPanes.begin(); p != mPanes.end() && remaining > 0; ++p) {
        uint32_t take = std::min(p->mPaneLength, remaining);
        destination.add(*p->pStore, p->mPaneOffset, take);
        remaining -= take;
    }
    if (remaining > 0) {
        ESA_CONSOLE("DataWindow::copyFrontToEnd complete pane copy failed - ran out of panes");
        return StatusCode::InternalError;
    }
    return StatusCode::Success;
}

StatusCode DataWindow::copyEndToFront(DataWindow& destination, uint32_t numBytes) const {
    uint32_t remaining = numBytes;
    for (DataPane* p = mPanes.back(); p && remaining > 0; p = static_cast<DataPane*>(p->prev)) {
        uint32_t take = std::min(p->mPaneLength, remaining);
        DataPane* pane = new DataPane(*p->pStore, p->mPaneOffset + p->mPaneLength - take, take);
        destination.mPanes.push_front(pane);
        ++destination.mPaneCount;
        destination.mWindowLength += take;
        remaining -= take;
    }
    if (remaining > 0) {
        ESA_CONSOLE("DataWindow::copyEndToFront complete pane copy failed - ran out of panes");
        return StatusCode::InternalError;
    }
    return StatusCode::Success;
}

void DataWindow::buildStripeWindows(uint32_t skip, uint32_t blockLength, uint32_t numBlocks,
                                    std::vector<DataWindow>& windows, uint32_t numWindows,
                                    uint32_t firstWindow) const {
    DataPane* pane = mPanes.front();
    uint32_t inPane = 0;
    auto advance = [&](uint32_t take) {
        inPane += take;
        if (pane && inPane == pane->mPaneLength) {
            pane = static_cast<DataPane*>(pane->next);
            inPane = 0;
        }
    };
    while (pane && (skip > 0 || pane->mPaneLength == 0)) {
        uint32_t take = std::min(skip, pane->mPaneLength - inPane);
        skip -= take;
        advance(take);
    }
    uint32_t i = firstWindow;
    for (uint32_t n = 0; n < numBlocks; ++n) {
        ESA_ASSERT_OP(i, <, windows.size());
        for (uint32_t need = blockLength; need > 0 && pane;) {
            uint32_t take = std::min(need, pane->mPaneLength - inPane);
            if (take) windows[i].add(*pane->pStore, pane->mPaneOffset + inPane, take);
            need -= take;
            advance(take);
        }
        i = i + 1 == numWindows ? 0 : i + 1;
    }
}

// ---- walking and copying

DataWindow::iterator DataWindow::begin(unsigned char*& pData, uint32_t& length) const {
    iterator it;
    it.firstExtent(mPanes.front());
    pData = it.mPane ? it.mData : nullptr;
    length = it.mPane ? it.mLength : 0;
    return it;
}

DataWindow::iterator DataWindow::end() const {
    iterator it;
    it.mBlock = nullStore.blocks().end();
    return it;
}

void DataWindow::copyFlat(unsigned char* flat, uint32_t offset, uint32_t length, bool toWindow) const {
    if (offset >= mWindowLength) return;
    uint32_t left = std::min(length, mWindowLength - offset);
    unsigned char* p;
    uint32_t n;
    for (iterator it = begin(p, n); it != end() && left > 0; it.GetNext(p, n)) {
        if (offset >= n) {  // before the window offset
            offset -= n;
            continue;
        }
        p += offset;
        n -= offset;
        offset = 0;
        uint32_t take = std::min(n, left);
        if (toWindow) std::memcpy(p, flat, take);
        else std::memcpy(flat, p, take);
        flat += take;
        left -= take;
    }
}

void DataWindow::Read(DataBuffer& buffer, uint32_t offset, uint32_t length) const {
    copyFlat(buffer.pData, offset, length, false);
}

void DataWindow::Read(DataBlock& block) const {
    DataBuffer b{block.length(), block.data()};
    Read(b);
}

void DataWindow::Write(const DataBuffer& buffer, uint32_t offset, uint32_t length) {
    copyFlat(buffer.pData, offset, length, true);
}

void DataWindow::Write(const DataBlock& block) {
    DataBuffer b{block.length(), block.data()};
    Write(b);
}

namespace {
// Walks two windows of equal length side by side, in pieces contiguous in both.
template <class Fn>
bool walkPair(const DataWindow& a, const DataWindow& b, Fn fn) {
    unsigned char *pa, *pb;
    uint32_t na, nb;
    DataWindow::iterator ia = a.begin(pa, na), ib = b.begin(pb, nb);
    uint32_t offset = 0;
    while (offset < a.GetLength()) {
        ESA_ASSERT(ia != a.end());
        ESA_ASSERT(ib != b.end());
        uint32_t take = std::min(na, nb);
        if (!fn(pa, pb, take, offset)) return false;
        offset += take;
        pa += take;
        pb += take;
        na -= take;
        nb -= take;
        if (na == 0) ia.GetNext(pa, na);
        if (nb == 0) ib.GetNext(pb, nb);
    }
    return true;
}

void hexLines(std::ostream& out, const unsigned char* p, uint32_t n, uint32_t firstOffset) {
    char line[16];
    for (uint32_t i = 0; i < n; ++i) {
        if (i % 16 == 0) {
            std::snprintf(line, sizeof line, "%s%08x:", i ? "\n" : "", firstOffset + i);
            out << line;
        }
        std::snprintf(line, sizeof line, " %02x", p[i]);
        out << line;
    }
    out << "\n";
}
}  // namespace

void DataWindow::Write(const DataWindow& window) {
    ESA_ASSERT_OP(this->GetLength(), ==, window.GetLength());
    walkPair(*this, window, [](unsigned char* dst, unsigned char* src, uint32_t n, uint32_t) {
        std::memmove(dst, src, n);
        return true;
    });
}

void DataWindow::ZeroInit() {
    unsigned char* p;
    uint32_t n;
    for (iterator it = begin(p, n); it != end(); it.GetNext(p, n)) std::memset(p, 0, n);
}

void DataWindow::PatternFill(uint32_t word) {
    unsigned char bytes[4];
    std::memcpy(bytes, &word, 4);
    uint32_t phase = 0;
    unsigned char* p;
    uint32_t n;
    for (iterator it = begin(p, n); it != end(); it.GetNext(p, n))
        for (uint32_t i = 0; i < n; ++i, phase = (phase + 1) & 3) p[i] = bytes[phase];
}

StatusCode DataWindow::CompareContents(const DataWindow& reference) const {
    uint32_t length = reference.GetLength();
    ESA_ASSERT_OP(this->GetLength(), ==, length);
    bool same = walkPair(*this, reference, [](unsigned char* a, unsigned char* b, uint32_t n, uint32_t offset) {
        if (std::memcmp(a, b, n) == 0) return true;
        uint32_t i = 0;
        while (a[i] == b[i]) ++i;
        uint32_t from = i >= 32 ? i - 32 : 0;
        uint32_t to = std::min(n, i + 32);
        std::ostringstream out;
        out << "Compare error, window offset = " << offset + i << "\nThis Window contents:\n";
        hexLines(out, a + from, to - from, offset + from);
        out << "Reference Window contents:\n";
        hexLines(out, b + from, to - from, offset + from);
        ESA_CONSOLE(out.str());
        return false;
    });
    return same ? StatusCode::Success : StatusCode::InternalError;
}

// ---- checks and dumps

void DataWindow::Validate() const {
    uint32_t sum = 0;
    for (auto itStart = mPanes.begin(); itStart != mPanes.end(); ++itStart) {
        itStart->pStore->Validate();
        ESA_ASSERT_OP(itStart->mPaneOffset + itStart->mPaneLength, <=, (itStart->pStore)->GetLength());
        sum += itStart->mPaneLength;
    }
    ESA_ASSERT_OP(sum, ==, mWindowLength);
    uint32_t totalLen = 0;
    unsigned char* p;
    uint32_t n;
    for (iterator it = begin(p, n); it != end(); it.GetNext(p, n)) totalLen += n;
    if (totalLen != mWindowLength) {
        std::ostringstream out;
        char line[128];
        std::snprintf(line, sizeof line, "DataWindow length mismatch: mWindowLength=%lu, totalLen=%lu\n",
                      (unsigned long)mWindowLength, (unsigned long)totalLen);
        out << line;
        uint32_t running = 0;
        for (iterator it = begin(p, n); it != end(); it.GetNext(p, n)) {
            running += n;
            std::snprintf(line, sizeof line, "Current DataPane=0x%08lx, blockLength=%lu, totalLen=%lu\n",
                          (unsigned long)uintptr_t(it.pane()), (unsigned long)n, (unsigned long)running);
            out << line;
        }
        out << "Dump of DataWindow:\n" << *this;
        ESA_CONSOLE(out.str());
    }
    ESA_ASSERT_OP(totalLen, ==, mWindowLength);
}

void DataWindow::Dump(std::ostream& out) const {
    out << *this;
    uint32_t offset = 0;
    unsigned char* p;
    uint32_t n;
    for (iterator it = begin(p, n); it != end(); it.GetNext(p, n)) {
        hexLines(out, p, n, offset);
        offset += n;
    }
}

std::ostream& operator<<(std::ostream& os, const DataWindow::DataPane& pane) {
    os << "DP: 0x" << std::hex << uintptr_t(&pane) << std::dec << " : Offset=" << pane.mPaneOffset
       << " Length=" << pane.mPaneLength << "\nDataStore in DataPane: " << *pane.pStore;
    return os;
}

std::ostream& operator<<(std::ostream& os, const DataWindow& window) {
    os << "DW: 0x" << std::hex << uintptr_t(&window) << std::dec << " contains pane list " << window.paneCount()
       << " window offset: 0 window length: " << window.GetLength() << "\nList of valid DataBlocks in DataWindow:\n";
    unsigned char* p;
    uint32_t n;
    for (DataWindow::iterator it = window.begin(p, n); it != window.end(); it.GetNext(p, n))
        os << "  : pAddr = 0x" << std::hex << uintptr_t(p) << std::dec << " length = " << n << "\n";
    os << "List of DataPanes in DataWindow:\n";
    for (auto pane = window.panes().begin(); pane != window.panes().end(); ++pane) os << *pane << "\n";
    return os;
}
