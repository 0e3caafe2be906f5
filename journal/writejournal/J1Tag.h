#pragma once
// J1Tag: the list of host write streams between the request thread and the
// write threads. Each host write gets a WJTAG; contiguous writes merge into
// streams of up to 2,048 sectors, a write of exactly a waiting stream's extent
// replaces it, and Coalesce hands a write thread up to 8 streams at a time as
// a PostWriteElem.
//
// The header `_wjtagheader` (allocation bitmap, counts, pack id) lives in NVRAM
// buffer 0x10013001; the WJTAGs themselves are kept in process memory, since
// nothing reads them after a restart (recovery works from the replay tags)
// and a 64-bit address does not fit their 32-bit link words. Dump and limits
// are those of the NVRAM array: 4,096 tags.
//
// Ordering invariants, which make the disks see overlapping writes in host
// order: a stream never moves ahead of an older waiting stream of the same LUN
// that shares a cluster with it; an exact replacement happens only when no
// other waiting stream overlaps the write; and Coalesce never takes a stream
// that shares a cluster with a stream another write thread still has in
// hand. Locks: the list lock ("lTagListMutex") guards the list and the counts,
// the tag lock ("lTagMutex") the bitmap.
#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

#include "disk/DiskPackId.h"
#include "journal/writejournal/PostWriteElem.h"
#include "platform/rtos/Rtos.h"
#include "util/Endian.h"
#include "util/LockObject.h"
#include "util/PerfAccumulator.h"
#include "util/StatusCode.h"

class ClientRequest;
class J1Replay;
struct J1ReplayTag;

// The NVRAM header, 0x230 bytes, little-endian.
struct _wjtagheader {
    static constexpr uint32_t kMagic = 0x01BADF0D;
    static constexpr uint32_t kMaxTags = 0x1000;
    static constexpr uint32_t kSize = 0x230;
    uint8_t raw[kSize];

    uint32_t magic() const { return getLE32(raw); }
    uint32_t maxTags() const { return getLE32(raw + 0x18); }
    uint32_t allocated() const { return getLE32(raw + 0x1C); }
    void setAllocated(uint32_t v) { putLE32(raw + 0x1C, v); }
    uint32_t highWatermark() const { return getLE32(raw + 0x22C); }
    void setHighWatermark(uint32_t v) { putLE32(raw + 0x22C, v); }
    uint32_t word(uint32_t i) const { return getLE32(raw + 0x2C + 4 * i); }
    void setWord(uint32_t i, uint32_t v) { putLE32(raw + 0x2C + 4 * i, v); }
    void setPackId(const DiskPackId& id) {
        putLE32(raw + 0x24, id.word[0]);
        putLE32(raw + 0x28, id.word[1]);
    }
    // Clears the list and the bitmap; the magic is stored last.
    void reset(uint32_t address, uint32_t maxTags);
};
static_assert(sizeof(_wjtagheader) == 0x230);

// One host write in the list.
struct WJTAG {
    static constexpr uint16_t kMagic = 0xAA55;
    static constexpr uint16_t kInProcessing = 0x1;
    static constexpr uint16_t kDup = 0x2;

    uint16_t magic = 0;
    uint16_t flags = 0;
    WJTAG* next = nullptr;  // toward the older end of the list
    WJTAG* prev = nullptr;  // toward the newer end
    uint32_t transCount = 0;
    uint64_t lba = 0;
    uint32_t lun = 0;
    unsigned char* data = nullptr;
    J1ReplayTag* replayTag = nullptr;
    uint32_t length = 0;  // sectors
    ClientRequest* request = nullptr;
    uint16_t sectorMask = 0;
    uint32_t streamLength = 0;  // head only
    uint32_t streamTags = 0;    // head only
    WJTAG* streamNext = nullptr;
    WJTAG* streamLast = nullptr;
    IOTracker* tracker = nullptr;  // of the last tag's request
    uint32_t index = 0;

    bool inProcessing() const { return flags & kInProcessing; }
};

class J1Tag {
public:
    static constexpr uint32_t kMaxStreamSectors = 256 * 8;
    static constexpr uint32_t kFlushThreshold = 0x200000;  // bytes not yet coalesced that wake a worker
    static constexpr uint32_t kWaitCount = 5;              // rounds of 30 ticks
    static constexpr int kRoundTicks = 30;
    static constexpr uint32_t kWakeStreams = 16;
    static constexpr uint32_t kSufficientStream = 0x400;
    static constexpr int kPendingWaitTicks = 120;  // how long a drain waits for tagged writes not yet listed

    // What J1 calls above itself; the host side sets these at start.
    struct Hooks {
        std::function<void(ClientRequest&)> releaseRequest;   // TopEnd::ReleaseRequest
        std::function<void(ClientRequest&)> allocBlockCheck;  // the write snooper's look at a done write
        std::function<bool()> oneAtATime;                     // either form of the mode
    };

    static J1Tag* GetInstance();
    // Tests build their own over their own header and replay tags.
    explicit J1Tag(J1Replay* replay = nullptr);
    ~J1Tag();
    J1Tag(const J1Tag&) = delete;
    J1Tag& operator=(const J1Tag&) = delete;

    Hooks hooks;

    StatusCode Initialize(bool clear);
    StatusCode LoadDiskPack();
    StatusCode UnloadDiskPack();
    // Resets the header at `header` (the list never survives a restart) for
    // `maxTags` tags.
    void resetTagCache(_wjtagheader* header, unsigned long maxTags);
    void setPackId(const DiskPackId& id);

    WJTAG* SetupTag(ClientRequest& request, unsigned int transCount);
    WJTAG* AllocateTag();
    void FreeTag(WJTAG* tag);
    void UnhookTag(WJTAG* tag);  // under the list lock
    void ReleaseTag(WJTAG* tag);
    void ReleaseTagWithNoExecution(WJTAG* tag);
    void Destroy(PostWriteElem& elem);

    // Blocks until a set is ready; false when the journal is being stopped.
    bool Coalesce(PostWriteElem& elem, unsigned long minSectors);
    void WakeWorker(bool force);
    uint32_t numTagsAllocated() const;

    // Both give the status of the disks' flush: a host must not be told its
    // writes are durable when it failed.
    StatusCode WaitForJ1Empty();
    StatusCode FlushDisks();
    // Ends every Coalesce wait (shutdown and tests).
    void Stop();
    void Dump(std::ostream& out) const;

    void setWaitCount(uint32_t n) { mWaitCount = n; }
    uint32_t waitCount() const { return mWaitCount; }
    uint32_t numTags() const { return mNumTags; }
    uint32_t numStreams() const { return mNumStreams; }
    uint64_t usedCapacity() const { return mUsedCapacity; }
    uint32_t dups() const { return mDup; }
    bool loaded() const { return mLoaded; }

private:
    bool oneAtATime() const { return hooks.oneAtATime && hooks.oneAtATime(); }
    bool wakeNeededLocked(bool force) const;
    void insertNewest(WJTAG* tag);
    void replaceInList(WJTAG* old, WJTAG* tag);
    void moveTowardProcessing(WJTAG* head);
    bool blockedByInFlight(const WJTAG* head) const;
    void releaseOne(WJTAG* tag, bool executed);

    J1Replay* mReplay;
    _wjtagheader* mHeader = nullptr;
    std::vector<WJTAG> mTags;
    WJTAG* mHead = nullptr;         // newest
    WJTAG* mTail = nullptr;         // oldest
    WJTAG* mNextProcess = nullptr;  // oldest not yet taken
    std::vector<WJTAG*> mInFlight;  // stream heads taken and not yet destroyed
    uint32_t mNumTags = 0;
    uint32_t mNumStreams = 0;
    uint64_t mUsedCapacity = 0;
    uint32_t mDup = 0;
    std::atomic<uint32_t> mWaitCount{kWaitCount};
    std::atomic<bool> mLoaded{false};
    std::atomic<bool> mStopping{false};
    SEM_ID mWorkerSem;
    SEM_ID mTagFreedSem;
    mutable LockObject mTagLock{"lTagMutex", 50};
    mutable LockObject mListLock{"lTagListMutex", 46};
    PerfAccumulator mWaitForEmpty;
};
