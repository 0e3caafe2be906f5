#pragma once
// ErrorPolicy (EPM): decides what a disk's errors add up to. The I/O layers
// report each error through blockError and go on; the policy counts them per
// disk identity on the event thread (event 11), keeps the counts across
// reboots in its Zone 0 area ("EPM-Z0IT"), power-cycles a slot after a first
// timeout and expunges a disk that passes a limit. Errors that reached nobody
// at the time (deferred) are handed to the owner of the Region.
//
// Invariants: "lEPMLock" guards the pending vector, eventPending and the
// tracker list's shape; trackers are otherwise touched only on the event
// thread (and by blockError for a slot power cycle, under the lock). At most
// one event 11 is outstanding: eventPending is set before posting and cleared
// in the same critical section that finds the vector empty.
#include <cstdint>
#include <ostream>
#include <vector>

#include "disk/DiskIdentifier.h"
#include "disk/ErrorTracker.h"
#include "include/ManagerBase.h"
#include "system/EventManager.h"
#include "util/LockObject.h"

class ErrorPolicy : public ManagerBase {
public:
    enum errorType : uint32_t {
        HardRead = 0, HardWrite = 1, SoftRead = 2, SoftWrite = 3, ShortTimeout = 4, FullTimeout = 5,
        RecoveredTimeout = 6, DiskStartFailure = 7, SlotPowerCycled = 10
    };
    static const char* typeLabel(uint32_t type);

    struct PendingError {
        DiskIdentifier diskId;
        bool deferred = false;
        uint64_t lba = 0;
        uint32_t length = 0;
        uint32_t timeoutTime = 0;
        uint32_t type = 0;
        StatusCode status;
        uint16_t slot = 0;  // where it was reported (dumps and tests)
    };

    static constexpr unsigned kZone0Entry = 8;
    static constexpr uint32_t kZone0Version = 2;
    static constexpr const char* kZone0Signature = "EPM-Z0IT";
    static constexpr size_t kMaxSavedTrackers = 10;

    static ErrorPolicy* GetInstance();
    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;

    // Reports one error; callable from any thread, never blocks on disks.
    void blockError(uint32_t type, StatusCode status, uint16_t slot, uint64_t lba, uint32_t length,
                    uint32_t timeoutTime = 0, bool deferred = false);
    // The handler of event 11: counts and acts on every waiting error.
    void trackAndDispatchError();
    void dispatchError(const PendingError& pending, uint16_t ld, uint32_t region);

    // blockCount + startErrors + fullTimeouts + recoveredTimeouts, clipped to
    // 0xFFFF; DiskNotPresent when no tracker has this slot.
    StatusCode GetErrorCount(uint16_t slot, uint32_t& count);
    StatusCode saveErrorList();
    StatusCode loadErrorList();
    // Finds or creates (at the head of the list) the tracker of a disk.
    ErrorTracker* getErrorTracker(const DiskIdentifier& diskId);

    ErrorLimit& limits() { return mLimit; }
    bool packLoaded() const { return mPackLoaded; }
    // Errors waiting for the event thread (a copy).
    std::vector<PendingError> pendingErrors();
    void clearPendingErrors();
    unsigned trackerCount();

    // The zone layer's handler of a deferred error in a Region that holds Zone
    // data; until it registers one, such errors are traced and left.
    using ZoneErrorHandler = void (*)(uint16_t ld, uint32_t region, uint32_t type, StatusCode status);
    void setZoneErrorHandler(ZoneErrorHandler handler) { mZoneErrorHandler = handler; }

    void Dump(std::ostream& out);
    // Back to a fresh process's state, limits set (unit tests).
    void resetForTest();

private:
    ErrorPolicy() = default;
    static void epmEvent(EVENT_TYPE type, void* context, unsigned long value, void*);
    static uint32_t now();
    // With "lEPMLock" held.
    ErrorTracker* findTracker(const DiskIdentifier& diskId);
    void processOne(PendingError& p, bool& needSave, uint32_t& cycleSlots);
    void deleteTrackers();

    LockObject mLock{"lEPMLock", 0x2B};
    std::vector<PendingError*> mPending;
    ErrorTracker* mTrackers = nullptr;
    ErrorLimit mLimit;
    bool mInitialised = false;
    bool mPackLoaded = false;
    bool mEventPending = false;
    uint8_t mScratch[EpmRecord::kAreaSize] = {};
    ZoneErrorHandler mZoneErrorHandler = nullptr;
    uint32_t mExpungedThisRound = 0;  // LDs asked to go in this round of trackAndDispatchError
};
