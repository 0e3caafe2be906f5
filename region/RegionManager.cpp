#include "region/RegionManager.h"

#include "cache/DiskLBAMetaDataTracker.h"
#include "disk/DiskPackManager.h"
#include "include/DrivePackInfo.h"
#include "region/RegionInternal.h"
#include "system/FlashConfigData.h"
#include "zone/RedundancyGeometry.h"

Trace tRM("RM", "RegionManager", "Info", false);

namespace region_internal {
StatusCode disRanges(uint16_t ld, std::array<RegionLayout::Range, 3>& ranges) {
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    for (unsigned c = 0; c < 3; ++c) {
        uint32_t sectors = 0, lba = 0;
        StatusCode st = dpm->getDPMMetaDataLBA(ld, c, sectors, lba);
        if (st != StatusCode::Success) return st;
        ranges[c] = {lba, lba + sectors};
    }
    return StatusCode::Success;
}

RegionLayout layoutOf(const LogicalDiskMap& m, const std::array<RegionLayout::Range, 3>& ranges) {
    return RegionLayout(m.capacity, m.regionSectors(), m.header.padding, ranges, m.bitmapSectors());
}
}  // namespace region_internal

RegionManager* RegionManager::GetInstance() {
    static RegionManager instance;
    return &instance;
}

RegionManager::RegionManager() : mNewPackRegionBytes(RMLayout::kDefaultRegionBytes) {
    mMetaReadPoint = mInjection.addIoPoint("rmMetaRead", "fail the next Region read of a metadata transaction");
    mMetaWritePoint = mInjection.addIoPoint("rmMetaWrite", "fail the next Region write of a metadata transaction");
    mUserReadPoint = mInjection.addIoPoint("rmUserRead", "fail the next Region read of user data");
    mUserWritePoint = mInjection.addIoPoint("rmUserWrite", "fail the next Region write of user data");
}

// A scale factor must leave a Region that every Zone geometry divides evenly
// (whole stripe blocks, whole superstripe rows) and that still holds, in
// Region 0 beside DIS range 0, a metadata copy for the largest disk this
// board takes (2^32 sectors) with room for one relocation step.
bool RegionManager::ScaleFactorUsable(unsigned long factor, std::string& why) {
    if (factor == 0) return true;
    if (factor % 2 != 0) {
        why = "an odd value is not allowed";
        return false;
    }
    if (RMLayout::kDefaultRegionBytes % factor != 0) {
        why = "it does not divide the default Region size of 0x2AA8000 bytes";
        return false;
    }
    uint32_t bytes = uint32_t(RMLayout::kDefaultRegionBytes / factor);
    for (RedundancyType type : kRedundancyTypes)
        if (!RedundancyGeometry(type, 1, bytes).valid()) {
            why = "a Region of " + std::to_string(bytes) + " bytes does not hold whole stripe lines of " +
                  RedundancyGeometry::DecodeRedundancyType(uint32_t(type));
            return false;
        }
    uint32_t sectors = bytes / 512;
    uint32_t copy = 1 + bitmapBytesFor(regionCountFor(uint64_t(1) << 32, sectors, 1)) / 512;
    if (RegionLayout::kFirstCopyLba + RMLayout::kMetadataGap + copy > sectors) {
        why = "a Region of " + std::to_string(bytes) + " bytes cannot hold the Region metadata of a 2 TiB disk";
        return false;
    }
    return true;
}

StatusCode RegionManager::Initialize() {
    mPadding = 1;
    mRecoverySpace = true;
    mNewPackRegionBytes = RMLayout::kDefaultRegionBytes;
    unsigned long factor = 0;
    if (FlashConfigData::GetInstance()->GetValueUint32(FlashConfigData::RegionScaleFactor, factor) ==
            StatusCode::Success &&
        factor != 0) {
        std::string why;
        if (factor % 2 != 0) {
            ESA_CONSOLE(">>>> RM::Initialize: Invalid regionScaleFactor: " << factor);
        } else if (!ScaleFactorUsable(factor, why)) {
            ESA_CONSOLE(">>>> RM::Initialize: Invalid regionScaleFactor: " << factor << " (" << why
                                                                           << "); the default Region size stands");
        } else {
            mNewPackRegionBytes = uint32_t(RMLayout::kDefaultRegionBytes / factor);
            ESA_CONSOLE("RM::Initialize: regionScaleFactor " << factor << " gives new packs Regions of "
                                                             << mNewPackRegionBytes << " bytes");
        }
    }
    return StatusCode::Success;
}

void RegionManager::setPackRegionSize(uint32_t regionSectors) {
    mRegionSectors = regionSectors;
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    if (!info->isSet(SystemDrivePackInfo::RegionSize) ||
        info->get(SystemDrivePackInfo::RegionSize) != uint64_t(regionSectors) * 512)
        info->set(SystemDrivePackInfo::RegionSize, uint64_t(regionSectors) * 512);
}

LogicalDiskMap* RegionManager::firstLoaded() const {
    for (const auto& m : mMaps)
        if (m) return m.get();
    return nullptr;
}

bool RegionManager::IsPresent(uint16_t ld) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    return map(ld) != nullptr;
}

uint32_t RegionManager::PhysicalRegions(uint16_t ld) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    return m ? m->regions() : 0;
}

// Metadata sectors go through the pack's sector cache ("dlbat"): within a
// transaction a write joins its journal set. The pack layer offers sector I/O
// by LD, which works before its commit point too (a disk is created and
// checked while the pack is being chosen); where it does not offer it yet,
// the LD's slot is asked for and the cache is used directly.
namespace {
template <class Pack>
StatusCode metadataIO(Pack* dpm, bool write, uint16_t ld, uint8_t* buffer, uint32_t sectors, uint32_t lba,
                      IOTracker& tracker) {
    if constexpr (requires(Pack * p) { p->writeThroughCache(buffer, sectors, ld, lba, tracker); }) {
        return write ? dpm->writeThroughCache(buffer, sectors, ld, lba, tracker)
                     : dpm->readThroughCache(buffer, sectors, ld, lba, tracker);
    } else {
        uint16_t slot = 0;
        StatusCode st = dpm->getSlotNum(ld, slot);
        if (st != StatusCode::Success) return st;
        DiskLBAMetaDataTracker* cache = DiskLBAMetaDataTracker::GetInstance();
        return write ? cache->WriteThroughCache(buffer, sectors, slot, lba, true, tracker)
                     : cache->ReadThroughCache(buffer, sectors, slot, lba, tracker);
    }
}
}  // namespace

StatusCode RegionManager::readSectors(uint16_t ld, uint8_t* buffer, uint32_t sectors, uint32_t lba,
                                      IOTracker& tracker) {
    return metadataIO(DiskPackManager::GetInstance(), false, ld, buffer, sectors, lba, tracker);
}

StatusCode RegionManager::writeSectors(uint16_t ld, uint8_t* buffer, uint32_t sectors, uint32_t lba,
                                       IOTracker& tracker) {
    return metadataIO(DiskPackManager::GetInstance(), true, ld, buffer, sectors, lba, tracker);
}

StatusCode RegionManager::GetLBA(uint32_t& lba, uint16_t ld, uint32_t offset, uint32_t region) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (offset / 512 >= m->regionSectors() || region >= m->regions()) return StatusCode::RM_BadOffset;
    lba = m->stride() * region + offset / 512;
    return StatusCode::Success;
}

StatusCode RegionManager::MapLBAToRegion(uint32_t lba, uint16_t ld, uint32_t& region, uint32_t& sectorOffset) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (m->stride() == 0 || lba >= m->capacity) return StatusCode::RM_BadOffset;
    region = lba / m->stride();
    sectorOffset = lba % m->stride();
    return StatusCode::Success;
}

StatusCode RegionManager::getRegionNumber(uint16_t ld, uint32_t lba, uint32_t& region, uint32_t& sectorOffset,
                                          IOTracker&) {
    return MapLBAToRegion(lba, ld, region, sectorOffset);
}

StatusCode RegionManager::getRegionOwner(uint16_t ld, uint32_t region, uint32_t& owner) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (region >= m->regions()) return StatusCode::RM_RegionNumberInvalid;
    owner = 0;
    for (unsigned c = 0; c < 2; ++c)
        if (region >= m->rmLba[c] / m->stride() && region <= (m->rmLba[c] + m->copySectors() - 1) / m->stride())
            owner |= kOwnerRMMetadata;
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    for (unsigned c = 0; c < dpm->getDPMMetaDataCount(); ++c) {
        uint32_t sectors = 0, lba = 0;
        if (dpm->getDPMMetaDataLBA(ld, c, sectors, lba) != StatusCode::Success || sectors == 0) continue;
        if (region >= lba / m->stride() && region <= (lba + sectors - 1) / m->stride()) owner |= kOwnerDIS;
    }
    if (owner == 0) owner = kOwnerOther;
    return StatusCode::Success;
}
