#include "util/WriteBuffer.h"

#include <cstring>
#include <sstream>

#include "platform/rtos/BoardClock.h"
#include "util/Assert.h"
#include "util/Endian.h"
#include "util/Trace.h"

WriteBuffer& WriteBuffer::GetInstance() {
    static WriteBuffer instance;
    return instance;
}

uint32_t WriteBuffer::word(int i) { return getLE32(info()->words[i]); }
void WriteBuffer::setWord(int i, uint32_t v) { putLE32(info()->words[i], v); }

void WriteBuffer::SetWPartitionStart(unsigned char* base, uint32_t size, unsigned char* otherBase) {
    std::lock_guard<std::mutex> g(mMutex);
    ESA_ASSERT_PTR(base, !=, nullptr);
    mBase = base;
    mOther = otherBase;
    mSize = size / kUnit * kUnit;
    ESA_ASSERT_OP(mSize, >=, 3 * kUnit);
    if (word(7) == kMagic && word(3) == mSize && word(0) == kUnit) return;  // a live partition across a restart
    formatLocked(size);
}

void WriteBuffer::Reformat() {
    std::lock_guard<std::mutex> g(mMutex);
    if (!mBase) return;
    formatLocked(getLE32(info()->words[2]));
    mSpace.notify_all();
}

void WriteBuffer::formatLocked(uint32_t size) {
    std::memset(mBase, 0, kUnit);
    setWord(0, kUnit);
    setWord(1, kUnit);
    setWord(2, size);
    setWord(3, mSize);
    setWord(5, 0);
    setWord(6, 0);
    WriteBufferRunHeader* r = run(kUnit);
    putLE32(r->bytes, 0);
    putLE32(r->units, (mSize - kUnit) / kUnit);
    putLE32(r->nextFree, 0);
    putLE32(r->allocated, 0);
    setWord(7, kMagic);
}

unsigned char* WriteBuffer::allocateLocked(uint32_t bytes) {
    const uint32_t units = unitsFor(bytes);
    uint32_t prev = 0;
    for (uint32_t o = word(1); o != 0; prev = o, o = getLE32(run(o)->nextFree)) {
        WriteBufferRunHeader* r = run(o);
        uint32_t have = getLE32(r->units);
        if (have < units) continue;
        uint32_t at = o;
        if (have == units) {
            uint32_t next = getLE32(r->nextFree);
            if (prev) putLE32(run(prev)->nextFree, next);
            else setWord(1, next);
        } else {
            // Carve from the end: the free run keeps its address and place.
            putLE32(r->units, have - units);
            at = o + (have - units) * kUnit;
        }
        WriteBufferRunHeader* a = run(at);
        putLE32(a->bytes, bytes);
        putLE32(a->units, units);
        putLE32(a->nextFree, 0);
        putLE32(a->allocated, 1);
        setWord(5, word(5) + units);
        unsigned char* p = mBase + at + kUnit;
        return mOther ? mOther + (p - mBase) : p;
    }
    setWord(6, word(6) + 1);
    return nullptr;
}

unsigned char* WriteBuffer::AllocateBuffer(uint32_t bytes, bool wait) {
    std::unique_lock<std::mutex> g(mMutex);
    if (!mBase || bytes == 0) return nullptr;
    for (;;) {
        if (unsigned char* p = allocateLocked(bytes)) return p;
        if (!wait) return nullptr;
        mSpace.wait(g);
        if (mForceWakeup) {
            mForceWakeup = false;
            return nullptr;
        }
    }
}

StatusCode WriteBuffer::FreeBuffer(unsigned char* address, uint32_t bytes) {
    std::lock_guard<std::mutex> g(mMutex);
    if (!mBase) return StatusCode::BadCommand;
    unsigned char* p = mOther ? mBase + (address - mOther) : address;
    uint64_t o = uint64_t(p - mBase) - kUnit;
    bool inside = p >= mBase + 2 * kUnit && p < mBase + mSize && (o % kUnit) == 0;
    WriteBufferRunHeader* r = inside ? run(uint32_t(o)) : nullptr;
    if (!r || getLE32(r->bytes) != bytes || getLE32(r->allocated) != 1 ||
        o + uint64_t(getLE32(r->units)) * kUnit > mSize) {
        std::ostringstream os;
        os << "WriteBuffer::FreeBuffer() - Error Freeing buffer\n---- ptr 0x" << std::hex << uintptr_t(address)
           << std::dec << " bytes " << bytes;
        if (r)
            os << " header bytes " << getLE32(r->bytes) << " units " << getLE32(r->units) << " allocated "
               << getLE32(r->allocated);
        ESA_CONSOLE(os.str());
        return StatusCode::BadCommand;
    }
    const uint32_t at = uint32_t(o);
    const uint32_t units = getLE32(r->units);
    putLE32(r->bytes, 0);
    putLE32(r->allocated, 0);
    // Insert in address order and merge with free neighbours.
    uint32_t prev = 0, next = word(1);
    while (next != 0 && next < at) {
        prev = next;
        next = getLE32(run(next)->nextFree);
    }
    putLE32(r->nextFree, next);
    if (next != 0 && at + units * kUnit == next) {
        putLE32(r->units, units + getLE32(run(next)->units));
        putLE32(r->nextFree, getLE32(run(next)->nextFree));
    }
    if (prev != 0) {
        WriteBufferRunHeader* pr = run(prev);
        if (prev + getLE32(pr->units) * kUnit == at) {
            putLE32(pr->units, getLE32(pr->units) + getLE32(r->units));
            putLE32(pr->nextFree, getLE32(r->nextFree));
        } else {
            putLE32(pr->nextFree, at);
        }
    } else {
        setWord(1, at);
    }
    uint32_t inUse = word(5);
    setWord(5, inUse > units ? inUse - units : 0);
    mSpace.notify_all();
    return StatusCode::Success;
}

bool WriteBuffer::countFits(uint32_t count, uint32_t units) {
    // A run that holds the units counts 1, one that holds twice as much 2.
    uint32_t n = 0;
    for (uint32_t o = word(1); o != 0 && n < count; o = getLE32(run(o)->nextFree)) {
        uint32_t have = getLE32(run(o)->units);
        if (have >= 2 * units) n += 2;
        else if (have >= units) n += 1;
    }
    return n >= count;
}

bool WriteBuffer::canAllocate(uint32_t count, uint32_t bytes) {
    std::lock_guard<std::mutex> g(mMutex);
    if (!mBase) return false;
    return countFits(count, unitsFor(bytes));
}

void WriteBuffer::WriteJournalLargestAndTotalFreeBuffers(uint32_t& largest, uint32_t& total) {
    std::lock_guard<std::mutex> g(mMutex);
    largest = total = 0;
    if (!mBase) return;
    for (uint32_t o = word(1); o != 0; o = getLE32(run(o)->nextFree)) {
        uint32_t bytes = (getLE32(run(o)->units) - 1) * kUnit;
        total += bytes;
        if (bytes > largest) largest = bytes;
    }
}

void WriteBuffer::Largest2Buffers(uint32_t& first, uint32_t& second) {
    std::lock_guard<std::mutex> g(mMutex);
    first = second = 0;
    if (!mBase) return;
    for (uint32_t o = word(1); o != 0; o = getLE32(run(o)->nextFree)) {
        uint32_t bytes = (getLE32(run(o)->units) - 1) * kUnit;
        if (bytes > first) {
            second = first;
            first = bytes;
        } else if (bytes > second) {
            second = bytes;
        }
    }
}

bool WriteBuffer::waitForSpace(uint32_t bytes) {
    std::unique_lock<std::mutex> g(mMutex);
    if (!mBase) return false;
    const uint32_t units = unitsFor(bytes);
    if (countFits(2, units)) return true;
    ++mNumWaitTimes;
    const uint32_t want = countFits(1, units) ? 2 : 1;
    const uint64_t seconds = want == 2 ? 7 : 9;
    BoardClock& clock = BoardClock::GetInstance();
    uint64_t deadline = clock.nanoseconds() + seconds * 1000000000ull;
    bool ok = clock.waitUntil(g, mSpace, deadline, [&] { return mForceWakeup || countFits(want, units); });
    if (mForceWakeup) {
        mForceWakeup = false;
        return false;
    }
    return ok;
}

void WriteBuffer::forceWakeup() {
    std::lock_guard<std::mutex> g(mMutex);
    mForceWakeup = true;
    mSpace.notify_all();
}

uint32_t WriteBuffer::blocksInUse() {
    std::lock_guard<std::mutex> g(mMutex);
    return mBase ? word(5) : 0;
}

uint32_t WriteBuffer::noSpaceCount() {
    std::lock_guard<std::mutex> g(mMutex);
    return mBase ? word(6) : 0;
}

void WriteBuffer::Dump(std::ostream& out) {
    uint32_t largest = 0, total = 0;
    WriteJournalLargestAndTotalFreeBuffers(largest, total);
    std::lock_guard<std::mutex> g(mMutex);
    if (!mBase) {
        out << "WriteBuffer: no partition\n";
        return;
    }
    out << "WriteBuffer: partition " << word(3) << " bytes, blocks in use " << word(5) << ", no space " << word(6)
        << " times, waits " << mNumWaitTimes << ", largest free " << largest << ", total free " << total << "\n";
}
