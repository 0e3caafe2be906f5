// The relayout of a Zone: its new layout staged in ZoneOne and committed
// before any copy, the copy in sections and chunks under the stripe locks of
// both layouts, the new copies flushed, the two entries swapped and the old
// Regions freed in one journal set. Also the duplication of host writes into
// the new layout while a move runs.
#include <algorithm>
#include <cstdio>
#include <sstream>

#include "cache/CacheTrackerObject.h"
#include "disk/DiskPackManager.h"
#include "journal/j2/J2Manager.h"
#include "region/RegionManager.h"
#include "system/scheduler/JobControlBlock.h"
#include "util/Assert.h"
#include "util/CrashPoint.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/LayoutManagerJournal.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneReadContext.h"
#include "zone/ZoneTable.h"

namespace {

constexpr uint32_t kZoneOne = ZoneManager::kZoneOne;
constexpr uint32_t kMiB = 0x100000;
Trace tLMUpdate("LM", "UpdateRepairData", "debug", false);

ZoneTable& table() { return *ZoneTable::GetInstance(); }
ZoneManager* zm() { return ZoneManager::GetInstance(); }
uint32_t regionSize() { return uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize()); }

std::string slotList(const ZoneTableEntry& e) {
    std::ostringstream out;
    const unsigned n = RedundancyGeometry::IsSupported(e.type()) ? e.GetRegionCount() : ZoneTableEntry::kSlots;
    for (unsigned s = 0; s < n; ++s) out << " " << e.disk[s] << ":" << e.region[s];
    return out.str();
}

bool anyNotEvictable(const StripeLocks& locks) {
    for (StripeLockArray a : locks)
        if (a && a[0] && !a[0]->AllEvictable()) return true;
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// RelayoutZone

StatusCode LayoutManager::RelayoutZone(uint32_t& zone, bool ignoreErrors, unsigned priority, bool fromFree) {
    // One move at a time: the staging Zone has room for one new layout.
    if (mMoveActive.load()) return StatusCode::InternalError;
    priority = std::clamp(priority, 1u, kMaxPriority);
    ZMDataContext context("LMRelayoutZoneContext", zone, 0, 0);
    const uint64_t startTick = tick64Get();
    IOTracker tracker(READ_WRITE);
    ZoneTableEntry entry, one;
    // Steps 1 to 4 under the table lock; the transaction commits after it.
    auto stage = [&]() -> StatusCode {
        StatusCode st;
        // 1.
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), tracker);
        st = table().LookupZone(zone, entry);
        if (!st.ok()) {
            tracef(coutTrace, "Lookup of Zone to be repaired failed - aborting repair - %s\n", st.Dump().c_str());
            return st;
        }
        mMoveActive.store(true);
        mPatchedOffset.store(kAllPatched);
        mZoneBeingMoved.store(kZoneOne);
        st = table().LookupZone(kZoneOne, one);
        if (!st.ok()) {
            tracef(coutTrace, "ZoneOne lookup failed - %s\n", st.Dump().c_str());
            return st;
        }
        // 2. Free Regions per available disk; the Zone's own count as free
        //    unless the new layout must come from free Regions alone.
        std::vector<FreeRegions> freeRegions;
        uint32_t held[24] = {};
        entry.GetRegionsPerLogicalDisk(held);
        const uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
        for (uint16_t ld = 0; ld < 24; ++ld) {
            if (!(present >> ld & 1)) continue;
            uint32_t count = 0;
            st = RegionManager::GetInstance()->GetFreeRegionCount(ld, count, tracker);
            if (!st.ok()) {
                tracef(coutTrace,
                       "SelectZoneToRelayout failed to get region count for LD: %u, possibly a logical disk went "
                       "away - %s\n",
                       unsigned(ld), st.Dump().c_str());
                return st;
            }
            freeRegions.push_back({ld, uint64_t(count) + (fromFree ? 24u : held[ld])});
        }
        std::stable_sort(freeRegions.begin(), freeRegions.end(), FreeRegionsComparer());
        // 3.
        bool allowStripes = true;
        st = zm()->CanUseStripedZones(allowStripes, tracker);
        if (!st.ok()) tracef(coutTrace, "RelayoutZone : Error calling CanUseStripedZones, StatusCode = %s\n",
                             st.Dump().c_str());
        RedundancyType type = RedundancyType::Unset;
        if (st.ok()) {
            st = zm()->CalcBestRedundancyUsingArray(freeRegions, type, tracker, allowStripes, false);
            if (!st.ok())
                tracef(coutTrace, "RelayoutZone: CalcBestRedundancyUsingArray to repair zone failed - %s\n",
                       st.Dump().c_str());
        }
        Region regions[ZoneManager::kMaxRegions];
        uint16_t count = 0;
        if (st.ok()) {
            st = zm()->SelectRegionsWithArray(type, freeRegions, regions, count, tracker, entry.isMirrorOnly(),
                                              entry.isMetadata());
            if (!st.ok()) tracef(coutTrace, "Region allocation to repair zone failed - %s\n", st.Dump().c_str());
        }
        if (!st.ok()) {
            return st;
        }
        // 4.
        one.clearSlots();
        one.redundancyType = uint32_t(type);
        one.flags &= ~ZoneTableEntry::kMirrorOnly;
        for (unsigned i = 0; i < count; ++i) one.disk[i] = regions[i].ld, one.region[i] = regions[i].region;
        st = table().UpdateZoneTableEntry(kZoneOne, one, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "ZoneOne entry update failed - %s\n", st.Dump().c_str());
            // The Regions were taken in this transaction and nothing names them.
            for (unsigned i = 0; i < count; ++i)
                RegionManager::GetInstance()->FreeRegions(regions[i].ld, 1, &regions[i].region, tracker);
            return st;
        }
    return StatusCode::Success;
    };
    StatusCode st = stage();
    if (!st.ok()) {
        tracker.commitIfDirty();
        mMoveActive.store(false);
        return st;
    }
    mSavedEntry = entry;
    ESA_CONSOLE("Performing re-layout of Zone " << zone << " (Priority " << priority << " of " << kMaxPriority
                                                << ") " << RedundancyGeometry::DecodeRedundancyType(entry.redundancyType)
                                                << " -> " << RedundancyGeometry::DecodeRedundancyType(one.redundancyType));
    ESA_CONSOLE("Copying from Disk:Region" << slotList(entry));
    ESA_CONSOLE("to Disk:Region" << slotList(one));
    // From this commit on a crash leaves only ZoneOne holding the new
    // Regions, and the next pack load frees those that no other Zone holds.
    st = tracker.commit();
    if (!st.ok()) {
        mMoveActive.store(false);
        return st;
    }
    if (cutAt("lm.relayout.staged")) return cutHere();
    // 5.
    mZoneBeingMoved.store(zone);
    journalSync();
    // 6.
    uint32_t offsets[24];
    for (unsigned i = 0; i < 24; ++i) offsets[i] = i * regionSize();
    st = CopySectionSet(zone, kZoneOne, 24, offsets, regionSize(), ignoreErrors, priority);
    if (!st.ok()) {
        tracef(coutTrace, "RelayoutZone: CopySectionSet failed - %s\n", st.Dump().c_str());
        return abandonMove("Failed to free the regions during tidyup after error - %s\n", st);
    }
    if (cutAt("lm.relayout.copied")) return cutHere();
    return finishMove(zone, "Lookup of Zone being repaired failed - aborting relayout - %s\n", "Relayout of Zone ",
                      startTick);
}

bool LayoutManager::cutAt(const char* step) {
    CrashPoint(step);
    return mStepHook && mStepHook(step);
}

StatusCode LayoutManager::cutHere() {
    // What a power cut leaves: the disks as they are; only memory state goes.
    mZoneBeingMoved.store(kZoneOne);
    mMoveActive.store(false);
    return StatusCode::LM_LayoutAborted;
}

StatusCode LayoutManager::abandonMove(const char* failure, StatusCode status) {
    mZoneBeingMoved.store(kZoneOne);
    mMoveActive.store(false);
    IOTracker tracker(READ_WRITE);
    StatusCode st = zm()->EmptyZoneOne(tracker);
    if (!st.ok()) tracef(coutTrace, failure, st.Dump().c_str());
    tracker.commitIfDirty();
    return status;
}

// Steps 7 to 12 of a relayout or patch: the new copies durable, the swap, the
// old Regions freed, all one journal set under the table lock.
StatusCode LayoutManager::finishMove(uint32_t zone, const char* lookupFailure, const char* doneText,
                                     uint64_t startTick) {
    IOTracker tracker(READ_WRITE);
    ZoneTableEntry entry, one;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), tracker);
        // 7.
        StatusCode st = table().LookupZone(zone, entry);
        if (!st.ok()) tracef(coutTrace, lookupFailure, st.Dump().c_str());
        if (st.ok()) {
            st = zm()->FlushZone(kZoneOne);
            if (!st.ok())
                tracef(coutTrace, "Disk flush of Zone being repaired failed - aborting relayout - %s\n",
                       st.Dump().c_str());
        }
        if (st.ok()) st = table().LookupZone(kZoneOne, one);
        if (!st.ok()) {
            mZoneBeingMoved.store(kZoneOne);
            StatusCode e = zm()->EmptyZoneOne(tracker);
            if (!e.ok()) tracef(coutTrace, "Failed to free the regions during tidyup after error - %s\n", e.Dump().c_str());
            tracker.commitIfDirty();
            mMoveActive.store(false);
            return st;
        }
        // 8. A failed in-memory swap leaves the readers with a table that is
        //    neither layout: nothing can go on from there.
        st = SwapZoneEntries(one, entry);
        if (!st.ok()) {
            ESA_CONSOLE("ZoneEntry swap failed - " << st);
            ESA_ASSERT(st.ok());
        }
        // 9. The ownership record follows the data into the new Regions.
        RegionManager* rm = RegionManager::GetInstance();
        if (rm->RecoverySpaceEnabled()) {
            _ZoneOwnership ownership;
            StatusCode got = StatusCode::InternalError;
            for (unsigned s = 0; s < ZoneTableEntry::kSlots && !got.ok(); ++s)
                if (one.region[s] != 0) got = rm->GetZoneOwnership(one.disk[s], one.region[s], ownership, tracker);
            if (got.ok()) {
                for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s)
                    if (entry.region[s] != 0) rm->SetZoneOwnership(entry.disk[s], entry.region[s], ownership, tracker);
            } else {
                tracef(coutTrace,
                       "Could not transfer ZoneOwnership details in the RecoveryBlock, unable to read original - %s\n",
                       got.Dump().c_str());
            }
        }
        // 10.
        st = table().UpdateZoneTableEntry(zone, entry, tracker);
        if (!st.ok()) tracef(coutTrace, "Live Zone ZoneUpdate failed - %s\n", st.Dump().c_str());
        StatusCode st1 = table().UpdateZoneTableEntry(kZoneOne, one, tracker);
        if (!st1.ok()) tracef(coutTrace, "ZoneOne ZoneUpdate failed - %s\n", st1.Dump().c_str());
        mZoneBeingMoved.store(kZoneOne);
        if (st.ok() && st1.ok()) {
            // 11. ZoneOne now holds the old layout: its Regions that the new
            //     layout does not share go back.
            uint32_t a = kZoneOne, b = zone;
            st = zm()->FreeNonMatchingRegions(a, b, tracker);
            if (!st.ok()) tracef(coutTrace, "FreeNonMatchingRegions for ZoneOne failed - %s\n", st.Dump().c_str());
            one.clearSlots();
            st = table().UpdateZoneTableEntry(kZoneOne, one, tracker);
            if (!st.ok()) tracef(coutTrace, "ZoneOne wipe ZoneUpdate failed - %s\n", st.Dump().c_str());
        }
        CrashPoint("lm.move.swapped");  // before the commit: a power cut only
    }
    // 12. Steps 10 and 11 are one atomic set: after a crash either the old
    //     layout stands whole (ZoneOne to be emptied) or the new one does.
    StatusCode st = tracker.commit();
    if (cutAt("lm.move.committed")) return cutHere();
    const double seconds = double(tick64Get() - startTick) / sysClkRateGet();
    const double rate = seconds > 0 ? double(SystemDrivePackInfo::GetInstance()->GetZoneSize()) / seconds / kMiB : 0;
    char line[160];
    std::snprintf(line, sizeof line, "%.2f seconds (%.1f MB/s)", seconds, rate);
    ESA_CONSOLE(doneText << zone << " complete in " << line);
    mMovesCompleted++;
    mMoveActive.store(false);
    return st;
}

StatusCode LayoutManager::SwapZoneEntries(ZoneTableEntry& a, ZoneTableEntry& b) {
    taskRtpLock();
    std::swap(a.redundancyType, b.redundancyType);
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        std::swap(a.disk[s], b.disk[s]);
        std::swap(a.region[s], b.region[s]);
    }
    StatusCode st = table().UpdateZoneTableEntryInMemory(b.zoneNumber, b);
    if (!st.ok()) tracef(coutTrace, "In-memory ZoneUpdate of destEntry failed - %s\n", st.Dump().c_str());
    StatusCode st2 = table().UpdateZoneTableEntryInMemory(a.zoneNumber, a);
    if (!st2.ok()) tracef(coutTrace, "In-memory ZoneUpdate of srcEntry failed - %s\n", st2.Dump().c_str());
    taskRtpUnlock();
    return st.ok() ? st2 : st;
}

// ---------------------------------------------------------------------------
// Sections and chunks

void LayoutManager::betweenChunks() {
    journalFlushIfOverHalfFull();
    // Other jobs may run here; the scheduler holds the copy back for host I/O.
    if (JobControlBlock* job = currentJob()) {
        job->pause();
        job->resume();
    }
}

StatusCode LayoutManager::sourceUnchanged(uint32_t zone, ZoneTableEntry& entry, const char* who) {
    StatusCode st = table().LookupZone(zone, entry);
    if (!st.ok()) {
        tracef(coutTrace, "%s - srcZone lookup failed - Zone may have been deallocated\n", who);
        return st;
    }
    if (!entry.Matches(mSavedEntry)) {
        tracef(coutTrace, "%s - srcZoneTableEntry has changed, Zone may have been deallocated/reallocated\n", who);
        return StatusCode::InvalidZoneNumber;
    }
    return StatusCode::Success;
}

StatusCode LayoutManager::CopySectionSet(uint32_t source, uint32_t destination, unsigned count,
                                         const uint32_t* offsets, uint32_t length, bool ignoreErrors,
                                         unsigned priority) {
    if (mPriorityOverride.load() != 0) priority = mPriorityOverride.load();
    count = std::min(count, kSections);
    for (unsigned i = 0; i < count; ++i) mSectionStatus[i] = StatusCode::LastStatusCode;
    JobControlBlock* job = currentJob();
    auto send = [&](unsigned i) {
        if (!mCopyQueue) {  // no copy thread (tools and tests): the caller copies
            mSectionStatus[i] = CopySection(source, destination, offsets[i], length, i, ignoreErrors, priority);
            return;
        }
        Message m{kCopySection, 0, source, destination, offsets[i], length, i, uint8_t(ignoreErrors),
                  uint8_t(priority), 0, mSectionSem};
        msgQSend(mCopyQueue, &m, sizeof m, WAIT_FOREVER, MSG_PRI_NORMAL);
    };
    auto waitOne = [&] {
        if (!mCopyQueue) return;
        if (job) job->pause();
        semTake(mSectionSem, WAIT_FOREVER);
        if (job) job->resume();
    };
    if (priority < kMaxPriority) {
        for (unsigned i = 0; i < count; ++i) {
            send(i);
            waitOne();
            // A failed section ends the set: the move is abandoned anyway.
            if (mSectionStatus[i] != StatusCode::Success) break;
        }
    } else {
        for (unsigned i = 0; i < count; ++i) send(i);
        for (unsigned i = 0; i < count; ++i) waitOne();
    }
    StatusCode result = StatusCode::Success;
    for (unsigned i = 0; i < count && result.ok(); ++i)
        if (mSectionStatus[i] != StatusCode::Success) result = mSectionStatus[i];
    if (!result.ok())
        tracef(coutTrace, "CopySectionSet: one or more section copies failed - %s\n", result.Dump().c_str());
    return result;
}

StatusCode LayoutManager::CopySection(uint32_t source, uint32_t destination, uint32_t offset, uint32_t length,
                                      unsigned index, bool ignoreErrors, unsigned priority) {
    (void)index;
    ZMDataContext context("LMCopySectionContext", source, offset, length);
    ZoneTableEntry dest;
    {
        IOTracker probe(READ_ONLY);
        ExtendingLockObject::SharedLockInstance shared(&table().tableLock(), probe);
        StatusCode st = table().LookupZone(destination, dest);
        probe.commitIfDirty();
        if (!st.ok()) return st;
    }
    priority = std::clamp(priority, 1u, kMaxPriority);
    const uint32_t line = RedundancyGeometry::IsDRStripe(dest.type())
                              ? dest.GetSuperStripeLineSize()
                              : std::max(1u, dest.GetStripeDataWidth()) * ZoneManager::kStripeBlock;
    const uint32_t chunk = std::max(line, (priority * kMiB / 3) / line * line);
    DataWindow buffer(chunk, 0, chunk);
    for (uint32_t pos = offset; pos < offset + length;) {
        if (mRestartRequested.load()) {
            tracef(coutTrace, "CopySection aborting since restart requested\n");
            return StatusCode::LM_LayoutAborted;
        }
        if (cutAt("lm.copy.chunk")) return StatusCode::LM_LayoutAborted;
        const uint32_t n = std::min(chunk, offset + length - pos);
        StatusCode st = copyOneChunk(source, destination, pos, n, ignoreErrors, buffer);
        if (!st.ok()) return st;
        pos += n;
    }
    return StatusCode::Success;
}

StatusCode LayoutManager::copyOneChunk(uint32_t source, uint32_t destination, uint32_t offset, uint32_t chunk,
                                       bool ignoreErrors, DataWindow& buffer) {
    for (;;) {
        // 1.
        betweenChunks();
        // 2.
        IOTracker tracker(READ_WRITE);
        IOTrackerCommitter done(tracker);
        ExtendingLockObject::SharedLockInstance shared(&table().tableLock(), tracker);
        ZoneTableEntry src;
        StatusCode st = sourceUnchanged(source, src, "LM:CopySection");
        if (!st.ok()) return st;
        // 3.
        StripeLocks srcLocks, dstLocks;
        st = zm()->LockStripes(source, offset, chunk, srcLocks, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "CopySection src pre-lock failed - %s\n", st.Dump().c_str());
            return st;
        }
        st = zm()->LockStripes(destination, offset, chunk, dstLocks, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "CopySection dst pre-lock failed - %s\n", st.Dump().c_str());
            zm()->UnlockStripes(source, offset, chunk, srcLocks, tracker);
            return st;
        }
        // 4. Metadata of this range still held by the journal: let it go first.
        if (anyNotEvictable(srcLocks) || anyNotEvictable(dstLocks)) {
            zm()->UnlockStripes(destination, offset, chunk, dstLocks, tracker);
            zm()->UnlockStripes(source, offset, chunk, srcLocks, tracker);
            journalSync();
            continue;
        }
        StatusCode result;
        {
            // 5.
            LockObject::ExclusiveLockInstance repair(&mRepairLock);
            mCopyStart.store(offset);
            mCopyEnd.store(offset + chunk);
            JournalHold hold;
            // 6.
            DataWindow window(buffer, 0, chunk);
            result = zm()->ReadDataNoLock(source, offset, window, tracker, &srcLocks);
            if (!result.ok()) {
                tracef(coutTrace, "CopySection read failed for Zone=%lu offset=%lu len=%lu - %s\n",
                       (unsigned long)source, (unsigned long)offset, (unsigned long)chunk, result.Dump().c_str());
                if (ignoreErrors) {
                    tracef(coutTrace, "CopySection trying again one sector at a time\n");
                    const uint32_t boundary = src.GetRegionBoundary();
                    for (uint32_t s = 0; s < chunk; s += 512) {
                        DataWindow sector(window, s, 512);
                        StripeLocks piece{srcLocks[(offset + s) / boundary - offset / boundary]};
                        StatusCode rs = zm()->ReadDataNoLock(source, offset + s, sector, tracker, &piece);
                        if (rs.ok()) continue;
                        tracef(coutTrace,
                               "CopySection read failed for Zone=%lu offset=%lu len=%lu, replacing with zeros - %s\n",
                               (unsigned long)source, (unsigned long)(offset + s), 512ul, rs.Dump().c_str());
                        sector.ZeroInit();
                    }
                    result = StatusCode::Success;
                }
            }
            // 7.
            if (result.ok()) {
                result = zm()->WriteDataNoLock(destination, offset, window, tracker, &dstLocks);
                if (!result.ok()) tracef(coutTrace, "CopySection data write failed\n");
            }
        }
        // 8.
        StatusCode un = zm()->UnlockStripes(destination, offset, chunk, dstLocks, tracker);
        if (!un.ok()) tracef(coutTrace, "CopySection dst pre-lock release failed - %s\n", un.Dump().c_str());
        un = zm()->UnlockStripes(source, offset, chunk, srcLocks, tracker);
        if (!un.ok()) tracef(coutTrace, "CopySection src pre-lock release failed - %s\n", un.Dump().c_str());
        if (result.ok()) mBytesMoved += chunk;
        return result;
    }
}

// ---------------------------------------------------------------------------
// Writes during a move

void LayoutManager::AvoidRepairOverlap(uint32_t zone, uint32_t offset, uint32_t length) {
    if (!mMoveActive.load() || zone == kZoneOne || zone != mZoneBeingMoved.load()) return;
    if (offset < mCopyEnd.load() && offset + length > mCopyStart.load()) {
        // Wait for the chunk in progress.
        LockObject::ExclusiveLockInstance wait(&mRepairLock);
    }
}

StatusCode LayoutManager::UpdateRepairData(uint32_t zone, uint32_t offset, DataWindow& window, IOTracker& tracker) {
    if (!mMoveActive.load() || zone == kZoneOne || zone != mZoneBeingMoved.load()) return StatusCode::Success;
    const uint32_t length = window.GetLength();
    uint32_t patched;
    if (mPatchActive.load()) {
        // The patch moves patchedOffset only while it holds the chunk's stripe
        // locks, and this write's stripe lock is already released: the value
        // read here is the one the patch saw or a later one.
        ReentrantLockObject::LockInstance update(&mUpdateLock);
        patched = mPatchedOffset.load();
    } else {
        patched = mPatchedOffset.load();
    }
    uint32_t duplicate = length;
    if (uint64_t(offset) + length <= patched) {
        tracef(tLMUpdate, "UpdateRepairData - write completely within patch area, patchedOffset=%lu offset=%lu length=%lu\n",
               (unsigned long)patched, (unsigned long)offset, (unsigned long)length);
    } else if (offset < patched) {
        duplicate = patched - offset;
        tracef(tLMUpdate,
               "UpdateRepairData - write partially within patch area, Zone=%lu patchedOffset=%lu currentOffset=%lu "
               "origLength=%lu length=%lu\n",
               (unsigned long)zone, (unsigned long)patched, (unsigned long)offset, (unsigned long)length,
               (unsigned long)duplicate);
    } else {
        tracef(tLMUpdate, "UpdateRepairData - write completely outside patch area, patchedOffset=%lu offset=%lu length=%lu\n",
               (unsigned long)patched, (unsigned long)offset, (unsigned long)length);
        return StatusCode::Success;
    }
    DataWindow part(window, 0, duplicate);
    StatusCode st = zm()->WriteDataNoLock(kZoneOne, offset, part, tracker, nullptr);
    if (!st.ok())
        tracef(coutTrace, "Update to repair data during a write failed, Zone=%u, offset=%u - %s\n", unsigned(zone),
               unsigned(offset), st.Dump().c_str());
    return st;
}
