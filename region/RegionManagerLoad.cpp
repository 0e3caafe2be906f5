// Loading and unloading the pack's disks, and the saved Zone table locations
// that must agree across them.
#include <algorithm>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"

using namespace region_internal;

StatusCode RegionManager::LoadDiskInternal(uint16_t ld) {
    auto m = std::make_unique<LogicalDiskMap>(ld);
    StatusCode st = ReadRMMD(ld, *m, true);
    if (st != StatusCode::Success) return st;
    LogicalDiskMap* first = firstLoaded();
    if (first && first->regionSectors() != m->regionSectors()) {
        ESA_CONSOLE("<<<< RM::LoadDiskInternal: LD #" << ld << " Incompatible region size! System Region Size: "
                                                      << first->regionSectors() << ", disk: " << m->regionSectors());
        return StatusCode::RM_IncompatibleRegionSize;
    }
    if (first && m->header.saved[0].empty() && !first->header.saved[0].empty()) {
        static const char* const kWhich[3] = {
            " setting 1st ZM metadata to logDisk: ", " setting 2nd ZM metadata to logDisk: ",
            " setting 3rd ZM metadata to logDisk: "};
        for (unsigned i = 0; i < 3; ++i) {
            m->header.saved[i] = first->header.saved[i];
            ESA_TRACE(tRM, "---- RM::LoadDiskInternal: " << kWhich[i] << m->header.saved[i].ld << " region "
                                                         << m->header.saved[i].region);
        }
        if (mReadWrite) {
            IOTracker tracker(READ_WRITE);
            tracker.flags |= IOTracker::kMeta;
            st = WriteRMMD(*m, 0, 0, tracker, false);
            StatusCode committed = tracker.commit();
            if (st != StatusCode::Success || committed != StatusCode::Success) {
                ESA_CONSOLE("<<<< RM::LoadDiskInternal: LD #" << ld << " Problem writing primary metadata after update"
                                                              << " for ZM metadata consistency. Giving up!");
                return StatusCode::RM_MetaDataBad;
            }
        }
    }
    if (!first) {
        setPackRegionSize(m->regionSectors());
        mRecoverySpace = m->header.padding != 0;
        ESA_CONSOLE("RM::LoadDiskInternal: DiskPack has inter-Region recovery space "
                    << (mRecoverySpace ? "ENABLED" : "DISABLED"));
    }
    if (m->header.recoveryGeneration > mRecoveryGeneration) mRecoveryGeneration = m->header.recoveryGeneration;
    InsertLogicalDisk(std::move(m));
    return StatusCode::Success;
}

void RegionManager::InsertLogicalDisk(std::unique_ptr<LogicalDiskMap> m) {
    m->present = true;
    uint16_t ld = m->ld;
    if (!mMaps[ld]) ++mDiskCount;
    mMaps[ld] = std::move(m);
}

StatusCode RegionManager::LoadDisk(uint16_t ld) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    if (ld >= kMaxLogicalDisks) return StatusCode::DiskNotPresent;
    if (map(ld)) {
        ESA_CONSOLE("<<<< RM::LoadDisk: LD #" << ld << " already exists!");
        return StatusCode::RM_DiskExists;
    }
    return LoadDiskInternal(ld);
}

StatusCode RegionManager::RemoveDisk(uint16_t ld) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    m->present = false;
    mMaps[ld].reset();
    --mDiskCount;
    return StatusCode::Success;
}

StatusCode RegionManager::InternalLoadDiskPack(bool readWrite) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    for (auto& m : mMaps) m.reset();
    mDiskCount = 0;
    mRecoveryGeneration = 0;
    mReadWrite = readWrite;
    uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    if (present == 0) {
        ESA_CONSOLE("<<<< RM::LoadDiskPack failed, zero disks available to load ");
        return StatusCode::RM_NoDisks;
    }
    mRegionSectors = 0;
    uint32_t smallestPadding = 1;
    for (uint16_t ld = 0; ld < kMaxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        StatusCode st = LoadDiskInternal(ld);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("<<<< RM::LoadDiskPack: LD #" << ld << " failed to load: " << st);
            for (auto& m : mMaps) m.reset();
            mDiskCount = 0;
            return st;
        }
        smallestPadding = std::min(smallestPadding, mMaps[ld]->header.padding);
    }

    // The saved Zone table locations: one set for the whole pack, an empty
    // field agreeing with anything.
    std::vector<std::pair<RMSavedMetadata, RMSavedMetadata>> sets;
    auto agree = [](const RMSavedMetadata& a, const RMSavedMetadata& b) { return a.empty() || b.empty() || a == b; };
    for (auto& m : mMaps) {
        if (!m) continue;
        const RMSavedMetadata& s0 = m->header.saved[0];
        const RMSavedMetadata& s1 = m->header.saved[1];
        bool matched = false;
        for (auto& set : sets)
            if (agree(set.first, s0) && agree(set.second, s1)) {
                if (set.first.empty()) set.first = s0;
                if (set.second.empty()) set.second = s1;
                matched = true;
            }
        if (!matched) sets.push_back({s0, s1});
    }
    if (sets.size() > 1) {
        ESA_CONSOLE("<<<< RM::LoadDiskPack too many sets of ZM metadata: " << sets.size() << ". Bailing out");
        for (auto& m : mMaps)
            if (m)
                ESA_CONSOLE("     LD #" << m->ld << ": " << m->header.saved[0].ld << ":" << m->header.saved[0].region
                                        << ", " << m->header.saved[1].ld << ":" << m->header.saved[1].region);
        for (auto& m : mMaps) m.reset();
        mDiskCount = 0;
        return StatusCode::RM_MetaDataBad;
    }
    LogicalDiskMap* first = firstLoaded();
    bool allZero = true;
    for (auto& m : mMaps)
        if (m)
            for (unsigned i = 0; i < 3; ++i) allZero = allZero && m->header.saved[i].empty();
    if (allZero) {
        ESA_TRACE(tRM, "==== RM::LoadDiskPack New disk pack found, not updating saved metadata!");
    } else {
        // The disk holding the most complete slots is the reference.
        LogicalDiskMap* ref = first;
        for (auto& m : mMaps)
            if (m && !m->header.saved[0].empty()) {
                ref = m.get();
                break;
            }
        for (auto& m : mMaps) {
            if (!m || m.get() == ref) continue;
            bool same = true;
            for (unsigned i = 0; i < 3; ++i) same = same && m->header.saved[i] == ref->header.saved[i];
            if (same) continue;
            if (!readWrite) {
                ESA_CONSOLE("<<<< RM::LoadDiskPack ZM metadata repairable, but we are in ReadOnly mode"
                            << ". Bailing out");
                break;
            }
            ESA_CONSOLE("==== RM::LoadDiskPack Updating saved ZM metadata on LogicalDisk " << m->ld);
            for (unsigned i = 0; i < 3; ++i) m->header.saved[i] = ref->header.saved[i];
            IOTracker tracker(READ_WRITE);
            tracker.flags |= IOTracker::kMeta;
            StatusCode st = WriteRMMD(*m, 0, 0, tracker, false);
            tracker.commit();
            if (st != StatusCode::Success)
                ESA_CONSOLE("==== RM::LoadDiskPack LD #" << m->ld << " saved ZM metadata update failed: " << st);
        }
    }
    if (!readWrite) mPadding = smallestPadding;
    mRecoverySpace = first->header.padding != 0;
    for (auto& m : mMaps)
        if (m)
            ESA_CONSOLE("RM::LoadDiskPack: Logical Disk: "
                        << m->ld << " Total Regions: " << m->regions() << " Free Regions: " << m->freeRegions
                        << " Saved Metadata: " << m->header.saved[0].ld << ":" << m->header.saved[0].region << " "
                        << m->header.saved[1].ld << ":" << m->header.saved[1].region << " " << m->header.saved[2].ld
                        << ":" << m->header.saved[2].region);
    return StatusCode::Success;
}

StatusCode RegionManager::UnloadDiskPack() {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    for (auto& m : mMaps) m.reset();
    mDiskCount = 0;
    mReadWrite = false;
    mRegionSectors = 0;
    mPadding = 1;
    return StatusCode::Success;
}
