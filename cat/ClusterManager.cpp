#include "cat/ClusterManager.h"

// First cut: the interface only; no Zone is owned and nothing is allocated.

ClusterManager* ClusterManager::GetInstance() {
    static ClusterManager instance;
    return &instance;
}

StatusCode ClusterManager::Initialize() { return StatusCode::Success; }
StatusCode ClusterManager::LoadDiskPack() { return StatusCode::Success; }
StatusCode ClusterManager::UnloadDiskPack() { return StatusCode::Success; }
StatusCode ClusterManager::internalConsistencyCheck(std::ostream& out) {
    out << "All checks passed OK.\n";
    return StatusCode::Success;
}
StatusCode ClusterManager::externalConsistencyCheck(std::ostream& out) {
    out << "All checks passed OK.\n";
    return StatusCode::Success;
}
void ClusterManager::Dump(std::ostream&, bool) {}
void ClusterManager::PerfInfo(std::ostream&) {}
bool ClusterManager::loaded() const { return false; }
StatusCode ClusterManager::AllocateClusters(uint32_t, uint32_t, uint32_t, uint32_t& runCount, ClusterRun*,
                                            IOTracker&) {
    runCount = 0;
    return StatusCode::CM_ZeroClusters;
}
StatusCode ClusterManager::DeallocateClusters(const ClusterRun&, IOTracker&) {
    return StatusCode::CM_InvalidZoneNumber;
}
StatusCode ClusterManager::GetClusterState(uint32_t, uint32_t, bool& allocated, IOTracker&) {
    allocated = false;
    return StatusCode::CM_InvalidZoneNumber;
}
StatusCode ClusterManager::SetClusterState(const ClusterRun&, bool, IOTracker&) {
    return StatusCode::CM_InvalidZoneNumber;
}
StatusCode ClusterManager::CountUnallocatedClustersInZone(uint32_t, uint32_t& count, IOTracker&) {
    count = 0;
    return StatusCode::CM_InvalidZoneNumber;
}
uint64_t ClusterManager::LocateCluster(uint32_t cluster) const { return uint64_t(cluster) << kClusterSizeBits; }
StatusCode ClusterManager::GetBitmapLocation(uint32_t, uint32_t&, uint64_t&) { return StatusCode::CM_InvalidZoneNumber; }
uint32_t ClusterManager::GetZonesInUse() const { return 0; }
uint32_t ClusterManager::GetNthZoneInUse(uint32_t) { return kNoZone; }
bool ClusterManager::IsZoneOwned(uint32_t) { return false; }
bool ClusterManager::CanZonesBeReclaimed(uint32_t& minZones) {
    minZones = 0;
    return false;
}
StatusCode ClusterManager::AddNewZone(IOTracker&) { return StatusCode::CM_ZeroClusters; }
void ClusterManager::InitiateBackgroundScan(bool, bool) {}
StatusCode ClusterManager::ScanAllClusterBitmaps(bool, bool, IOTracker&) { return StatusCode::Success; }
StatusCode ClusterManager::AddFreeRun(uint32_t, uint32_t, uint32_t, bool, int) {
    return StatusCode::CM_InvalidZoneNumber;
}
void ClusterManager::SetMaxRunLength(uint32_t) {}
StatusCode ClusterManager::CheckClusterBitmap(std::ostream&) { return StatusCode::Success; }
uint64_t ClusterManager::GetAllocatedClusters() const { return 0; }
uint64_t ClusterManager::GetUnallocatedClusters() const { return 0; }
uint32_t ClusterManager::GetClustersPerZone() const { return 0; }
uint32_t ClusterManager::GetPoolRuns() const { return 0; }
uint64_t ClusterManager::GetPoolClusters() const { return 0; }
bool ClusterManager::InitialScanDone() const { return false; }
uint32_t ClusterManager::GetClusterLowThreshold() const { return 0; }
