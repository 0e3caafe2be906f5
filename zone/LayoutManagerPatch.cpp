// The patch of a Zone that lost the Regions on one disk, and the fast resync
// of a Zone whose disk came back before the Zone was written.
//
// A patch stages in ZoneOne the Zone's own layout with new Regions in place of
// the lost ones, so the two entries share every other Region. A mirror's new
// Region is copied from the surviving copy. A stripe's lines are rebuilt
// through the Zone read path (which reconstructs the lost column) and written
// whole to the staged layout: the surviving columns get back the bytes they
// hold, and the one reconstruction code serves reads and patches alike.
#include <algorithm>
#include <set>
#include <sstream>

#include "disk/DiskPackManager.h"
#include "journal/j2/J2Manager.h"
#include "platform/rtos/BoardClock.h"
#include "region/RegionManager.h"
#include "system/scheduler/JobControlBlock.h"
#include "util/CrashPoint.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/LayoutManagerJournal.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

namespace {

constexpr uint32_t kZoneOne = ZoneManager::kZoneOne;
constexpr uint32_t kMiB = 0x100000;

ZoneTable& table() { return *ZoneTable::GetInstance(); }
ZoneManager* zm() { return ZoneManager::GetInstance(); }
uint32_t regionSize() { return uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize()); }
uint32_t zoneSize() { return uint32_t(SystemDrivePackInfo::GetInstance()->GetZoneSize()); }

bool isMirror(RedundancyType t) { return t == RedundancyType::Mirrored || t == RedundancyType::Mirrored3; }

struct LostSlot {
    unsigned slot;
    uint32_t offset;
};

}  // namespace

StatusCode LayoutManager::PatchZone(uint32_t& zone, bool ignoreErrors) {
    if (mMoveActive.load()) return StatusCode::InternalError;
    auto fallback = [&] { return RelayoutZone(zone, ignoreErrors, kMaxPriority, false); };
    const uint64_t startTick = tick64Get();
    IOTracker tracker(READ_WRITE);
    ZoneTableEntry entry, one;
    std::vector<LostSlot> lost;
    uint16_t target = 0;
    uint32_t numbers[ZoneManager::kMaxRegions] = {};
    bool patchable = true;
    // Steps 1 to 5 under the table lock; the transaction ends after it.
    auto stage = [&]() -> StatusCode {
        // 1.
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), tracker);
        StatusCode st = table().LookupZone(zone, entry);
        if (!st.ok()) return st;
        patchable = entry.CanPatch();
        // 2. Every slot of the layout, by the walk of Region rows.
        const std::vector<uint16_t> missing = ZoneTableEntry::MissingDisks();
        std::set<unsigned> seen;
        uint16_t lostDisk = 0xFFFF;
        const unsigned kinds = entry.DualRedundancy() ? 3 : 2;
        static const char* const kUnusable[] = {
            "Zone %u has an unusable Region at ZoneOffset %u for original data\n",
            "Zone %u has an unusable Region at ZoneOffset %u for primary redundant data\n",
            "Zone %u has an unusable Region at ZoneOffset %u for secondary redundant data\n"};
        for (uint32_t offset = 0; patchable && offset < zoneSize();) {
            for (unsigned kind = 0; kind < kinds && patchable; ++kind) {
                unsigned slot = 0;
                st = kind == 0   ? entry.CalculateDataRegion(offset, slot)
                     : kind == 1 ? entry.CalculatePrimaryRedundancyRegion(offset, slot)
                                 : entry.CalculateSecondaryRedundancyRegion(offset, slot);
                if (!st.ok()) {
                    tracef(coutTrace, kUnusable[kind], unsigned(zone), unsigned(offset));
                    patchable = false;
                    break;
                }
                if (!seen.insert(slot).second) continue;
                if (std::find(missing.begin(), missing.end(), entry.disk[slot]) == missing.end()) continue;
                if (lostDisk != 0xFFFF && lostDisk != entry.disk[slot]) {
                    tracef(coutTrace, "Zone %u has more than one missing disk\n", unsigned(zone));
                    patchable = false;
                    break;
                }
                lostDisk = entry.disk[slot];
                lost.push_back({slot, offset});
            }
            const uint32_t delta = entry.NextRegionDelta(offset);
            if (delta == 0) break;
            offset += delta;
        }
        if (patchable && lost.empty()) {
            tracef(coutTrace, "Zone %u is not using a missing disk\n", unsigned(zone));
            patchable = false;
        }
        // 3. A disk the Zone does not use, with room for the new Regions and
        //    the reserve.
        if (patchable) {
            std::vector<uint16_t> used;
            for (unsigned s = 0; s < entry.GetRegionCount(); ++s) used.push_back(entry.disk[s]);
            st = SelectDiskWithExclusionList(target, used, uint32_t(lost.size()) + 24, tracker);
            if (!st.ok()) {
                tracef(coutTrace, "No space to allocate replacement Regions for zone %u - failed patch\n",
                       unsigned(zone));
                patchable = false;
            }
        }
        if (!patchable) return StatusCode::Success;
        // 4.
        ESA_CONSOLE("Patching Zone " << zone);
        mMoveActive.store(true);
        mZoneBeingMoved.store(kZoneOne);
        mPatchedOffset.store(isMirror(entry.type()) ? kAllPatched : 0);
        // 5.
        st = table().LookupZone(kZoneOne, one);
        if (st.ok()) {
            one.redundancyType = entry.redundancyType;
            for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) one.disk[s] = entry.disk[s], one.region[s] = entry.region[s];
            st = RegionManager::GetInstance()->AllocateRegions(target, uint32_t(lost.size()), numbers,
                                                               entry.isMetadata(), tracker);
            if (!st.ok()) {
                tracef(coutTrace, "Failed to get enough Regions from the selected patch disk\n");
            } else {
                for (size_t i = 0; i < lost.size(); ++i) one.disk[lost[i].slot] = target, one.region[lost[i].slot] = numbers[i];
                st = table().UpdateZoneTableEntry(kZoneOne, one, tracker);
                if (!st.ok()) {
                    tracef(coutTrace, "ZoneOne ZoneUpdate failed\n");
                    if (!RegionManager::GetInstance()->FreeRegions(target, uint32_t(lost.size()), numbers, tracker).ok())
                        tracef(coutTrace, "Failed to free the regions during tidyup after error\n");
                }
            }
        } else {
            tracef(coutTrace, "ZoneOne lookup failed\n");
        }
        return st;
    };
    StatusCode staged = stage();
    tracker.commitIfDirty();
    if (!patchable) return fallback();
    if (!staged.ok()) {
        mMoveActive.store(false);
        return staged;
    }
    mSavedEntry = entry;
    std::ostringstream from, to;
    for (size_t i = 0; i < lost.size(); ++i) {
        from << " " << entry.disk[lost[i].slot] << ":" << entry.region[lost[i].slot];
        to << " " << target << ":" << numbers[i];
    }
    ESA_CONSOLE("Patching from Disk:Region" << from.str());
    ESA_CONSOLE("to Disk:Region" << to.str());
    if (cutAt("lm.patch.staged")) return cutHere();
    StatusCode st;
    // 6.
    mZoneBeingMoved.store(zone);
    journalSync();
    // 7. In Zone order, so that patchedOffset only grows.
    std::sort(lost.begin(), lost.end(), [](const LostSlot& a, const LostSlot& b) { return a.offset < b.offset; });
    for (const LostSlot& l : lost) {
        st = PatchRegion(zone, one, l.slot, l.offset);
        if (st.ok()) continue;
        tracef(coutTrace, "PatchRegion failed - aborting patch - %s\n", st.Dump().c_str());
        abandonMove("Failed to free the regions during tidyup after error - %s\n", st);
        if (st == StatusCode::LM_LayoutAborted) return st;
        return fallback();
    }
    if (cutAt("lm.patch.copied")) return cutHere();
    // 8.
    return finishMove(zone, "Lookup of Zone being repaired failed - aborting patch - %s\n", "Patching of Zone ",
                      startTick);
}

StatusCode LayoutManager::PatchRegion(uint32_t zone, const ZoneTableEntry& entry, unsigned slot,
                                      uint32_t zoneOffset) {
    const RedundancyType type = entry.type();
    uint32_t start = 0, end = 0, chunk = 0;
    if (isMirror(type)) {
        // The Region's bytes are the Zone's bytes from the start of its row.
        start = zoneOffset;
        end = zoneOffset + regionSize();
        chunk = kMiB;
    } else if (RedundancyGeometry::IsStripe(type)) {
        const uint32_t boundary = entry.GetRegionBoundary();
        const uint32_t line = RedundancyGeometry::IsDRStripe(type)
                                  ? entry.GetSuperStripeLineSize()
                                  : entry.GetStripeDataWidth() * ZoneManager::kStripeBlock;
        start = zoneOffset - zoneOffset % boundary;
        end = std::min(start + boundary, zoneSize());
        chunk = std::max(line, kMiB * entry.GetStripeDataWidth() / line * line);
    } else {
        tracef(coutTrace, "FAILURE: Unsupported Zone type - patch failed\n");
        return StatusCode::LM_LayoutAborted;
    }
    for (uint32_t pos = start; pos < end;) {
        if (mRestartRequested.load()) {
            tracef(coutTrace, "PatchRegion aborting since restart requested\n");
            return StatusCode::LM_LayoutAborted;
        }
        if (cutAt("lm.patch.chunk")) return StatusCode::LM_LayoutAborted;
        const uint32_t n = std::min(chunk, end - pos);
        StatusCode st = patchOneChunk(zone, entry, slot, pos, pos - start, n);
        if (!st.ok()) return st;
        pos += n;
    }
    return StatusCode::Success;
}

StatusCode LayoutManager::patchOneChunk(uint32_t zone, const ZoneTableEntry& entry, unsigned slot,
                                        uint32_t zoneOffset, uint32_t regionOffset, uint32_t chunk) {
    betweenChunks();
    IOTracker tracker(READ_WRITE);
    IOTrackerCommitter done(tracker);
    ExtendingLockObject::SharedLockInstance shared(&table().tableLock(), tracker);
    ZoneTableEntry src;
    StatusCode st = sourceUnchanged(zone, src, "PatchRegion");
    if (!st.ok()) return st;
    StripeLocks locks;
    st = zm()->LockStripes(zone, zoneOffset, chunk, locks, tracker);
    if (!st.ok()) {
        tracef(coutTrace, "PatchRegion stripe pre-lock failed - %s\n", st.Dump().c_str());
        return st;
    }
    StatusCode result;
    {
        ReentrantLockObject::LockInstance update(&mUpdateLock);
        LockObject::ExclusiveLockInstance repair(&mRepairLock);
        mCopyStart.store(zoneOffset);
        mCopyEnd.store(zoneOffset + chunk);
        JournalHold hold;
        DataWindow window(chunk, 0, chunk);
        RegionManager* rm = RegionManager::GetInstance();
        if (isMirror(entry.type())) {
            const unsigned copies = entry.type() == RedundancyType::Mirrored ? 2 : 3;
            const unsigned source = (slot + 24) % (24 * copies);
            result = rm->ReadData(src.disk[source], src.region[source], regionOffset, window, tracker);
            if (!result.ok()) {
                tracef(coutTrace, "PatchRegion read failed for Region=%lu offset=%lu len=%lu - %s\n",
                       (unsigned long)src.region[source], (unsigned long)regionOffset, (unsigned long)chunk,
                       result.Dump().c_str());
            } else {
                result = rm->WriteData(entry.disk[slot], entry.region[slot], regionOffset, window, tracker);
                if (!result.ok()) tracef(coutTrace, "PatchRegion data write failed\n");
            }
        } else {
            result = zm()->ReadDataNoLock(zone, zoneOffset, window, tracker, &locks);
            if (!result.ok()) {
                tracef(coutTrace, "Error during Parallel LM::PatchRegion read, error = %s, aborting patch\n",
                       result.Dump().c_str());
            } else {
                // Same type, same Region rows: the Zone's stripe locks stand
                // for the staged layout's lines too.
                result = zm()->WriteDataNoLock(kZoneOne, zoneOffset, window, tracker, &locks);
                if (!result.ok()) tracef(coutTrace, "PatchRegion data write failed\n");
                else mPatchedOffset.store(zoneOffset + chunk);
            }
        }
    }
    StatusCode un = zm()->UnlockStripes(zone, zoneOffset, chunk, locks, tracker);
    if (!un.ok()) tracef(coutTrace, "PatchRegion stripe pre-lock release failed - %s\n", un.Dump().c_str());
    if (result.ok()) mBytesMoved += chunk;
    return result;
}

StatusCode LayoutManager::ResyncZone(uint32_t zone, uint16_t oldDisk, uint16_t newDisk, uint32_t flushTime) {
    IOTracker tracker(READ_WRITE);
    IOTrackerCommitter done(tracker);
    ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), tracker);
    ZoneTableEntry entry;
    StatusCode st = table().LookupZone(zone, entry);
    if (!st.ok()) {
        tracef(coutTrace, "Lookup of Zone to be repaired failed - aborting resync - %s\n", st.Dump().c_str());
        return st;
    }
    if (entry.lastWrittenTimestamp >= flushTime) {
        tracef(coutTrace, "Zone written to after resync started - aborting resync\n");
        return StatusCode::LM_LayoutAborted;
    }
    RegionManager* rm = RegionManager::GetInstance();
    const unsigned n = entry.GetRegionCount();
    for (unsigned s = 0; s < n; ++s) {
        if (entry.disk[s] != oldDisk || entry.region[s] == 0) continue;
        bool allocated = false;
        st = rm->IsAllocated(newDisk, entry.region[s], allocated, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "ResyncZone: Failed checking allocation state of a Region - aborting - %s\n",
                   st.Dump().c_str());
            return st;
        }
        if (allocated) {
            tracef(coutTrace,
                   "ResyncZone: Required Region already allocated, updating ZoneTableEntry timestamp to cause "
                   "relayout\n");
            entry.lastWrittenTimestamp = uint32_t(BoardClock::GetInstance().realtime().tv_sec);
            table().UpdateZoneTableEntry(zone, entry, tracker);
            return StatusCode::LM_LayoutAborted;
        }
    }
    for (unsigned s = 0; s < n; ++s) {
        if (entry.disk[s] != oldDisk || entry.region[s] == 0) continue;
        st = rm->SetAsAllocated(newDisk, entry.region[s], tracker);
        if (!st.ok()) {
            tracef(coutTrace, "ResyncZone: Failed marking Region %lu as allocated on LD %u - aborting - %s\n",
                   (unsigned long)entry.region[s], unsigned(newDisk), st.Dump().c_str());
            return st;
        }
        entry.disk[s] = newDisk;
    }
    st = table().UpdateZoneTableEntry(zone, entry, tracker);
    if (!st.ok())
        tracef(coutTrace, "ResyncZone: Failed updating ZoneTableEntry for zone %lu - %s\n", (unsigned long)zone,
               st.Dump().c_str());
    return st;
}
