// Installing Region metadata on a disk, and the derived values of a disk's map.
#include <random>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/PerfAccumulator.h"

using namespace region_internal;

StatusCode RegionManager::CreateDisk(uint16_t ld, uint32_t& lba0, uint32_t& lba1, bool& keepPadding) {
    if (SystemManager::GetInstance()->readOnly()) {
        ESA_CONSOLE("<<<< RM::CreateDisk: J2 Not Writable!");
        return StatusCode::RM_J2NOtWritable;
    }
    {
        ExtendingLockObject::SharedLockInstance g(&mMapLock);
        if (mDiskCount >= kMaxLogicalDisks || ld >= kMaxLogicalDisks) {
            ESA_CONSOLE("<<<< RM::CreateDisk: Too many logical disks");
            return StatusCode::RM_DiskExists;
        }
        if (map(ld)) {
            ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " already exists!");
            return StatusCode::RM_DiskExists;
        }
    }
    uint32_t capacity = 0;
    StatusCode st = DiskPackManager::GetInstance()->getCapacity(ld, capacity);
    if (st != StatusCode::Success) return st;

    // A new disk keeps the padding of the pack; a former member keeps its own.
    uint32_t padding = mPadding;
    if (LogicalDiskMap* first = firstLoaded()) padding = first->header.padding;
    // keepPadding comes in as "the disk was already a pack member" and goes
    // back as "the disk was new to the Region layer" (it carried no readable
    // Region metadata), which the pack layer records for the disk.
    uint32_t present = 0;
    bool hadMetadata = CheckRMMetaData(ld, present) == StatusCode::Success;
    if (keepPadding && hadMetadata) {
        padding = present;
        ESA_CONSOLE("RM::CreateDisk: Preserving padding of " << padding << " on LD #" << ld);
    }
    if (mRegionSectors == 0) setPackRegionSize(mNewPackRegionBytes / 512);
    uint32_t rlba = mRegionSectors;

    std::array<RegionLayout::Range, 3> ranges;
    st = disRanges(ld, ranges);
    if (st != StatusCode::Success) return st;
    RegionLayout layout = RegionLayout::forCapacity(capacity, rlba, padding, ranges);
    // The copies must lie in different Regions, so that neither's spare
    // places can ever reach the other (only disks of a few Regions fail this).
    if (layout.regions < 2 || !layout.initialCopyLba(0, lba0) || !layout.initialCopyLba(1, lba1) ||
        layout.regionOf(lba1) == layout.regionOf(lba0)) {
        ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " of " << capacity
                                                << " sectors cannot hold its Region metadata beside the DIS ranges");
        return StatusCode::RM_MetaDataBad;
    }

    auto m = std::make_unique<LogicalDiskMap>(ld);
    m->capacity = capacity;
    m->bitmap = RMBitmap(layout.regions);
    m->rmLba[0] = lba0;
    m->rmLba[1] = lba1;
    RMMetadataHeader& h = m->header;
    h = RMMetadataHeader{};
    h.regionSize = rlba;
    h.padding = padding;
    h.generation = 0;
    h.copyNumber = 0;
    h.metadataLba = lba0;
    h.bitmapBytes = m->bitmap.sizeBytes();
    h.recoveryGeneration = mRecoveryGeneration;
    uint32_t reserved = MarkReservedRegions(*m, true);
    h.unavailableRegions = reserved;
    m->freeRegions = layout.regions - reserved;
    ESA_TRACE(tRM, "RM::CreateDisk: RM Metadata locations: RN:Off = "
                       << lba0 / layout.stride() << ":" << lba0 % layout.stride() << ", " << lba1 / layout.stride()
                       << ":" << lba1 % layout.stride());
    ESA_TRACE(tRM, "RM::CreateDisk: DPM Metadata locations: RN:Off = "
                       << ranges[0].first / layout.stride() << ":" << ranges[0].first % layout.stride() << ", "
                       << ranges[1].first / layout.stride() << ":" << ranges[1].first % layout.stride() << ", "
                       << ranges[2].first / layout.stride() << ":" << ranges[2].first % layout.stride());

    // Metadata Regions are sought from between a third and two thirds of the disk.
    std::minstd_rand random(uint32_t(getTimebase()) | 1);
    uint32_t third = m->freeRegions / 3;
    h.metadataAllocBase = third + (third ? uint32_t(random() % third) : 0);
    ESA_TRACE(tRM, "RM::CreateDisk: Metadata Region allocation base = " << h.metadataAllocBase);
    FindFirstFreeRegion(*m);

    IOTracker tracker(READ_WRITE);
    tracker.flags |= IOTracker::kMeta;
    st = WriteRMMD(*m, 0, 0xFFFF, tracker, true);
    StatusCode committed = tracker.commit();
    if (st == StatusCode::Success) st = committed;
    if (st != StatusCode::Success) {
        ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " failed to write its Region metadata: " << st);
        return st;
    }
    // The sectors after each copy's place end the search for relocated copies.
    uint8_t zero[512] = {};
    IOTracker endMarks(READ_WRITE);
    endMarks.flags |= IOTracker::kMeta;
    for (unsigned c = 0; c < 2; ++c) {
        uint32_t next = 0;
        if (layout.nextCopyLba(m->rmLba[c], next)) writeSectors(ld, zero, 1, next, endMarks);
    }
    endMarks.commit();
    keepPadding = !hadMetadata;
    return StatusCode::Success;
}

uint32_t RegionManager::MarkReservedRegions(LogicalDiskMap& m, bool trace) {
    std::array<RegionLayout::Range, 3> ranges;
    if (disRanges(m.ld, ranges) != StatusCode::Success) return 0;
    RegionLayout layout = layoutOf(m, ranges);
    uint32_t marked = 0;
    for (uint32_t r : layout.reservedRegions(m.rmLba[0], m.rmLba[1])) {
        if (m.bitmap.allocated(r)) continue;
        m.bitmap.set(r, true);
        ++marked;
        if (trace)
            ESA_TRACE(tRM, "RM::CreateDisk: LD #" << m.ld << " Marked region " << r << " as allocated.");
        else
            ESA_CONSOLE("RM::FindFirstFreeRegion: LD #" << m.ld << " DPM Metadata location " << r
                                                        << " not marked allocated. Fixing.");
    }
    return marked;
}

void RegionManager::FindFirstFreeRegion(LogicalDiskMap& m) {
    MarkReservedRegions(m, false);
    uint32_t used = 0;
    m.firstFree = 0;
    bool found = false;
    for (uint32_t r = 0; r < m.regions(); ++r) {
        if (m.bitmap.allocated(r))
            ++used;
        else if (!found) {
            m.firstFree = r;
            found = true;
        }
    }
    m.freeRegions = m.regions() - used;
    m.firstFreeMD = m.header.metadataAllocBase < m.regions() ? m.header.metadataAllocBase : 0;
}
