#pragma once
// DataWindow: a scatter view, an ordered list of DataPanes, each a byte range
// of some DataStore. A window owns no memory: each pane holds one reference on
// its store. Windows are cut (cropFront), joined (add) and dealt into stripe
// windows (buildStripeWindows) by moving or cloning panes, never by copying
// bytes; Read, Write and the fills are the only byte copies.
//
// Invariants: every pane lies inside its store (offset + length <= the store's
// length); mPaneCount and mWindowLength are the number and total length of
// the panes. A window belongs to one thread at a time; several windows on
// several threads may share stores.
#include <cstdint>
#include <ostream>
#include <vector>

#include "include/ObjectPool.h"
#include "util/DataBuffer.h"
#include "util/DataStore.h"
#include "util/StatusCode.h"
#include "util/dList.h"

class DataWindow {
public:
    class DataPane : public dNode, public ObjectPool<DataPane> {
    public:
        DataPane(DataStore& store, uint32_t offset, uint32_t length);
        ~DataPane() override;
        DataStore* pStore;
        uint32_t mPaneOffset;
        uint32_t mPaneLength;
    };

    // Walks a window as contiguous extents: for (it = w.begin(p, n); it != w.end(); it.GetNext(p, n)).
    class iterator {
    public:
        void GetNext(unsigned char*& pData, uint32_t& length);
        bool operator==(const iterator& o) const {
            return mPane == o.mPane && (mPane == nullptr || mBlock == o.mBlock);
        }
        bool operator!=(const iterator& o) const { return !(*this == o); }
        DataPane* pane() const { return mPane; }

    private:
        friend class DataWindow;
        // Places the iterator on the first extent of `pane` or of the first
        // later pane that has one; at the end when none has.
        void firstExtent(DataPane* pane);
        DataPane* mPane = nullptr;
        DataStore::BlockList::iterator mBlock;
        uint32_t mBlockStart = 0;  // store offset of mBlock's first byte
        uint32_t mPosition = 0;    // store offset of the extent
        uint32_t mLength = 0;
        unsigned char* mData = nullptr;
    };

    DataWindow();
    DataWindow(DataStore& store, uint32_t offset, uint32_t length);
    DataWindow(const DataWindow& window, uint32_t offset, uint32_t length);
    // A private store of `size` bytes; the window is its only holder.
    DataWindow(uint32_t size, uint32_t offset, uint32_t length);
    DataWindow(uint32_t numBlocks, uint32_t blockSize, uint32_t offset, uint32_t length);
    DataWindow(const DataWindow& other);
    DataWindow& operator=(const DataWindow& other);
    virtual ~DataWindow();

    uint32_t GetLength() const { return mWindowLength; }
    uint32_t paneCount() const { return mPaneCount; }
    const dList<DataPane>& panes() const { return mPanes; }

    void add(DataStore& store, uint32_t offset, uint32_t length);
    void add(DataStore& store);
    void add(const DataWindow& window);
    // Drops the panes and views `store`; the caller's reference passes to the pane.
    void InitializeAndTransferStore(DataStore& store, uint32_t offset, uint32_t length);
    // Drops every pane.
    void clear();

    uint32_t cropFront(DataWindow& destination, uint32_t numBytes);
    StatusCode copyFrontToEnd(DataWindow& destination, uint32_t numBytes) const;
    StatusCode copyEndToFront(DataWindow& destination, uint32_t numBytes) const;

    iterator begin(unsigned char*& pData, uint32_t& length) const;
    iterator end() const;

    // Read and Write copy `length` bytes from or to the window's byte `offset`.
    void Read(DataBuffer& buffer, uint32_t offset, uint32_t length) const;
    void Read(DataBuffer& buffer) const { Read(buffer, 0, buffer.length); }
    void Read(DataBlock& block) const;
    void Write(const DataBuffer& buffer, uint32_t offset, uint32_t length);
    void Write(const DataBuffer& buffer) { Write(buffer, 0, buffer.length); }
    void Write(const DataBlock& block);
    void Write(const DataWindow& window);
    void ZeroInit();
    void PatternFill(uint32_t word);
    StatusCode CompareContents(const DataWindow& reference) const;

    // Deals this window's bytes, after `skip`, round-robin into `windows`:
    // numBlocks pieces of blockLength, starting with windows[firstWindow].
    void buildStripeWindows(uint32_t skip, uint32_t blockLength, uint32_t numBlocks, std::vector<DataWindow>& windows,
                            uint32_t numWindows, uint32_t firstWindow) const;

    void Validate() const;
    void Dump(std::ostream& out) const;

private:
    void append(DataPane* pane);
    void InitWindow(const DataWindow& other);
    // Copies `length` bytes between the window, from its byte `offset`, and flat memory.
    void copyFlat(unsigned char* flat, uint32_t offset, uint32_t length, bool toWindow) const;

    dList<DataPane> mPanes;
    uint32_t mPaneCount = 0;
    uint32_t mWindowLength = 0;
};

std::ostream& operator<<(std::ostream& os, const DataWindow::DataPane& pane);
std::ostream& operator<<(std::ostream& os, const DataWindow& window);
