// DiskPackManager: a pack that changes while it runs. Disks joining and
// leaving (hotPlug), the expunge family that throws a failing disk out for
// good, the critical disk map, and the queueing of DIS repair.
#include <cstring>
#include <iomanip>
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "disk/DiskPowerManager.h"
#include "journal/j2/J2Manager.h"
#include "management/SystemPolicy.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

using namespace DisLayout;

namespace {
Trace expungeTrace("DPM", "expunge", "flow", false);

DiskPackManager::ExpungeParams* newParams(uint16_t ld, uint16_t slot, const char* reason) {
    auto* p = new DiskPackManager::ExpungeParams;
    p->ld = ld;
    p->slot = slot;
    std::strncpy(p->reason, reason ? reason : "", sizeof p->reason - 1);
    return p;
}
// The pack manager's fault points (console module "dpm").
ErrorInjection& dpmInjection() {
    static ErrorInjection points("dpm");
    return points;
}
const int kDeleteLdPoint =
    dpmInjection().addApiPoint("deleteLogicalDisk", "fail the deletion of a missing LD before anything changes");

std::string packIdText(const DiskPackId& id) {
    std::ostringstream os;
    os << std::hex << std::setfill('0') << std::setw(8) << id.word[0] << std::setw(8) << id.word[1];
    return os.str();
}
}  // namespace

void DiskPackManager::checkDisRepair() {
    bool post = false;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        if (!(mDis.flags & DIS_UNDER_REPAIR) && (mDis.flags & (DIS_NEEDS_REPAIR | DIS_NEEDS_GLOBAL_REWRITE))) {
            mDis.flags |= DIS_UNDER_REPAIR;
            post = true;
        }
    }
    // At most one repair waits in the event queue.
    if (post) EventManager::GetInstance()->NewEvent(eDISRepair, false, 0ul);
}

// ---- expunge requests: they post and return

StatusCode DiskPackManager::expungeLogicalDisk(uint16_t ld, const char* reason) {
    EventManager::GetInstance()->NewEvent(eLogExpung, false, static_cast<void*>(newParams(ld, 0, reason)));
    return StatusCode::Success;
}

StatusCode DiskPackManager::expungePhysicalDisk(uint16_t slot, const char* reason) {
    EventManager::GetInstance()->NewEvent(ePhyExpung, false, static_cast<void*>(newParams(0, slot, reason)));
    return StatusCode::Success;
}

StatusCode DiskPackManager::expungePhysicalDiskWithDelay(uint16_t slot, const char* reason) {
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        DIS::LogicalDiskContainer* c = mDis.containerInSlot(slot);
        if (!c) {
            ESA_TRACE(expungeTrace, "slot " << slot << " contains no valid logical disk");
            return StatusCode::DiskNotPresent;
        }
        c->delayedExpunge = true;
    }
    return expungePhysicalDisk(slot, reason);
}

// ---- the expunge work, on the event thread

StatusCode DiskPackManager::expungePhysicalDisk(ExpungeParams* p) {
    // A delayed expunge waits for a slot that was just power-cycled to come
    // back. The wait is bounded: a disk that keeps its container across
    // kMaxDelays waits is expunged where it stands.
    constexpr unsigned kMaxDelays = 3;
    for (unsigned round = 0;; ++round) {
        bool delayed = false;
        DiskIdentifier wwn;
        {
            ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
            DIS::LogicalDiskContainer* c = mDis.containerInSlot(p->slot);
            if (!c) {
                ESA_TRACE(expungeTrace, "slot " << p->slot << " contains no valid logical disk");
                return StatusCode::DiskNotPresent;
            }
            p->ld = c->ldNumber;
            delayed = c->delayedExpunge && round < kMaxDelays;
            if (const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(p->slot)) wwn = *id;
        }
        if (!delayed) return expungeLogicalDisk(p);
        taskDelay(60 * sysClkRateGet());
        bool found = false;
        for (auto& [slot, id] : readyDisks()) {
            if (id && *id == wwn) {
                ESA_TRACE(expungeTrace, "found in slot " << slot << " after delay, looking for LD again");
                p->slot = uint16_t(slot);
                found = true;
            }
        }
        if (!found) {
            std::ostringstream os;
            os << "Can't find " << wwn << " after delay, aborting expunge";
            ESA_TRACE(expungeTrace, os.str());
            return StatusCode::DiskNotPresent;
        }
    }
}

StatusCode DiskPackManager::expungeLogicalDisk(ExpungeParams* p) {
    {
        IOTracker tracker(READ_ONLY);
        bool critical = zoneSaysCritical(p->ld, true, tracker);
        tracker.commitIfDirty();
        if (critical) {
            ESA_CONSOLE("<<<< DiskPackManager::expungePhysicalDisk: expunge DECLINED because ZM indicates LD# "
                        << p->ld << " is CRITICAL");
            return StatusCode::ExpungeDeclined;
        }
    }
    // The mark goes straight to the disk, past the journal: whatever the
    // journal still holds for the disk's records is spilled first, or a later
    // spill would write an older record over the mark.
    if (J2Manager::GetInstance()->journalling()) J2Manager::GetInstance()->forceFlush(false);
    uint16_t slot = kUnknownSlot;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        DIS::LogicalDiskContainer* c = mDis.container(p->ld);
        if (!c) {
            ESA_TRACE(expungeTrace, "LD #" << p->ld << " is no longer in the disk pack");
            return StatusCode::DiskNotPresent;
        }
        slot = c->slot;
        c->flags |= DIS_EXPUNGED;
        c->setReason(std::string(p->reason, strnlen(p->reason, sizeof p->reason)));
        postEvent("DPM: Expunging LD #" + std::to_string(p->ld) + " in slot " + std::to_string(slot) + " [" +
                  c->reason() + "]");
        // The mark reaches this disk alone, so it is refused wherever it goes next.
        IOTracker tracker(READ_WRITE);
        mDis.updateSingleDis(c, tracker, true);
        tracker.commit();
    }
    DiskManager::GetInstance()->Flush(slot);
    return hotPlug(slot, EXPUNGE);
}

// ---- hot plug

StatusCode DiskPackManager::hotPlug(uint16_t slot, int op) {
    postEvent("DPM::hotPlug: SlotNumber = " + std::to_string(slot) + ", op = " + operationName(op));
    ESA_ASSERT_OP(slot, <, DiskManager::kSlots);
    SystemManager* sm = SystemManager::GetInstance();
    if (!sm->hotPlugAllowed()) {
        postEvent("DPM::hotPlug: SM says no hotplugs allowed!");
        return StatusCode::NotExecuted;
    }
    if (op == ADD) {
        if (!readyDisks().count(slot)) {
            postEvent("DPM::hotPlug: NO DISK in slot " + std::to_string(slot) + "during ADD");
            return StatusCode::DiskNotPresent;
        }
        while (mDiskPackLoading) taskDelay(1);
        if (!mDiskPackLoaded) return doColdStart(false);
        LockObject::ExclusiveLockInstance h(&mHotPlugLock);
        {
            ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
            if (DIS::LogicalDiskContainer* in = mDis.containerInSlot(slot)) {
                postEvent("DPM::hotPlug: LD #" + std::to_string(in->ldNumber) + " is ALREADY in slot " +
                          std::to_string(slot));
                return StatusCode::Success;
            }
        }
        DiskLBAMetaDataTracker::GetInstance()->ClearSet(slot);
        DIS::LogicalDiskContainer* c = nullptr;
        DIS* d = discoverDis(slot, c);
        if (d) d->setContainer(c->ldNumber, nullptr);
        const std::string wwn = wwnOf(slot);
        if (c->allRangesBad() || (c->flags & DIS_EXPUNGED)) {
            refuse(slot, c->allRangesBad() ? "DPM::hotPlug: all DIS ranges on disk in slot " + std::to_string(slot) +
                                                 " are bad, refusing!"
                                           : "DPM::hotPlug: Refusing EXPUNGED slot " + std::to_string(slot) + " [" +
                                                 c->reason() + "] WWN=>" + wwn);
            delete d;
            delete c;
            checkDisRepair();
            return StatusCode::DiskError;
        }
        const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(slot);
        bool candidate = false;
        if (id && d && *id == mLastRemovedWWN) {
            if (d->packId == mDis.packId) candidate = true;
            else
                postEvent("DPM: LD " + std::to_string(mLastRemovedLD) +
                          " was last disk removed but has been used elsewhere and now has pack ID 0x" +
                          packIdText(d->packId));
        }
        delete d;
        c->flags &= DIS_RANGE_BAD_MASK | DIS0_BAD | DIS1_BAD | DIS2_BAD | DIS_NEEDS_REPAIR;
        StatusCode added;
        {
            ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
            mDis.flags |= DIS_UPDATE_GLOBAL;
            added = mDis.addLogicalDisk(c);
            if (c->flags & DIS_NEEDS_REPAIR) mDis.flags |= DIS_NEEDS_REPAIR;
        }
        mDis.updateDis(nullptr, true);
        if (added == StatusCode::Success) {
            if (candidate) {
                ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
                mResyncNewLD = c->ldNumber;
                mResyncAvailable = true;
                postEvent("DPM: LD " + std::to_string(mLastRemovedLD) + " identified as a candidate for fast resync");
            }
            if (!mResyncAvailable) {
                // Another disk came first: the one that left can no longer be resynchronised quickly.
                ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
                if (mLastRemovedLD != kNoLd) {
                    std::ostringstream os;
                    os << "DPM: Clearing down LD #" << mLastRemovedLD << " [" << mLastRemovedWWN << "]"
                       << " as fast sync disk";
                    postEvent(os.str());
                }
                mLastRemovedWWN.Reset();
                mLastRemovedLD = mResyncNewLD = kNoLd;
                mLastFlushTime = 0;
            }
            sm->AddDisk(slot, c->ldNumber);
        } else {
            delete c;
            SystemPolicy::GetInstance()->DiskFail(slot);
        }
        checkDisRepair();
        return added;
    }
    if (op != REMOVE && op != POWER_CYCLE && op != EXPUNGE) {
        postEvent("DPM::hotPlug: Unknown hot operation = " + std::to_string(op));
        return StatusCode::InternalError;
    }
    if (op != EXPUNGE) {
        while (mDiskPackLoading && !mLoadPastCommitPoint) taskDelay(1);
        if (!mDiskPackLoaded && !mDiskPackLoading) return doColdStart(false);
    }
    LockObject::ExclusiveLockInstance h(&mHotPlugLock);
    uint16_t ld = kNoLd;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        if (DIS::LogicalDiskContainer* c = mDis.containerInSlot(slot)) ld = c->ldNumber;
    }
    if (ld == kNoLd) {
        postEvent("DPM::hotplug: disk REMOVED from slot " + std::to_string(slot) +
                  " has no associated LD, probably expunged");
        SystemPolicy::GetInstance()->RemoveDisk(slot);
        return StatusCode::DiskNotPresent;
    }
    postEvent("DPM::hotplug: LD #" + std::to_string(ld) + " matches disk in slot " + std::to_string(slot) + " WWN=>" +
              wwnOf(slot));
    if (mCriticalMap >> ld & 1) {
        postEvent("DPM::hotplug: DISK REMOVED FROM SLOT " + std::to_string(slot) + " LD #" + std::to_string(ld) +
                  " WAS CRITICAL, isCritical = TRUE");
        sm->nonViableDiskPack("DPM");
    }
    const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(slot);
    const DiskObject* disk = DiskManager::GetInstance()->diskObject(slot);
    const uint32_t lastFlush = disk ? disk->lastFlushSeconds() : 0;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        mDis.flags |= DIS_UPDATE_GLOBAL;
    }
    if (StatusCode removed = mDis.removeDiskInSlot(slot); removed != StatusCode::Success) {
        postEvent("DPM::hotplug: NO DISK IN SLOT " + std::to_string(slot) + " during " +
                  (op == REMOVE ? "REMOVE" : op == POWER_CYCLE ? "POWER CYCLE" : "EXPUNGE"));
        return removed;
    }
    {
        // Remembered, for a quick resynchronisation if the disk comes back.
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        mResyncAvailable = false;
        mResyncNewLD = kNoLd;
        if (id) mLastRemovedWWN = *id;
        else mLastRemovedWWN.Reset();
        mLastRemovedLD = ld;
        mLastFlushTime = lastFlush;
    }
    {
        IOTracker tracker(READ_ONLY);
        updateCriticalDiskMap(tracker);
        tracker.commitIfDirty();
    }
    // The slot's power goes off and on again before the pack-wide write, so
    // that the disk is on its way back while the others are written.
    if (op == POWER_CYCLE) DiskPowerManager::GetInstance()->SlotPowerCycleAsync(slot);
    if (mDis.updateDis(nullptr, true) != StatusCode::Success) postEvent("DPM::hotplug: Error during DIS update");
    RegionManager::GetInstance()->RemoveDisk(ld);
    if (op == EXPUNGE) sm->ExpungeDisk(slot, ld);
    else sm->RemoveDisk(slot, ld);
    checkDisRepair();
    return StatusCode::Success;
}

// ---- critical disks

// The one place the pack layer calls up into the Zone layer: what is critical
// is decided by the Zones' redundancy, which only that layer knows.
bool DiskPackManager::zoneSaysCritical(uint16_t ld, bool traceReason, IOTracker& tracker) {
    return ZoneManager::GetInstance()->IsCriticalDisk(ld, traceReason, tracker);
}

void DiskPackManager::updateCriticalDiskMap(IOTracker& tracker) {
    uint32_t map = 0, members = 0;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        members = mDis.logicalDisks;
    }
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        if (!(members >> ld & 1)) continue;
        if (!zoneSaysCritical(uint16_t(ld), false, tracker)) continue;
        map |= 1u << ld;
        if (!isPresent(uint16_t(ld))) {
            postEvent("DPM::updateCriticalDiskMap: LD #" + std::to_string(ld) + " is CRITICAL and missing, REBOOTING");
            SystemManager::GetInstance()->nonViableDiskPack("DPM");
        }
    }
    uint32_t slots = 0;
    bool changed = false;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        mCriticalCount = unsigned(__builtin_popcount(map));
        changed = map != mCriticalMap;
        mCriticalMap = map;
        for (unsigned ld = 0; ld < maxLogicalDisks; ++ld)
            if (DIS::LogicalDiskContainer* c = mDis.container(ld); c && (map >> ld & 1)) slots |= 1u << c->slot;
    }
    if (changed) ESA_TRACE(expungeTrace, "Critical disk map has changed, new = 0x" << std::hex << map);
    // The journal stops the system when it finds a critical slot gone. It is
    // told every time: its map starts empty at each load, ours may not.
    J2Manager::GetInstance()->updateCriticalDiskMap(slots);
}

void DiskPackManager::rebootIfCritical(uint16_t ld) {
    ESA_ASSERT(mDis.globalDISLock.OwnsLock() || mDis.globalDISLock.sharedCount() > 0);
    if (ld < maxLogicalDisks && (mCriticalMap >> ld & 1)) {
        postEvent("DPM::rebootIfCritical: LD #" + std::to_string(ld) + " IS CRITICAL AND MISSING REBOOTING");
        SystemManager::GetInstance()->nonViableDiskPack("DPM");
    }
}

StatusCode DiskPackManager::deleteLogicalDisk(uint16_t ld) {
    bool fired = false;
    if (StatusCode st = dpmInjection().apiErrorInject(kDeleteLdPoint, StatusCode::Success, fired); fired) return st;
    {
        IOTracker tracker(READ_ONLY);
        updateCriticalDiskMap(tracker);
        tracker.commitIfDirty();
    }
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        if (!mDis.hasLd(ld)) {
            postEvent("DiskPackManager::deleteLogicalDisk: UNKNOWN LOGICAL DISK");
            return StatusCode::DiskNotPresent;
        }
        mDis.logicalDisks &= ~(1u << ld);
        mDis.critcalDisks &= ~(1u << ld);
        delete mDis.container(ld);
        mDis.setContainer(ld, nullptr);
        postEvent("DPM::deleteLogicalDisk: LD #" + std::to_string(ld) + " REMOVED from disk pack");
        mDis.flags |= DIS_UPDATE_GLOBAL;
    }
    return mDis.updateDis(nullptr, true);
}

