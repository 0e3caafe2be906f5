#pragma once
// LayoutManager (LM): moves live Zones while host I/O goes on, and decides
// what to move.
//
// Two moves exist. A relayout gives a Zone a whole new set of Regions
// (possibly of another RedundancyType) and copies its data across; a patch
// keeps the Zone's type and Regions but replaces those on one lost disk with
// new Regions on another, recomputed from the surviving copies. A fast resync
// gives a Zone its old Regions back on a returning disk and copies nothing.
// Every move stages the new layout in ZoneOne (Zone 1): while it runs ZoneOne
// holds the new layout and the Zone the old; host writes reach the old layout
// and then, through UpdateRepairData, the new one; at the end the two entries
// swap and the leftovers are freed in one journal set.
//
// Invariants: at most one move at a time (moveActive); zoneBeingMoved is 1
// whenever no write needs duplicating; patchedOffset only changes while the
// chunk's locks are held. The repair thread "tLMRepair" runs every move and
// the policy (Rebuild); the copy thread "tRLThread0" copies sections. The
// Initiate calls may come from any thread: they only set flags and send
// messages.
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <ostream>
#include <vector>

#include "platform/rtos/Rtos.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/ReentrantLockObject.h"
#include "util/StatusCode.h"
#include "zone/ZoneTableEntry.h"

class JobControlBlock;

class LayoutManager {
public:
    // Repair thread messages (types 0 to 3) and the copy thread's section
    // message (type 4); 40 bytes each.
    enum MessageType : uint32_t { kAddDisk = 0, kRemoveDisk = 1, kRepair = 2, kPatch = 3, kCopySection = 4 };
    struct Message {
        uint32_t type;
        uint32_t arg;  // logical disk (0, 1) or Zone (3)
        uint32_t source, destination, offset, length, index;
        uint8_t ignoreErrors, priority;
        uint16_t reserved;
        SEM_ID semaphore;
    };
    static_assert(sizeof(Message) == 40, "a LayoutManager message is 40 bytes");

    struct PatchRequest {
        uint32_t zone;
        uint32_t offset;
        unsigned dataCopy;  // 0 data, 1 primary, 2 secondary redundancy
    };

    static constexpr unsigned kSections = 72;
    static constexpr unsigned kMaxPriority = 4;
    static constexpr uint32_t kAllPatched = 0xFFFFFFFF;
    static constexpr unsigned kMaxRebuildPasses = 10;
    static constexpr int kPeriodicSeconds = 600;

    static LayoutManager* GetInstance();
    StatusCode Initialize();
    // Moves may run again (after an unload).
    StatusCode LoadDiskPack() {
        mUnloading.store(false);
        return StatusCode::Success;
    }
    // Ends the running pass and the move in progress (its copy is thrown
    // away) and waits until no move is active; none starts until the next load.
    StatusCode UnloadDiskPack();
    StatusCode CreateLMThread();
    StatusCode CreateLMCopyThreads();

    // ---- triggers (any thread)
    void InitiateAddDisk(unsigned short logicalDisk);
    void InitiateRemoveDisk(unsigned short logicalDisk);
    void InitiateBackgroundRepair();
    // A read or write of one copy of the Zone at offset failed on a disk that
    // is present: the Region is marked unusable and the Zone rebuilt, on the
    // repair thread (the caller may hold the table lock shared).
    void InitiateBackgroundPatch(uint32_t zone, uint32_t offset, unsigned dataCopy, IOTracker& tracker);
    // The console's request to re-lay one Zone out (no Region is marked).
    void InitiateRelayout(uint32_t zone);

    // ---- writes during a move (write threads)
    void AvoidRepairOverlap(uint32_t zone, uint32_t offset, uint32_t length);
    StatusCode UpdateRepairData(uint32_t zone, uint32_t offset, DataWindow& window, IOTracker& tracker);

    // ---- the moves (repair thread, or the console)
    StatusCode RelayoutZone(uint32_t& zone, bool ignoreErrors, unsigned priority, bool fromFree);
    StatusCode PatchZone(uint32_t& zone, bool ignoreErrors);
    StatusCode PatchRegion(uint32_t zone, const ZoneTableEntry& entry, unsigned slot, uint32_t zoneOffset);
    StatusCode ResyncZone(uint32_t zone, uint16_t oldDisk, uint16_t newDisk, uint32_t flushTime);
    StatusCode CopySectionSet(uint32_t source, uint32_t destination, unsigned count, const uint32_t* offsets,
                              uint32_t length, bool ignoreErrors, unsigned priority);
    StatusCode CopySection(uint32_t source, uint32_t destination, uint32_t offset, uint32_t length, unsigned index,
                           bool ignoreErrors, unsigned priority);
    StatusCode SwapZoneEntries(ZoneTableEntry& a, ZoneTableEntry& b);

    // ---- policy (repair thread)
    void Rebuild(bool periodic);
    void RebuildDegraded();
    void RelayoutSelfMirrored();
    bool RelayoutEfficiency(std::ostream& stream);
    bool RelayoutDiskFull(std::ostream& stream);
    void RebalanceDisks();
    StatusCode CheckZoneForRelayout(uint32_t zone, bool& needed);
    void LogicalDiskAdded(uint16_t& disk);
    void LogicalDiskRemoved(uint16_t& disk);
    // Priority 1 to 4 of a background move, from how much capacity the
    // current layouts waste.
    unsigned BackgroundPriority();

    // ---- hooks that higher layers register
    // Whether the pack is over its red capacity threshold (the capacity
    // daemon's cached Zone counts after a fresh update). Unset: never full.
    using CapacityProbe = bool (*)();
    void setCapacityProbe(CapacityProbe probe) { mCapacityProbe = probe; }
    // A disk that came back after a short absence: its old and new logical
    // disk and the time its absence began (the pack layer's fast-resync
    // bookkeeping). Unset: no fast resync is offered and Zones are patched.
    using ResyncDiskSource = bool (*)(uint16_t& oldLD, uint16_t& newLD, uint32_t& flushTime);
    void setResyncDiskSource(ResyncDiskSource source) { mResyncSource = source; }

    // Named steps of a move ("lm.relayout.staged", "lm.relayout.copied",
    // "lm.move.swapped", "lm.move.committed", "lm.patch.staged",
    // "lm.patch.copied", and "lm.copy.chunk" / "lm.patch.chunk" before each
    // chunk): each is a crash point. Tests may also watch them: a hook that
    // returns true ends the move there as a power cut would, touching
    // nothing more, and the move returns LM_LayoutAborted.
    using StepHook = bool (*)(const char* step);
    void setStepHook(StepHook hook) { mStepHook = hook; }

    // ---- state, for the console, the management pages and tests
    bool moveActive() const { return mMoveActive.load(); }
    bool rebuildRunning() const { return mRebuildRunning.load(); }
    // True while the rebuild indication is on (event type 6 started it).
    bool indicationOn() const { return mIndication.load(); }
    // The repair thread waits for a message and nothing is queued.
    bool idle() const;
    uint64_t movesCompleted() const { return mMovesCompleted.load(); }
    uint64_t bytesMoved() const { return mBytesMoved.load(); }
    unsigned priorityOverride() const { return mPriorityOverride.load(); }
    void setPriorityOverride(unsigned priority) { mPriorityOverride.store(priority); }
    void requestRestart() { mRestartRequested.store(true); }

    // The patch requests so far, oldest first (at most kPatchHistory kept).
    static constexpr size_t kPatchHistory = 256;
    std::vector<PatchRequest> patchRequests();
    uint64_t patchRequestCount();
    void clearPatchRequests();
    void Dump(std::ostream& out);

private:
    LayoutManager();
    void LayoutManagerLoop();
    void LayoutManagerCopyLoop();
    bool sendRepairMessage(const Message& m);
    void sendPatchMessage(uint32_t zone);
    // The rebuild indication (event type 6): 0x8000 starts it, 0x7FFF stops it.
    void startIndication();
    void stopIndication();
    bool packLoaded() const;
    void diskChanged(uint16_t disk, const char* how);
    bool packFull();
    void drainPendingPatches();
    StatusCode abandonMove(const char* failure, StatusCode status);
    // Steps 7 to 12 of a move: flush the new copies, swap, free the old.
    StatusCode finishMove(uint32_t zone, const char* lookupFailure, const char* doneText, uint64_t startTick);
    StatusCode copyOneChunk(uint32_t source, uint32_t destination, uint32_t offset, uint32_t chunk,
                            bool ignoreErrors, DataWindow& buffer);
    StatusCode patchOneChunk(uint32_t zone, const ZoneTableEntry& entry, unsigned slot, uint32_t zoneOffset,
                             uint32_t regionOffset, uint32_t chunk);
    JobControlBlock* currentJob();
    // Room in the journal and a turn for other jobs before a chunk.
    void betweenChunks();
    // The Zone's entry, which must still be the one the move started from.
    StatusCode sourceUnchanged(uint32_t zone, ZoneTableEntry& entry, const char* who);
    // A named step: true when a test's hook ends the move here.
    bool cutAt(const char* step);
    StatusCode cutHere();

    // queues and threads
    MSG_Q_ID mQueue = nullptr;
    MSG_Q_ID mCopyQueue = nullptr;
    TASK_ID mRepairTask = nullptr;
    TASK_ID mCopyTask = nullptr;
    JobControlBlock* mJob = nullptr;
    JobControlBlock* mCopyJob = nullptr;
    SEM_ID mSectionSem = nullptr;
    std::atomic<bool> mWaiting{false};

    // a move
    std::atomic<bool> mMoveActive{false};
    std::atomic<bool> mPatchActive{false};
    std::atomic<uint32_t> mZoneBeingMoved{1};
    ZoneTableEntry mSavedEntry;
    std::atomic<bool> mPatchRequested{false};
    std::atomic<bool> mRestartRequested{false};
    std::atomic<uint32_t> mCopyStart{0}, mCopyEnd{0};
    std::atomic<uint32_t> mPatchedOffset{kAllPatched};
    LockObject mRepairLock;          // "lLMRepairLock"
    ReentrantLockObject mUpdateLock;  // "rLMUpdateLock"
    StatusCode mSectionStatus[kSections];
    std::atomic<bool> mRebuildRunning{false};
    std::atomic<bool> mUnloading{false};
    std::atomic<bool> mIndication{false};
    std::atomic<unsigned> mPriorityOverride{0};
    std::atomic<uint64_t> mMovesCompleted{0}, mBytesMoved{0};

    CapacityProbe mCapacityProbe = nullptr;
    ResyncDiskSource mResyncSource = nullptr;
    StepHook mStepHook = nullptr;

    std::mutex mPatchLock;
    std::vector<PatchRequest> mPatches;
    std::deque<PatchRequest> mPendingPatches;
    uint64_t mPatchCount = 0;
};
