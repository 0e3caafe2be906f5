#include "disk/DiskPackManager.h"

#include "disk/DiskManager.h"
#include "disk/DisSector.h"

// Until discovery exists no pack is chosen: the load stops here.
StatusCode DiskPackManager::doColdStart(bool) {
    diskPackLoadStatus(StatusCode::DiskPackNotLoaded);
    return StatusCode::DiskPackNotLoaded;
}

DiskPackManager* DiskPackManager::GetInstance() {
    static DiskPackManager instance;
    return &instance;
}

// Stand-in mapping: LD n is the disk ready in slot n.
StatusCode DiskPackManager::getSlotNum(uint16_t ld, uint16_t& slot) {
    if (!isPresent(ld)) return StatusCode::DiskNotPresent;
    slot = ld;
    return StatusCode::Success;
}

StatusCode DiskPackManager::getLdNum(uint16_t slot, uint16_t& ld) {
    if (!isPresent(slot)) return StatusCode::DiskNotPresent;
    ld = slot;
    return StatusCode::Success;
}

uint32_t DiskPackManager::presentLogicalDisks() { return DiskManager::GetInstance()->readyBitmap(); }

bool DiskPackManager::isPresent(uint16_t ld) { return ld < DiskManager::kSlots && (presentLogicalDisks() >> ld & 1); }

StatusCode DiskPackManager::getCapacity(uint16_t ld, uint32_t& sectors) {
    if (!isPresent(ld)) return StatusCode::DiskNotPresent;
    sectors = static_cast<uint32_t>(DiskManager::GetInstance()->GetDriveCapacity(ld));
    return StatusCode::Success;
}

StatusCode DiskPackManager::getDPMMetaDataLBA(uint16_t ld, unsigned copy, uint32_t& sectors, uint32_t& lba) {
    uint32_t capacity = 0;
    StatusCode st = getCapacity(ld, capacity);
    if (st != StatusCode::Success) return st;
    if (copy >= getDPMMetaDataCount()) return StatusCode::InternalError;
    sectors = 0x80;
    lba = disRangesFor(capacity)[copy].first;
    return StatusCode::Success;
}

StatusCode DiskPackManager::updateRMLBA(IOTracker&, uint16_t ld, uint32_t, uint32_t) {
    return isPresent(ld) ? StatusCode::Success : StatusCode::DiskNotPresent;
}

StatusCode DiskPackManager::expungeLogicalDisk(uint16_t, const char*) { return StatusCode::FunctionNotImplemented; }

StatusCode DiskPackManager::readData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker) {
    uint16_t slot = 0;
    StatusCode st = getSlotNum(ld, slot);
    if (st != StatusCode::Success) return st;
    return DiskManager::GetInstance()->ReadData(slot, window, lba, tracker);
}

StatusCode DiskPackManager::writeData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker) {
    uint16_t slot = 0;
    StatusCode st = getSlotNum(ld, slot);
    if (st != StatusCode::Success) return st;
    return DiskManager::GetInstance()->WriteData(slot, window, lba, tracker, 0);
}

StatusCode DiskPackManager::parallel(bool write, _IORequest* requests, unsigned count, IOTracker& tracker) {
    StatusCode first = StatusCode::Success;
    for (unsigned i = 0; i < count; ++i) {
        _IORequest& r = requests[i];
        if (getSlotNum(r.ld, r.slot) != StatusCode::Success)
            r.status = StatusCode::DiskNotPresent;
        else
            r.status = write ? writeData(r.ld, *r.window, r.lba, tracker) : readData(r.ld, *r.window, r.lba, tracker);
        if (r.status != StatusCode::Success && first == StatusCode::Success) first = r.status;
    }
    return first;
}

StatusCode DiskPackManager::readDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallel(false, requests, count, tracker);
}

StatusCode DiskPackManager::writeDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker) {
    return parallel(true, requests, count, tracker);
}

StatusCode DiskPackManager::flush(uint16_t ld) {
    uint16_t slot = 0;
    StatusCode st = getSlotNum(ld, slot);
    if (st != StatusCode::Success) return st;
    return DiskManager::GetInstance()->Flush(slot);
}
