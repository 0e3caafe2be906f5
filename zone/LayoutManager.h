#pragma once
// LayoutManager: re-lays Zones out when disks come, go or fill, and patches
// Regions that failed under I/O.
//
// For now it is the least the start-up sequence and the Zone I/O paths need:
// it never re-lays a Zone out. A patch request is recorded (and counted) but
// the Region is not yet marked unusable nor rebuilt; a write never overlaps a
// repair since there is none; no repair data is kept.
#include <cstdint>
#include <mutex>
#include <ostream>
#include <vector>

#include "include/ManagerStandIn.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class LayoutManager : public LifecycleStandIn {
public:
    struct PatchRequest {
        uint32_t zone;
        uint32_t offset;
        unsigned dataCopy;  // 0 data, 1 primary, 2 secondary redundancy
    };

    static LayoutManager* GetInstance();
    void InitiateBackgroundRepair() {}
    void InitiateAddDisk(unsigned short logicalDisk) { (void)logicalDisk; }
    void InitiateRemoveDisk(unsigned short logicalDisk) { (void)logicalDisk; }

    // A read or write of one copy of the Zone at offset failed on a disk that
    // is present: the Region is to be patched from the redundancy.
    void InitiateBackgroundPatch(uint32_t zone, uint32_t offset, unsigned dataCopy, IOTracker& tracker);
    // A write of [offset, offset + length) waits for a repair of the same stretch.
    void AvoidRepairOverlap(uint32_t zone, uint32_t offset, uint32_t length) {
        (void)zone, (void)offset, (void)length;
    }
    // A write landed in a Zone that a repair may be copying.
    StatusCode UpdateRepairData(uint32_t zone, uint32_t offset, DataWindow& window, IOTracker& tracker) {
        (void)zone, (void)offset, (void)window, (void)tracker;
        return StatusCode::Success;
    }

    // The patch requests so far, oldest first (at most kPatchHistory kept).
    static constexpr size_t kPatchHistory = 256;
    std::vector<PatchRequest> patchRequests();
    uint64_t patchRequestCount();
    void clearPatchRequests();
    void Dump(std::ostream& out);

private:
    LayoutManager() = default;
    std::mutex mPatchLock;
    std::vector<PatchRequest> mPatches;
    uint64_t mPatchCount = 0;
};
