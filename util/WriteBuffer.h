#pragma once
// WriteBuffer: the write-buffer partition, which hands host write buffers out
// of journal memory ("/SHJ1", battery-backed) so that the transport can place
// host write data where it survives a power cut.
//
// Layout (little-endian 32-bit words, managed in units of 512 bytes): unit 0
// holds SharedPartitionInfo; every run, allocated or free, begins with a
// one-unit RunHeader, so a buffer lies 512 bytes behind its header and is
// 512-byte aligned. Free runs form a list in address order linked by byte
// offsets from the partition start, never by addresses: the list survives a
// restart and reads the same through a second mapping. A buffer is handed out
// as its address in the other mapping when one is set (SharedOtherPartitionPtr).
//
// Invariants (under the partition mutex): free runs never overlap or touch
// (neighbours merge); blocks in use is the sum of allocated runs' units.
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <ostream>

#include "util/StatusCode.h"

// The size of the journal memory "/SHJ1" on this board.
constexpr size_t kJournalMemoryBytes = 0x1000000;

struct SharedPartitionInfo {
    uint8_t words[8][4];  // 0 base, 1 free head, 2 size given, 3 bytes, 4 unused, 5 in use, 6 no-space count, 7 magic
};
static_assert(sizeof(SharedPartitionInfo) == 32);

struct WriteBufferRunHeader {
    uint8_t bytes[4];      // asked for; 0 when free
    uint8_t units[4];      // run length, header included
    uint8_t nextFree[4];   // next free run (byte offset), address order; 0 at the end
    uint8_t allocated[4];  // 1 when allocated
};
static_assert(sizeof(WriteBufferRunHeader) == 16);

class WriteBuffer {
public:
    static constexpr uint32_t kUnit = 512;
    static constexpr uint32_t kMagic = 0x31504257;  // "WBP1"
    static constexpr uint32_t kUsualWrite = 0x10000;

    static WriteBuffer& GetInstance();
    WriteBuffer() = default;
    WriteBuffer(const WriteBuffer&) = delete;
    WriteBuffer& operator=(const WriteBuffer&) = delete;

    // Adopts the partition at `base` if it holds one of this size (after a
    // restart, live buffers stay allocated), else formats it as one free run.
    // `otherBase`: the same memory in the other mapping, or null.
    void SetWPartitionStart(unsigned char* base, uint32_t size, unsigned char* otherBase);
    bool started() const { return mBase != nullptr; }
    // Every buffer free again: for the host write journal once its replay
    // has put the last write of the previous run on the disks, before any
    // host write can hold a buffer.
    void Reformat();

    // First fit; null when nothing fits and `wait` is false, or when a wait
    // ends by forceWakeup.
    unsigned char* AllocateBuffer(uint32_t bytes, bool wait = true);
    // Changes nothing and reports when the header does not match.
    StatusCode FreeBuffer(unsigned char* address, uint32_t bytes);
    bool canAllocate(uint32_t count, uint32_t bytes);
    void WriteJournalLargestAndTotalFreeBuffers(uint32_t& largest, uint32_t& total);
    void Largest2Buffers(uint32_t& first, uint32_t& second);
    // Holds a host write back while journal memory is nearly full: two usual
    // buffers free: go; one: up to 7 s for two; none: up to 9 s for one.
    bool waitForSpace(uint32_t bytes = kUsualWrite);
    void forceWakeup();

    uint32_t blocksInUse();
    uint32_t noSpaceCount();
    uint32_t numWaitTimes() const { return mNumWaitTimes; }
    void Dump(std::ostream& out);

private:
    static uint32_t unitsFor(uint32_t bytes) { return (bytes + kUnit - 1) / kUnit + 1; }
    SharedPartitionInfo* info() { return reinterpret_cast<SharedPartitionInfo*>(mBase); }
    uint32_t word(int i);
    void setWord(int i, uint32_t v);
    WriteBufferRunHeader* run(uint32_t offset) { return reinterpret_cast<WriteBufferRunHeader*>(mBase + offset); }
    unsigned char* allocateLocked(uint32_t bytes);
    void formatLocked(uint32_t size);
    bool countFits(uint32_t count, uint32_t units);

    std::mutex mMutex;  // SharedPartitionSemaphore
    std::condition_variable mSpace;  // SharedPartitionSpaceWaitSem
    bool mForceWakeup = false;
    unsigned char* mBase = nullptr;
    unsigned char* mOther = nullptr;  // SharedOtherPartitionPtr
    uint32_t mSize = 0;
    uint32_t mNumWaitTimes = 0;
};
