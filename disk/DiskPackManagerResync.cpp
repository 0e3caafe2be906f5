// DiskPackManager: what the pack remembers and checks between its changes:
// the disk that left last (for a quick resynchronisation if it comes back),
// whether the disks are still those that went to sleep, and errors in the
// DIS ranges that no I/O path saw at the time.
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "util/Trace.h"

using namespace DisLayout;

namespace {
Trace resyncTrace("DPM", "resync", "flow", false);
}  // namespace

StatusCode DiskPackManager::getResyncDisk(uint16_t& oldLD, uint16_t& newLD, uint32_t& flushTime) {
    ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
    if (!mResyncAvailable) return StatusCode::NoMoreLogicalDisks;
    oldLD = mLastRemovedLD;
    newLD = mResyncNewLD;
    flushTime = mLastFlushTime;
    return StatusCode::Success;
}

bool DiskPackManager::diskPackChanged() {
    if (!mDiskPackLoaded) {
        ESA_CONSOLE("DPM::diskPackChanged: DISK PACK NOT LOADED");
        return true;
    }
    DiskMap ready = readyDisks();
    for (auto& [slot, id] : ready) DiskLBAMetaDataTracker::GetInstance()->ClearSet(uint32_t(slot));
    mCandidates.clear();
    mAvailable.clear();
    discoverAllDisRecords(ready, false);
    auto changed = [&](const std::string& why) {
        ESA_CONSOLE("DPM::diskPackChanged: " << why);
        mCandidates.clear();
        mAvailable.clear();
        return true;
    };
    if (mCandidates.size() != 1 || !mAvailable.empty()) return changed("PHYSICAL CONFIGURATION HAS CHANGED");
    DIS* found = mCandidates.head()->item;
    ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
    if (found->packId != mDis.packId || found->generation != mDis.generation) {
        std::ostringstream os;
        os << "DISK PACK ID CHANGED, new ID = 0x" << std::hex << found->packId.word[0] << found->packId.word[1]
           << std::dec << " generation " << found->generation;
        return changed(os.str());
    }
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        DIS::LogicalDiskContainer* mine = mDis.container(ld);
        if (!mine) continue;
        DIS::LogicalDiskContainer* disk = found->container(ld);
        const std::string name = "LD #" + std::to_string(ld);
        if (!disk) return changed(name + " wasn't found in on-disk DIS => PACK CHANGED.");
        if (disk->iteration != mine->iteration)
            return changed(name + " doesn't match in-core copy iteration in/out " + std::to_string(mine->iteration) +
                           "/" + std::to_string(disk->iteration));
        if (disk->slot != mine->slot)
            return changed(name + " has moved from slot " + std::to_string(mine->slot) + " to slot " +
                           std::to_string(disk->slot) + " NOT ALLOWING THIS CHANGE!");
        if (disk->flags & DIS_NEEDS_REPAIR) {
            mine->flags |= (disk->flags & (DIS0_BAD | DIS1_BAD | DIS2_BAD)) | DIS_NEEDS_REPAIR;
            mDis.flags |= DIS_NEEDS_REPAIR;
        }
    }
    mCandidates.clear();
    mAvailable.clear();
    ESA_CONSOLE("DPM::diskPackChanged: PACK NOT CHANGED");
    return false;
}

void DiskPackManager::outOfBandError(uint16_t ld, uint32_t lba, uint32_t errorType, StatusCode status) {
    if (errorType == 2 || errorType == 3) {
        ESA_TRACE(resyncTrace, "ignoring soft error");
        return;
    }
    DIS::LogicalDiskContainer* rewrite = nullptr;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        DIS::LogicalDiskContainer* c = mDis.container(ld);
        if (!c) {
            ESA_TRACE(resyncTrace, "Logical disk not present");
            return;
        }
        if (status == StatusCode::DM_DeviceTimeoutFlush) {
            // Only flushed behind another request's timeout: the sector is not bad.
            ESA_TRACE(resyncTrace, "error is flush, writing DIS with no repair, LD# " << ld);
            rewrite = c;
        } else {
            bool matched = false;
            for (unsigned i = 0; i < DIS::kCopies; ++i) {
                if (c->disLba[i] != lba) continue;
                std::ostringstream os;
                os << "DPM::outOfBandError: bad block LBA 0x" << std::hex << lba << std::dec
                   << " matches DIS in range " << i;
                postEvent(os.str());
                c->flags |= DIS_NEEDS_REPAIR | (DIS0_BAD << i);
                mDis.flags |= DIS_NEEDS_REPAIR;
                matched = true;
            }
            if (!matched)
                ESA_TRACE(resyncTrace, "ignoring error on LBA 0x" << std::hex << lba << " because it's not a DIS");
        }
    }
    if (rewrite) {
        mDis.updateDis(rewrite, true);
        return;
    }
    checkDisRepair();
}

StatusCode DiskPackManager::externalConsistencyCheck(std::ostream& out) {
    if (!mDiskPackLoaded) return StatusCode::DiskPackNotLoaded;
    // Discovery as diskPackChanged runs it, repairing instead of judging:
    // whatever on a disk of the pack is not the pack's current record gets
    // all three copies rewritten by the repair.
    LockObject::ExclusiveLockInstance h(&mHotPlugLock);
    DiskMap ready = readyDisks();
    for (auto& [slot, id] : ready) DiskLBAMetaDataTracker::GetInstance()->ClearSet(uint32_t(slot));
    mCandidates.clear();
    mAvailable.clear();
    discoverAllDisRecords(ready, false);
    {
        // Exclusive, not shared: the marks are written into the containers.
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        auto mark = [&](DIS::LogicalDiskContainer* c, uint32_t bits) {
            c->flags |= bits | DIS_NEEDS_REPAIR;
            mDis.flags |= DIS_NEEDS_REPAIR;
        };
        const uint32_t allCopies = DIS0_BAD | DIS1_BAD | DIS2_BAD;
        for (auto* n = mCandidates.head(); n; n = n->next) {
            DIS* found = n->item;
            const bool current = found->packId == mDis.packId && found->generation == mDis.generation;
            for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
                DIS::LogicalDiskContainer* disk = found->container(ld);
                if (current) {
                    DIS::LogicalDiskContainer* mine = mDis.container(ld);
                    if (!mine) continue;
                    if (!disk) {
                        out << "LD #" << ld << " wasn't found on disk, repairing\n";
                        mark(mine, allCopies);
                    } else if (disk->iteration != mine->iteration) {
                        out << "LD #" << ld << " doesn't match in-core copy iteration in/out " << mine->iteration
                            << "/" << disk->iteration << "\n";
                        mark(mine, allCopies);
                    } else if (disk->flags & DIS_NEEDS_REPAIR) {
                        mark(mine, disk->flags & allCopies);
                    }
                } else if (disk) {
                    if (DIS::LogicalDiskContainer* mine = mDis.containerInSlot(disk->slot)) {
                        out << "stale DIS on disk in slot " << disk->slot << ", repairing\n";
                        mark(mine, allCopies);
                    }
                }
            }
        }
        for (auto* n = mAvailable.head(); n; n = n->next) {
            if (DIS::LogicalDiskContainer* mine = mDis.containerInSlot(n->item->slot)) {
                out << "stale local DIS on disk in slot " << n->item->slot << ", repairing\n";
                mark(mine, allCopies);
            }
        }
    }
    mCandidates.clear();
    mAvailable.clear();
    checkDisRepair();
    return StatusCode::Success;
}
