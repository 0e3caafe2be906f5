// DIS membership: a disk joining the pack under a new LD number, and the
// judgement whether a chosen pack can load with the members it has.
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DIS.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "include/DrivePackInfo.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"

namespace {
Trace viableTrace("DPM", "packViable", "flow", false);
constexpr uint64_t kSmallRegionSize = 0xD20000;
}  // namespace

StatusCode DIS::addLogicalDisk(LogicalDiskContainer* c) {
    unsigned n = 0;
    while (n < maxLogicalDisks && hasLd(n)) ++n;
    const uint64_t capacity = c->slot < DiskManager::kSlots ? DiskManager::GetInstance()->GetDriveCapacity(c->slot) : 0;
    if (n == maxLogicalDisks) {
        postEvent("No free logical disk number for added disk!");
        return StatusCode::NoMoreLogicalDisks;
    }
    {
        std::ostringstream os;
        os << "DPM::addLogicalDisk: Assigning LD #" << n << " to (size: " << capacity << ")" << " WWN=>";
        if (const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(c->slot)) os << *id;
        postEvent(os.str());
    }
    c->ldNumber = uint16_t(n);
    c->ldBitmap = 1u << n;
    logicalDisks |= c->ldBitmap;
    mLds[n] = c;

    // The Region layer does I/O by LD through the pack layer: not under the lock.
    globalDISLock.LockRelease();
    uint32_t lba0 = 0, lba1 = 0;
    bool isNew = false;
    RegionManager* rm = RegionManager::GetInstance();
    StatusCode created = rm->CreateDisk(uint16_t(n), lba0, lba1, isNew);
    StatusCode loaded = StatusCode::Success;
    if (created == StatusCode::Success && DiskPackManager::GetInstance()->packLoaded()) loaded = rm->LoadDisk(uint16_t(n));
    globalDISLock.LockExclusive();

    if (created == StatusCode::Success && loaded == StatusCode::Success) {
        c->rmLba[0] = lba0;
        c->rmLba[1] = lba1;
        c->regionFoundNew = isNew;
        // The sector cache of the disk is kept: the Region metadata just
        // written may be committed to the journal and not yet on the disk,
        // and the cache holds the only readable copy until the spill.
        return StatusCode::Success;
    }
    postEvent("DPM::addLogicalDisk: RM failed install or load on new disk in slot " + std::to_string(c->slot) +
              ", createStatus = " + created.Dump() + ", loadStatus = " + loaded.Dump());
    if (mLds[n] == c) mLds[n] = nullptr;
    logicalDisks &= ~(1u << n);
    return StatusCode::DiskError;
}

bool DIS::packViable(bool& updateNeeded) {
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    SystemManager* sm = SystemManager::GetInstance();
    if (logicalDisks == 0) {
        // The reason stays what the choice found (conflicting packs, or none).
        ESA_TRACE(viableTrace, "DPM::packViable: no disks in DIS, pack not viable");
        return false;
    }
    bool readOnlyLoaded = false;
    if (!dpm->packLoaded() && !dpm->systemStagesReplaced()) {
        if (sm->LoadDiskPackReadOnly() != StatusCode::Success) {
            postEvent("DPM::packViable: READ ONLY load failed, pack NOT viable.");
            dpm->setNotLoadedReason(DiskPackManager::kReadOnlyLoadFailure);
            SystemDrivePackInfo::GetInstance()->unset(SystemDrivePackInfo::RegionSize);
            return false;
        }
        readOnlyLoaded = true;
    }
    auto unloadReadOnly = [&] {
        if (!readOnlyLoaded) return;
        StatusCode st = sm->UnloadDiskPackReadOnly();
        if (st != StatusCode::Success) postEvent("DPM::packViable: READ ONLY unload failed.");
        ESA_ASSERT_OP(st.value(), ==, StatusCode(StatusCode::Success).value());
    };
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    if (info->isSet(SystemDrivePackInfo::RegionSize) && info->get(SystemDrivePackInfo::RegionSize) == kSmallRegionSize) {
        ESA_TRACE(viableTrace, "DPM::packViable: refusing to load small region pack on "
                                   << DiskManager::kSlots << " slot system");
        unloadReadOnly();
        dpm->setNotLoadedReason(DiskPackManager::kNotCompatible);
        return false;
    }
    dpm->bootCheckpoint("READ-ONLY load complete");
    unsigned numDisks = 0, missing = 0, critMissing = 0;
    IOTracker tracker(READ_ONLY);
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        if (!hasLd(ld)) continue;
        ++numDisks;
        if (mLds[ld]) continue;
        ++missing;
        if (DiskPackManager::zoneSaysCritical(uint16_t(ld), true, tracker)) {
            postEvent("DPM::packViable: ZM identifies missing disk LD #" + std::to_string(ld) + " as CRITICAL");
            ++critMissing;
        }
    }
    tracker.commitIfDirty();
    dpm->bootCheckpoint("LD critical check complete");
    bool viable = true;
    if (critMissing > 0) {
        viable = false;
        dpm->setNotLoadedReason(DiskPackManager::kCriticalDisksMissing);
    } else if (missing == numDisks) {
        viable = false;
        dpm->setNotLoadedReason(DiskPackManager::kTooManyDisksMissing);
    }
    // The read-only dump of the event log comes with the log's ring in Zone 0.
    if (!viable) ESA_CONSOLE("Disk pack not viable - attempting log dump");
    updateNeeded = missing > 0;
    unloadReadOnly();
    postEvent("DPM::packViable: numDisks = " + std::to_string(numDisks) + ", missing = " + std::to_string(missing) +
              ", critMissing = " + std::to_string(critMissing) + ", update " + (updateNeeded ? "NEEDED" : "NOT NEEDED"));
    return viable;
}
