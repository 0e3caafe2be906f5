#pragma once
// J2Manager: the metadata journal. It owns the J2 partition of battery-backed
// memory (eight journalettes, one per slot, each tied to a disk by its
// DiskIdentifier), the build list of sets under construction ("lJ2BuildList"),
// the journalettes' working state load/space ("lJ2Soft"), the spill
// serialisation ("rJ2Flush"), four spill workers "j2spillA".."j2spillD" and
// the idle timer "j2timer".
//
// Invariants: a set is committed when the mark of every one of its records is
// 0x4A32; marks are written only after every record body, the cleared head of
// the next record place and `clean` are in place (J2Nvram keeps that order),
// and in slot order, so the repair at start can complete a torn set. A
// journalette is reset only after its records have been written to its disk
// and the disk's cache flushed. Data of a set stay pinned in the cache
// (J2CacheHooks) from commit until that flush.
//
// Lock order: "lJ2BuildList", then "lJ2Soft", then "rJ2Flush".
#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "disk/DiskSGL.h"
#include "include/ManagerBase.h"
#include "journal/j2/J2Format.h"
#include "journal/j2/J2set.h"
#include "platform/rtos/Rtos.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/PerfAccumulator.h"
#include "util/ReentrantLockObject.h"

enum hotOperation : unsigned short { hotAdd = 0, hotRemove = 1 };

class J2Manager : public ManagerBase {
public:
    // True once Initialize has found or made the journal in battery-backed
    // memory; before that (and in programs without a journal) metadata
    // writes go straight to the disks.
    bool journalling() const { return mInitialized; }
    static J2Manager* GetInstance();
    // Tests model a restart with their own instance over the same partition;
    // without threads, spills run in the caller and there is no idle timer.
    J2Manager(unsigned char* partition, bool threads);
    ~J2Manager() override;
    J2Manager(const J2Manager&) = delete;
    J2Manager& operator=(const J2Manager&) = delete;

    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;

    // ---- building and committing sets
    StatusCode writeData(unsigned short drive, DataWindow& window, unsigned long long lba, IOTracker& tracker);
    // The form DiskManager diverts to: the panes must stay valid and are read at commit.
    StatusCode writeData(unsigned short drive, const DiskPane* panes, size_t paneCount, unsigned long long lba,
                         IOTracker& tracker);
    StatusCode addClid(IOTracker& tracker, CacheTrackerObject* clid);
    StatusCode commit(IOTracker& tracker);
    StatusCode flush(IOTracker& tracker);
    void sync();
    void flushIfOverHalfFull();
    StatusCode getMaxPayloadNeeded(IOTracker const& tracker, unsigned long& payload) const;
    bool journalsClean() const;
    void updateCriticalDiskMap(unsigned long map) { mCriticalMap = uint32_t(map); }
    // Makes IOTracker's commit, flush flag, payload and addClid go through
    // this instance, and cache pools' spill requests come to it.
    void installTrackerHooks();
    static void removeTrackerHooks();
    // Tests: GetInstance answers `j2` (the disk layer's journal) until reset
    // with nullptr, so that a test journal over its own partition takes the
    // metadata writes of the real disk and cache layers.
    static void setStandIn(J2Manager* j2) { sStandIn.store(j2, std::memory_order_release); }

    // Holds "rJ2Flush" for its scope (the relayout engine while it moves a
    // chunk): no spill runs meanwhile, and the idle timer skips its turn.
    class FlushHold {
    public:
        explicit FlushHold(J2Manager& j2) : mJ2(j2) {
            mJ2.mFlushLock.Lock();
            mJ2.mFlushHeld++;
        }
        ~FlushHold() {
            mJ2.mFlushHeld--;
            mJ2.mFlushLock.LockRelease();
        }
        FlushHold(const FlushHold&) = delete;
        FlushHold& operator=(const FlushHold&) = delete;

    private:
        J2Manager& mJ2;
    };

    // ---- spill, start, hot plug
    void forceFlush(bool inhibitable);
    void softSpill(bool inhibitable);
    bool needSpill(unsigned int slot) const;
    void doSpill(unsigned int slot, bool replay);
    // Asks the timer task for a spill and returns at once (cache pressure).
    void requestSpill();
    void startSoft();
    void hotPlug(unsigned short drive, hotOperation op);
    void cleanseJournalette(unsigned int slot);
    void resetSoftJournalette(int slot);
    void rebootIfCritical(unsigned short slot) const;
    bool nvramQuickTest(void* address, size_t size, unsigned passes) const;
    bool nvramCorrupt() const { return mNvramSuspect; }
    const char* nvramCorruptMessage() const;

    // ---- diagnostics
    void Dump(std::ostream& out);
    void DumpTrans(std::ostream& out, int slot = -1);
    void PerfInfo(std::ostream& out);
    void measurePSRAMPerf(std::ostream& out);
    bool loaded() const { return mLoaded; }
    uint32_t spillWrites() const { return mSpillWrites; }  // merged disk writes issued by spills
    uint32_t spills() const { return mSpillCount; }        // journalettes spilled
    uint32_t syncWaits() const { return mSyncCount; }      // sets a sync still waits for
    uint32_t timerTurns() const { return mTimerTurns; }    // looks the idle timer has taken
    const j2::SoftHeader& header() const { return *mSoft; }
    // Where a fatal end goes (reboot, non-viable pack); tests catch it here.
    std::function<void(const std::string&)> fatal;

private:
    struct Location {
        unsigned char* journalette = nullptr;
        unsigned char* payload = nullptr;
    };
    struct Load {
        unsigned char* ctrl = nullptr;
        unsigned char* payload = nullptr;
    };
    struct Space {
        uint32_t ctrl = 0;
        uint32_t payload = 0;
    };
    struct Committed {  // a walk of a journalette's committed records
        unsigned char* last = nullptr;  // the last committed record, null if none
        unsigned char* next = nullptr;  // the record place behind it
    };

    StatusCode addWrite(unsigned short drive, const DiskPane* pane, DataWindow* window, uint32_t length,
                        unsigned long long lba, IOTracker& tracker);
    StatusCode commit(J2set* set, J2set* prev);
    J2set* findSet(uint64_t id, J2set** prev) const;
    // A set for a new transaction: the one the last commit finished with, or a new one.
    J2set* newSet();
    // A committed set becomes this thread's spare (one deep; an older spare is freed).
    void retireSet(J2set* set);
    bool spaceCheck(J2set* set);
    // A set refused at commit: its cache ranges are given back (discardRange)
    // and it is freed. Called with none of the journal's locks held.
    void discardSet(J2set* set);
    // One of the sets a sync counted has left the build list (with "lJ2Soft").
    void settleSync(const J2set* set);
    Committed walkCommitted(unsigned slot) const;
    unsigned repairTornMarks();
    void buildPartition();
    void adoptLocations(uint32_t signature);
    void stampHeader(unsigned slot, const DiskIdentifier* id, uint16_t diskNum, uint16_t valid);
    void setValid(unsigned slot, uint16_t valid);
    void spillOnce(unsigned slot, bool replay, std::vector<CacheTrackerObject*>& release, StatusCode& writeStatus);
    void releaseClids(const std::vector<CacheTrackerObject*>& clids);
    void startThreads();
    void stopThreads();
    void spillWorkerThread();
    void j2flushThread();
    uint32_t clidHandle(unsigned slot, CacheTrackerObject* clid);
    uint32_t listHandle(unsigned slot, clidTracker* list);
    j2::DiskHeader& dh(unsigned slot) { return mSoft->diskHeaders[slot]; }
    const j2::DiskHeader& dh(unsigned slot) const { return mSoft->diskHeaders[slot]; }
    [[noreturn]] void die(const std::string& why) const;

    unsigned char* mBase;
    j2::SoftHeader* mSoft;
    bool mThreads;
    bool mInitialized = false;
    std::atomic<bool> mLoaded{false};
    std::atomic<bool> mActivity{false};
    std::atomic<bool> mIdle{false};
    std::atomic<bool> mStopping{false};
    bool mNvramSuspect = false;
    std::atomic<uint32_t> mCriticalMap{0};
    std::atomic<uint32_t> mSyncCount{0};
    SEM_ID mSyncDone = nullptr;
    SEM_ID mTimerWake = nullptr;
    std::atomic<bool> mSpillRequested{false};

    Location location[j2::kMaxDisks];
    Load load[j2::kMaxDisks];
    Space space[j2::kMaxDisks];
    // Boot-local handles for the clid and extra-list fields of the records:
    // handle n is entry n - 1; cleared with the journalette.
    std::vector<CacheTrackerObject*> mClids[j2::kMaxDisks];
    std::vector<clidTracker*> mClidLists[j2::kMaxDisks];
    // The last committed record of each journalette and its id (0 if none):
    // a set whose id a journalette's last record already carries clears that
    // id before it commits, so that the repair at start can tell its marks.
    unsigned char* mLastRecord[j2::kMaxDisks] = {};
    uint64_t mLastId[j2::kMaxDisks] = {};

    J2set* mBuildList = nullptr;
    LockObject mBuildListLock{"lJ2BuildList", 38};
    LockObject mSoftLock{"lJ2Soft", 39};
    ReentrantLockObject mFlushLock{"rJ2Flush", 0};
    std::atomic<int> mFlushHeld{0};

    TASK_ID mSpillTasks[4] = {};
    TASK_ID mTimerTask = nullptr;
    MSG_Q_ID mToQueue = nullptr;
    MSG_Q_ID mFromQueue = nullptr;
    std::atomic<int> mThreadsRunning{0};

    std::atomic<uint32_t> mSpillWrites{0};
    std::atomic<uint32_t> mSpillCount{0};
    std::atomic<uint32_t> mTimerTurns{0};
    static inline std::atomic<J2Manager*> sStandIn{nullptr};
    PerfAccumulator mCommitTimes, mWriteTimes, mCopyTimes, mPlayoutTimes, mFlushTimes;
    DataAccumulator mSpillSizes;
};
