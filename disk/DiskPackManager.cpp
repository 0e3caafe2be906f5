// DiskPackManager: life cycle, events, the LD to slot mapping and the I/O by
// LD. Discovery and load are in DiskPackManagerLoad.cpp, hot plug and expunge
// in DiskPackManagerExpunge.cpp.
#include "disk/DiskPackManager.h"

#include <iomanip>
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DisSector.h"
#include "disk/DiskManager.h"
#include "management/EventLogManager.h"
#include "system/SystemManager.h"
#include "util/Trace.h"

using namespace DisLayout;

DiskPackManager* DiskPackManager::GetInstance() {
    static DiskPackManager instance;
    return &instance;
}

const char* DiskPackManager::reasonText(int reason) {
    switch (reason) {
    case kPackLoaded: return "PACK IS LOADED ... WTF!";
    case kNoSpecificError: return "OF NO SPECIFIC ERROR";
    case kUnknownMetadataVersion: return "UNKNOWN METADATA VERSION";
    case kMetadataBad: return "METADATA BAD (SOMEONE'S LDP FAILED)";
    case kConflictingPacks: return "CONFLICTING DISK PACKS";
    case kCriticalDisksMissing: return "ONE OR MORE CRITICAL DISKS MISSING";
    case kReadOnlyLoadFailure: return "READ-ONLY LOAD FAILURE (COULDN'T CHECK CRITICAL DISKS";
    case kTooManyDisksMissing: return "TOO MANY DISKS ARE MISSING";
    case kNotCompatible: return "DISK PACK NOT COMPATIBLE WITH THIS PLATFORM";
    default: return "UNKNOWN REASON!";
    }
}

const char* DiskPackManager::operationName(int op) {
    static const char* names[] = {"ADD", "REMOVE", "EXPUNGE", "POWER_CYCLE"};
    return op >= 0 && op <= POWER_CYCLE ? names[op] : "UNKNOWN";
}

void DiskPackManager::postEvent(const std::string& text) { EventLogManager::EventLog()->PostEvent(text); }

std::string DiskPackManager::wwnOf(uint16_t slot) {
    const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(slot);
    if (!id) return "<none>";
    std::ostringstream os;
    os << *id;
    return os.str();
}

DiskPackManager::DiskMap DiskPackManager::readyDisks() { return DiskManager::GetInstance()->GetDiskWWNMap(); }

StatusCode DiskPackManager::Initialize() {
    if (mInitialized) {
        postEvent("DPM::initialize: ERROR, called > 1 times!");
        return StatusCode::InitFailed;
    }
    mInitialized = true;
    EventManager* em = EventManager::GetInstance();
    for (EVENT_TYPE t : {eLogExpung, ePhyExpung, eDISRepair, eQAInsertD, eQARemoveD})
        em->AddHandlerStart(t, this, &DiskPackManager::doDpmEvent);
    DIS::injection();
    return StatusCode::Success;
}

void DiskPackManager::doDpmEvent(EVENT_TYPE type, void* context, unsigned long value, void*) {
    auto* self = static_cast<DiskPackManager*>(context);
    switch (type) {
    case eLogExpung:
    case ePhyExpung: {
        auto* params = reinterpret_cast<ExpungeParams*>(value);
        if (type == eLogExpung) self->expungeLogicalDisk(params);
        else self->expungePhysicalDisk(params);
        delete params;
        break;
    }
    case eDISRepair:
        self->mDis.repairDis();
        break;
    case eQAInsertD:
    case eQARemoveD:
        // QA drive insert and remove switch the slot's power; the slot power
        // switch comes with the disk power layer, until then it is told.
        ESA_CONSOLE("DPM: QA " << (type == eQAInsertD ? "insert" : "remove") << " drive in slot " << (value & 0xffff));
        break;
    default:
        break;
    }
}

void DiskPackManager::resetForTest() {
    LockObject::ExclusiveLockInstance h(&mHotPlugLock);
    mDiskPackLoaded = mDiskPackLoading = mLoadPastCommitPoint = mLoadLockedOut = false;
    mCandidates.clear();
    mAvailable.clear();
    mDis.reset();
    mNotLoadedReason = kNoSpecificError;
    mCriticalCount = 0;
    mCriticalMap = 0;
    mDisksFound = 0;
    mResyncAvailable = false;
    mLastRemovedWWN.Reset();
    mLastRemovedLD = mResyncNewLD = kNoLd;
    mLastFlushTime = 0;
    SystemManager::GetInstance()->setClearDiskRequested(false);
}

StatusCode DiskPackManager::attachDiskForTest(uint16_t slot, uint16_t& ld) {
    if (!DiskManager::GetInstance()->DriveIsReady(slot)) return StatusCode::DiskNotPresent;
    ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
    if (mDis.containerInSlot(slot)) return StatusCode::RM_DiskExists;
    unsigned n = 0;
    while (n < maxLogicalDisks && mDis.hasLd(n)) ++n;
    if (n == maxLogicalDisks) return StatusCode::NoMoreLogicalDisks;
    auto* c = new DIS::LogicalDiskContainer;
    c->slot = slot;
    c->setRanges(DiskManager::GetInstance()->GetDriveCapacity(slot));
    c->ldNumber = uint16_t(n);
    c->ldBitmap = 1u << n;
    mDis.logicalDisks |= c->ldBitmap;
    mDis.setContainer(n, c);
    ld = uint16_t(n);
    return StatusCode::Success;
}

// ---- names

void DiskPackManager::getDiskPackName(char* buffer, int length) {
    if (!buffer || length <= 0) return;
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    std::string n = mDis.nameString();
    size_t k = std::min(n.size(), size_t(length - 1));
    std::memcpy(buffer, n.data(), k);
    buffer[k] = 0;
}

StatusCode DiskPackManager::setDiskPackName(const char* name) {
    if (!mDiskPackLoaded) return StatusCode::DiskPackNotLoaded;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        postEvent("DPM: Changing diskpack name from [" + mDis.nameString() + "] to [" + name + "]");
        mDis.setName(name);
        mDis.flags |= DIS_UPDATE_GLOBAL;
    }
    StatusCode st = mDis.updateDis(nullptr, true);
    // A rolled-back rename is written again by the repair.
    checkDisRepair();
    return st;
}

// ---- LD and slot

StatusCode DiskPackManager::slotOf(uint16_t ld, uint16_t& slot) {
    DIS::LogicalDiskContainer* c = mDis.container(ld);
    if (!c || c->slot >= DiskManager::kSlots) return StatusCode::DiskNotPresent;
    slot = c->slot;
    return StatusCode::Success;
}

// Before the commit point the mapping is the candidate's: it is given while a
// load is under way (the Region layer checks each member's metadata then) and
// refused when no pack is loading or loaded.
bool DiskPackManager::mappingValid() const { return mLoadPastCommitPoint || mDiskPackLoading || mDiskPackLoaded; }

StatusCode DiskPackManager::getSlotNum(uint16_t ld, uint16_t& slot) {
    if (!mappingValid()) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    return slotOf(ld, slot);
}

StatusCode DiskPackManager::getLdNum(uint16_t slot, uint16_t& ld) {
    if (!mappingValid()) return StatusCode::DiskPackNotLoaded;
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    DIS::LogicalDiskContainer* c = mDis.containerInSlot(slot);
    if (!c) return StatusCode::DiskNotPresent;
    ld = c->ldNumber;
    return StatusCode::Success;
}

uint32_t DiskPackManager::presentLogicalDisks() {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    uint32_t bits = 0;
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld)
        if (mDis.container(ld)) bits |= 1u << ld;
    return bits;
}

bool DiskPackManager::isPresent(uint16_t ld) { return ld < maxLogicalDisks && (presentLogicalDisks() >> ld & 1); }

unsigned DiskPackManager::getNumberOfLogicalDisks() {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    return unsigned(__builtin_popcount(mDis.logicalDisks));
}

unsigned DiskPackManager::getNumberOfMissingDisks() {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    unsigned missing = 0;
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) missing += mDis.hasLd(ld) && !mDis.container(ld);
    return missing;
}

StatusCode DiskPackManager::getCapacity(uint16_t ld, uint32_t& sectors) {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    uint16_t slot = 0;
    StatusCode st = slotOf(ld, slot);
    if (st != StatusCode::Success) return st;
    sectors = packCapacity(DiskManager::GetInstance()->GetDriveCapacity(slot));
    return StatusCode::Success;
}

StatusCode DiskPackManager::getDPMMetaDataLBA(uint16_t ld, unsigned copy, uint32_t& sectors, uint32_t& lba) {
    if (copy >= getDPMMetaDataCount()) return StatusCode::InternalError;
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    DIS::LogicalDiskContainer* c = mDis.container(ld);
    if (!c) return StatusCode::DiskNotPresent;
    sectors = kRangeSectors;
    lba = c->rangeEnd[copy] + 1 - kRangeSectors;
    return StatusCode::Success;
}

StatusCode DiskPackManager::getRMLBA(uint16_t ld, uint32_t& lba0, uint32_t& lba1) {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    DIS::LogicalDiskContainer* c = mDis.container(ld);
    if (!c) return StatusCode::DiskNotPresent;
    lba0 = c->rmLba[0];
    lba1 = c->rmLba[1];
    return StatusCode::Success;
}

StatusCode DiskPackManager::updateRMLBA(IOTracker& tracker, uint16_t ld, uint32_t lba0, uint32_t lba1) {
    ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
    DIS::LogicalDiskContainer* c = mDis.container(ld);
    if (!c) return StatusCode::DiskNotPresent;
    c->rmLba[0] = lba0;
    c->rmLba[1] = lba1;
    // Before the pack has a membership there is nothing to describe yet: the
    // global write that ends the load carries the new LBAs.
    if (!mDis.hasLd(ld)) return StatusCode::Success;
    return mDis.updateSingleDis(c, tracker, false);
}

// ---- I/O by LD

// The slot of an LD for one I/O; a missing critical LD reboots the system.
StatusCode DiskPackManager::slotForIo(uint16_t ld, uint16_t& slot) {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    StatusCode st = slotOf(ld, slot);
    if (st != StatusCode::Success) rebootIfCritical(ld);
    return st;
}

StatusCode DiskPackManager::readData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker) {
    uint16_t slot = 0;
    if (StatusCode st = slotForIo(ld, slot); st != StatusCode::Success) return st;
    uint64_t start = getTimebase();
    StatusCode st = DiskManager::GetInstance()->ReadData(slot, window, lba, tracker);
    mReadTimes.add(getTimebase() - start);
    return st;
}

StatusCode DiskPackManager::writeData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker) {
    uint16_t slot = 0;
    if (StatusCode st = slotForIo(ld, slot); st != StatusCode::Success) return st;
    uint64_t start = getTimebase();
    StatusCode st = DiskManager::GetInstance()->WriteData(slot, window, lba, tracker, 0);
    mWriteTimes.add(getTimebase() - start);
    return st;
}

StatusCode DiskPackManager::parallel(bool write, _IORequest* requests, unsigned count, IOTracker& tracker) {
    uint64_t begin = getTimebase();
    StatusCode first = StatusCode::Success;
    for (unsigned i = 0; i < count; ++i) {
        _IORequest& r = requests[i];
        {
            ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
            r.status = slotOf(r.ld, r.slot);
        }
        if (r.status == StatusCode::Success)
            r.status = write ? DiskManager::GetInstance()->WriteData(r.slot, *r.window, r.lba, tracker, 0)
                             : DiskManager::GetInstance()->ReadData(r.slot, *r.window, r.lba, tracker);
        if (r.status != StatusCode::Success && first == StatusCode::Success) first = r.status;
    }
    (write ? mParallelWriteTimes : mParallelReadTimes).add(getTimebase() - begin);
    return first;
}

StatusCode DiskPackManager::readDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallel(false, requests, count, tracker);
}

StatusCode DiskPackManager::writeDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallel(true, requests, count, tracker);
}

StatusCode DiskPackManager::readThroughCache(unsigned char* buffer, uint32_t sectors, uint16_t ld, uint32_t lba,
                                             IOTracker& tracker) {
    uint16_t slot = 0;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        if (StatusCode st = slotOf(ld, slot); st != StatusCode::Success) return st;
    }
    return DiskLBAMetaDataTracker::GetInstance()->ReadThroughCache(buffer, sectors, slot, lba, tracker);
}

StatusCode DiskPackManager::writeThroughCache(unsigned char* buffer, uint32_t sectors, uint16_t ld, uint32_t lba,
                                              IOTracker& tracker) {
    uint16_t slot = 0;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        if (StatusCode st = slotOf(ld, slot); st != StatusCode::Success) return st;
    }
    // Whole sectors: nothing to read first.
    return DiskLBAMetaDataTracker::GetInstance()->WriteThroughCache(buffer, sectors, slot, lba, true, tracker);
}

StatusCode DiskPackManager::flush(uint16_t ld) {
    uint16_t slot = 0;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        if (StatusCode st = slotOf(ld, slot); st != StatusCode::Success) return st;
    }
    return DiskManager::GetInstance()->Flush(slot);
}

StatusCode DiskPackManager::flushDisks() {
    StatusCode first = StatusCode::Success;
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        if (!isPresent(uint16_t(ld))) continue;
        StatusCode st = flush(uint16_t(ld));
        if (st != StatusCode::Success && first == StatusCode::Success) first = st;
    }
    return first;
}

// ---- state

void DiskPackManager::Dump(std::ostream& out) {
    if (mDiskPackLoading && !mLoadPastCommitPoint) {
        out << "DISK PACK IS LOADING AND HAS NOT PASSED THE COMMIT POINT, DPM HAS NO STATE\n";
        return;
    }
    if (!mDiskPackLoading && !mDiskPackLoaded) {
        out << "DISK PACK IS NOT LOADED, DPM HAS NO STATE\n";
        out << "NOT LOADED BECAUSE " << reasonText(mNotLoadedReason) << "\n";
        if (mLoadLockedOut) out << "DISK PACK LOADING HAS BEEN LOCKED OUT UNTIL REBOOT\n";
        return;
    }
    out << (mDiskPackLoaded ? "DISK PACK IS LOADED\n" : "DISK PACK IS LOADING, COMMIT POINT PASSED, STATE VALID\n");
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    out << mDis;
    out << "Cached critical LD list\t\t: 0x" << std::hex << mCriticalMap << std::dec << "\n";
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        if (!mDis.hasLd(ld)) continue;
        if (DIS::LogicalDiskContainer* c = mDis.container(ld)) {
            out << *c;
        } else {
            out << "LD #" << ld << " MISSING\n";
        }
    }
    if (mLastRemovedLD == kNoLd) {
        out << "No stored resync disk info\n";
    } else {
        out << "Stored resync disk info:\n Last removed WWN = " << mLastRemovedWWN
            << "\n Last removed LD  = " << mLastRemovedLD << "\n Last flush time  = " << mLastFlushTime << "\n";
        if (mResyncAvailable) out << " Resync available, new LD = " << mResyncNewLD << "\n";
    }
}

void DiskPackManager::PerfInfo(std::ostream& out) {
    out << "DPM reads: ";
    mReadTimes.Dump(out);
    out << "\nDPM writes: ";
    mWriteTimes.Dump(out);
    out << "\nDPM parallel reads: ";
    mParallelReadTimes.Dump(out);
    out << "\nDPM parallel writes: ";
    mParallelWriteTimes.Dump(out);
    out << "\n";
}
