#include "disk/ErrorPolicy.h"

#include <cstring>
#include <iomanip>
#include <sstream>

#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "management/EventLogManager.h"
#include "platform/rtos/BoardClock.h"
#include "region/RegionManager.h"
#include "util/Assert.h"
#include "util/Endian.h"
#include "util/ManagerRegistry.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

namespace {
Trace epmTrace("EPM", "ErrorPolicy", "flow", false);

// Reports that come while no pack is loaded wait for the load; a disk that
// fails on and on with no pack to load would otherwise fill memory, so the
// oldest waiting report goes once this many wait.
constexpr size_t kMaxWaiting = 1024;

// The reason a disk carries when it is expunged after repeated start failures.
constexpr const char* kStartFailureReason = "DISK START FAILURES";

std::string text(const DiskIdentifier& id) {
    std::ostringstream os;
    os << id;
    return os.str();
}

void post(const std::string& s) { EventLogManager::EventLog()->PostEvent(s); }
}  // namespace

ErrorPolicy* ErrorPolicy::GetInstance() {
    static ErrorPolicy instance;
    return &instance;
}

const char* ErrorPolicy::typeLabel(uint32_t type) {
    switch (type) {
    case HardRead: return "HARD READ ";
    case HardWrite: return "HARD WRITE ";
    case SoftRead: return "SOFT READ ";
    case SoftWrite: return "SOFT WRITE ";
    case ShortTimeout: return "SHORT TIMEOUT ";
    case FullTimeout: return "FULL TIMEOUT ";
    case RecoveredTimeout: return "RECOVERED TIMEOUT ";
    case DiskStartFailure: return "DISK START FAILURE ";
    case SlotPowerCycled: return "SLOT HAS BEEN POWER CYCLED ";
    default: return "UNKNOWN ";
    }
}

// Seconds of calendar time on the board clock.
uint32_t ErrorPolicy::now() { return uint32_t(BoardClock::GetInstance().realtime().tv_sec); }

StatusCode ErrorPolicy::Initialize() {
    if (!mInitialised) {
        EventManager::GetInstance()->AddHandlerStart(eEPMDefer, this, &ErrorPolicy::epmEvent);
        mInitialised = true;
    }
    return StatusCode::Success;
}

void ErrorPolicy::epmEvent(EVENT_TYPE, void* context, unsigned long, void*) {
    static_cast<ErrorPolicy*>(context)->trackAndDispatchError();
}

// ---- reporting

void ErrorPolicy::blockError(uint32_t type, StatusCode status, uint16_t slot, uint64_t lba, uint32_t length,
                             uint32_t timeoutTime, bool deferred) {
    ESA_ASSERT_OP(slot, <, DiskManager::kSlots);
    if (status == StatusCode::DiskNotPresent) return;  // the removal has its own path
    ESA_CONSOLE("EPM::blockError: " << typeLabel(type) << "error on physical disk " << slot << " at LBA = 0x"
                                    << std::hex << lba << " length = 0x" << length << std::dec
                                    << " StatusCode = " << status << " timeoutTime = " << timeoutTime
                                    << (deferred ? " DEFERRED" : " NOT DEFERRED"));
    DiskIdentifier id;
    bool found = false;
    for (auto& [s, wwn] : DiskManager::GetInstance()->GetDiskWWNMap())
        if (s == slot && wwn) id = *wwn, found = true;
    bool postEvent = false, expunge = false;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        if (!found) {
            ESA_CONSOLE("EPM::blockError: CAN'T FIND THE DISK IN SLOT " << slot);
            return;
        }
        if (mPending.size() >= kMaxWaiting) {
            ESA_TRACE(epmTrace, "dropping the oldest waiting error report");
            delete mPending.front();
            mPending.erase(mPending.begin());
        }
        auto* p = new PendingError;
        p->diskId = id;
        p->deferred = deferred;
        p->lba = lba;
        p->length = length;
        p->timeoutTime = timeoutTime;
        p->type = type;
        p->status = status;
        p->slot = slot;
        mPending.push_back(p);
        if (type == SlotPowerCycled) {
            ErrorTracker* t = findTracker(id);
            if (!t) {
                t = new ErrorTracker(id, mLimit);
                t->next = mTrackers;
                mTrackers = t;
            }
            t->slot = slot;
            expunge = ErrorTracker::countInWeek(t->fullTimeouts, t->lastFullTimeout, now()) > 1;
        }
        if (mPackLoaded && !mEventPending) mEventPending = postEvent = true;
    }
    // A second power cycle within a week: the disk is thrown out, once the slot
    // has had the time to come back from this cycle.
    if (expunge) DiskPackManager::GetInstance()->expungePhysicalDiskWithDelay(slot, "SLOT POWER CYCLE");
    if (postEvent) EventManager::GetInstance()->NewEvent(eEPMDefer, false, 0ul);
}

// ---- counting, on the event thread

void ErrorPolicy::trackAndDispatchError() {
    bool needSave = false;
    uint32_t cycleSlots = 0;
    mExpungedThisRound = 0;
    for (;;) {
        PendingError* p = nullptr;
        {
            LockObject::ExclusiveLockInstance g(&mLock);
            if (mPending.empty()) {
                mEventPending = false;
                break;
            }
            p = mPending.back();
            mPending.pop_back();
        }
        processOne(*p, needSave, cycleSlots);
        delete p;
    }
    for (uint16_t slot = 0; slot < DiskManager::kSlots; ++slot) {
        if (!(cycleSlots >> slot & 1)) continue;
        post("EPM::trackAndDispatchError: power cycling slot " + std::to_string(slot));
        DiskPackManager::GetInstance()->hotPlug(slot, DiskPackManager::POWER_CYCLE);
    }
    if (needSave && saveErrorList() != StatusCode::Success) ESA_CONSOLE("EPM: UNABLE TO SAVE EPM METADATA");
}

void ErrorPolicy::processOne(PendingError& p, bool& needSave, uint32_t& cycleSlots) {
    if (p.type == SlotPowerCycled) {
        needSave = true;  // blockError has counted it
        return;
    }
    int slot = -1;
    for (auto& [s, wwn] : DiskManager::GetInstance()->GetDiskWWNMap())
        if (wwn && *wwn == p.diskId) slot = s;
    const std::string removed = "EPM: DISK " + text(p.diskId) + " SEEMS TO HAVE BEEN REMOVED";
    if (slot < 0) {
        ESA_CONSOLE(removed);
        return;
    }
    const uint32_t t = now();
    if (p.type == DiskStartFailure) {
        ErrorTracker* tr = getErrorTracker(p.diskId);
        tr->slot = uint16_t(slot);
        if (ErrorTracker::countInWeek(tr->startErrors, tr->lastStartError, t) == 1) cycleSlots |= 1u << slot;
        else DiskPackManager::GetInstance()->expungePhysicalDisk(uint16_t(slot), kStartFailureReason);
        needSave = true;
        return;
    }
    uint16_t ld = 0;
    if (DiskPackManager::GetInstance()->getLdNum(uint16_t(slot), ld) != StatusCode::Success) {
        ESA_CONSOLE(removed);
        return;
    }
    uint32_t region = 0, offset = 0;
    {
        IOTracker tracker(READ_ONLY);
        StatusCode st = RegionManager::GetInstance()->getRegionNumber(ld, uint32_t(p.lba), region, offset, tracker);
        tracker.commitIfDirty();
        if (st != StatusCode::Success) {
            ESA_TRACE(epmTrace, "no Region for LD " << ld << " LBA 0x" << std::hex << p.lba << ": " << st);
            return;
        }
    }
    ErrorTracker* tr = getErrorTracker(p.diskId);
    tr->slot = uint16_t(slot);
    // One expunge request per disk and round: the errors of a burst all pass
    // the same limit, and the request that matters is the first.
    auto expunge = [&](const char* reason) {
        if (mExpungedThisRound >> ld & 1) return;
        mExpungedThisRound |= 1u << ld;
        DiskPackManager::GetInstance()->expungeLogicalDisk(ld, reason);
    };
    switch (p.type) {
    case HardRead:
    case HardWrite:
        // A request merely flushed behind another's timeout found no bad sector.
        if (p.status != StatusCode::DM_DeviceTimeoutFlush) tr->blockError(region, uint16_t(slot), t);
        needSave = true;
        break;
    case SoftRead:
    case SoftWrite:
        ESA_TRACE(epmTrace, "ignoring soft error on LBA/RN 0x" << std::hex << p.lba << "/" << region);
        needSave = true;
        break;
    case ShortTimeout:
        ++tr->shortTimeouts;
        ++tr->shortTimeoutTotal;
        if (tr->shortWindowStart == 0) tr->shortWindowStart = t;
        needSave = true;
        break;
    case FullTimeout:
        if (ErrorTracker::countInWeek(tr->fullTimeouts, tr->lastFullTimeout, t) == 1) {
            cycleSlots |= 1u << slot;
            p.deferred = false;  // the power cycle deals with the error
        } else {
            expunge("FULL TIMEOUTS");
        }
        needSave = true;
        break;
    case RecoveredTimeout:
        ++tr->recoveredTimeouts;
        needSave = true;
        break;
    default:
        break;
    }
    switch (mLimit.limitsExceeded(*tr, t)) {
    case ErrorLimit::BlockLimit:
    case ErrorLimit::RateLimit:
        expunge("HARD ERROR RATE");
        break;
    case ErrorLimit::ShortTimeoutLimit:
        expunge("SHORT TIMEOUTS");
        break;
    default:
        break;
    }
    if (p.deferred) dispatchError(p, ld, region);
}

// Errors are found by Region and handed to the Region's owner: the Region
// layer's two calls here and in processOne are the policy's only calls up.
void ErrorPolicy::dispatchError(const PendingError& p, uint16_t ld, uint32_t region) {
    uint32_t owner = 0;
    if (RegionManager::GetInstance()->getRegionOwner(ld, region, owner) != StatusCode::Success) return;
    if (owner & RegionManager::kOwnerOther) {
        if (mZoneErrorHandler) mZoneErrorHandler(ld, region, p.type, p.status);
        else ESA_TRACE(epmTrace, "no zone handler for LD " << ld << " Region " << region);
    }
    if (owner & RegionManager::kOwnerRMMetadata)
        RegionManager::GetInstance()->outOfBandError(ld, region, uint32_t(p.lba), int(p.type), p.status);
    if (owner & RegionManager::kOwnerDIS)
        DiskPackManager::GetInstance()->outOfBandError(ld, uint32_t(p.lba), p.type, p.status);
}

// ---- trackers

ErrorTracker* ErrorPolicy::findTracker(const DiskIdentifier& diskId) {
    for (ErrorTracker* t = mTrackers; t; t = t->next)
        if (t->diskId == diskId) return t;
    return nullptr;
}

ErrorTracker* ErrorPolicy::getErrorTracker(const DiskIdentifier& diskId) {
    LockObject::ExclusiveLockInstance g(&mLock);
    if (ErrorTracker* t = findTracker(diskId)) return t;
    auto* t = new ErrorTracker(diskId, mLimit);
    t->next = mTrackers;
    mTrackers = t;
    return t;
}

StatusCode ErrorPolicy::GetErrorCount(uint16_t slot, uint32_t& count) {
    LockObject::ExclusiveLockInstance g(&mLock);
    for (ErrorTracker* t = mTrackers; t; t = t->next)
        if (t->slot == slot) {
            count = t->errorCount();
            return StatusCode::Success;
        }
    return StatusCode::DiskNotPresent;
}

unsigned ErrorPolicy::trackerCount() {
    LockObject::ExclusiveLockInstance g(&mLock);
    unsigned n = 0;
    for (ErrorTracker* t = mTrackers; t; t = t->next) ++n;
    return n;
}

void ErrorPolicy::deleteTrackers() {
    while (mTrackers) {
        ErrorTracker* t = mTrackers;
        mTrackers = t->next;
        delete t;
    }
}

// ---- the Zone 0 record

StatusCode ErrorPolicy::saveErrorList() {
    if (!mPackLoaded) {
        ESA_TRACE(epmTrace, "disk pack not loaded, skipping");
        return StatusCode::Success;
    }
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    uint32_t count = 0;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        if (!mTrackers) {
            ESA_TRACE(epmTrace, "ErrorTracker list is empty!");
            return StatusCode::Success;
        }
        std::memset(mScratch, 0, sizeof mScratch);
        size_t total = 0;
        for (ErrorTracker* t = mTrackers; t; t = t->next) ++total;
        size_t surplus = total > kMaxSavedTrackers ? total - kMaxSavedTrackers : 0;
        if (surplus) ESA_TRACE(epmTrace, "dropping " << surplus << " error trackers");
        // Present disks to the head; the first `surplus` absent ones leave;
        // other absent ones stay, with no slot.
        auto ready = DiskManager::GetInstance()->GetDiskWWNMap();
        ErrorTracker *present = nullptr, *presentTail = nullptr, *absent = nullptr, *absentTail = nullptr;
        for (ErrorTracker* t = mTrackers; t;) {
            ErrorTracker* next = t->next;
            t->next = nullptr;
            bool here = false;
            for (auto& [s, wwn] : ready)
                if (wwn && *wwn == t->diskId) here = true;
            if (here) {
                (presentTail ? presentTail->next : present) = t;
                presentTail = t;
            } else if (surplus) {
                --surplus;
                delete t;
            } else {
                t->slot = ErrorTracker::kNoSlot;
                (absentTail ? absentTail->next : absent) = t;
                absentTail = t;
            }
            t = next;
        }
        if (presentTail) presentTail->next = absent;
        mTrackers = present ? present : absent;
        for (ErrorTracker* t = mTrackers; t && count < EpmRecord::kMaxRecords; t = t->next)
            EpmRecord::put(mScratch + EpmRecord::kHeaderSize + count++ * EpmRecord::kSize, *t);
        putLE16(mScratch, EpmRecord::kSignature);
        putLE16(mScratch + 2, uint16_t(count));
    }
    if (!z0->entryValid(kZone0Entry, kZone0Signature, kZone0Version)) {
        ESA_TRACE(epmTrace, "allocting ZONE 0 user structure");
        StatusCode st = z0->CreateEntry(kZone0Entry, kZone0Version, EpmRecord::kAreaSize, kZone0Signature);
        if (st != StatusCode::Success) return st;
    }
    StatusCode st = z0->WriteArea(kZone0Entry, mScratch, EpmRecord::kAreaSize);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("EPM: FAILED TO WRITE TO ZONE 0, " << st);
        z0->EraseEntry(kZone0Entry);  // a later save creates it afresh
    }
    return st;
}

StatusCode ErrorPolicy::loadErrorList() {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    if (!z0->entryValid(kZone0Entry, kZone0Signature, kZone0Version)) {
        ESA_TRACE(epmTrace, "no zone0 user data");
        return StatusCode::CorruptedZone0Entry;
    }
    std::vector<uint8_t> area(EpmRecord::kAreaSize);
    if (StatusCode st = z0->ReadArea(kZone0Entry, area.data(), EpmRecord::kAreaSize); st != StatusCode::Success) {
        ESA_CONSOLE("EPM: failed to read from Zone0 " << st);
        return st;
    }
    if (getLE16(area.data()) != EpmRecord::kSignature) {
        ESA_CONSOLE("EPM: sig is invalid, expected 0x" << std::hex << EpmRecord::kSignature << " got 0x"
                                                        << getLE16(area.data()));
        return StatusCode::CorruptedZone0Entry;
    }
    uint16_t count = std::min<uint16_t>(getLE16(area.data() + 2), uint16_t(EpmRecord::kMaxRecords));
    auto ready = DiskManager::GetInstance()->GetDiskWWNMap();
    LockObject::ExclusiveLockInstance g(&mLock);
    for (uint16_t i = 0; i < count; ++i) {
        auto* loaded = new ErrorTracker(DiskIdentifier(), mLimit);
        EpmRecord::get(area.data() + EpmRecord::kHeaderSize + i * EpmRecord::kSize, *loaded);
        for (auto& [s, wwn] : ready)
            if (wwn && *wwn == loaded->diskId) loaded->slot = uint16_t(s);
        ErrorTracker* t = findTracker(loaded->diskId);
        if (!t) {
            loaded->next = mTrackers;
            mTrackers = loaded;
            continue;
        }
        // An error came during the load: the saved counts join the new ones.
        t->blockCount += loaded->blockCount;
        t->shortTimeoutTotal += loaded->shortTimeoutTotal;
        t->blockDuplicates += loaded->blockDuplicates;
        t->fullTimeouts += loaded->fullTimeouts;
        t->startErrors += loaded->startErrors;
        t->recoveredTimeouts += loaded->recoveredTimeouts;
        t->lastFullTimeout = std::max(t->lastFullTimeout, loaded->lastFullTimeout);
        t->lastStartError = std::max(t->lastStartError, loaded->lastStartError);
        delete loaded;
    }
    return StatusCode::Success;
}

// ---- life cycle

StatusCode ErrorPolicy::LoadDiskPack() {
    ESA_ASSERT(mInitialised);
    ESA_ASSERT(mLimit.limitsSet());
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        mEventPending = true;  // no event is posted while the waiting reports are handled here
    }
    trackAndDispatchError();
    if (loadErrorList() != StatusCode::Success) ESA_CONSOLE("EPM: UNABLE TO LOAD EPM METADATA");
    bool post = false;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        mPackLoaded = true;
        // A report that came between the handling above and now is not left waiting.
        if (!mPending.empty() && !mEventPending) mEventPending = post = true;
    }
    if (post) EventManager::GetInstance()->NewEvent(eEPMDefer, false, 0ul);
    saveErrorList();
    return StatusCode::Success;
}

StatusCode ErrorPolicy::UnloadDiskPack() {
    LockObject::ExclusiveLockInstance g(&mLock);
    mPackLoaded = false;
    deleteTrackers();
    for (PendingError* p : mPending) delete p;
    mPending.clear();
    mEventPending = false;
    return StatusCode::Success;
}

std::vector<ErrorPolicy::PendingError> ErrorPolicy::pendingErrors() {
    LockObject::ExclusiveLockInstance g(&mLock);
    std::vector<PendingError> out;
    for (PendingError* p : mPending) out.push_back(*p);
    return out;
}

void ErrorPolicy::clearPendingErrors() {
    LockObject::ExclusiveLockInstance g(&mLock);
    for (PendingError* p : mPending) delete p;
    mPending.clear();
}

void ErrorPolicy::resetForTest() {
    UnloadDiskPack();
    mLimit.setDefaults();
    mInitialised = true;
}

void ErrorPolicy::Dump(std::ostream& out) {
    mLimit.Dump(out);
    LockObject::ExclusiveLockInstance g(&mLock);
    out << "EPM: pack " << (mPackLoaded ? "loaded" : "not loaded") << ", " << mPending.size()
        << " errors waiting, event " << (mEventPending ? "pending" : "not pending") << "\n";
    for (ErrorTracker* t = mTrackers; t; t = t->next) t->Dump(out);
}

namespace {
struct Registration {
    Registration() {
        for (const char* name : {"ErrorPolicy", "EPM"})
            ManagerRegistry::add(name, [](std::ostream& out) { ErrorPolicy::GetInstance()->Dump(out); });
    }
} gRegistration;
}  // namespace
