#include "util/DataWindow.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/board/Board.h"
#include "util/MemoryPool.h"
#include "util/SharedMemoryPool.h"

namespace {
// Fills a window with bytes that tell their own position.
void fillCounting(DataWindow& w, uint8_t seed = 0) {
    std::vector<uint8_t> bytes(w.GetLength());
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + seed);
    DataBuffer b{uint32_t(bytes.size()), bytes.data()};
    w.Write(b);
}
std::vector<uint8_t> contents(const DataWindow& w) {
    std::vector<uint8_t> out(w.GetLength());
    DataBuffer b{uint32_t(out.size()), out.data()};
    w.Read(b);
    return out;
}
std::vector<uint32_t> extents(const DataWindow& w) {
    std::vector<uint32_t> out;
    unsigned char* p;
    uint32_t n;
    for (auto it = w.begin(p, n); it != w.end(); it.GetNext(p, n)) out.push_back(n);
    return out;
}
}  // namespace

TEST(DataStore, SizedStoresUsePoolBlocksAndKeepTheAskedLength) {
    DataStore* empty = new DataStore(0u, false);
    unsigned char* p = reinterpret_cast<unsigned char*>(1);
    uint32_t n = 1;
    empty->begin(0, p, n);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(empty->blockCount(), 0u);
    empty->DecRef();

    DataStore* one = new DataStore(1u, false);
    EXPECT_EQ(one->blockCount(), 1u);
    EXPECT_EQ(one->blocks().front().length(), 32768u);
    EXPECT_EQ(one->GetLength(), 1u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(one->blocks().front().data()) % 32, 0u);
    one->Validate();
    one->DecRef();

    DataStore big(40000u, true);
    EXPECT_EQ(big.blockCount(), 2u);
    big.begin(32768 + 100, p, n);
    EXPECT_EQ(p, big.blocks().back().data() + 100);
    EXPECT_EQ(n, 40000u - 32768u - 100u) << "an extent ends at the store's length";
}

TEST(DataStore, BlocksOfUnequalLengthGiveCorrectExtents) {
    DataStore s;
    s.add(1, 512);
    s.add(1, 1024);
    s.add(1, 512);
    EXPECT_EQ(s.GetLength(), 2048u);
    DataWindow w(s, 256, 1536);
    EXPECT_EQ(extents(w), (std::vector<uint32_t>{256, 1024, 256}));
    EXPECT_EQ(s.refCount(), 2);
}

TEST(DataStore, MovesAreSplicesAndByteMovesLandOnBlockBoundaries) {
    DataStore a, b;
    a.add(3, 512);
    unsigned char* first = a.blocks().front().data();
    b.moveBytes(a, 1024);
    EXPECT_EQ(b.blockCount(), 2u);
    EXPECT_EQ(b.blocks().front().data(), first) << "no copy: the same memory moves";
    EXPECT_EQ(a.GetLength(), 512u);
    b.move(a);
    EXPECT_EQ(b.GetLength(), 1536u);
    EXPECT_EQ(a.GetLength(), 0u);
    b.removeBytes(512);
    EXPECT_EQ(b.GetLength(), 1024u);
    b.Validate();
}

TEST(DataWindow, AnEmptyWindowIsAtItsEnd) {
    DataWindow w;
    unsigned char* p = reinterpret_cast<unsigned char*>(1);
    uint32_t n = 1;
    EXPECT_TRUE(w.begin(p, n) == w.end());
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(w.paneCount(), 0u);
}

TEST(DataWindow, PanesHoldReferencesAndExtentsStopAtThePaneEnd) {
    DataStore* s = new DataStore(2u, 4096u);
    {
        DataWindow w(*s, 0, 1024);
        w.add(*s, 2048, 4096);  // crosses the block boundary, ends inside the second block
        EXPECT_EQ(s->refCount(), 3) << "the creator's reference and one per pane";
        EXPECT_EQ(extents(w), (std::vector<uint32_t>{1024, 2048, 2048}));
        w.Validate();
    }
    EXPECT_EQ(s->refCount(), 1);
    s->DecRef();
}

TEST(DataWindow, ReadWriteAndSubWindowsSeeTheSameBytes) {
    DataWindow w(3u, 4096u, 0, 3 * 4096);
    fillCounting(w);
    DataWindow sub(w, 4000, 200);  // crosses a block boundary
    std::vector<uint8_t> all = contents(w), part = contents(sub);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), all.begin() + 4000));
    sub.ZeroInit();
    all = contents(w);
    for (size_t i = 0; i < all.size(); ++i)
        ASSERT_EQ(all[i], i >= 4000 && i < 4200 ? 0 : uint8_t(i * 7)) << i;
    // A short flat buffer copies only what it holds.
    uint8_t small[16];
    DataBuffer b{sizeof small, small};
    w.Read(b);
    EXPECT_EQ(small[15], uint8_t(15 * 7));
}

TEST(DataWindow, CropFrontSplitsOnlyInsideAPane) {
    DataStore* s = new DataStore(1u, 8192u);
    DataWindow w;
    w.add(*s, 0, 1024);
    w.add(*s, 1024, 1024);
    w.add(*s, 4096, 2048);
    s->DecRef();
    DataWindow front;
    EXPECT_EQ(w.cropFront(front, 2048), 2048u);
    EXPECT_EQ(front.paneCount(), 2u) << "a count on a pane boundary makes no partial pane";
    EXPECT_EQ(w.paneCount(), 1u);
    DataWindow half;
    EXPECT_EQ(w.cropFront(half, 512), 512u);
    EXPECT_EQ(half.paneCount(), 1u);
    EXPECT_EQ(w.paneCount(), 1u);
    EXPECT_EQ(w.panes().front()->mPaneOffset, 4096u + 512u);
    EXPECT_EQ(s->refCount(), 4) << "both halves stay on the store";
    DataWindow rest;
    EXPECT_EQ(w.cropFront(rest, 100000), 1536u) << "more than the window holds moves all of it";
    EXPECT_EQ(w.GetLength(), 0u);
    EXPECT_EQ(w.paneCount(), 0u);
    rest.Validate();
    front.Validate();
}

TEST(DataWindow, CopyEndToFrontAndFrontToEndPadAStripeLine) {
    DataWindow old(1u, 8192u, 0, 8192);
    fillCounting(old, 3);
    DataWindow left(old, 0, 1024), right(old, 3072, 1024);
    DataWindow line;
    line.add(DataWindow(2048u, 0, 2048));  // the new data in the middle
    ASSERT_EQ(left.copyEndToFront(line, 1024), StatusCode::Success);
    ASSERT_EQ(right.copyFrontToEnd(line, 1024), StatusCode::Success);
    EXPECT_EQ(line.GetLength(), 4096u);
    std::vector<uint8_t> bytes = contents(line), oldBytes = contents(old);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 1024, oldBytes.begin()));
    EXPECT_TRUE(std::equal(bytes.begin() + 3072, bytes.end(), oldBytes.begin() + 3072));
    DataWindow tooMuch;
    EXPECT_EQ(left.copyEndToFront(tooMuch, 1024), StatusCode::Success) << "exactly all panes";
    DataWindow tooMuch2;
    EXPECT_EQ(left.copyEndToFront(tooMuch2, 1025), StatusCode::InternalError);
    EXPECT_EQ(right.copyFrontToEnd(tooMuch2, 1025), StatusCode::InternalError);
}

TEST(DataWindow, StripeWindowsWrapAndSplitAcrossPanes) {
    DataStore* s = new DataStore(1u, 8192u);
    DataWindow w;
    w.add(*s, 0, 1536);
    w.add(*s, 4096, 2560);
    s->DecRef();
    std::vector<DataWindow> windows(3);
    w.buildStripeWindows(0, 1024, 4, windows, 3, 2);
    // Blocks go to windows 2, 0, 1, 2; the second block spans both panes.
    EXPECT_EQ(windows[2].GetLength(), 2048u);
    EXPECT_EQ(windows[2].panes().front()->mPaneOffset, 0u);
    EXPECT_EQ(windows[0].paneCount(), 2u);
    EXPECT_EQ(windows[0].panes().front()->mPaneOffset, 1024u);
    EXPECT_EQ(windows[0].panes().back()->mPaneOffset, 4096u);
    EXPECT_EQ(windows[1].panes().front()->mPaneOffset, 4608u);
    EXPECT_EQ(windows[2].panes().back()->mPaneOffset, 5632u);
    std::vector<DataWindow> skipped(2);
    w.buildStripeWindows(512, 1024, 1, skipped, 2, 1);
    EXPECT_EQ(skipped[1].panes().front()->mPaneOffset, 512u);
    EXPECT_EQ(skipped[0].GetLength(), 0u);
}

TEST(DataWindow, PatternFillCompareAndWindowCopy) {
    DataWindow a(2u, 4096u, 0, 8192), b(8192u, 0, 8192);
    a.PatternFill(0xDEADBEEF);
    b.Write(a);
    EXPECT_EQ(b.CompareContents(a), StatusCode::Success);
    uint8_t one = 0x5A;
    DataWindow tail(b, 5000, 4);
    DataBuffer buf{1, &one};
    tail.Write(buf);
    testing::internal::CaptureStdout();
    EXPECT_EQ(b.CompareContents(a), StatusCode::InternalError);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Compare error, window offset = 5000"), std::string::npos) << out;
    EXPECT_NE(out.find("Reference Window contents:"), std::string::npos);
}

TEST(DataWindow, InitializeAndTransferStoreHandsTheReferenceOver) {
    DataStore* s = new DataStore(4096u, false);
    DataWindow w;
    w.InitializeAndTransferStore(*s, 0, 4096);
    EXPECT_EQ(s->refCount(), 1) << "the pane is the only holder now";
    DataWindow copy = w;
    EXPECT_EQ(s->refCount(), 2);
}

TEST(MemoryPool, BlocksComeBackWhenTheLastHolderGoes) {
    MemoryPool pool("testPool", 8, 4096);
    DataStore* s = pool.GetBlocks(3);
    EXPECT_EQ(pool.freeCount(), 5u);
    EXPECT_EQ(s->GetLength(), 3u * 4096u);
    EXPECT_EQ(s->GetMemoryPool(), &pool);
    {
        DataWindow w(*s, 0, s->GetLength());
        s->DecRef();
        EXPECT_EQ(pool.freeCount(), 5u) << "the window still holds the store";
        fillCounting(w);
    }
    EXPECT_EQ(pool.freeCount(), 8u);
    // A lone block handle returns its block too.
    DataStore* t = pool.GetBlocks(1);
    {
        DataBlock lone = t->blocks().front();
        t->remove(1);
        t->DecRef();
        EXPECT_EQ(pool.freeCount(), 7u);
    }
    EXPECT_EQ(pool.freeCount(), 8u);
}

namespace {
struct FakeEntry : LruNode {
    explicit FakeEntry(MemoryPool& p, uint32_t blocks) : pool(p), store(p.GetBlocks(blocks)) {}
    ~FakeEntry() override {
        if (store) store->DecRef();
    }
    DataStore* lruStore() override { return store; }
    bool lruEvictable(bool evictDirty) override { return evictDirty || !dirty; }
    void lruEvict() override {
        evicted = true;
        store->DecRef();
        store = nullptr;
    }
    void lruLockOwner() override { ownerLocks++; }
    void lruUnlockOwner() override { ownerLocks--; }
    MemoryPool& pool;
    DataStore* store;
    bool dirty = false;
    bool evicted = false;
    int ownerLocks = 0;
};
}  // namespace

TEST(MemoryPool, GetBlocksEvictsTheLeastRecentlyUsedCleanEntries) {
    MemoryPool pool("lruPool", 4, 4096);
    FakeEntry a(pool, 1), b(pool, 1), c(pool, 2);
    for (FakeEntry* e : {&a, &b, &c}) pool.lru().AddToLRU(*e);
    a.dirty = true;
    pool.lru().MarkMostRecentlyUsed(b);  // order now a, c, b
    EXPECT_EQ(pool.freeCount(), 0u);
    DataStore* s = pool.GetBlocks(2);
    EXPECT_FALSE(a.evicted) << "a dirty entry is skipped";
    EXPECT_TRUE(c.evicted);
    EXPECT_FALSE(b.evicted);
    EXPECT_EQ(a.ownerLocks, 0);
    EXPECT_EQ(pool.lru().entries(), 2u);
    s->DecRef();
    // Only a dirty entry and one that someone else holds: one round, then no.
    b.store->IncRef();
    EXPECT_EQ(pool.lru().FreeLeastRecentlyUsed(1, false), StatusCode::MP_NoFreeEntriesOnLRU);
    b.store->DecRef();
    EXPECT_EQ(pool.lru().FreeLeastRecentlyUsed(2, true), StatusCode::Success);
    EXPECT_TRUE(a.evicted) << "evictDirty takes the dirty one";
    EXPECT_TRUE(b.evicted);
    EXPECT_EQ(pool.lru().entries(), 0u);
    EXPECT_EQ(pool.freeCount(), 4u);
}

TEST(MemoryPoolDeath, AskingForMoreThanThePoolHoldsIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            MemoryPool pool("smallPool", 2, 512);
            pool.GetBlocks(3);
        },
        testing::ExitedWithCode(75), "mNumEntries");
}

TEST(DataStore, ReferenceCountsSurviveManyThreads) {
    MemoryPool pool("hammerPool", 16, 4096);
    DataStore* shared = pool.GetBlocks(4);
    std::vector<std::thread> threads;
    std::atomic<int> badReads{0};
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                DataWindow w(*shared, uint32_t(i % 4) * 4096, 4096);
                DataWindow copy = w;
                DataWindow part;
                copy.cropFront(part, 1024);
                if (part.GetLength() != 1024 || copy.GetLength() != 3072) badReads++;
                DataStore* own = pool.GetBlocks(1);
                DataWindow mine;
                mine.InitializeAndTransferStore(*own, 0, 4096);
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(badReads.load(), 0);
    EXPECT_EQ(shared->refCount(), 1);
    EXPECT_EQ(pool.freeCount(), 12u);
    shared->DecRef();
    EXPECT_EQ(pool.freeCount(), 16u);
}

TEST(SharedMemoryPool, BlocksLieInTheNamedRegion) {
    SharedMemoryPool pool("/testSharedPool", "testShared", 4, 1024);
    size_t size = 0;
    auto* region = static_cast<unsigned char*>(Board::GetInstance().openRegion("/testSharedPool", 4096, &size));
    DataStore* s = pool.GetBlocks(4);
    for (DataBlock& b : s->blocks()) {
        EXPECT_GE(b.data(), region);
        EXPECT_LE(b.data() + b.length(), region + size);
    }
    s->DecRef();
    EXPECT_EQ(pool.freeCount(), 4u);
}

TEST(DataWindow, ReadAndWriteAtAnOffsetReachAcrossBlocks) {
    DataWindow w(3, 512, 0, 1536);  // three blocks of 512
    w.ZeroInit();
    std::vector<unsigned char> in(600, 0x5a);
    DataBuffer src{600, in.data()};
    w.Write(src, 500, 600);  // ends in the third block
    std::vector<unsigned char> all(1536, 1);
    DataBuffer dst{1536, all.data()};
    w.Read(dst, 0, 1536);
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i], (i >= 500 && i < 1100) ? 0x5a : 0) << i;
    std::vector<unsigned char> part(100, 0);
    DataBuffer p{100, part.data()};
    w.Read(p, 1050, 100);  // 50 bytes of data, then zeros
    EXPECT_EQ(part[49], 0x5a);
    EXPECT_EQ(part[50], 0);
}
