// DiskPackManager: the load. Discovery of the DIS records on every ready
// disk, the choice of a candidate pack (or a new one), the commit point, the
// absorption of free disks, and the end of the load. Up to the commit point
// only reads reach the disks, so a load given up there leaves them untouched.
#include <algorithm>
#include <cstring>
#include <iomanip>
#include <optional>
#include <sstream>

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "management/SystemPolicy.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/CrashPoint.h"
#include "util/Endian.h"
#include "util/Trace.h"

using namespace DisLayout;

namespace {
Trace discoveryTrace("DPM", "discovery", "flow", false);

std::string hex(uint32_t v) {
    std::ostringstream os;
    os << "0x" << std::hex << v;
    return os.str();
}
std::string idText(const DiskPackId& id) {
    std::ostringstream os;
    os << "0x" << std::hex << std::setw(8) << std::setfill('0') << id.word[0] << std::setw(8) << id.word[1];
    return os.str();
}
std::string sizeText(uint64_t sectors) {
    std::ostringstream os;
    os << (sectors * 512 / 1000000000ull) << "GB";
    return os.str();
}
}  // namespace

void DiskPackManager::bootCheckpoint(const char* what) {
    if (!systemStagesReplaced()) SystemManager::GetInstance()->bootCheckpoint(what, false);
}

void DiskPackManager::refuse(uint16_t slot, const std::string& text) {
    postEvent(text);
    SystemPolicy::GetInstance()->DiskFail(slot);
}

// ---- discovery

// Scans one range sector by sector through the sector cache. The copy's DIS
// LBA ends at the last valid record of the range (writes resume there); the
// best record is the one with the highest iteration, the later on a tie.
StatusCode DiskPackManager::findDisInRange(DIS::LogicalDiskContainer& c, unsigned index, DIS*& best) {
    IOTracker tracker(READ_ONLY);
    alignas(32) uint8_t sector[DisLayout::kSectorSize];
    unsigned failed = 0, scanned = 0;
    std::optional<DisSector> found;
    StatusCode last = StatusCode::Success;
    for (uint32_t lba = c.disLba[index]; lba <= c.rangeEnd[index]; ++lba) {
        ++scanned;
        StatusCode st = DiskLBAMetaDataTracker::GetInstance()->ReadThroughCache(sector, 1, c.slot, lba, tracker);
        if (st != StatusCode::Success) {
            last = st;
            ++failed;
            postEvent("DPM::findDisInRange: Failed to read LBA " + hex(lba) + " from disk in slot " +
                      std::to_string(c.slot));
            if (st == StatusCode::DiskNotPresent || st == StatusCode::DM_DeviceTimeout) {
                c.flags |= DIS_RANGE0_BAD << index;
                failed = scanned = 1;  // the range counts as unreadable
                break;
            }
            continue;
        }
        DisSector s;
        DisSector::Verdict v = s.decode(sector);
        if (v == DisSector::Verdict::BadSanity) {
            ESA_TRACE(discoveryTrace, "DIS fails sanity, sig0 = 0x" << std::hex << s.sig0 << ", sig1 = 0x" << s.sig1
                                                                   << ", DIS version = " << std::dec << s.version);
            continue;
        }
        if (v == DisSector::Verdict::BadChecksum) {
            ESA_TRACE(discoveryTrace, "checksum mismatch on DIS at LBA 0x" << std::hex << lba);
            continue;
        }
        if (v == DisSector::Verdict::BadExtensionSignature) {
            ESA_TRACE(discoveryTrace, "DIS fails sanity, sig3 = 0x" << std::hex << s.sig3);
            continue;
        }
        if (v == DisSector::Verdict::BadExtensionChecksum) {
            ESA_TRACE(discoveryTrace, "checksum mismatch on local DIS extension at LBA 0x" << std::hex << lba);
            continue;
        }
        c.disLba[index] = lba;
        if (found && s.iteration < found->iteration) {
            ESA_TRACE(discoveryTrace, "Dumping DIS with packID " << std::hex << s.packId[0] << s.packId[1]
                                                                << " iteration " << std::dec << s.iteration);
            continue;
        }
        found = s;
    }
    tracker.commitIfDirty();
    if (scanned != 0 && failed == scanned) {
        c.flags |= DIS_RANGE0_BAD << index;
        ESA_TRACE(discoveryTrace, "marking range " << index << " BAD");
    }
    if (!found) {
        best = nullptr;
        return last == StatusCode::Success ? StatusCode::DiskNotPresent : last;
    }
    best = new DIS;
    best->takeGlobal(*found);
    // The record's local part travels in a container of its own.
    auto* local = new DIS::LogicalDiskContainer(c);
    DIS::takeLocal(*found, *local);
    best->setContainer(0, local);
    return StatusCode::Success;
}

DIS* DiskPackManager::discoverDis(uint16_t slot, DIS::LogicalDiskContainer*& container) {
    auto* c = new DIS::LogicalDiskContainer;
    c->slot = slot;
    c->setRanges(DiskManager::GetInstance()->GetDriveCapacity(slot));
    container = c;
    DIS* found[DIS::kCopies] = {};
    DIS* best = nullptr;
    for (unsigned i = 0; i < DIS::kCopies; ++i) {
        findDisInRange(*c, i, found[i]);
        if (found[i] && (!best || found[i]->container(0)->iteration > best->container(0)->iteration)) best = found[i];
    }
    uint32_t bad = 0;
    if (best) {
        // Every copy that is missing or older than the best needs rewriting.
        for (unsigned i = 0; i < DIS::kCopies; ++i)
            if (!found[i] || found[i]->container(0)->iteration < best->container(0)->iteration) bad |= DIS0_BAD << i;
    }
    const uint32_t rangeBad = c->flags & DIS_RANGE_BAD_MASK;
    DIS* result = nullptr;
    if (!best) {
        c->flags &= ~(DIS0_BAD | DIS1_BAD | DIS2_BAD);
    } else {
        DIS::LogicalDiskContainer* local = best->container(0);
        best->setContainer(0, nullptr);
        uint32_t lbas[DIS::kCopies];
        std::memcpy(lbas, c->disLba, sizeof lbas);
        *c = *local;
        std::memcpy(c->disLba, lbas, sizeof lbas);
        c->slot = slot;
        delete local;
        c->flags |= rangeBad;
        if (bad || (c->flags & (DIS0_BAD | DIS1_BAD | DIS2_BAD))) {
            c->flags |= bad | DIS_NEEDS_REPAIR;
            best->flags |= DIS_NEEDS_REPAIR;
        }
        for (unsigned i = 0; i < DIS::kCopies; ++i) {
            if ((c->flags & (DIS_RANGE0_BAD << i)) && (c->flags & (DIS0_BAD << i))) {
                ESA_TRACE(discoveryTrace, "clearing DIS" << i << "_BAD because range is bad");
                c->flags &= ~(DIS0_BAD << i);
            }
        }
        if (c->ldNumber < maxLogicalDisks) best->setContainer(c->ldNumber, c);
        result = best;
    }
    for (DIS* d : found)
        if (d != result) delete d;
    return result;
}

void DiskPackManager::discoverAllDisRecords(const DiskMap& diskMap, bool ignoreExpunged) {
    mDisksFound = 0;
    for (int slot = 0; slot < DiskManager::kSlots; ++slot) {
        auto it = diskMap.find(slot);
        if (it == diskMap.end()) continue;
        ++mDisksFound;
        const std::string wwn = " WWN=>" + wwnOf(uint16_t(slot));
        DIS::LogicalDiskContainer* c = nullptr;
        DIS* d = discoverDis(uint16_t(slot), c);
        auto drop = [&] {
            if (d && d->container(c->ldNumber) == c) delete d;
            else {
                delete d;
                delete c;
            }
        };
        if (c->allRangesBad()) {
            refuse(uint16_t(slot), "DPM::discoverAllDisRecords: all DIS ranges on disk in slot " +
                                       std::to_string(slot) + " are bad, refusing!" + wwn);
            drop();
            continue;
        }
        if (!d) {
            mAvailable.append(c);
            postEvent("DPM: No DIS on disk in slot " + std::to_string(slot) + " making available for re-use" + wwn);
            continue;
        }
        if ((c->flags & DIS_EXPUNGED) && !ignoreExpunged) {
            refuse(uint16_t(slot),
                   "DPM: Refusing EXPUNGED slot " + std::to_string(slot) + " [" + c->reason() + "] " + wwn.substr(1));
            drop();
            continue;
        }
        if (c->ldNumber >= maxLogicalDisks) {
            refuse(uint16_t(slot), "DPM: Refusing disk in slot " + std::to_string(slot) + ": LD #" +
                                       std::to_string(c->ldNumber) + " out of range" + wwn);
            drop();
            continue;
        }
        DIS* match = nullptr;
        for (auto* n = mCandidates.head(); n; n = n->next)
            if (n->item->packId == d->packId && n->item->generation == d->generation) match = n->item;
        if (!match) {
            mCandidates.append(d);
            continue;
        }
        if (match->container(c->ldNumber)) {
            // Two disks that claim one LD of one pack and generation: the first keeps it.
            refuse(uint16_t(slot), "DPM: Refusing disk in slot " + std::to_string(slot) + ": LD #" +
                                       std::to_string(c->ldNumber) + " already found in slot " +
                                       std::to_string(match->container(c->ldNumber)->slot) + wwn);
            drop();
            continue;
        }
        d->setContainer(c->ldNumber, nullptr);
        match->setContainer(c->ldNumber, c);
        match->logicalDisks |= d->logicalDisks;
        match->critcalDisks |= d->critcalDisks;
        match->flags |= d->flags;
        delete d;
    }
}

// ---- the choice

void DiskPackManager::createNewDiskPack(const DiskMap& diskMap, DIS& dis) {
    uint32_t word[2] = {0, 0};
    for (int slot = 0; slot < DiskManager::kSlots; ++slot) {
        auto it = diskMap.find(slot);
        if (it == diskMap.end() || !it->second) continue;
        uint8_t serial[8] = {};
        std::string s = it->second->GetSerialNumString();
        std::memcpy(serial, s.data(), std::min<size_t>(8, s.size()));
        word[0] ^= getLE32(serial);
        word[1] ^= getLE32(serial + 4);
    }
    word[0] ^= uint32_t(getTimebase());
    word[1] ^= uint32_t(getTimebase());
    dis.packId.word[0] = word[0];
    dis.packId.word[1] = word[1];
    postEvent("DPM: created new diskpack ID = " + idText(dis.packId));
    postEvent("DPM: creating DIS version " + std::to_string(dis.version) + " global metadata version " +
              std::to_string(dis.layout) + " diskpack name: " + dis.nameString());
}

bool DiskPackManager::chooseCandidatePack(const DiskMap& diskMap, bool clearDisk) {
    bool created = false;
    if (!diskMap.empty() && (clearDisk || (mCandidates.empty() && !mAvailable.empty()))) {
        postEvent(std::string("DPM::chooseCandidatePack: CREATING A NEW DISK PACK, cleardisk is ") +
                  (clearDisk ? "true" : "false"));
        mDis.reset();
        createNewDiskPack(diskMap, mDis);
        if (!systemStagesReplaced()) SystemManager::GetInstance()->prepForPackLoad();
        unsigned next = 0;
        bool any = false;
        while (DIS* d = mCandidates.popFront()) {
            for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
                DIS::LogicalDiskContainer* c = d->container(ld);
                if (!c) continue;
                d->setContainer(ld, nullptr);
                c->flags &= DIS_RANGE_BAD_MASK;
                c->setReason(DIS::kNotExpunged);
                c->ldNumber = uint16_t(next);
                c->ldBitmap = 1u << next;
                mDis.setContainer(next, c);
                mDis.logicalDisks |= 1u << next;
                uint32_t lba0 = 0, lba1 = 0;
                bool isNew = false;
                StatusCode st = RegionManager::GetInstance()->CreateDisk(uint16_t(next), lba0, lba1, isNew);
                if (st != StatusCode::Success) {
                    refuse(c->slot, "DPM::chooseCandidatePack: RM failed to install on old disk in slot " +
                                        std::to_string(c->slot));
                    mDis.setContainer(next, nullptr);
                    mDis.logicalDisks &= ~(1u << next);
                    delete c;
                    continue;
                }
                c->rmLba[0] = lba0;
                c->rmLba[1] = lba1;
                c->regionFoundNew = isNew;
                ++next;
                any = true;
            }
            delete d;
        }
        created = any || !mAvailable.empty();
        mCandidates.clear();
        return created;
    }

    mDis.reset();
    if (DIS* head = mCandidates.popFront()) {
        mDis = *head;
        mDis.takeContainers(*head);
        delete head;
    }
    bool conflict = false;
    while (DIS* d = mCandidates.popFront()) {
        if (d->packId != mDis.packId) {
            postEvent("DPM::chooseCandidatePack: Conflicting packs prevent load " + idText(mDis.packId) + " and " +
                      idText(d->packId));
            mNotLoadedReason = kConflictingPacks;
            mDis.reset();
            delete d;
            conflict = true;
            break;
        }
        // Equal generations were merged in discovery.
        ESA_ASSERT_OP(d->generation, !=, mDis.generation);
        DIS* loser = d;
        if (d->generation > mDis.generation) {
            loser = new DIS;
            *loser = mDis;
            loser->takeContainers(mDis);
            uint32_t olderFlags = mDis.flags;
            mDis = *d;
            mDis.takeContainers(*d);
            mDis.flags |= olderFlags;
            delete d;
        } else {
            mDis.flags |= d->flags;
        }
        for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
            DIS::LogicalDiskContainer* c = loser->container(ld);
            if (!c) continue;
            postEvent("DPM::chooseCandidatePack: Marking LD #" + std::to_string(ld) + " from pack " +
                      idText(loser->packId) + " generation " + std::to_string(loser->generation) + " for re-use");
            loser->setContainer(ld, nullptr);
            mAvailable.append(c);
        }
        delete loser;
    }
    mCandidates.clear();
    if (conflict) return false;
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        DIS::LogicalDiskContainer* c = mDis.container(ld);
        if (!c) continue;
        uint32_t padding = 0;
        if (RegionManager::GetInstance()->CheckRMMetaData(uint16_t(ld), padding) != StatusCode::Success) {
            postEvent("DPM::chooseCandiatePack: RM failed metadata verification on LD #" + std::to_string(ld));
            mDis.setContainer(ld, nullptr);  // the LD stays a member: it now counts as missing
            mAvailable.append(c);
        }
    }
    return false;
}

bool DiskPackManager::understandLayout() {
    if (mDis.layout >= 6 && mDis.layout <= kCurrentLayout) return true;
    postEvent("DPM::understandLayout: disk pack metadata layout " + std::to_string(mDis.layout) +
              " is NOT UNDERSTOOD");
    mNotLoadedReason = kUnknownMetadataVersion;
    return false;
}

// ---- the load

void DiskPackManager::absorbAvailable(bool& updateNeeded) {
    while (DIS::LogicalDiskContainer* c = mAvailable.popFront()) {
        const uint16_t slot = c->slot;
        if (mDis.addLogicalDisk(c) == StatusCode::Success) {
            updateNeeded = true;
            postEvent("DPM::doColdStart: ABSORBING the disk in slot " + std::to_string(slot) + " LD #" +
                      std::to_string(c->ldNumber));
        } else {
            SystemPolicy::GetInstance()->DiskFail(slot);
            postEvent("DPM::doColdStart: ABSORBTION OF DISK IN SLOT " + std::to_string(slot) + " FAILED");
            delete c;
        }
    }
}

StatusCode DiskPackManager::doColdStart(bool clearDisk) {
    if (mLoadLockedOut) {
        ESA_CONSOLE("****************************************************\n"
                    << " DISK PACK LOADING HAS BEEN LOCKED OUT DUE " << "TO EARLIER FAILURE\n"
                    << "                 REBOOT TO CLEAR " << "THIS CONDITION\n"
                    << "****************************************************");
        return StatusCode::DiskPackNotLoaded;
    }
    bool created = false, updateNeeded = false;
    mHotPlugLock.LockExclusive();
    if (mDiskPackLoaded || mDiskPackLoading) {
        postEvent("DPM::doColdStart: CALLED ON LOADED, OR LOADING, PACK!");
        mHotPlugLock.LockRelease();
        return StatusCode::InternalError;
    }
    mDiskPackLoading = true;
    mNotLoadedReason = kNoSpecificError;
    DiskMap diskMap = readyDisks();
    for (auto& [slot, id] : diskMap) DiskLBAMetaDataTracker::GetInstance()->ClearSet(uint32_t(slot));
    bootCheckpoint("DLBAT flushed");
    mCandidates.clear();
    mAvailable.clear();
    discoverAllDisRecords(diskMap, clearDisk);
    bootCheckpoint("DIS discovery complete");
    if (mCandidates.empty() && mAvailable.empty()) {
        postEvent("DPM::doColdStart: NO DISKS FOUND DURING PACK DISCOVERY");
        mDiskPackLoading = false;
        mNotLoadedReason = kNoSpecificError;
        mHotPlugLock.LockRelease();
        return StatusCode::DiskPackNotLoaded;
    }
    created = chooseCandidatePack(diskMap, clearDisk);
    bootCheckpoint("Candidate pack chosen for load");
    if (!created && (!understandLayout() || !mDis.packViable(updateNeeded))) {
        postEvent("DPM::doColdStart: NO LOADABLE DISK PACK FOUND");
        mAvailable.clear();
        mDis.reset();
        SystemPolicy::GetInstance()->help();
        mDiskPackLoading = false;
        mHotPlugLock.LockRelease();
        return StatusCode::DiskPackNotLoaded;
    }
    postEvent("DPM::doColdStart: COMMITTING TO LOAD disk pack " + idText(mDis.packId) + " generation " +
              std::to_string(mDis.generation));
    // A new pack is marked for the layers above (they lay out their records
    // afresh); an existing one is prepared for its load.
    if (created) SystemManager::GetInstance()->setClearDiskRequested(true);
    else if (!systemStagesReplaced()) SystemManager::GetInstance()->prepForPackLoad();
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld)
        if (DIS::LogicalDiskContainer* c = mDis.container(ld))
            postEvent("DPM: slot " + std::to_string(c->slot) + " contains LD #" + std::to_string(ld) + " (" +
                      sizeText(DiskManager::GetInstance()->GetDriveCapacity(c->slot)) + ")" + " WWN=>" +
                      wwnOf(c->slot));
    // The commit point: from here on the pack is ours, and a failure is a failed load.
    CrashPoint("dpm.commitPoint");
    mLoadPastCommitPoint = true;
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        absorbAvailable(updateNeeded);
        if (updateNeeded || created) mDis.flags |= DIS_UPDATE_GLOBAL;
    }
    if (updateNeeded || created) mDis.updateDis(nullptr, true);
    mHotPlugLock.LockRelease();
    checkDisRepair();
    bool loaded = mSecondStage ? mSecondStage() : SystemManager::GetInstance()->LoadDiskPack2();
    (void)loaded;
    return loadStatus();
}

void DiskPackManager::diskPackLoadStatus(StatusCode status) {
    ESA_ASSERT_OP(mDiskPackLoaded, ==, false);
    ESA_ASSERT_OP(mDiskPackLoading, ==, true);
    ESA_ASSERT_OP(mLoadPastCommitPoint, ==, true);
    if (status != StatusCode::Success) {
        postEvent("DiskPackManager::diskPackLoadStatus: load failed, clearing down master DIS on " +
                  idText(mDis.packId));
        UnloadDiskPack();
        // Told after the unload, which leaves the plain reason behind.
        mNotLoadedReason = kMetadataBad;
        mLoadLockedOut = true;
        return;
    }
    mNotLoadedReason = kPackLoaded;
    if (mDis.layout < kCurrentLayout) {
        {
            ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
            mDis.flags |= DIS_UPDATE_GLOBAL;
            postEvent("DiskPackManager::diskPackLoadStatus: updating pack layout from " +
                      std::to_string(mDis.layout) + " to " + std::to_string(kCurrentLayout));
            mDis.layout = kCurrentLayout;
        }
        mDis.updateDis(nullptr, true);
    }
    mDiskPackLoaded = true;
    mDiskPackLoading = false;
    checkDisRepair();
    IOTracker tracker(READ_ONLY);
    updateCriticalDiskMap(tracker);
    tracker.commitIfDirty();
}

StatusCode DiskPackManager::UnloadDiskPack() {
    mDiskPackLoading = false;
    mLoadPastCommitPoint = false;
    mAvailable.clear();
    {
        ExtendingLockObject::ExclusiveLockInstance g(&mDis.globalDISLock);
        mDis.reset();
    }
    mNotLoadedReason = kNoSpecificError;
    mDiskPackLoaded = false;
    return StatusCode::Success;
}

// ---- disks that come later

bool DiskPackManager::isDiskUsable(uint16_t slot) {
    LockObject::ExclusiveLockInstance h(&mHotPlugLock);
    DIS::LogicalDiskContainer* c = nullptr;
    {
        ExtendingLockObject::SharedLockInstance g(&mDis.globalDISLock);
        if (mDiskPackLoaded || mDiskPackLoading) {
            if (DIS::LogicalDiskContainer* in = mDis.containerInSlot(slot)) {
                postEvent("DPM::isDiskUsable: physical disk #" + std::to_string(slot) +
                          " is already in the disk pack with ld #" + std::to_string(in->ldNumber));
                return false;
            }
        }
    }
    DiskLBAMetaDataTracker::GetInstance()->ClearSet(slot);
    DIS* d = discoverDis(slot, c);
    bool allBad = c->allRangesBad();
    uint32_t end0 = c->rangeEnd[0], end1 = c->rangeEnd[1];
    if (d && d->container(c->ldNumber) == c) delete d;
    else {
        delete d;
        delete c;
    }
    if (allBad) {
        refuse(slot, "DPM::isDiskUsable: all DIS ranges on disk in slot " + std::to_string(slot) +
                         " are bad, refusing!");
        return false;
    }
    if (qualifyDisk(slot, end0 + 1) != StatusCode::Success || qualifyDisk(slot, end1 + 1) != StatusCode::Success) {
        refuse(slot, "DPM::isDiskUsable: disk in slot #" + std::to_string(slot) + " fails qualification, refusing");
        return false;
    }
    return true;
}

StatusCode DiskPackManager::qualifyDisk(uint16_t slot, uint32_t lba) {
    constexpr uint32_t kBytes = 0x10000, kSectors = kBytes / DisLayout::kSectorSize;
    auto* buffer = static_cast<uint32_t*>(std::aligned_alloc(32, kBytes));
    if (!buffer) {
        postEvent("DPM::isDiskUsable: can't allocate memory to qualify slot #" + std::to_string(slot));
        return StatusCode::InternalError;
    }
    DiskManager* dm = DiskManager::GetInstance();
    auto fail = [&](const char* what, StatusCode st, StatusCode result) {
        postEvent(std::string("DPM::qualifyDisk: ") + what + st.Dump());
        std::free(buffer);
        return st == StatusCode::DiskNotPresent ? st : result;
    };
    StatusCode st = dm->ReadData(slot, buffer, lba, kSectors);
    if (st != StatusCode::Success) return fail("first read failed, ", st, StatusCode::ReadError);
    for (uint32_t i = 0; i < kBytes / 4; ++i) putLE32(reinterpret_cast<uint8_t*>(buffer + i), i);
    st = dm->WriteData(slot, buffer, lba, kSectors);
    if (st != StatusCode::Success) return fail("write failed, ", st, StatusCode::WriteError);
    st = dm->Flush(slot);
    if (st != StatusCode::Success) return fail("flush failed, ", st, StatusCode::WriteError);
    std::memset(buffer, 0, kBytes);
    st = dm->ReadData(slot, buffer, lba, kSectors);
    if (st != StatusCode::Success) return fail("second read failed, ", st, StatusCode::ReadError);
    for (uint32_t i = 0; i < kBytes / 4; ++i)
        if (getLE32(reinterpret_cast<uint8_t*>(buffer + i)) != i)
            return fail("verify failed, ", StatusCode::MediaError, StatusCode::MediaError);
    std::free(buffer);
    return StatusCode::Success;
}
