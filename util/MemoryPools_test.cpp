// The allocators beside the cache's MemoryPool: the shared-region pool, the
// driver-facing BufferAllocator, the write-buffer partition in journal memory
// (first fit from the end, merging frees, offsets that survive a restart and
// a second mapping) and WJMemoryPool, which returns a host write's buffer to
// the partition with the last reference to its store.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "platform/board/Board.h"
#include "util/BufferAllocator.h"
#include "util/DataWindow.h"
#include "util/SharedMemoryPool.h"
#include "util/WJMemoryPool.h"
#include "util/WriteBuffer.h"

namespace {

TEST(SharedMemoryPool, BlocksLieInTheNamedRegionAndComeBackWithTheStore) {
    SharedMemoryPool pool("/cacheTestSharedPool", "lTestShared", 8, 4096);
    size_t size = 0;
    unsigned char* region = static_cast<unsigned char*>(Board::GetInstance().openRegion("/cacheTestSharedPool", 1, &size));
    DataStore* s = pool.GetBlocks(3);
    EXPECT_EQ(pool.freeCount(), 5u);
    for (DataBlock& b : s->blocks()) {
        EXPECT_GE(b.data(), region);
        EXPECT_LE(b.data() + b.length(), region + size);
        EXPECT_EQ(uintptr_t(b.data()) % 512, 0u);
    }
    s->DecRef();
    EXPECT_EQ(pool.freeCount(), 8u);
}

TEST(BufferAllocator, HandsOutEachBufferOnceAndIgnoresBadFrees) {
    BufferAllocator a(3, 4096);
    void* x = a.GetBlock();
    void* y = a.GetBlock();
    void* z = a.GetBlock();
    ASSERT_TRUE(x && y && z);
    EXPECT_EQ(a.GetBlock(), nullptr);
    EXPECT_EQ(uintptr_t(x) % 32, 0u);
    EXPECT_NE(x, y);
    a.FreeBlock(static_cast<char*>(x) - 4096);  // below the area
    a.FreeBlock(static_cast<char*>(z) + 3 * 4096);  // past it
    EXPECT_EQ(a.busyCount(), 3);
    a.FreeBlock(y);
    a.FreeBlock(y);  // a second free changes nothing
    EXPECT_EQ(a.busyCount(), 2);
    EXPECT_EQ(a.GetBlock(), y);
    EXPECT_EQ(a.GetBlock(), nullptr);
}

class WriteBufferTest : public ::testing::Test {
protected:
    static constexpr uint32_t kSize = 64 * 512;  // 63 units after the record
    void SetUp() override {
        mem = static_cast<unsigned char*>(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(mem, MAP_FAILED);
        wb.SetWPartitionStart(mem, kSize, nullptr);
    }
    void TearDown() override { ::munmap(mem, kSize); }
    uint32_t freeTotal() {
        uint32_t largest = 0, total = 0;
        wb.WriteJournalLargestAndTotalFreeBuffers(largest, total);
        return total;
    }
    unsigned char* mem = nullptr;
    WriteBuffer wb;
};

TEST_F(WriteBufferTest, FirstFitCarvesFromTheEndOfTheRunAndAlignsBuffers) {
    unsigned char* a = wb.AllocateBuffer(1000, false);  // 2 units + header
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(uintptr_t(a - mem) % 512, 0u);
    EXPECT_EQ(a, mem + kSize - 2 * 512);  // from the end; the free run keeps its address
    EXPECT_EQ(wb.blocksInUse(), 3u);
    unsigned char* b = wb.AllocateBuffer(512, false);
    EXPECT_EQ(b, a - 2 * 512);  // one unit of data behind its one-unit header
    EXPECT_EQ(freeTotal(), (63u - 3 - 2 - 1) * 512);
    // The data are where the caller put them, untouched by the bookkeeping.
    std::memset(a, 0xAB, 1000);
    EXPECT_EQ(wb.FreeBuffer(b, 512), StatusCode::Success);
    EXPECT_EQ(a[999], 0xAB);
}

TEST_F(WriteBufferTest, AWrongFreeChangesNothingAndFreeingBothSidesMergesOneRun) {
    unsigned char* a = wb.AllocateBuffer(512, false);
    unsigned char* b = wb.AllocateBuffer(512, false);
    unsigned char* c = wb.AllocateBuffer(512, false);
    uint32_t inUse = wb.blocksInUse();
    EXPECT_EQ(wb.FreeBuffer(b, 513), StatusCode::BadCommand);
    EXPECT_EQ(wb.FreeBuffer(b + 512, 512), StatusCode::BadCommand);
    EXPECT_EQ(wb.blocksInUse(), inUse);
    ASSERT_EQ(wb.FreeBuffer(b, 512), StatusCode::Success);
    EXPECT_EQ(wb.FreeBuffer(b, 512), StatusCode::BadCommand);  // twice
    ASSERT_EQ(wb.FreeBuffer(a, 512), StatusCode::Success);
    ASSERT_EQ(wb.FreeBuffer(c, 512), StatusCode::Success);
    uint32_t first = 0, second = 0;
    wb.Largest2Buffers(first, second);
    EXPECT_EQ(first, 62u * 512) << "everything merged back into one run";
    EXPECT_EQ(second, 0u);
    EXPECT_EQ(wb.blocksInUse(), 0u);
}

TEST_F(WriteBufferTest, CanAllocateCountsARunTwiceWhenItHoldsTwoBuffers) {
    EXPECT_TRUE(wb.canAllocate(2, 20 * 512));  // one run of 63 units, buffers of 21
    EXPECT_FALSE(wb.canAllocate(3, 20 * 512));
    EXPECT_FALSE(wb.canAllocate(1, 63 * 512));
    EXPECT_EQ(wb.AllocateBuffer(63 * 512, false), nullptr);
    EXPECT_EQ(wb.noSpaceCount(), 1u);
}

TEST_F(WriteBufferTest, PartitionSurvivesARestartAndReadsTheSameThroughASecondMapping) {
    unsigned char* a = wb.AllocateBuffer(2048, false);
    unsigned char* b = wb.AllocateBuffer(4096, false);
    std::memcpy(a, "host data", 10);
    ASSERT_EQ(wb.FreeBuffer(a, 2048), StatusCode::Success);
    (void)b;
    // "Restart": a new allocator over the same memory keeps b allocated.
    WriteBuffer again;
    again.SetWPartitionStart(mem, kSize, nullptr);
    EXPECT_EQ(again.blocksInUse(), 9u);
    EXPECT_EQ(again.FreeBuffer(b, 4096), StatusCode::Success);
    EXPECT_EQ(again.blocksInUse(), 0u);
    // The other side's mapping: addresses are handed out and taken back in it.
    unsigned char* other = static_cast<unsigned char*>(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    WriteBuffer shared;
    shared.SetWPartitionStart(mem, kSize, other);
    unsigned char* x = shared.AllocateBuffer(512, false);
    EXPECT_GE(x, other);
    EXPECT_LT(x, other + kSize);
    EXPECT_EQ(shared.FreeBuffer(x, 512), StatusCode::Success);
    ::munmap(other, kSize);
}

TEST_F(WriteBufferTest, WaitForSpaceGoesAtOnceWithTwoBuffersAndAForcedWakeupEndsAWait) {
    EXPECT_TRUE(wb.waitForSpace(8 * 512));
    unsigned char* big = wb.AllocateBuffer(40 * 512, false);
    ASSERT_NE(big, nullptr);
    std::thread waker([&] {
        while (wb.numWaitTimes() == 0) std::this_thread::yield();
        wb.forceWakeup();
    });
    EXPECT_FALSE(wb.waitForSpace(20 * 512));
    waker.join();
    EXPECT_EQ(wb.numWaitTimes(), 1u);
}

TEST_F(WriteBufferTest, WJMemoryPoolReturnsTheBufferWithTheLastReferenceToItsStore) {
    WriteBuffer* partition = &wb;
    static WriteBuffer* sPartition;
    sPartition = partition;
    WJMemoryPool pool([](unsigned char* p, unsigned long n) { sPartition->FreeBuffer(p, uint32_t(n)); });
    unsigned char* buf = wb.AllocateBuffer(4096, false);
    std::memset(buf, 7, 4096);
    DataStore* store = pool.CreateStore(buf, 4096);
    EXPECT_EQ(pool.storesOut(), 1u);
    {
        DataWindow w;
        w.InitializeAndTransferStore(*store, 0, 4096);  // the caller's reference passes to the window
        DataWindow copy(w);
        EXPECT_EQ(wb.blocksInUse(), 9u);
        unsigned char v = 0;
        DataBuffer one{1, &v};
        copy.Read(one);
        EXPECT_EQ(v, 7);
    }
    EXPECT_EQ(pool.storesOut(), 0u);
    EXPECT_EQ(wb.blocksInUse(), 0u);
}

}  // namespace
