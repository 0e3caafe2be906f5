#include "zone/DataWindowXOR.h"

#ifdef ESA_HAVE_DATAWINDOW
#include <algorithm>
#include <array>

#include "util/Assert.h"
#include "zone/XORWindow.h"
#include "zone/XorEngine.h"

namespace {

// Extent lists of several windows, on the caller's stack.
struct ExtentLists {
    ExtentLists(const DataWindow* windows, unsigned count) {
        ESA_ASSERT_OP(count, <=, lists.size());
        for (unsigned i = 0; i < count; ++i) lists[i] = extentsOf(windows[i]);
    }
    std::array<ExtentList, kXorMaxSources> lists;
};

// Reads a window's panes forward, block by block, as references to their stores.
class PaneCursor {
public:
    explicit PaneCursor(const DataWindow& window) : mPane(window.panes().begin()), mEnd(window.panes().end()) {}
    // Appends the next `length` bytes to target, one add per pane crossed.
    void take(uint32_t length, DataWindow* target) {
        while (length > 0) {
            ESA_ASSERT(mPane != mEnd);
            const uint32_t step = std::min(length, mPane->mPaneLength - mOffset);
            if (target) target->add(*mPane->pStore, mPane->mPaneOffset + mOffset, step);
            length -= step;
            mOffset += step;
            if (mOffset == mPane->mPaneLength) {
                ++mPane;
                mOffset = 0;
            }
        }
    }

private:
    dList<DataWindow::DataPane>::iterator mPane, mEnd;
    uint32_t mOffset = 0;
};

}  // namespace

ExtentList extentsOf(const DataWindow& window) {
    ExtentList list;
    list.reserve(window.paneCount());
    unsigned char* data = nullptr;
    uint32_t length = 0;
    for (auto it = window.begin(data, length); it != window.end(); it.GetNext(data, length)) list.add(data, length);
    return list;
}

void XORWindow(const DataWindow& dest, const DataWindow* sources, unsigned count, StatusCode& status) {
    ExtentLists lists(sources, count);
    XORWindow(extentsOf(dest), lists.lists.data(), count, status);
}

void XORWindow(const DataWindow& dest, const DataWindow& source, StatusCode& status) {
    XORWindow(extentsOf(dest), extentsOf(source), status);
}

void XORWindow(const DataWindow& a, const DataWindow& b, const DataWindow& dest, bool accumulate,
               StatusCode& status) {
    XORWindow(extentsOf(a), extentsOf(b), extentsOf(dest), accumulate, status);
}

void XORWindow(const DataWindow& a, const DataWindow& b, const DataWindow& c, const DataWindow& dest,
               bool accumulate, StatusCode& status) {
    XORWindow(extentsOf(a), extentsOf(b), extentsOf(c), extentsOf(dest), accumulate, status);
}

void XOR2DWindow(const DataWindow& horizontal, const DataWindow& diagonal, const DataWindow* sources, unsigned n,
                 uint32_t blockSize, StatusCode& status) {
    ExtentLists lists(sources, n);
    XOR2DWindow(extentsOf(horizontal), extentsOf(diagonal), lists.lists.data(), n, blockSize, status);
}

void XORDiagonalWindow(const DataWindow& diagonal, const DataWindow* columns, unsigned S, uint32_t blockSize,
                       StatusCode& status) {
    ExtentLists lists(columns, S);
    XORDiagonalWindow(extentsOf(diagonal), lists.lists.data(), S, blockSize, status);
}

void buildXOR2DWindows(uint32_t blockSize, const DataWindow* columns, DataWindow* targets, unsigned S) {
    ESA_ASSERT(S >= 3 && S <= kXorMaxSources);
    const uint32_t lines = columns[0].GetLength() / blockSize;
    std::vector<PaneCursor> cursors;
    for (unsigned c = 0; c < S; ++c) {
        ESA_ASSERT_OP(columns[c].GetLength(), ==, columns[0].GetLength());
        cursors.emplace_back(columns[c]);
    }
    walkXOR2DBlocks(S, lines, [&](unsigned t, unsigned column) {
        cursors[column].take(blockSize, t == kSkippedBlock ? nullptr : &targets[t]);
    });
}
#endif
