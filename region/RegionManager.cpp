#include "region/RegionManager.h"

#include "disk/DisSector.h"
#include "disk/DiskPackManager.h"

// Until the Region layer is built every call refuses with FunctionNotImplemented.
namespace {
constexpr StatusCode kNotYet = StatusCode::FunctionNotImplemented;
}

RegionManager* RegionManager::GetInstance() {
    static RegionManager instance;
    return &instance;
}

// The pack layer's view for now: every disk takes its metadata at the usual
// places beside DIS ranges 0 and 1, and nothing is written.
StatusCode RegionManager::LoadDisk(uint16_t) { return StatusCode::Success; }
StatusCode RegionManager::CreateDisk(uint16_t ld, uint32_t& lba0, uint32_t& lba1, bool&) {
    uint32_t capacity = 0;
    StatusCode st = DiskPackManager::GetInstance()->getCapacity(ld, capacity);
    if (st != StatusCode::Success) return st;
    lba0 = 0x480;
    lba1 = disRangesFor(capacity)[1].first + 0x80 + 0x400;
    return StatusCode::Success;
}
StatusCode RegionManager::RemoveDisk(uint16_t) { return kNotYet; }
StatusCode RegionManager::CheckRMMetaData(uint16_t, uint32_t& padding) {
    padding = 1;
    return StatusCode::Success;
}
StatusCode RegionManager::AllocateRegions(uint16_t, uint32_t, uint32_t*, bool, IOTracker&) { return kNotYet; }
StatusCode RegionManager::FreeRegions(uint16_t, uint32_t, const uint32_t*, IOTracker&) { return kNotYet; }
StatusCode RegionManager::SetAsAllocated(uint16_t, uint32_t, IOTracker&) { return kNotYet; }
StatusCode RegionManager::IsAllocated(uint16_t, uint32_t, bool&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::GetFreeRegionCount(uint16_t, uint32_t&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::GetAvailableRegionCount(uint16_t, uint32_t&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::IncrementBadRegionCount(uint16_t, IOTracker&) { return kNotYet; }
StatusCode RegionManager::SetMetaData(unsigned, uint16_t, uint32_t, IOTracker&) { return kNotYet; }
StatusCode RegionManager::GetMetaData(unsigned, uint16_t&, uint32_t&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::GetLBA(uint32_t&, uint16_t, uint32_t, uint32_t) { return kNotYet; }
StatusCode RegionManager::ReadData(uint16_t, uint32_t, uint32_t, DataWindow&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::WriteData(uint16_t, uint32_t, uint32_t, DataWindow&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::ReadDataParallel(_IORequest*, unsigned, IOTracker&) { return kNotYet; }
StatusCode RegionManager::WriteDataParallel(_IORequest*, unsigned, IOTracker&) { return kNotYet; }
StatusCode RegionManager::Flush(uint16_t, IOTracker&) { return kNotYet; }
StatusCode RegionManager::WriteRecoveryBlock(uint16_t, uint32_t, _RegionType, const _ZISRecovery*, const _RISRecovery*,
                                             IOTracker&) {
    return kNotYet;
}
StatusCode RegionManager::ReadRecoveryBlock(uint16_t, uint32_t, RecoveryBlock&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::InvalidateRecoveryBlock(uint16_t, uint32_t, IOTracker&) { return kNotYet; }
StatusCode RegionManager::SetZoneOwnership(uint16_t, uint32_t, const _ZoneOwnership&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::GetZoneOwnership(uint16_t, uint32_t, _ZoneOwnership&, IOTracker&) { return kNotYet; }
StatusCode RegionManager::IncrementRecoveryGeneration(IOTracker&) { return kNotYet; }
void RegionManager::Dump(std::ostream& out) { out << "RegionManager: the Region layer is not built yet\n"; }
