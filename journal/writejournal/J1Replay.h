#pragma once
// J1Replay: the record of every host write that the disks may not yet hold for
// certain. It owns the tag cache in NVRAM buffer 0x10012001 (J1ReplayTag.h):
// a tag is PENDING from before the host is told that its write is done, goes
// EXECUTED when the write has been through the map to the disks, and is freed
// only by a flush of the disks' caches that began after it was EXECUTED. At
// the first pack load after a power cut every live tag is written again, in
// host order, through the map's in-place path.
//
// Invariants: a tag is on exactly one of the free list, the executed list, the
// held list (acknowledged writes whose write failed, kept for a retry) or in
// use by one request. An EXECUTED tag is never freed while an older live tag
// overlaps it, so that a replay in host order never lays older data over
// newer. Lock order: "J1RExTagListLock" before "J1RTagCacheLock".
#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "disk/DiskPackId.h"
#include "journal/writejournal/J1ReplayTag.h"
#include "platform/rtos/Rtos.h"
#include "util/LockObject.h"
#include "util/StatusCode.h"

class ClientRequest;
class DataStore;

class J1Replay {
public:
    static constexpr uint32_t J1_REPLAY_MAGIC = 0x4A315201;
    static constexpr uint32_t J1_FLUSH_THRESHOLD = 10;  // MiB of journal memory kept free
    static constexpr uint32_t kMaxCacheSize = 0x10000;
    static constexpr uint32_t kFewTags = 100;  // below this many free tags a flush is worth it
    static constexpr uint32_t kSector = 512;

    // What J1 needs of the layers round it. Unset entries do nothing and
    // succeed (a unit test's J1 without disks); WriteJournal sets them for the
    // system.
    struct Hooks {
        std::function<StatusCode()> flushAllDrives;
        // Writes one tag's data through the map's in-place path.
        std::function<StatusCode(ClientRequest&)> writeInPlace;
        std::function<uint64_t()> uncoalescedSectors;
        std::function<void(const std::string&)> postEvent;
        std::function<bool()> readOnly;
    };

    static J1Replay* GetInstance();
    // Tests build their own instances to model a restart over the same NVRAM.
    J1Replay();
    ~J1Replay();
    J1Replay(const J1Replay&) = delete;
    J1Replay& operator=(const J1Replay&) = delete;

    Hooks hooks;

    // Notes whether the cache holds live tags (dirtyAtBoot).
    void Initialize(void* tagCache);
    // Once a pack load: replays the live tags of this pack, flushes the disks
    // and rebuilds the cache; a journal of another pack or a bad magic starts
    // empty. `j1Start` is "/SHJ1" as mapped now.
    StatusCode replay(void* nvram, unsigned long cacheSize, unsigned long j1Size, DiskPackId packId, void* j1Start);

    // A tag for the request's write, PENDING on return; waits while none is
    // free. Null before the journal is set up at pack load.
    J1ReplayTag* allocateTag(ClientRequest& request);
    // A PENDING tag goes back to the free list (its write will never be done).
    void abortTag(J1ReplayTag& tag);
    // The request's tag, if it has one (a write the transport could not stage).
    void abortTag(ClientRequest& request);
    // PENDING to EXECUTED (with the flush check) and nothing else: the other
    // moves belong to this class.
    void setTagState(J1ReplayTag& tag, ReplayTagState state);
    // An acknowledged write that failed: the tag stays PENDING, its data stay
    // in the journal memory, the loss is posted and counted, and the next
    // start's replay writes it again, in host order with the rest. (It is not
    // tried again while hosts write: laid down out of order it could cover a
    // newer write of the same sectors, in the cache or on the disks.)
    void holdFailedTag(J1ReplayTag& tag, StatusCode why);

    // The status of the disks' flush when one was made (Success when none was
    // needed). A forced flush that finds another under way waits for it and
    // makes its own: the caller wants what it wrote before the call durable.
    StatusCode flushIfNeeded(bool force);
    bool isClean(bool verbose) const;
    StatusCode setupTagCache(unsigned long cacheSize, unsigned long j1Size);
    void Dump(std::ostream& out) const;

    // Introspection for the console, the dump and the tests.
    uint32_t numTags() const { return mNumTags; }
    uint32_t numFree() const { return mNumFree.load(); }
    uint32_t numHeld() const;
    uint32_t executedSpace() const { return uint32_t(mExecutedSpace.load()); }
    uint32_t flushThreshold() const { return mFlushThreshold; }
    bool replayDone() const { return mReplayDone; }
    bool dirtyAtBoot() const { return mDirtyAtBoot; }
    uint64_t flushes() const { return mFlushes.load(); }
    uint64_t lostWrites() const { return mLostWrites.load(); }
    uint64_t keptByOverlap() const { return mKeptByOverlap.load(); }
    uint32_t lastReplayedTags() const { return mReplayedTags; }
    uint64_t lastReplayedSectors() const { return mReplayedSectors; }
    J1ReplayTag* tag(uint32_t index) { return &tags()[index]; }
    uint32_t indexOf(const J1ReplayTag& tag) const;
    uint32_t countInState(ReplayTagState state) const;

    // A power cut at one of the named points of the tag cache's stores: the
    // process ends there (ESA_CRASH_AT), or a unit test's hook stops the
    // work by throwing.
    using CutHook = std::function<void(const char* point)>;
    static void setCutHook(CutHook hook);
    static void point(const char* name);

private:
    J1ReplayCacheHeader* header() const { return reinterpret_cast<J1ReplayCacheHeader*>(mCache); }
    J1ReplayTag* tags() const { return reinterpret_cast<J1ReplayTag*>(mCache + J1ReplayCacheHeader::kSize); }
    void postEvent(const std::string& text);
    void freeTagLocked(uint32_t index);  // under "J1RTagCacheLock"
    void releaseStore(uint32_t index);
    StatusCode writeTag(J1ReplayTag& tag);
    bool readOnly() const { return hooks.readOnly && hooks.readOnly(); }
    void sizes(unsigned long j1Size);
    uint32_t capacityFor(unsigned long cacheSize) const;

    uint8_t* mCache = nullptr;
    uint32_t mNumTags = 0;
    uint32_t mFreeHead = 0;  // index + 1; 0 for none
    std::atomic<uint32_t> mNumFree{0};
    bool mReplayDone = false;
    bool mDirtyAtBoot = false;
    std::atomic<int64_t> mExecutedSpace{0};  // sectors, len + 1 per tag
    uint32_t mTotalSpace = 0;
    uint32_t mFlushThreshold = 0;
    uint32_t mLastFlushTime = 0;
    unsigned char* mJ1Start = nullptr;
    unsigned long mJ1Size = 0;
    std::vector<uint32_t> mExecuted;  // indices, oldest first
    std::vector<uint32_t> mHeld;      // failed acknowledged writes, oldest first
    std::vector<DataStore*> mStores;  // the reference each tag holds
    std::atomic<uint32_t> mSequence{0};
    std::atomic<bool> mFlushing{false};
    std::atomic<uint64_t> mFlushes{0};
    std::atomic<uint64_t> mLostWrites{0};
    std::atomic<uint64_t> mKeptByOverlap{0};
    uint32_t mReplayedTags = 0;
    uint64_t mReplayedSectors = 0;
    SEM_ID mTagFreed;  // given when the first tag comes back to an empty free list
    mutable LockObject mTagCacheLock{"J1RTagCacheLock", 53};
    mutable LockObject mExTagListLock{"J1RExTagListLock", 52};
};
