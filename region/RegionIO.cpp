// Region I/O for the Zone layer: (LD, Region, byte offset) to a disk sector.
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"

// Region data never reaches the padding sector (the RecoveryBlock): a window
// must lie wholly inside the Region's data sectors, in whole sectors.
StatusCode RegionManager::checkRegionIO(LogicalDiskMap* m, uint32_t region, uint32_t offset, uint32_t length,
                                        uint32_t& lba) {
    if (!m) return StatusCode::DiskNotPresent;
    if (region == 0 || region >= m->regions() || !m->bitmap.allocated(region)) {
        ESA_TRACE(tRM, "RM: LD #" << m->ld << " Region " << region << ". Region Number Invalid!");
        return StatusCode::RM_RegionNumberInvalid;
    }
    uint64_t end = uint64_t(offset) + length;
    if (offset % 512 != 0 || length % 512 != 0 || end > uint64_t(m->regionSectors()) * 512 ||
        (length == 0 && offset >= uint64_t(m->regionSectors()) * 512)) {
        ESA_TRACE(tRM, "RM: LD #" << m->ld << " Region " << region << " offset " << offset << " length " << length
                                  << ". Bad Offset!");
        return StatusCode::RM_BadOffset;
    }
    lba = m->stride() * region + offset / 512;
    if (uint64_t(lba) + length / 512 > m->capacity) return StatusCode::RM_BadOffset;
    return StatusCode::Success;
}

StatusCode RegionManager::regionIO(bool write, uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window,
                                   IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    int point =
        tracker.isMeta() ? (write ? mMetaWritePoint : mMetaReadPoint) : (write ? mUserWritePoint : mUserReadPoint);
    mInjection.ioErrorInject(point, tracker);
    if (write && !mReadWrite) {
        ESA_TRACE(tRM, "RM::WriteData: LD #" << ld << ". Read Only Mode!");
        return StatusCode::ReadOnlyMode;
    }
    LogicalDiskMap* m = map(ld);
    if (!m) {
        ESA_TRACE(tRM, "RM: LD #" << ld << " Disk not present!");
        return StatusCode::DiskNotPresent;
    }
    uint32_t lba = 0;
    StatusCode st = checkRegionIO(m, region, offset, window.GetLength(), lba);
    if (st != StatusCode::Success) return st;
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    return write ? dpm->writeData(ld, window, lba, tracker) : dpm->readData(ld, window, lba, tracker);
}

StatusCode RegionManager::ReadData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window,
                                   IOTracker& tracker) {
    return regionIO(false, ld, region, offset, window, tracker);
}

StatusCode RegionManager::WriteData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window,
                                    IOTracker& tracker) {
    return regionIO(true, ld, region, offset, window, tracker);
}

// Each element's status is its truth. Elements that fail here (missing disk,
// bad Region or offset) are kept out of the batch handed down.
StatusCode RegionManager::parallelIO(bool write, _IORequest* requests, unsigned count, IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    if (write && !mReadWrite) {
        for (unsigned i = 0; i < count; ++i) requests[i].status = StatusCode::ReadOnlyMode;
        return StatusCode::ReadOnlyMode;
    }
    StatusCode remembered = StatusCode::Success;
    std::vector<_IORequest> batch;
    std::vector<unsigned> index;
    batch.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
        _IORequest& r = requests[i];
        LogicalDiskMap* m = map(r.ld);
        r.status = m ? checkRegionIO(m, r.region, r.offset, r.window ? r.window->GetLength() : 0, r.lba)
                     : StatusCode::DiskNotPresent;
        if (r.window == nullptr && r.status == StatusCode::Success) r.status = StatusCode::InternalError;
        if (r.status != StatusCode::Success) {
            if (remembered == StatusCode::Success) remembered = r.status;
            continue;
        }
        batch.push_back(r);
        index.push_back(i);
    }
    if (batch.empty()) return remembered;
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    StatusCode st = write ? dpm->writeDataParallel(batch.data(), unsigned(batch.size()), tracker)
                          : dpm->readDataParallel(batch.data(), unsigned(batch.size()), tracker);
    for (size_t k = 0; k < batch.size(); ++k) {
        requests[index[k]].slot = batch[k].slot;
        requests[index[k]].status = batch[k].status;
    }
    return st == StatusCode::Success ? remembered : st;
}

StatusCode RegionManager::ReadDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallelIO(false, requests, count, tracker);
}

StatusCode RegionManager::WriteDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallelIO(true, requests, count, tracker);
}

StatusCode RegionManager::Flush(uint16_t ld, IOTracker&) {
    if (!IsPresent(ld)) return StatusCode::DiskNotPresent;
    return DiskPackManager::GetInstance()->flush(ld);
}
