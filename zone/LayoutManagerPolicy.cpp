// What LayoutManager moves and in what order, all on the repair thread:
// repair degraded Zones first (fast resync, metadata, double degraded, user
// data), then lift Zones out of single-disk mirroring, raise Zones to the best
// type the pack now allows, relieve full disks and spread free space. Scans
// take the table lock shared Zone by Zone and give way to host I/O at each.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sstream>

#include "disk/DiskPackManager.h"
#include "management/EventLogManager.h"
#include "region/RegionManager.h"
#include "system/scheduler/JobControlBlock.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

namespace {

constexpr uint32_t kZoneOne = ZoneManager::kZoneOne;
ZoneTable& table() { return *ZoneTable::GetInstance(); }
ZoneManager* zm() { return ZoneManager::GetInstance(); }

void postEvent(const std::string& text) { EventLogManager::EventLog()->PostEvent(text); }

unsigned rank(RedundancyType t) { return RedundancyGeometry::RedundancyOrder(uint32_t(t)); }

// A line of progress: on the console for a disk change, into a scratch
// stream for the periodic check.
void say(std::ostream& stream, const std::string& text) {
    stream << text << "\n";
    stream.flush();
}

class ConsoleLines : public std::stringbuf {
protected:
    int sync() override {
        std::string text = str();
        size_t start = 0;
        for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
            coutTrace.writeLine(text.substr(start, nl - start));
        str(text.substr(start));
        return 0;
    }
};

bool lookup(uint32_t zone, ZoneTableEntry& entry) {
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    ExtendingLockObject::SharedLockInstance shared(&table().tableLock(), t);
    return table().LookupZone(zone, entry).ok();
}

// Free Regions per available disk (plus `extra`), largest first.
std::vector<FreeRegions> freeVector(uint32_t extra, IOTracker& tracker, StatusCode& st) {
    std::vector<FreeRegions> v;
    st = StatusCode::Success;
    const uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    for (uint16_t ld = 0; ld < 24; ++ld) {
        if (!(present >> ld & 1)) continue;
        uint32_t count = 0;
        StatusCode s = RegionManager::GetInstance()->GetFreeRegionCount(ld, count, tracker);
        if (!s.ok()) {
            st = s;
            continue;
        }
        v.push_back({ld, uint64_t(count) + extra});
    }
    std::stable_sort(v.begin(), v.end(), FreeRegionsComparer());
    return v;
}

void updateCriticalDiskMap() {
    IOTracker t(READ_WRITE);
    DiskPackManager::GetInstance()->updateCriticalDiskMap(t);
    t.commitIfDirty();
}

}  // namespace

bool LayoutManager::packFull() {
    // The capacity daemon's red threshold, read twice as the first reading
    // may predate a capacity change.
    return mCapacityProbe && mCapacityProbe();
}

unsigned LayoutManager::BackgroundPriority() {
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    uint64_t F = 0, P = 0, A = 0;
    if (!zm()->GetPhysicalFreeZoneCount(F, t).ok() || !zm()->GetZoneCounts(P, A, t).ok() || F < 21)
        return kMaxPriority;
    if (P < F + A) {
        tracef(coutTrace, "Rebuild: capped priority at 1\n");
        return 1;
    }
    const uint64_t p = (P - (F + A)) * 100 / P;
    if (p > 4) return kMaxPriority;
    return unsigned(p * 4 / 5 + 1);
}

// ---------------------------------------------------------------------------
// The disk events

void LayoutManager::LogicalDiskAdded(uint16_t& disk) { diskChanged(disk, "added"); }

void LayoutManager::LogicalDiskRemoved(uint16_t& disk) { diskChanged(disk, "removed"); }

void LayoutManager::diskChanged(uint16_t disk, const char* how) {
    if (!packLoaded()) {
        ESA_CONSOLE("Logical disk " << disk << " has been " << how << " but Diskpack not yet loaded - not rebuilding");
        stopIndication();
        return;
    }
    postEvent("LM: rebuild initiated as logical disk " + std::to_string(disk) + " " + how);
    const auto start = tick64Get();
    Rebuild(false);
    const unsigned seconds = unsigned((tick64Get() - start) / sysClkRateGet());
    ESA_CONSOLE("Rebuilding completed in " << seconds << " seconds");
    postEvent("LM: rebuild completed in " + std::to_string(seconds) + " seconds");
}

// ---------------------------------------------------------------------------
// Rebuild

void LayoutManager::Rebuild(bool periodic) {
    mRebuildRunning.store(true);
    ConsoleLines consoleBuf;
    std::ostream console(&consoleBuf);
    std::ostringstream scratch;
    std::ostream& stream = periodic ? static_cast<std::ostream&>(scratch) : console;
    unsigned pass = 0;
    bool optimum = false;
    while (pass < kMaxRebuildPasses && packLoaded()) {
        ++pass;
        say(stream, "Performing relayout pass number " + std::to_string(pass) + " of " +
                        std::to_string(kMaxRebuildPasses));
        mRestartRequested.store(false);
        StatusCode st = table().ZoneTableProtected(nullptr);
        if (!st.ok())
            tracef(coutTrace, "ZoneTableProtected failed - one or both copies bad, status=%s\n", st.Dump().c_str());
        RebuildDegraded();
        if (mRestartRequested.load()) {
            tracef(coutTrace, "Degraded Relayout loop aborting since restart requested\n");
            pass = 0;
            continue;
        }
        RelayoutSelfMirrored();
        if (mRestartRequested.load()) {
            tracef(coutTrace, "SelfMirrored Relayout loop aborting since restart requested\n");
            pass = 0;
            continue;
        }
        RelayoutEfficiency(stream);
        if (mRestartRequested.load()) {
            tracef(coutTrace, "Efficiency Relayout loop aborting since restart requested\n");
            pass = 0;
            continue;
        }
        const bool moved = RelayoutDiskFull(stream);
        if (mRestartRequested.load()) {
            tracef(coutTrace, "DiskFull Relayout loop aborting since restart requested\n");
            pass = 0;
            continue;
        }
        RebalanceDisks();
        if (mRestartRequested.load()) {
            say(stream, "Rebuild(): Cancelling restart since restart initiated");
            mRestartRequested.store(false);
            pass = 0;
            continue;
        }
        if (!moved) {
            if (pass == 1) say(stream, "No changes required to reach optimum efficiency");
            else say(stream, "Optimum efficiency reached in " + std::to_string(pass) + " scanning passes");
            optimum = true;
            break;
        }
    }
    if (!optimum && pass >= kMaxRebuildPasses)
        say(stream, "Max passes (" + std::to_string(pass) + ") performed without reaching optimum efficiency");
    {
        // The capacity the new layouts give, for the capacity figures.
        IOTracker t(READ_ONLY);
        uint64_t potential = 0;
        zm()->GetPotentialZoneCount(potential, t);
        t.commitIfDirty();
    }
    say(stream, "LM::Rebuild completed");
    if (!zm()->parallelIOs()) {
        say(stream, "LM: Reenabling parallel IOs in the ZM");
        zm()->setParallelIOs(true);
    }
    mRebuildRunning.store(false);
}

void LayoutManager::RebuildDegraded() {
    // 1. Relayout needs free Regions, and a pack over its red threshold has
    //    none to spare.
    if (packFull() && packFull()) {
        stopIndication();
        return;
    }
    enum Phase { Resync, Metadata, DoubleDegraded, Userdata };
    static const char* const kPhaseNames[] = {"Resync phase)", "Metadata phase)", "DoubleDegraded phase)",
                                              "Userdata phase)"};
    const bool dual = zm()->DualRedundancyEnabled();
    uint16_t oldLD = 0, newLD = 0;
    uint32_t flushTime = 0;
    const bool haveResync = mResyncSource && mResyncSource(oldLD, newLD, flushTime);
    Phase phase = Resync;
    unsigned pass = 0, fastResyncs = 0;
    bool started = false, endRun = false;
    auto startOnce = [&](const std::string& event) {
        if (started) return;
        started = true;
        postEvent(event);
        startIndication();
    };
    while (!endRun) {
        // 6. The pass counter runs over all phases.
        if (++pass >= kMaxRebuildPasses) {
            tracef(coutTrace, "Max passes reached in RebuildDegraded, aborting\n");
            break;
        }
        const bool ignoreErrors = pass >= 9;
        bool work = false;
        for (uint32_t z = table().entriesCreated(); z-- > 0 && !endRun;) {
            if (z == kZoneOne) continue;
            if (mJob && taskIdSelf() == mRepairTask) mJob->schedule();
            if (mRestartRequested.load()) {
                tracef(coutTrace, "RebuildDegraded loop aborting since restart requested\n");
                endRun = true;
                break;
            }
            if (work && packFull()) {
                tracef(coutTrace, "RebuildDegraded loop aborting since red capacity threshold exceeded\n");
                postEvent("LM: Degraded Relayout aborting since red capacity threshold exceeded");
                endRun = true;
                break;
            }
            ZoneTableEntry e;
            if (!lookup(z, e)) continue;
            bool consider = false;
            switch (phase) {
                case Resync: consider = haveResync && e.UsesDisk(oldLD) && e.lastWrittenTimestamp < flushTime; break;
                case Metadata: consider = e.isMetadata(); break;
                case DoubleDegraded: consider = dual && e.IsDoubleDegraded(); break;
                case Userdata: consider = true; break;
            }
            if (!consider) continue;
            uint32_t zone = z;
            bool moved = false;
            const std::string n = std::to_string(z);
            if (e.HasUnusableRegions()) {
                ESA_CONSOLE("Zone " << z << " has unusable Regions - rebuilding");
                startOnce("LM: Relayout initiated as Zone " + n + " has one or more unusable Region");
                RelayoutZone(zone, ignoreErrors, kMaxPriority, false);
                moved = true;
            } else if (e.UsesMissingDisk()) {
                startOnce("LM: Relayout initiated as Zone " + n + " uses a missing disk");
                if (haveResync)
                    ESA_CONSOLE("Resync check: oldLD=" << oldLD << " newLD=" << newLD << " flushTime=" << flushTime
                                                       << " writeTime=" << e.lastWrittenTimestamp);
                if (haveResync && e.UsesDisk(oldLD) && e.lastWrittenTimestamp < flushTime) {
                    ESA_CONSOLE("Zone " << z << " is degraded - doing fast resync");
                    if (ResyncZone(zone, oldLD, newLD, flushTime).ok()) ++fastResyncs;
                } else if (e.CanPatch()) {
                    ESA_CONSOLE("Zone " << z << " is degraded - patching (" << kPhaseNames[phase]);
                    mPatchActive.store(true);
                    PatchZone(zone, ignoreErrors);
                    mPatchActive.store(false);
                } else {
                    ESA_CONSOLE("Zone " << z << " is degraded - doing relayout (" << kPhaseNames[phase]);
                    RelayoutZone(zone, ignoreErrors, kMaxPriority, false);
                }
                moved = true;
            } else if (dual && !e.DualRedundancy()) {
                startOnce("LM: Relayout initiated as Zone " + n + " needs upgrading to DualRedundancy");
                ESA_CONSOLE("Zone " << z << " needs upgrading to DualRedundancy - doing relayout ("
                                    << kPhaseNames[phase]);
                RelayoutZone(zone, ignoreErrors, kMaxPriority, false);
                moved = true;
            }
            if (!moved) continue;
            work = true;
            updateCriticalDiskMap();
            IOTracker t(READ_ONLY);
            RedundancyType type = RedundancyType::Unset;
            StatusCode st = zm()->CalcBestRedundancy(type, t, true, false);
            t.commitIfDirty();
            if (!st.ok()) {
                tracef(coutTrace, "RebuildDegraded loop aborting, insufficient free Regions to create repair Zone - %s\n",
                       st.Dump().c_str());
                endRun = true;
            }
        }
        if (endRun) break;
        // 5.
        if (phase == DoubleDegraded) {
            if (!work) ESA_CONSOLE("DoubleDegraded pass complete - commencing Userdata pass");
            phase = Userdata;
        } else if (phase == Metadata) {
            if (dual) {
                if (!work) ESA_CONSOLE("Metadata pass complete - commencing DoubleDegraded pass");
                phase = DoubleDegraded;
            } else {
                if (!work) ESA_CONSOLE("Metadata pass complete - commencing Userdata pass");
                phase = Userdata;
            }
        } else if (phase == Resync) {
            if (work) ESA_CONSOLE("Resync pass complete - commencing Metadata pass");
            phase = Metadata;
        } else if (!work) {
            break;
        }
    }
    // 7.
    if (fastResyncs > 0) postEvent("LM: " + std::to_string(fastResyncs) + " Zones were repaired using fast resync");
    zm()->DeleteUnusedDisks();
    stopIndication();
    if (started) {
        postEvent("LM: Degraded relayout finished");
        updateCriticalDiskMap();
    }
}

void LayoutManager::RelayoutSelfMirrored() {
    if (DiskPackManager::GetInstance()->getNumberOfAvailableDisks() <= 1) return;
    bool started = false, work = true;
    for (unsigned pass = 1; work; ++pass) {
        if (pass > 3) {
            tracef(coutTrace, "Max passes reached in RelayoutSelfMirrored, aborting\n");
            break;
        }
        work = false;
        for (uint32_t z = 0; z < table().entriesCreated(); ++z) {
            if (z == kZoneOne) continue;
            if (mJob && taskIdSelf() == mRepairTask) mJob->schedule();
            if (mRestartRequested.load()) {
                tracef(coutTrace, "RelayoutSelfMirrored loop aborting since restart requested\n");
                work = false;
                break;
            }
            ZoneTableEntry e;
            if (!lookup(z, e) || e.type() != RedundancyType::SelfMirrored) continue;
            IOTracker t(READ_ONLY);
            RedundancyType best = RedundancyType::Unset;
            StatusCode st = zm()->CalcBestRedundancy(best, t, true, false);
            t.commitIfDirty();
            if (!st.ok() || best == RedundancyType::SelfMirrored) continue;
            ESA_CONSOLE("Zone " << z << " is self-mirrored - rebuilding");
            if (!started) {
                started = true;
                postEvent("LM: Relayout initiated as Zone " + std::to_string(z) + " is SelfMirrored");
                startIndication();
            }
            uint32_t zone = z;
            RelayoutZone(zone, false, kMaxPriority, false);
            updateCriticalDiskMap();
            work = true;
        }
    }
    if (started) {
        postEvent("LM: SelfMirrored relayout finished");
        stopIndication();
    }
}

StatusCode LayoutManager::CheckZoneForRelayout(uint32_t zone, bool& needed) {
    needed = false;
    ZoneTableEntry e;
    if (zone == kZoneOne || !lookup(zone, e) || !RedundancyGeometry::IsSupported(e.type())) return StatusCode::Success;
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    // 1. The Zone's own Regions count as free.
    uint32_t held[24] = {};
    e.GetRegionsPerLogicalDisk(held);
    StatusCode st;
    std::vector<FreeRegions> v = freeVector(0, t, st);
    if (!st.ok()) {
        tracef(coutTrace, "SelectZoneToRelayout failed to get available disk list - %s\n", st.Dump().c_str());
        return st;
    }
    for (FreeRegions& f : v) f.count += held[f.ld];
    std::stable_sort(v.begin(), v.end(), FreeRegionsComparer());
    // 2.
    bool allowStripes = true;
    zm()->CanUseStripedZones(allowStripes, t);
    RedundancyType best = RedundancyType::Unset;
    st = zm()->CalcBestRedundancyUsingArray(v, best, t, allowStripes, false);
    if (!st.ok()) return st;
    const bool dual = zm()->DualRedundancyEnabled();
    // 3.
    if (e.isMirrorOnly() && rank(best) > rank(RedundancyType::Mirrored3))
        best = dual ? RedundancyType::Mirrored3 : RedundancyType::Mirrored;
    // 4.
    const RedundancyType type = e.type();
    if (rank(type) < rank(best)) {
        tracef(coutTrace, "CheckZoneForRelayout: Better Zone type available\n");
        needed = true;
    } else if (e.isMirrorOnly() && rank(type) > rank(RedundancyType::Mirrored3) &&
               rank(best) >= rank(RedundancyType::Mirrored)) {
        tracef(coutTrace, "CheckZoneForRelayout: MirrorOnly Zone currently Striped\n");
        needed = true;
    } else if (!dual && (type == RedundancyType::Mirrored3 || RedundancyGeometry::IsDRStripe(type))) {
        tracef(coutTrace, "CheckZoneForRelayout: DualRedundant Zone needs downgrading\n");
        needed = true;
    }
    return StatusCode::Success;
}

bool LayoutManager::RelayoutEfficiency(std::ostream& stream) {
    say(stream, "Starting efficiency scan");
    bool moved = false;
    for (uint32_t z = table().entriesCreated(); z-- > 0;) {
        if (z == kZoneOne) continue;
        if (mJob && taskIdSelf() == mRepairTask) mJob->schedule();
        if (mRestartRequested.load() || mMoveActive.load()) break;
        ZoneTableEntry e;
        if (!lookup(z, e)) continue;
        if (e.IsDegraded() && !packFull()) {
            tracef(coutTrace, "Efficiency Relayout loop aborting since degraded Zone %lu found\n", (unsigned long)z);
            mRestartRequested.store(true);
            break;
        }
        bool needed = false;
        StatusCode st = CheckZoneForRelayout(z, needed);
        if (!st.ok()) {
            tracef(coutTrace, "Skipping Relayout of Zone %u as return status was: %s\n", unsigned(z), st.Dump().c_str());
            continue;
        }
        if (!needed) continue;
        say(stream, "Zone " + std::to_string(z) + " is inefficient - rebuilding");
        uint32_t zone = z;
        if (RelayoutZone(zone, false, BackgroundPriority(), false).ok()) moved = true;
    }
    return moved;
}

bool LayoutManager::RelayoutDiskFull(std::ostream& stream) {
    say(stream, "Starting DiskFull relayout scan");
    IOTracker t(READ_ONLY);
    IOTrackerCommitter done(t);
    // 1.
    StatusCode st;
    std::vector<FreeRegions> v = freeVector(24, t, st);
    // 2.
    uint64_t potential = 0, allocated = 0, freeZones = 0;
    zm()->GetZoneCounts(potential, allocated, t);
    zm()->GetFreeZoneCount(freeZones, t);
    if (potential <= allocated + freeZones) {
        say(stream, "DiskFull relayout aborted - already at optimal Zone layout");
        return false;
    }
    // 3.
    unsigned fullDisks = 0;
    for (const FreeRegions& f : v)
        if (f.count < 0x49) say(stream, "LD " + std::to_string(f.ld) + " is full, fullDisk count is now " +
                                            std::to_string(++fullDisks));
    if (fullDisks == 0) {
        say(stream, "No full disks detected, aborting RelayoutDiskFull");
        return false;
    }
    // 4.
    bool allowStripes = true;
    zm()->CanUseStripedZones(allowStripes, t);
    uint32_t candidate = 0;
    unsigned bestCount = 0;
    for (uint32_t z = table().entriesCreated(); z-- > 0;) {
        if (z == kZoneOne) continue;
        if (mJob && taskIdSelf() == mRepairTask) mJob->schedule();
        if (mRestartRequested.load()) return false;
        ZoneTableEntry e;
        if (!lookup(z, e)) continue;
        if (e.IsDegraded()) {
            tracef(coutTrace, "DiskFull Relayout loop aborting since degraded Zone %lu found\n", (unsigned long)z);
            mRestartRequested.store(true);
            return false;
        }
        RedundancyType best = RedundancyType::Unset;
        std::vector<FreeRegions> copy = v;
        st = zm()->CalcBestRedundancyUsingArray(copy, best, t, allowStripes, false);
        if (!st.ok()) {
            tracef(coutTrace, "Redundancy type selection failed, StatusCode = %s\n", st.Dump().c_str());
            if (st == StatusCode::OutOfSpace) break;
            continue;
        }
        if (rank(e.type()) >= rank(best)) continue;
        unsigned count = 0;
        for (auto it = v.rbegin(); it != v.rend() && it->count < 0x48 && e.UsesDisk(it->ld); ++it) ++count;
        if (count > bestCount) {
            bestCount = count;
            candidate = z;
            say(stream, "Zone " + std::to_string(z) + " is best candidate so far, using " + std::to_string(count) +
                            " full disks");
        }
    }
    if (bestCount == 0) return false;
    // 5.
    say(stream, "Zone " + std::to_string(candidate) + " is inefficient and uses " + std::to_string(bestCount) +
                    " full disks - rebuilding");
    RelayoutZone(candidate, false, BackgroundPriority(), true);
    return true;
}

void LayoutManager::RebalanceDisks() {
    bool first = true;
    // Every round moves one Zone off the least free disk; no more rounds than
    // Zones, so a layout that cannot be balanced ends too.
    for (uint32_t round = 0; round < table().entriesCreated(); ++round) {
        IOTracker t(READ_ONLY);
        IOTrackerCommitter done(t);
        // 1.
        StatusCode st;
        std::vector<FreeRegions> v = freeVector(0, t, st);
        if (v.empty()) {
            tracef(coutTrace, "No disks available - exiting RebalanceDisks\n");
            return;
        }
        uint64_t total = 0;
        for (const FreeRegions& f : v) total += f.count;
        // 2.
        FreeRegions most = v.front(), least = v.back();
        uint32_t available = 0;
        RegionManager::GetInstance()->GetAvailableRegionCount(least.ld, available, t);
        const bool unbalanced = v.size() > 1 && least.count + 24 <= available && total > 96 && most.count > total / 2;
        if (!unbalanced) return;
        if (mRestartRequested.load()) {
            tracef(coutTrace, "Rebalancing Relayout loop aborting since restart requested\n");
            return;
        }
        // 3.
        uint32_t zone = 0;
        if (!zm()->SelectZoneUsingDiskWithExclusion(least.ld, most.ld, zone).ok()) {
            tracef(coutTrace, "Unable to achieve free space balance over the available disks\n");
            return;
        }
        if (first) ESA_CONSOLE("Rebalancing free Regions between disks");
        first = false;
        if (!RelayoutZone(zone, false, BackgroundPriority(), false).ok()) return;
    }
}
