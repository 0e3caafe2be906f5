// DIS writes: one disk's three copies, the whole pack with a generation
// change and its rollback when a disk vanishes midway, and the repair that
// moves bad copies on to spare sectors.
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DIS.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "system/SystemManager.h"
#include "util/CrashPoint.h"
#include "util/Trace.h"

using namespace DisLayout;

namespace {
Trace disTrace("DPM", "DIS", "flow", false);

std::string packIdText(const DiskPackId& id) {
    std::ostringstream os;
    os << "0x" << std::hex << id.word[0] << ":0x" << id.word[1];
    return os.str();
}
}  // namespace

StatusCode DIS::updateSingleDis(LogicalDiskContainer* ld, IOTracker& tracker, bool expunge) {
    ld->iteration += 1;
    buildSector(*ld, mScratch);
    StatusCode last = StatusCode::Success;
    for (unsigned i = 0; i < kCopies; ++i) {
        std::ostringstream where;
        where << " on LD #" << ld->ldNumber << " in slot " << ld->slot;
        if (ld->flags & (DIS_RANGE0_BAD << i)) {
            postEvent("DPM::updateSingleDis: DIS range " + std::to_string(i) + where.str() + " BAD");
            continue;
        }
        StatusCode st;
        if (ld->slot >= DiskManager::kSlots) st = StatusCode::DiskNotPresent;
        else if (expunge)
            // An expunged disk takes part in no transaction: straight to the disk.
            st = DiskManager::GetInstance()->WriteData(ld->slot, mScratch, ld->disLba[i], 1);
        else
            st = DiskLBAMetaDataTracker::GetInstance()->WriteThroughCache(mScratch, 1, ld->slot, ld->disLba[i], true,
                                                                           tracker);
        last = st;
        if (st == StatusCode::DiskNotPresent) {
            postEvent("DPM::updateSingleDis: LD #" + std::to_string(ld->ldNumber) + " DISAPPEARED from slot " +
                      std::to_string(ld->slot) + " with expunge " + (expunge ? "TRUE" : "FALSE"));
            return st;
        }
        if (st != StatusCode::Success) {
            postEvent("DPM::updateSingleDis: Failed to write DIS " + std::to_string(i) + " to LD #" +
                      std::to_string(ld->ldNumber) + " in slot " + std::to_string(ld->slot) + " because " +
                      st.Dump() + " expunge is " + (expunge ? "TRUE" : "FALSE"));
            ld->flags |= DIS_NEEDS_REPAIR | (DIS0_BAD << i);
            flags |= DIS_NEEDS_REPAIR;
        }
    }
    // The direct write went past the sector cache: what it holds of this disk is stale.
    if (expunge && ld->slot < DiskManager::kSlots) DiskLBAMetaDataTracker::GetInstance()->ClearSet(ld->slot);
    return last;
}

StatusCode DIS::updateDis(LogicalDiskContainer* ld, bool bumpGeneration) {
    IOTracker tracker(READ_WRITE);
    StatusCode result = StatusCode::Success;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&globalDISLock);
        if (logicalDisks == 0) {
            postEvent("DIS::updateDis: NO LOGICAL DISKS");
            result = StatusCode::DiskNotPresent;
        } else if (ld == nullptr || (flags & DIS_UPDATE_GLOBAL)) {
            result = writeGlobal(bumpGeneration, tracker);
        } else {
            bool listed = false;
            for (auto* c : mLds) listed |= c == ld;
            if (!listed) {
                ESA_CONSOLE("<<<< DIS::updateDis: LD container 0x" << std::hex << reinterpret_cast<uintptr_t>(ld)
                                                                   << " no longer valid");
                result = StatusCode::DiskNotPresent;
            } else {
                postEvent("DPM::updateDis: writing " + packIdText(packId) + " generation " +
                          std::to_string(generation) + " to single LD #" + std::to_string(ld->ldNumber));
                result = updateSingleDis(ld, tracker, false);
            }
        }
    }
    // A commit can wait for the journal: never under the lock.
    StatusCode committed = tracker.commit();
    if (result == StatusCode::Success && committed != StatusCode::Success) result = committed;
    return result;
}

StatusCode DIS::writeGlobal(bool bumpGeneration, IOTracker& tracker) {
    const uint32_t oldGeneration = generation;
    if (bumpGeneration) generation += 1;
    flags &= ~DIS_UPDATE_GLOBAL;
    std::array<LogicalDiskContainer*, maxLogicalDisks> written{};
    unsigned count = 0, k = 0;
    std::string lds;
    StatusCode last = StatusCode::Success;
    for (unsigned n = 0; n < maxLogicalDisks; ++n) {
        LogicalDiskContainer* c = mLds[n];
        if (!c) continue;
        StatusCode st = StatusCode::Success;
        bool fired = false;
        if (k < kInjectionPoints) {
            std::string point = "updateDis." + std::to_string(k);
            CrashPoint(point.c_str());
            st = injection().apiErrorInject(injectionPoint(k), StatusCode::DiskNotPresent, fired);
        }
        ++k;
        if (!fired) st = updateSingleDis(c, tracker, false);
        last = st;
        if (st == StatusCode::DiskNotPresent) {
            if (!bumpGeneration) continue;  // no generation change: the others still get it
            generation = oldGeneration;
            postEvent(" *** DiskNotPresent during DIS write ***");
            rollback(written, count, tracker);
            flags |= DIS_NEEDS_GLOBAL_REWRITE;
            return st;
        }
        written[count++] = c;
        lds += " " + std::to_string(n);
    }
    postEvent("DPM::updateDis: writing " + packIdText(packId) + " generation " + std::to_string(generation) +
              " to LDs #" + lds);
    return last;
}

void DIS::rollback(const std::array<LogicalDiskContainer*, maxLogicalDisks>& written, unsigned count,
                   IOTracker& tracker) {
    for (unsigned i = 0; i < count; ++i) {
        postEvent("DIS::updateDis: PERFORMING DIS ROLLBACK ON LD #" + std::to_string(written[i]->ldNumber));
        if (updateSingleDis(written[i], tracker, false) == StatusCode::DiskNotPresent) {
            // Two disks gone within one generation change: the pack would keep two generations.
            postEvent("DIS::updateDis: DNP FROM TWO DISKS DURING DIS WRITE, REBOOTING");
            SystemManager::GetInstance()->Reboot("DNP FROM TWO DISKS DURING DIS WRITE");
        }
    }
}

void DIS::repairDis() {
    globalDISLock.LockExclusive();
    flags &= ~DIS_NEEDS_REPAIR;
    for (unsigned n = 0; n < maxLogicalDisks; ++n) {
        LogicalDiskContainer* c = mLds[n];
        if (!c || !(c->flags & (DIS0_BAD | DIS1_BAD | DIS2_BAD))) continue;
        for (unsigned i = 0; i < kCopies; ++i) {
            if (!(c->flags & (DIS0_BAD << i))) continue;
            if (c->disLba[i] == c->rangeEnd[i]) {
                c->flags |= DIS_RANGE0_BAD << i;
                postEvent("DIS::repairDis: MARKING DIS RANGE " + std::to_string(i) + " on LD #" + std::to_string(n) +
                          " BAD");
            } else {
                c->disLba[i] += 1;  // on to the next spare sector of the range
            }
        }
        c->flags &= ~(DIS0_BAD | DIS1_BAD | DIS2_BAD | DIS_NEEDS_REPAIR);
        if (c->allRangesBad()) {
            DiskPackManager::GetInstance()->expungeLogicalDisk(uint16_t(n), "ALL DIS RANGES BAD");
            continue;
        }
        globalDISLock.LockRelease();
        updateDis(c, true);
        globalDISLock.LockExclusive();
    }
    uint32_t was = flags;
    flags &= ~(DIS_NEEDS_GLOBAL_REWRITE | DIS_UNDER_REPAIR);
    globalDISLock.LockRelease();
    if (was & DIS_NEEDS_GLOBAL_REWRITE) updateDis(nullptr, true);
    DiskPackManager::GetInstance()->checkDisRepair();
}
