#pragma once
// DiskPackManager (DPM): decides at power-on, from the DIS records on the
// disks, which pack to load, whether a new pack must be made, and which disks
// join or are refused; it owns the master DIS and maps logical disks (LD, 0 to
// 23, kept for the life of the pack) to physical slots and back. Every I/O by
// LD (Region metadata, Region data) goes through it.
//
// Invariants: lock order "lDPMhotPlug", then "eGlobalDIS". Until the commit
// point nothing is written to any disk and a load can be given up with the
// disks untouched; from the commit point on a failure is a failed load, which
// locks further loads out until reboot. An LD is present (container), missing
// (bit in logicalDisks, no container) or gone (bit clear).
#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>

#include "disk/DIS.h"
#include "disk/DiskIdentifier.h"
#include "disk/DiskPackId.h"
#include "include/IORequest.h"
#include "include/ManagerBase.h"
#include "system/EventManager.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/PerfAccumulator.h"

class DiskPackManager : public ManagerBase {
public:
    static constexpr unsigned maxLogicalDisks = 24;
    static constexpr uint16_t kUnknownSlot = 99;
    static constexpr uint16_t kNoLd = 24;

    // Why no pack is loaded (the text behind "NOT LOADED BECAUSE ").
    enum NotLoadedReason {
        kPackLoaded = 0,
        kNoSpecificError = 1,
        kUnknownMetadataVersion = 2,
        kMetadataBad = 3,
        kConflictingPacks = 4,
        kCriticalDisksMissing = 5,
        kReadOnlyLoadFailure = 6,
        kTooManyDisksMissing = 7,
        kNotCompatible = 8,
    };
    static const char* reasonText(int reason);

    enum hotOperation { ADD = 0, REMOVE = 1, EXPUNGE = 2, POWER_CYCLE = 3 };
    static const char* operationName(int op);

    // One expunge request, owned by the event that carries it.
    struct ExpungeParams {
        uint16_t ld = 0;
        uint16_t slot = 0;
        char reason[32] = {};
    };

    static DiskPackManager* GetInstance();

    StatusCode Initialize() override;
    bool initialized() const { return mInitialized; }
    // The work of a load runs from doColdStart; this one has nothing to do.
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override;
    StatusCode externalConsistencyCheck(std::ostream& out) override;

    // Chooses a pack and, when one is viable, loads it through the second stage.
    StatusCode doColdStart(bool clearDisk);
    // The end of the managers' load, reported by the system manager.
    void diskPackLoadStatus(StatusCode status);
    StatusCode loadStatus() const { return mDiskPackLoaded ? StatusCode::Success : StatusCode::DiskPackNotLoaded; }
    // Disks found at the last discovery: members present and disks free for use.
    unsigned availableDiskCount() const { return mDisksFound; }
    bool packLoaded() const { return mDiskPackLoaded; }
    bool packLoading() const { return mDiskPackLoading; }
    bool pastCommitPoint() const { return mLoadPastCommitPoint; }
    bool lockedOut() const { return mLoadLockedOut; }
    int notLoadedReason() const { return mNotLoadedReason; }

    // The pack's identity (zero while no pack is chosen).
    DiskPackId packId() const { return mDis.packId; }
    DiskPackId getDiskPackId() const { return mDis.packId; }
    void getDiskPackName(char* buffer, int length);
    StatusCode setDiskPackName(const char* name);
    uint32_t generation() const { return mDis.generation; }

    // LD and slot. DiskPackNotLoaded when no pack is loading or loaded,
    // DiskNotPresent when the LD has no disk present.
    StatusCode getSlotNum(uint16_t ld, uint16_t& slot);
    StatusCode getLdNum(uint16_t slot, uint16_t& ld);
    // Bitmap of the LDs present now (bit n = LD n).
    uint32_t presentLogicalDisks();
    bool isPresent(uint16_t ld);
    // Capacity of the LD's disk in sectors, taken as 32 bits.
    StatusCode getCapacity(uint16_t ld, uint32_t& sectors);
    unsigned getNumberOfLogicalDisks();
    unsigned getNumberOfMissingDisks();
    unsigned getNumberOfMissingDisksWithLock() { return getNumberOfMissingDisks(); }
    unsigned getNumberOfAvailableDisks() const { return mAvailable.size(); }
    unsigned getNumberOfCriticalDisks() const { return mCriticalCount; }

    // The DIS ranges that the Region layer keeps its allocations clear of.
    unsigned getDPMMetaDataCount() const { return 3; }
    StatusCode getDPMMetaDataLBA(uint16_t ld, unsigned copy, uint32_t& sectors, uint32_t& lba);
    StatusCode getRMLBA(uint16_t ld, uint32_t& lba0, uint32_t& lba1);
    // Records where the LD's two Region metadata copies now lie (in its DIS),
    // as part of the caller's transaction.
    StatusCode updateRMLBA(IOTracker& tracker, uint16_t ld, uint32_t lba0, uint32_t lba1);

    // I/O by LD and sector. The window's length says how much.
    StatusCode readData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker);
    StatusCode writeData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker);
    // Parallel batches: fills each element's slot and status; DiskNotPresent
    // for an element whose LD is gone. The result is the first failure.
    StatusCode readDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode writeDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    // Sector I/O through the "dlbat" cache.
    StatusCode readThroughCache(unsigned char* buffer, uint32_t sectors, uint16_t ld, uint32_t lba,
                                IOTracker& tracker);
    StatusCode writeThroughCache(unsigned char* buffer, uint32_t sectors, uint16_t ld, uint32_t lba,
                                 IOTracker& tracker);
    StatusCode flush(uint16_t ld);
    StatusCode flushDisks();

    // Discovery and choice (public for the tests that drive them one by one).
    using DiskMap = std::unordered_map<int, const DiskIdentifier*>;
    void discoverAllDisRecords(const DiskMap& diskMap, bool ignoreExpunged);
    DIS* discoverDis(uint16_t slot, DIS::LogicalDiskContainer*& container);
    bool chooseCandidatePack(const DiskMap& diskMap, bool clearDisk);
    void createNewDiskPack(const DiskMap& diskMap, DIS& dis);
    bool understandLayout();
    bool isDiskUsable(uint16_t slot);
    StatusCode qualifyDisk(uint16_t slot, uint32_t lba);
    void checkDisRepair();

    // Hot plug and expunge. The request forms post an event and return.
    StatusCode hotPlug(uint16_t slot, int op);
    StatusCode expungeLogicalDisk(uint16_t ld, const char* reason);
    StatusCode expungePhysicalDisk(uint16_t slot, const char* reason);
    StatusCode expungePhysicalDiskWithDelay(uint16_t slot, const char* reason);
    StatusCode expungeLogicalDisk(ExpungeParams* params);
    StatusCode expungePhysicalDisk(ExpungeParams* params);
    StatusCode deleteLogicalDisk(uint16_t ld);
    void updateCriticalDiskMap(IOTracker& tracker);
    // With "eGlobalDIS" held: a critical LD found missing stops the system.
    void rebootIfCritical(uint16_t ld);
    uint32_t criticalMap() const { return mCriticalMap; }
    // Whether losing `ld` would lose data: only the Zone layer knows which
    // Zones have their last copy where, so the pack asks it, here and only here.
    static bool zoneSaysCritical(uint16_t ld, bool traceReason, IOTracker& tracker);
    // The disk that left last, if it came back as newLD: NoMoreLogicalDisks
    // when there is none. A Zone of oldLD not written since flushTime (seconds)
    // needs no copying to newLD.
    StatusCode getResyncDisk(uint16_t& oldLD, uint16_t& newLD, uint32_t& flushTime);
    // After standby: are the disks not those that went to sleep? True if so.
    bool diskPackChanged();
    // A deferred error in a Region that holds a DIS range of `ld`.
    void outOfBandError(uint16_t ld, uint32_t lba, uint32_t errorType, StatusCode status);

    // The master record (tests and the DIS members that judge the pack).
    DIS& master() { return mDis; }
    void setNotLoadedReason(int reason) { mNotLoadedReason = reason; }
    // Unit tests without the system manager and the layers above: `stage`
    // replaces the second load stage, and the system manager's other parts of
    // a load (the journal's preparation, the read-only load of a candidate)
    // are left out. Null restores the system's own.
    void setSecondStageForTest(bool (*stage)()) { mSecondStage = stage; }
    bool systemStagesReplaced() const { return mSecondStage != nullptr; }
    // A boot checkpoint of the load (none in unit tests: the LED bar is the boot's).
    void bootCheckpoint(const char* what);
    // Back to the state of a fresh process (tests).
    void resetForTest();
    // Gives the ready disk in `slot` the lowest free LD number and nothing
    // else: no Region metadata, no DIS write (tests of the Region layer that
    // install the disk themselves).
    StatusCode attachDiskForTest(uint16_t slot, uint16_t& ld);

    void Dump(std::ostream& out);
    void PerfInfo(std::ostream& out);

private:
    DiskPackManager() = default;
    static void doDpmEvent(EVENT_TYPE type, void* context, unsigned long value, void*);
    bool mappingValid() const;
    // With "eGlobalDIS" held in either mode.
    StatusCode slotOf(uint16_t ld, uint16_t& slot);
    StatusCode slotForIo(uint16_t ld, uint16_t& slot);
    StatusCode parallel(bool write, _IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode findDisInRange(DIS::LogicalDiskContainer& container, unsigned index, DIS*& best);
    void absorbAvailable(bool& updateNeeded);
    void refuse(uint16_t slot, const std::string& text);
    void postEvent(const std::string& text);
    std::string wwnOf(uint16_t slot);
    DiskMap readyDisks();

    LockObject mHotPlugLock{"lDPMhotPlug", 0x17};
    bool mInitialized = false;
    bool mDiskPackLoaded = false;
    bool mDiskPackLoading = false;
    bool mLoadPastCommitPoint = false;
    bool mLoadLockedOut = false;
    DISList mCandidates;
    AvailableDiskList mAvailable;
    DIS mDis;
    int mNotLoadedReason = kNoSpecificError;
    unsigned mCriticalCount = 0;
    uint32_t mCriticalMap = 0;
    unsigned mDisksFound = 0;
    bool (*mSecondStage)() = nullptr;

    // The disk that left last, for a quick resynchronisation if it returns.
    bool mResyncAvailable = false;
    DiskIdentifier mLastRemovedWWN;
    uint16_t mLastRemovedLD = kNoLd;
    uint16_t mResyncNewLD = kNoLd;
    uint32_t mLastFlushTime = 0;

    PerfAccumulator mReadTimes, mWriteTimes, mParallelReadTimes, mParallelWriteTimes;
};
